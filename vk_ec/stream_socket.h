#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace vk_ec {

/// One TCP stream with blocking transfers. Owns its descriptor, which is close-on-exec: a process
/// that is started later must not keep the simulator's connection open.
///
/// A failed transfer throws `boost::system::system_error`, whose text is "read" or "write", then
/// ": " and the system's description ("read: End of file"). A signal that interrupts a transfer
/// does not end it, and a peer that has gone raises no SIGPIPE.
class StreamSocket {
 public:
  using Clock = std::chrono::steady_clock;

  /// Bytes to be written. They are not owned.
  struct Piece {
    const unsigned char* bytes;
    std::size_t length;
  };

  /// Opens nothing; transfers fail until `connect_before` has succeeded.
  StreamSocket();

  /// Takes over a connected stream descriptor of any family and closes it in the end. Throws
  /// `boost::system::system_error` if it cannot; the descriptor then stays the caller's.
  explicit StreamSocket(int connected_descriptor);

  ~StreamSocket();
  StreamSocket(const StreamSocket&) = delete;
  StreamSocket& operator=(const StreamSocket&) = delete;

  /// Looks up the IPv4 endpoints of `host` for `connect_before`. Blocks as long as the system's
  /// resolver does; throws `boost::system::system_error` ("resolve: ...") if there are none.
  void resolve(const std::string& host, unsigned port);

  /// Tries the endpoints found by `resolve` in order, each on a fresh socket, until one connects.
  /// The endpoints that are left share the time up to `give_up`, so that one which never answers
  /// leaves time for the next; even when the time is over, each gets a moment. False if none
  /// connected.
  bool connect_before(Clock::time_point give_up);

  /// Lets small messages leave at once. Throws `boost::system::system_error`.
  void set_no_delay();

  /// Has the system probe a silent peer, at the system's own intervals, so that a transfer fails
  /// when the peer's machine has gone without a word. Does nothing where that is not possible.
  void set_keep_alive();

  /// Returns when all bytes of `head`, then all of `body`, are handed to the system; in one call if
  /// the system takes them all.
  void write(Piece head, Piece body = {nullptr, 0});

  /// Returns when exactly `length` bytes have arrived. Further bytes that have arrived by then may
  /// be taken from the system in the same call, and are kept for the next read.
  void read(unsigned char* bytes, std::size_t length);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vk_ec
