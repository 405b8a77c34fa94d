#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <stdexcept>

#include "base/descriptor.h"

/// Two connected stream sockets without a port: `ours` for the code under test, `peer` for the
/// test.
struct SocketPair {
  SocketPair() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("socketpair failed");
    }
    ours = Descriptor(ends[0]);
    peer = Descriptor(ends[1]);
  }
  Descriptor ours;
  Descriptor peer;
};

/// The same over TCP on the loopback interface, for what differs there.
struct TcpPair {
  TcpPair() {
    const Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof(address);
    peer = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(listener.get(), raw, size) != 0 || listen(listener.get(), 1) != 0 ||
        getsockname(listener.get(), raw, &size) != 0 || connect(peer.get(), raw, size) != 0) {
      throw std::runtime_error("no TCP connection over loopback");
    }
    ours = Descriptor(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  Descriptor ours;
  Descriptor peer;
};
