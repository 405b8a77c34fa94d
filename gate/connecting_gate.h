#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "gate/backoff.h"
#include "gate/journal.h"
#include "gate/link_end.h"
#include "gate/own_user.h"
#include "gate/tls_context.h"

namespace gate {

/// The gate beside a master: takes its connections on a loopback port, and carries each over a link
/// to the serving gate that may break and be resumed. A master whose link cannot be had is told why
/// in its own protocol, as the daemon would refuse it.
class ConnectingGate {
 public:
  struct Options {
    HostAndPort listen;  ///< a loopback address
    HostAndPort to;      ///< the serving gate
    std::string server;  ///< the name in that one's certificate; empty: the host of `to`
    TlsFiles tls;
    Time connect = std::chrono::seconds(10);  ///< for one attempt, with TLS
    std::size_t most = 100;                   ///< masters at once
    Stream::Options stream;
    Backoff::Options backoff;
    /// Says why a connection is not of this user, or nothing (own_user.h).
    std::function<std::string(const LoopbackConnection&)> why_not_own = WhyNotOwnUser;
  };

  /// Listens at once. Throws std::exception with a sentence when something cannot be had.
  ConnectingGate(boost::asio::io_context& context, Options options, Journal& journal);
  ~ConnectingGate();

  std::uint16_t port() const;

  /// Reads certificate, key, authorities and revocation lists again, for connections to come, each
  /// of which does so, too, when a file has changed. What cannot be read leaves all as it was.
  void Reload();

  /// Takes no more masters. When the last link has ended the io_context has nothing more to do.
  void ListenNoMore();

  /// Listens no more and ends all links: see ServingGate::Stop().
  void Stop();

 private:
  struct Session;
  using Sessions = std::list<std::shared_ptr<Session>>;

  void Begin(Tcp::socket master);
  std::string WhyNotTaken(const Tcp::socket& master) const;
  void Connect(const std::shared_ptr<Session>& session);
  void Shake(const std::shared_ptr<Session>& session);
  static void Abandon(Session& session);
  void Failed(const std::shared_ptr<Session>& session, const std::string& why);
  void Broken(const std::shared_ptr<Session>& session, const std::string& why);
  void Ended(const std::shared_ptr<Session>& session);
  void LookForNewFiles();
  std::vector<std::filesystem::file_time_type> TimesOfFiles() const;
  Json FieldsOf(const Session& session) const;

  boost::asio::io_context& context_;
  const Options options_;
  Journal& journal_;
  std::shared_ptr<const TlsContext> tls_;
  std::vector<std::filesystem::file_time_type> loaded_;
  Listener listener_;
  Sessions sessions_;
  FewClosings closings_{64};  // of masters that were not taken
  std::uint64_t last_number_ = 0;
  bool stopping_ = false;
};

}  // namespace gate
