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
/// the io_context. Between bytes it holds no buffer.
///
/// It keeps itself while something is awaited, and ends when the link has: `ended` is called once,
/// last.
class LinkEnd : public std::enable_shared_from_this<LinkEnd> {
 public:
  struct Events {
    /// The connection to the other gate is gone, and the link goes on without it.
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

  /// Takes the connection on which the stream has just been attached: after Stream::Accept() or
  /// Stream::Connect(). The one before it is closed.
  void Take(std::unique_ptr<Wire> wire);

  /// Ends the link at once, and tells the other gate if there is a connection.
  void End(Reason reason);

  /// Refuses the master in its own protocol, in place of whatever the daemon says from now on. The
  /// daemon's connection is closed. For a claim that has not been judged yet.
  void RefuseMaster(const std::string& text);

  Stream& stream() { return *stream_; }
  const Wire* wire() const { return wire_.get(); }
  bool claim_is_open() const { return claim_.has_value(); }
  Tcp::endpoint local_endpoint() const;

 private:
  // The four movements: each goes on until there is nothing to move or no room.
  void ReadLocal();
  void WriteLocal();
  void ReadWire();
  void WriteWire();

  void Advance();
  void TakeClaim();
  void PassHeld();
  void EndLocal();
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

  std::string unsent_;          // taken out of the stream, and not yet by the connection
  std::string held_;            // of the master, for the daemon
  std::optional<Claim> claim_;  // until it is judged
  bool swallows_ = false;       // what comes from the master goes nowhere

  bool local_ends_ = false;  // it gives no more
  bool local_open_ = true;
  bool local_shut_ = false;  // it gets no more
  bool local_told_ = false;  // it has got something
  bool local_readable_ = false;
  bool local_writable_ = true;
  bool wire_readable_ = false;
  bool wire_writable_ = true;
  bool awaits_local_read_ = false;
  bool awaits_local_write_ = false;
  bool awaits_wire_read_ = false;
  bool awaits_wire_write_ = false;
  bool advancing_ = false;
  bool has_turn_ = false;  // Advance() will be called
  bool finished_ = false;
};

}  // namespace gate
