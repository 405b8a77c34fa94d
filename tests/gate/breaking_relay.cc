#include "tests/gate/breaking_relay.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string_view>

#include "tests/support/bytes.h"
#include "tests/support/ports.h"

namespace {

void Reset(int descriptor) {
  const linger now{1, 0};
  setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
}

}  // namespace

BreakingRelay::BreakingRelay(int port)
    : target_(port), listener_(BindFreePort(64)), port_(PortOf(listener_.get())) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("no pipe");
  wake_read_ = Descriptor(ends[0]);
  wake_write_ = Descriptor(ends[1]);
  thread_ = std::thread([this] { Run(); });
}

BreakingRelay::~BreakingRelay() {
  stop_ = true;
  Wake();
  thread_.join();
}

void BreakingRelay::Wake() const {
  [[maybe_unused]] const ssize_t put = write(wake_write_.get(), "x", 1);
}

void BreakingRelay::Cut() {
  const std::lock_guard lock(mutex_);
  for (Pair& pair : pairs_) {
    Reset(pair.here.get());
    Reset(pair.there.get());
  }
  pairs_.clear();
  Wake();
}

void BreakingRelay::FallSilent() {
  silent_ = true;
  Wake();
}

void BreakingRelay::Recover() {
  silent_ = false;
  refuses_ = false;
  Wake();
}

void BreakingRelay::Add() {
  Descriptor here(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!here) return;
  ++count_;
  if (refuses_) return Reset(here.get());
  Descriptor there(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(target_));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(there.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    return Reset(here.get());
  }
  // A network has no rule of its own about small pieces.
  const int on = 1;
  for (const int end : {here.get(), there.get()}) {
    setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  pairs_.push_back({std::move(here), std::move(there)});
}

// False when the pair is done with.
bool BreakingRelay::Pass(const Descriptor& from, const Descriptor& to, bool& ended) {
  std::array<char, 65536> bytes{};
  const ssize_t got = recv(from.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (got < 0) return errno == EAGAIN;
  if (got == 0) {
    ended = true;
    shutdown(to.get(), SHUT_WR);
    return true;
  }
  return WriteAll(to.get(), std::string_view(bytes.data(), static_cast<std::size_t>(got)));
}

void BreakingRelay::Run() {
  while (!stop_) {
    std::vector<pollfd> waits = {{wake_read_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    {
      const std::lock_guard lock(mutex_);
      for (const Pair& pair : pairs_) {
        const bool quiet = silent_;
        waits.push_back({quiet || pair.here_ended ? -1 : pair.here.get(), POLLIN, 0});
        waits.push_back({quiet || pair.there_ended ? -1 : pair.there.get(), POLLIN, 0});
      }
    }
    poll(waits.data(), waits.size(), -1);
    std::array<char, 64> woken{};
    while (read(wake_read_.get(), woken.data(), woken.size()) > 0) {
    }
    const std::lock_guard lock(mutex_);
    std::erase_if(pairs_, [this](Pair& pair) {
      if (silent_) return false;
      const bool on = (pair.here_ended || Pass(pair.here, pair.there, pair.here_ended)) &&
                      (pair.there_ended || Pass(pair.there, pair.here, pair.there_ended));
      return !on || (pair.here_ended && pair.there_ended);
    });
    if ((waits[1].revents & POLLIN) != 0) Add();
  }
}
