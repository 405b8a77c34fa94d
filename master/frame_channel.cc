#include "master/frame_channel.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "master/errors.h"

namespace master {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kLengthBytes = 4;
// Frames are read in pieces: memory grows with the bytes that have come, not with those announced.
constexpr std::size_t kPiece = 262144;
constexpr milliseconds kSendLimit{30000};

std::string ErrorText(int error) {
  std::array<char, 256> buffer{};
  return strerror_r(error, buffer.data(), buffer.size());
}

std::int32_t LengthOf(const std::string& frame) {
  std::int32_t length = 0;
  memcpy(&length, frame.data(), sizeof(length));
  return length;
}

// Milliseconds to give to poll(): rounded up, so that a wait does not end just before its deadline.
int PollTime(const Deadline& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<milliseconds>(*deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 1 << 30));
}

Deadline Sooner(const Deadline& one, const Deadline& other) {
  if (!one) return other;
  if (!other) return one;
  return std::min(*one, *other);
}

struct Readiness {
  short events = 0;  // what has happened on the descriptor
  bool woken = false;
};

// Waits until the descriptor is ready, `wake` is readable or the deadline has passed.
Readiness WaitFor(int descriptor, short events, int wake, const Deadline& deadline) {
  std::array<pollfd, 2> wait{{{descriptor, events, 0}, {wake, POLLIN, 0}}};
  while (true) {
    const int result = poll(wait.data(), wait.size(), PollTime(deadline));
    if (result > 0) return {wait[0].revents, wait[1].revents != 0};
    if (result == 0 && deadline && Clock::now() >= *deadline) return {};
    if (result < 0 && errno != EINTR) throw LinkLost("poll: " + ErrorText(errno));
  }
}

// Returns 0 or the error number of the failed attempt.
int ConnectOnce(int descriptor, const addrinfo& address, const Deadline& deadline, int wake) {
  if (connect(descriptor, address.ai_addr, address.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS && errno != EINTR) return errno;
  const Readiness now = WaitFor(descriptor, POLLOUT, wake, deadline);
  if (now.woken) throw Interrupted("Interrupted while connecting to the daemon");
  if (now.events == 0) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof(error);
  getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
  return error;
}

}  // namespace

FrameChannel::FrameChannel(Descriptor connection) : descriptor_(std::move(connection)) {
  // Every wait is in poll(), which also sees the wake-up descriptor.
  fcntl(descriptor_.get(), F_SETFL, fcntl(descriptor_.get(), F_GETFL) | O_NONBLOCK);
}

FrameChannel FrameChannel::ConnectTo(const std::string& host, int port, milliseconds limit,
                                     int wake) {
  const std::string where = host + " port " + std::to_string(port);
  if (port < 1 || port > 65535) throw ConnectError("No such port: " + std::to_string(port));
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int lookup = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (lookup != 0) {
    throw ConnectError("Unknown host '" + host + "': " + gai_strerror(lookup));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);

  const Deadline deadline = Clock::now() + limit;
  int error = 0;
  for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
    Descriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection) throw ConnectError("No socket: " + ErrorText(errno));
    error = ConnectOnce(connection.get(), *address, deadline, wake);
    if (error == 0) {
      // Requests are small and each waits for its answer.
      const int on = 1;
      setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
      // A step may take hours without a byte; probes keep the connection known to firewalls, and
      // notice a dead host.
      setsockopt(connection.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
      FrameChannel channel(std::move(connection));
      channel.WakeOn(wake);
      return channel;
    }
  }
  throw ConnectError("Cannot connect to " + where + ": " + ErrorText(error));
}

void FrameChannel::OnWait(milliseconds interval, std::function<void()> tick) {
  interval_ = interval;
  tick_ = std::move(tick);
}

void FrameChannel::Send(std::string_view body) {
  SendAhead(body);
  while (!SendSome()) {
    if (WaitFor(descriptor_.get(), POLLOUT, -1, Clock::now() + kSendLimit).events == 0) {
      throw LinkLost("The daemon takes no more data");
    }
  }
}

void FrameChannel::SendAhead(std::string_view body) {
  const auto length = static_cast<std::uint32_t>(body.size());
  unsent_.append(reinterpret_cast<const char*>(&length), sizeof(length));
  unsent_ += body;
}

std::optional<std::string> FrameChannel::Receive(const Deadline& deadline) {
  while (true) {
    if (pending_.size() >= kLengthBytes && Wanted() == 0) {
      std::string body = pending_.substr(kLengthBytes);
      pending_.clear();
      return body;
    }
    WaitReadable(deadline);
    if (!ReadSome()) {
      if (pending_.empty()) return std::nullopt;
      throw LinkLost("The daemon closed the connection in the middle of an answer");
    }
  }
}

void FrameChannel::FinishSending() {
  shutdown(descriptor_.get(), SHUT_WR);
}

// Sends what the connection takes now. True when nothing is left.
bool FrameChannel::SendSome() {
  std::size_t done = 0;
  while (done < unsent_.size()) {
    const ssize_t sent =
        send(descriptor_.get(), unsent_.data() + done, unsent_.size() - done, MSG_NOSIGNAL);
    if (sent >= 0) {
      done += static_cast<std::size_t>(sent);
    } else if (errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {
      const int error = errno;
      unsent_.clear();
      throw LinkLost("The connection to the daemon broke: " + ErrorText(error));
    }
  }
  unsent_.erase(0, done);
  return unsent_.empty();
}

// What SendAhead() has taken, as far as the connection takes it.
void FrameChannel::SendUnsent() {
  if (unsent_.empty()) return;
  try {
    if (!SendSome()) return;
  } catch (const LinkLost&) {
    // The daemon's last answers may still be here, and behind them is how the connection ended.
    return;
  }
  // The daemon's side holds a small answer back until the one before has been acknowledged (Nagle's
  // rule), and a system that expects to send soon acknowledges late: 40 ms for ten wells, whose
  // records take 0.2 ms. All requests are out, so this side has nothing to wait for.
  const int on = 1;
  setsockopt(descriptor_.get(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
}

// How many bytes the length field still lacks, or the frame once its length is known. No more are
// read, so that the next frame stays in the socket.
std::size_t FrameChannel::Wanted() const {
  if (pending_.size() < kLengthBytes) return kLengthBytes - pending_.size();
  const std::int32_t length = LengthOf(pending_);
  if (length < 0 || length > kMaxReply) {
    throw ProtocolError("The daemon announced a frame of " + std::to_string(length) + " bytes");
  }
  return kLengthBytes + static_cast<std::size_t>(length) - pending_.size();
}

// False at the end of the connection.
bool FrameChannel::ReadSome() {
  const std::size_t had = pending_.size();
  const std::size_t piece = std::min(Wanted(), kPiece);
  pending_.resize(had + piece);
  const ssize_t got = recv(descriptor_.get(), pending_.data() + had, piece, 0);
  const int error = errno;
  pending_.resize(had + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  if (got < 0 && error != EAGAIN && error != EINTR) {
    throw LinkLost("The connection to the daemon broke: " + ErrorText(error));
  }
  return got != 0;
}

void FrameChannel::WaitReadable(const Deadline& deadline) {
  while (true) {
    SendUnsent();
    const short events = unsent_.empty() ? POLLIN : POLLIN | POLLOUT;
    const Deadline tick = tick_ ? Deadline(Clock::now() + interval_) : Deadline();
    const Readiness now = WaitFor(descriptor_.get(), events, wake_, Sooner(deadline, tick));
    if (now.woken) throw Interrupted("Interrupted while waiting for the daemon");
    if ((now.events & ~POLLOUT) != 0) return;
    if (now.events != 0) continue;
    if (deadline && Clock::now() >= *deadline) throw TimedOut("The daemon did not answer in time");
    if (tick_) tick_();
  }
}

}  // namespace master
