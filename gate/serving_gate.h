// This folder is the door between masters and a daemon, neither of which can be changed: TLS with
// certificates at both ends, the rule which Windows user a certificate may claim, and a link
// between the two gates that may break and go on. What decides (names, claims, users, the stream
// with its reading ahead, the table of links) is given bytes and times and knows no sockets, no TLS
// and no clock, so that every cut and every order of events can be tried and fuzzed in memory.
// serving_gate and connecting_gate join it to the sockets in one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "gate/certificate_names.h"
#include "gate/journal.h"
#include "gate/link_end.h"
#include "gate/link_table.h"
#include "gate/tls_context.h"
#include "gate/user_map.h"

namespace gate {

/// The gate in front of a daemon. It lets in whoever has a certificate of its authorities, and lets
/// a master pass to the daemon when the certificate proves the Windows user that the master claims
/// to be. One thread; nothing here waits.
class ServingGate {
 public:
  struct Options {
    HostAndPort listen;
    HostAndPort daemon;
    TlsFiles tls;
    std::string users;  ///< the file of users; empty: a claim has to be a name of the certificate
    bool common_name = false;  ///< whether the common name counts as a name
    std::string status;        ///< a file that says what goes on; empty: none
    std::string version;       ///< of the program, for that file

    Time arrival = std::chrono::seconds(10);  ///< for TLS, the opening, and the daemon to answer
    Time claim = std::chrono::seconds(30);    ///< from a link's beginning to the master's request
    std::size_t claim_bytes = 65536;          ///< of the master's request
    std::size_t most_arriving = 256;          ///< connections that have not proven anything yet
    std::size_t most_arriving_of_one = 32;    ///< connections of one address among these
    LinkTable::Options table;
    Stream::Options stream;
  };

  /// Listens at once. Throws std::exception with a sentence when something cannot be had.
  ServingGate(boost::asio::io_context& context, Options options, Journal& journal);
  ~ServingGate();

  /// Where it listens: the port of `listen`, or the free one that was chosen for 0.
  std::uint16_t port() const;

  /// Reads certificate, key, authorities, revocation lists and users again. Living links go on, but
  /// those whose certificate is revoked, or does not prove their user any more: they end. What
  /// cannot be read whole leaves all as it was.
  void Reload();

  /// Listens no more and ends all links; both masters and daemons see the end of their connections.
  /// What is still to be sent leaves while the io_context runs, which then has nothing more to do.
  void Stop();

 private:
  struct Link;
  struct Arrival;
  using Arrivals = std::list<std::shared_ptr<Arrival>>;

  void Arrive(Tcp::socket socket);
  void Shake(const std::shared_ptr<Arrival>& arrival);
  void ReadOpening(const std::shared_ptr<Arrival>& arrival);
  void Decide(const std::shared_ptr<Arrival>& arrival, const Opening& opening);
  void Begin(const std::shared_ptr<Arrival>& arrival, const Opening& opening);
  void Resume(const std::shared_ptr<Arrival>& arrival, const Opening& opening);
  void Join(const std::shared_ptr<Arrival>& arrival, const Opening& opening, const LinkId& id,
            Tcp::socket daemon);
  void Refuse(const std::shared_ptr<Arrival>& arrival, Reason reason);
  void Drop(const std::shared_ptr<Arrival>& arrival, const std::string& why);
  void TellOfRefusal(const Arrival& arrival, const std::string& why);
  void Forget(const std::shared_ptr<Arrival>& arrival);
  void AwaitArrival(const std::shared_ptr<Arrival>& arrival, TlsSocket::Result wanted,
                    void (ServingGate::*next)(const std::shared_ptr<Arrival>&));

  std::string Judge(Link& link, const Claim& claim);
  void Deny(Link& link, const std::string& why);
  std::string WhyNotGood(const Link& link) const;
  bool IsGood(const Arrival& arrival) const;
  void Ended(const LinkId& id);
  void Tick();
  void LookAfterLinks(Time now);
  void WriteStatus();
  Json StatusOf(const Link& link, Time now) const;
  Json FieldsOf(const Link& link) const;
  Json FieldsOf(const Arrival& arrival) const;
  void Count(const char* what);
  void WarnOfLists() const;
  void Load();

  boost::asio::io_context& context_;
  const Options options_;
  Journal& journal_;
  std::shared_ptr<const TlsContext> tls_;
  UserMap users_;
  Listener listener_;
  Tcp::endpoint daemon_;
  boost::asio::steady_timer ticker_;
  Arrivals arrivals_;
  LinkTable table_;
  FewClosings closings_;  // of arrivals that were refused
  std::map<LinkId, std::unique_ptr<Link>> links_;
  std::map<std::string, std::uint64_t> counts_;
  std::uint64_t last_number_ = 0;
  std::map<std::string, int> refusals_;  // in this second, by certificate; "": without one
  std::uint64_t refusals_untold_ = 0;    // since the last one that was logged
  Time started_;
  Time status_written_{};
  bool stopping_ = false;
};

}  // namespace gate
