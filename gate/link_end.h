#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/steady_timer.hpp>

#include "gate/claim.h"
#include "gate/sockets.h"
#include "gate/stream.h"

namespace gate {

/// One gate's end of one link: moves bytes between its local socket (the master's or the daemon's),
/// its stream, and the connection to the other gate, as long as there is one. All in the thread of
/// the io_context. While nothing moves it holds no buffer.
///
/// The object keeps itself alive while it awaits something. When the link has ended it calls
/// `ended`, once and after all other events.
class LinkEnd : public std::enable_shared_from_this<LinkEnd> {
 public:
  struct Events {
    /// The connection to the other gate has gone, and the link goes on without one.
    std::function<void(const std::string& why)> broken;
    /// The other gate has answered on a connection (connecting gate).
    std::function<void()> attached;
    /// The link has ended; stream().reason() says why.
    std::function<void()> ended;
    /// Serving gate: which text refuses the master that claims to be this user; empty when it may
    /// pass.
    std::function<std::string(const Claim& claim)> judge;
    /// Connecting gate: what a master is told whose link ends before it has got a byte; empty for
    /// nothing.
    std::function<std::string()> farewell;
  };

  /// `local` is connected.
  LinkEnd(Tcp::socket local, std::unique_ptr<Stream> stream, Events events);
  LinkEnd(const LinkEnd&) = delete;
  LinkEnd& operator=(const LinkEnd&) = delete;
  ~LinkEnd();

  /// From now on nothing of the master reaches the daemon until `judge` has let its claim pass.
  /// `limit`: bytes that may wait for that.
  void GuardLocal(std::size_t limit) { claim_.emplace(limit); }

  /// Begins to move bytes.
  void Start() { Advance(); }

  /// Takes the connection for which Stream::Accept() or Stream::Connect() has just been called, and
  /// closes the one before.
  void Take(std::unique_ptr<Wire> wire);

  /// Ends the link at once, and tells the other gate if there is a connection.
  void End(Reason reason);

  /// Serving gate, before anything of the master has reached the daemon: refuses the master in its
  /// own protocol, and closes the connection to the daemon.
  void RefuseMaster(const std::string& text);

  Stream& stream() { return *stream_; }
  const Wire* wire() const { return wire_.get(); }
  bool claim_is_open() const { return claim_.has_value(); }
  Tcp::endpoint local_endpoint() const;

 private:
  // The four movements: each goes on until there is nothing to move, no room, or its turn is over.
  void ReadLocal();
  void WriteLocal();
  void ReadWire();
  void WriteWire();

  void Advance();
  void TakeClaim();
  void PassHeld();
  void EndLocal();
  void LocalTakesNoMore();
  void CloseLocal();
  void AwaitHangUp();
  void LoseWire(const std::string& why);
  void Finish();
  void Await();
  void AwaitTime();
  void AwaitLocal(Tcp::socket::wait_type what, bool& awaited, bool& ready);
  void AwaitWire(Tcp::socket::wait_type what, bool& awaited);

  Tcp::socket local_;
  std::unique_ptr<Stream> stream_;
  Events events_;
  std::unique_ptr<Wire> wire_;
  std::uint64_t epoch_ = 0;  // of wire_
  boost::asio::steady_timer timer_;
  Time timer_at_ = Time::max();

  std::string unsent_;          // what the stream has given and the connection not yet taken
  std::string held_;            // what the master has sent and the daemon not yet got
  std::optional<Claim> claim_;  // until it is judged
  bool swallows_ = false;       // drops what comes from the master

  bool local_ends_ = false;  // nothing more comes from the local socket
  bool local_open_ = true;
  bool local_shut_ = false;  // nothing more goes to the local socket
  bool local_takes_ = true;  // until a write has failed
  bool local_told_ = false;  // something has gone to the local socket
  bool local_readable_ = false;
  bool local_writable_ = true;
  bool wire_readable_ = false;
  bool wire_writable_ = true;
  bool awaits_local_read_ = false;
  bool awaits_local_write_ = false;
  bool awaits_wire_read_ = false;
  bool awaits_wire_write_ = false;
  bool advancing_ = false;
  bool has_turn_ = false;  // a posted call of Advance() is on its way
  bool finished_ = false;
};

}  // namespace gate
