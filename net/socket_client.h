#pragma once

#include <string>

#include "net/socket.h"

/// A connection that this side opens.
class SocketClient : public Socket {
 public:
  /// Connects to the first IPv4 address of `host`. Blocks for the look-up and the connection.
  /// Throws a `std::string`, the system's text of the error, when either fails or there is no such
  /// port.
  SocketClient(const std::string& host, int port);
};
