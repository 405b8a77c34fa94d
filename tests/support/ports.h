#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

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

/// A port that was free a moment ago. It was never connected, so it can be bound again at once.
inline int FreePort() {
  return PortOf(BindFreePort().get());
}
