#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "tests/support/ports.h"

/// A listener that has as many connections waiting as it takes: further ones stay pending.
struct FullListener {
  explicit FullListener(Descriptor listening = BindFreePort(1)) : listener(std::move(listening)) {
    // Which number the kernel takes on top of the backlog is its own affair.
    pollfd wait{};
    do {
      waiting.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      sockaddr_in address{};
      socklen_t size = sizeof(address);
      auto* raw = reinterpret_cast<sockaddr*>(&address);
      getsockname(listener.get(), raw, &size);
      if (connect(waiting.back().get(), raw, size) == 0) continue;
      wait = {waiting.back().get(), POLLOUT, 0};
    } while (poll(&wait, 1, 200) == 1 && waiting.size() < 100);
  }

  Descriptor listener;
  std::vector<Descriptor> waiting;
};
