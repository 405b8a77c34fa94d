#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "tests/support/socket_pair.h"

/// The port that a bound IPv4 socket has.
inline int PortOf(int descriptor) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("getsockname failed");
  }
  return ntohs(address.sin_port);
}

/// A socket bound to a port of the loopback interface, 0 for any that is free; listening when
/// `backlog` is positive. Without a descriptor when the port is taken.
inline Descriptor TryToBind(int port, int backlog = 0) {
  Descriptor bound(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(bound.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      (backlog > 0 && listen(bound.get(), backlog) != 0)) {
    return {};
  }
  return bound;
}

inline Descriptor BindPort(int port, int backlog = 0) {
  Descriptor bound = TryToBind(port, backlog);
  if (!bound) throw std::runtime_error("no free port on loopback");
  return bound;
}

inline Descriptor BindFreePort(int backlog = 0) {
  return BindPort(0, backlog);
}

/// Ports in a row for the simulators of a daemon, which does not take them before its runs begin;
/// the daemon is told how many there are. No other PortBlock on this machine has them meanwhile,
/// nor has a test in Python, which takes its ports in the same way. Like those of clusters (from
/// 10000) and of Windows programs (from 30300) they are below the ports that the system gives to
/// outgoing connections, of which a test may have hundreds.
class PortBlock {
 public:
  /// `size`: how many ports at least.
  explicit PortBlock(int size = kStep) : pieces_((size + kStep - 1) / kStep) {
    constexpr int kFirst = 20000;
    constexpr int kPieces = 320;
    static int calls = 0;
    const int start = getpid() + 101 * calls++;  // tests beside this one have other process ids
    for (int i = 0; i < kPieces; ++i) {
      const int piece = (start + i) % (kPieces - pieces_ + 1);
      first_ = kFirst + kPieces + piece * kStep;
      if (Lock(kFirst + piece) && AllAreFree()) return;
    }
    throw std::runtime_error("no free ports on loopback");
  }

  int first() const { return first_; }
  int size() const { return pieces_ * kStep; }

 private:
  static constexpr int kStep = 31;

  // A port of its own stands for each piece, and is bound as long as its ports are somebody's.
  bool Lock(int port) {
    locks_.clear();
    while (static_cast<int>(locks_.size()) < pieces_) {
      locks_.push_back(TryToBind(port++));
      if (!locks_.back()) return false;
    }
    return true;
  }

  // For a minute after its last connection nobody can listen on a port.
  bool AllAreFree() const {
    for (int port = first_; port < first_ + size(); ++port) {
      if (!TryToBind(port)) return false;
    }
    return true;
  }

  int pieces_;
  int first_ = 0;
  std::vector<Descriptor> locks_;
};

/// A port that was free a moment ago. It was never connected, so it can be bound again at once.
inline int FreePort() {
  return PortOf(BindFreePort().get());
}

/// A connection to a port of this machine.
inline Descriptor ConnectToLoopback(int port) {
  Descriptor link(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(link.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error("no connection");
  }
  return link;
}
