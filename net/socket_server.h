#pragma once

#include "net/socket.h"

/// A listening socket on all local IPv4 addresses, without any socket option: a port in TIME_WAIT
/// counts as taken.
class SocketServer : public Socket {
 public:
  /// Listens on `port` with room for `backlog` pending connections. Throws a `char*` to a static
  /// text, valid until the next failure, when the port cannot be had. The descriptor that the base
  /// class has made stays open, unused, for the life of the process.
  SocketServer(int port, int backlog);

  /// 0 when `port` can be bound, -2 when it cannot, -1 when there is no socket to try it with.
  static int IsAvailablePort(int port);

  /// Blocks for the next connection, which is the caller's to delete. Throws the `const char*`
  /// "Invalid Socket" on failure.
  Socket* Accept();

  /// Waits at most `seconds` for a connection. `*ready` receives the result of the wait: 0 after
  /// the time has passed, negative on error; null is returned in both cases. Otherwise as
  /// Accept().
  Socket* Accept(int seconds, int* ready);
};
