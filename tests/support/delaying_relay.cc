#include "tests/support/delaying_relay.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>

#include "tests/support/ports.h"

namespace {

using Clock = std::chrono::steady_clock;

/// The bytes of one direction that are under way.
class Way {
 public:
  Way(int from, int to, std::chrono::microseconds delay) : from_(from), to_(to), delay_(delay) {}

  bool ended() const { return ended_ && pieces_.empty(); }

  pollfd Reading() const { return {ended_ ? -1 : from_, POLLIN, 0}; }
  pollfd Writing() const { return {blocked_ ? to_ : -1, POLLOUT, 0}; }

  /// When the next bytes arrive; the end of time when none are under way, or the receiver is full.
  Clock::time_point Next() const {
    return pieces_.empty() || blocked_ ? Clock::time_point::max() : pieces_.front().due;
  }

  void Read() {
    std::array<char, 65536> bytes{};
    const ssize_t got = recv(from_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got < 0) return;
    // A relay of its own kind would acknowledge late, which a distant machine does not do for it.
    const int on = 1;
    setsockopt(from_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
    ended_ = got == 0;
    pieces_.push_back(
        {Clock::now() + delay_, std::string(bytes.data(), static_cast<std::size_t>(got))});
  }

  void Deliver() {
    blocked_ = false;
    while (!pieces_.empty() && pieces_.front().due <= Clock::now()) {
      std::string& bytes = pieces_.front().bytes;
      if (bytes.empty()) shutdown(to_, SHUT_WR);
      const ssize_t sent = send(to_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && errno == EAGAIN) {
        blocked_ = true;
        return;
      }
      // Bytes for a receiver that has gone are lost.
      bytes.erase(0, sent < 0 ? bytes.size() : static_cast<std::size_t>(sent));
      if (bytes.empty()) pieces_.pop_front();
    }
  }

 private:
  struct Piece {
    Clock::time_point due;
    std::string bytes;  // empty for the end
  };

  int from_;
  int to_;
  std::chrono::microseconds delay_;
  std::deque<Piece> pieces_;
  bool ended_ = false;
  bool blocked_ = false;
};

timespec TimeTo(Clock::time_point when) {
  const auto left = when == Clock::time_point::max()
                        ? std::chrono::nanoseconds(std::chrono::seconds(60))
                        : std::max(std::chrono::nanoseconds(0), when - Clock::now());
  return {static_cast<time_t>(left.count() / 1000000000),
          static_cast<long>(left.count() % 1000000000)};
}

}  // namespace

DelayingRelay::DelayingRelay(int port, std::chrono::microseconds one_way)
    : listener_(BindFreePort(1)),
      stop_(eventfd(0, EFD_CLOEXEC)),
      port_(PortOf(listener_.get())),
      thread_([this, port, one_way] { PassOn(port, one_way); }) {}

DelayingRelay::~DelayingRelay() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t put = write(stop_.get(), &one, sizeof(one));
  thread_.join();
}

void DelayingRelay::PassOn(int port, std::chrono::microseconds one_way) const {
  std::array<pollfd, 2> first{{{listener_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}}};
  if (poll(first.data(), first.size(), -1) < 1 || first[1].revents != 0) return;
  const Descriptor near(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  const Descriptor far(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (connect(far.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return;
  for (const int end : {near.get(), far.get()}) {
    const int on = 1;
    setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  std::array<Way, 2> ways{Way(near.get(), far.get(), one_way), Way(far.get(), near.get(), one_way)};
  while (!ways[0].ended() || !ways[1].ended()) {
    std::array<pollfd, 5> wait{ways[0].Reading(), ways[0].Writing(), ways[1].Reading(),
                               ways[1].Writing(), pollfd{stop_.get(), POLLIN, 0}};
    const timespec limit = TimeTo(std::min(ways[0].Next(), ways[1].Next()));
    if (ppoll(wait.data(), wait.size(), &limit, nullptr) < 0 || wait[4].revents != 0) return;
    for (std::size_t i = 0; i < ways.size(); ++i) {
      if (wait[2 * i].revents != 0) ways[i].Read();
      if (wait[2 * i + 1].revents != 0 || ways[i].Next() <= Clock::now()) ways[i].Deliver();
    }
  }
}
