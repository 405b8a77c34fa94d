#pragma once

#include <netinet/tcp.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace inspect {

struct Endpoint {
  std::string address;  ///< "192.0.2.7"; an IPv4 address also where the socket is one of IPv6
  int port = 0;

  friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

/// "192.0.2.7:5000", "[2001:db8::1]:5000".
std::string Text(const Endpoint& endpoint);

/// What the kernel knows of a TCP socket.
struct TcpSocket {
  int state = 0;  ///< TCP_ESTABLISHED, TCP_LISTEN, TCP_TIME_WAIT, ...
  Endpoint local;
  Endpoint remote;
  std::uint64_t inode = 0;  ///< 0: no process has it
  unsigned user = 0;        ///< who made it; without meaning where no process has it

  /// Bytes that were received and not read, and those that the peer has not acknowledged. Of a
  /// listening socket: connections that nobody has accepted, and how many there may be.
  unsigned receive_queue = 0;
  unsigned send_queue = 0;

  /// Of TCP_TIME_WAIT: how long it still takes. 0 for other states.
  double seconds_left = 0;

  /// Seconds since data was last sent and received. None where the kernel does not tell; a
  /// connection without data counts from its beginning.
  std::optional<double> since_sent;
  std::optional<double> since_received;
};

/// All TCP sockets of this process's network, or why they are not known.
struct TcpSockets {
  std::vector<TcpSocket> all;
  std::string error;
};

/// Asks the kernel. Everybody may know of everybody's sockets.
TcpSockets ReadSockets();

}  // namespace inspect
