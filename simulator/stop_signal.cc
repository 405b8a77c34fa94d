#include "simulator/stop_signal.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <system_error>

namespace simulator {

StopSignal::StopSignal() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!event_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void StopSignal::raise() noexcept {
  const int saved = errno;
  raised_ = true;
  const std::uint64_t one = 1;
  // The write fails only when the counter is full, and then wait() sees it already.
  [[maybe_unused]] const ssize_t written = write(event_.get(), &one, sizeof one);
  if (const int connection = watched_; connection >= 0) shutdown(connection, SHUT_RDWR);
  errno = saved;
}

StopSignal::Wait StopSignal::wait(int descriptor, std::chrono::milliseconds limit) const {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + limit;
  for (;;) {
    std::array<pollfd, 2> watched{{{event_.get(), POLLIN, 0}, {descriptor, POLLIN, 0}}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    const auto longest = std::clamp<std::int64_t>(left, 0, 3'600'000);
    const int ready =
        poll(watched.data(), watched.size(), limit.count() < 0 ? -1 : static_cast<int>(longest));
    if (ready < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "poll");
    }
    if (ready > 0 && watched[0].revents != 0) return Wait::kStopped;
    if (ready > 0) return Wait::kReady;
    if (limit.count() >= 0 && Clock::now() >= end) return Wait::kTimeout;
  }
}

}  // namespace simulator
