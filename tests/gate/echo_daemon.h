#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/descriptor.h"
#include "tests/gate/daemon_model.h"
#include "tests/support/bytes.h"
#include "tests/support/ports.h"

/// In the place of a daemon: greets as one does, and sends back all that comes, its end included.
class EchoDaemon {
 public:
  EchoDaemon() : listener_(BindFreePort(4096)), port_(PortOf(listener_.get())) {
    thread_ = std::thread([this] { Run(); });
  }
  ~EchoDaemon() {
    stop_ = true;
    try {
      ConnectToLoopback(port_);  // wakes it
    } catch (const std::exception&) {
    }
    thread_.join();
  }
  EchoDaemon(const EchoDaemon&) = delete;
  EchoDaemon& operator=(const EchoDaemon&) = delete;

  int port() const { return port_; }

  /// How many connections are open.
  int connections() const { return connections_; }

  /// Closes all connections.
  void HangUp() {
    hang_up_ = true;
    ConnectToLoopback(port_);
  }

  /// From now on nothing is read, so that the connection fills.
  void StopReading() { reads_ = false; }
  void ReadOn() { reads_ = true; }

 private:
  void Run() {
    std::vector<Descriptor> links;
    while (true) {
      std::vector<pollfd> waits = {{listener_.get(), POLLIN, 0}};
      for (const Descriptor& link : links) waits.push_back({reads_ ? link.get() : -1, POLLIN, 0});
      poll(waits.data(), waits.size(), 200);
      if (stop_) return;
      if (hang_up_.exchange(false)) links.clear();
      std::erase_if(links, [this](const Descriptor& link) { return reads_ && !Echo(link); });
      if ((waits[0].revents & POLLIN) != 0) {
        links.emplace_back(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        WriteAll(links.back().get(), Frame("3"));
      }
      connections_ = static_cast<int>(links.size());
    }
  }

  static bool Echo(const Descriptor& link) {
    char bytes[65536];
    const ssize_t got = recv(link.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
    if (got < 0) return errno == EAGAIN;
    return got > 0 && WriteAll(link.get(), {bytes, static_cast<std::size_t>(got)});
  }

  Descriptor listener_;
  int port_;
  std::atomic<bool> stop_ = false;
  std::atomic<bool> hang_up_ = false;
  std::atomic<bool> reads_ = true;
  std::atomic<int> connections_ = 0;
  std::thread thread_;
};
