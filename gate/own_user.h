#pragma once

#include <cstdint>
#include <string>

namespace gate {

/// The two ends of an accepted loopback connection, as the accepting side sees them.
struct LoopbackConnection {
  bool v6 = false;
  std::string local_address;  ///< "127.0.0.1"
  std::uint16_t local_port = 0;
  std::string remote_address;
  std::uint16_t remote_port = 0;
};

/// Why the process at the other end of this connection is not taken for one of this process's own
/// user: it is another's, or cannot be told. Empty when it is the user's own. Asks the system's
/// table of sockets.
///
/// Loopback is everybody's on a machine that several people share.
std::string WhyNotOwnUser(const LoopbackConnection& connection);

}  // namespace gate
