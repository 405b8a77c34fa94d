#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

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

/// A socket bound to a free port of the loopback interface; listening when `backlog` is positive.
inline Descriptor BindFreePort(int backlog = 0) {
  Descriptor bound(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(bound.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      (backlog > 0 && listen(bound.get(), backlog) != 0)) {
    throw std::runtime_error("no free port on loopback");
  }
  return bound;
}

/// The same for the first of several ports that a daemon gives out later: below those that the
/// system takes for outgoing connections, of which a test may have hundreds meanwhile.
inline Descriptor BindFirstOfPorts() {
  constexpr int kFirst = 10000;
  constexpr int kBlocks = 320;
  constexpr int kBlock = 64;
  static int calls = 0;
  const int first = getpid() + 101 * calls++;  // tests beside this one have other process ids
  Descriptor bound(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int i = 0; i < kBlocks; ++i) {
    const int block = (first + i) % kBlocks;
    address.sin_port = htons(static_cast<std::uint16_t>(kFirst + block * kBlock));
    if (bind(bound.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
      return bound;
  }
  throw std::runtime_error("no free port on loopback");
}

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
