#include "net/socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <new>

#include "net/master_link.h"

namespace {

constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kBlockBytes = 4096;

// Sends `size` bytes, blocking, and returns what send() does. A child that ends meanwhile must not
// interrupt that: send() would report the part that has left, and short sends are not retried. So
// SIGCHLD waits while this blocks. The first attempt does not block, and is all that most frames
// need; they are spared the two calls that change the signal mask.
ssize_t SendOnce(int handle, const char* bytes, std::size_t size) {
  const ssize_t taken = send(handle, bytes, size, MSG_DONTWAIT);
  if (taken == static_cast<ssize_t>(size) || (taken < 0 && errno != EAGAIN)) return taken;
  const std::size_t had = taken < 0 ? 0 : static_cast<std::size_t>(taken);
  sigset_t child;
  sigset_t before;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &child, &before);
  const ssize_t rest = send(handle, bytes + had, size - had, 0);
  const int error = errno;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return rest < 0 && had == 0 ? rest : static_cast<ssize_t>(had) + std::max<ssize_t>(rest, 0);
}

// The frame around `body`. Empty, which no frame is, with ENOMEM in errno, when there is no memory.
std::string Frame(const char* body, std::size_t size) {
  try {
    std::string frame(kLengthBytes + size, '\0');
    const auto length = static_cast<std::uint32_t>(size);
    memcpy(frame.data(), &length, kLengthBytes);
    if (size > 0) memcpy(frame.data() + kLengthBytes, body, size);
    return frame;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return {};
  }
}

// False, with ENOMEM in errno, when there is no memory for more.
bool Append(std::string& text, const char* bytes, std::size_t size) {
  try {
    text.append(bytes, size);
    return true;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
}

void SetOption(int handle, int option, int value) {
  setsockopt(handle, IPPROTO_TCP, option, &value, sizeof(value));
}

// The peer has stopped sending in the middle of a frame, and every further recv() would return 0 at
// once. This waits until the connection has ended. Keep-alive probes tell a peer that has closed
// for good, which answers them with a reset, from one that has only stopped sending.
void WaitForHangUp(int handle) {
  const int on = 1;
  setsockopt(handle, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
  SetOption(handle, TCP_KEEPIDLE, 1);
  SetOption(handle, TCP_KEEPINTVL, 1);
  SetOption(handle, TCP_KEEPCNT, 60);
  pollfd wait{handle, 0, 0};
  while (poll(&wait, 1, -1) < 0 && errno == EINTR) {
  }
}

// Receives exactly `size` bytes of a frame that has begun. False when the connection broke first.
bool ReceiveRest(int handle, char* target, std::size_t size) {
  while (size > 0) {
    const ssize_t got = recv(handle, target, size, 0);
    if (got < 0) return false;
    if (got == 0) {
      WaitForHangUp(handle);
      return false;
    }
    target += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace

std::int32_t Socket::nofSockets_ = 0;

Socket::Socket() : handle_(-1), references_(nullptr) {
  ++nofSockets_;
  auto references = std::make_unique<std::int32_t>(1);  // may throw: before the descriptor
  handle_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference): callers catch texts
  if (handle_ < 0) throw static_cast<const char*>("INVALID_SOCKET");
  references_ = references.release();
}

Socket::Socket(int handle) : handle_(handle), references_(new std::int32_t(1)) {
  ++nofSockets_;
}

Socket::Socket(const Socket& other) : handle_(other.handle_), references_(other.references_) {
  ++*references_;
  ++nofSockets_;
}

// NOLINTNEXTLINE(misc-unconventional-assign-operator): only fresh sockets are assigned to
Socket& Socket::operator=(Socket& other) {
  if (&other == this) return *this;
  ++*other.references_;
  // The counter of the former descriptor goes if no copy uses it. If copies do, it goes on counting
  // this object, so that none of them closes that descriptor.
  if (references_ != other.references_ && *references_ == 1) delete references_;
  handle_ = other.handle_;
  references_ = other.references_;
  ++nofSockets_;
  return *this;
}

Socket::~Socket() {
  if (--*references_ == 0) {
    if (handle_ >= 0) close(handle_);
    delete references_;
  }
  --nofSockets_;
}

void Socket::Start() {
  ++nofSockets_;
}

void Socket::End() {}

void Socket::Close() {
  // Another descriptor may get the number as soon as this one is closed. The destructor must not
  // close that one.
  if (handle_ >= 0) close(handle_);
  handle_ = -1;
}

int Socket::ReceiveLine(char* buffer, int capacity, int& length) {
  length = 0;
  std::array<char, kLengthBytes> field{};
  const ssize_t got = recv(handle_, field.data(), field.size(), 0);
  if (got < 0) return 1;
  memset(buffer, 0, static_cast<std::size_t>(std::max(capacity, 0)));
  if (got == 0) return -1;
  const auto had = static_cast<std::size_t>(got);
  if (!ReceiveRest(handle_, field.data() + had, field.size() - had)) return 1;

  const auto size = std::bit_cast<std::int32_t>(field);
  if (size > master_link::kMaxFrame) return 1;
  length = size;
  if (size <= 0) return -1;
  if (!ReceiveRest(handle_, buffer, static_cast<std::size_t>(size))) {
    length = 0;
    return 1;
  }
  return 0;
}

std::string Socket::ReceiveLine(int& length) {
  length = 0;
  std::string text;
  std::array<char, kLengthBytes> field{};
  for (std::size_t had = 0; had < field.size();) {
    const ssize_t got = recv(handle_, field.data() + had, field.size() - had, 0);
    if (got < 0 && errno == EAGAIN) return text;
    if (got <= 0) {
      length = 0;
      return {};
    }
    had += static_cast<std::size_t>(got);
    length = std::bit_cast<int>(field);
  }
  // A line that is too long never completes. Its bytes are dropped as they come, a block at a time,
  // so that a stranger's line costs no memory.
  const bool endless = length > master_link::kMaxLine;
  std::array<char, kBlockBytes> block{};
  auto missing = static_cast<std::size_t>(std::max(length, 0));
  while (missing > 0) {
    const ssize_t got = recv(handle_, block.data(), std::min(missing, block.size()), 0);
    if (got < 0 && errno == EAGAIN) return text;
    if (got <= 0) {
      length = 0;
      return {};
    }
    if (endless) continue;
    if (!Append(text, block.data(), static_cast<std::size_t>(got))) {
      length = 0;
      return {};
    }
    missing -= static_cast<std::size_t>(got);
  }
  return text;
}

int Socket::SendLine(const std::string& text) {
  const std::string frame = Frame(text.data(), text.size());
  if (frame.empty()) return -1;
  return static_cast<int>(SendOnce(handle_, frame.data(), frame.size()));
}

int Socket::SendLine(const char* body, unsigned size) {
  const std::string frame = Frame(body, size);
  if (frame.empty()) return 1;
  return SendBytes(frame.data(), static_cast<unsigned>(frame.size()));
}

int Socket::SendBytes(const std::string& bytes) {
  return SendBytes(bytes.data(), static_cast<unsigned>(bytes.size()));
}

int Socket::SendBytes(const char* bytes, unsigned size) {
  return SendOnce(handle_, bytes, size) == static_cast<ssize_t>(size) ? 0 : 1;
}

std::string Socket::ReceiveBytes() {
  std::string all;
  std::array<char, 1024> part{};
  while (true) {
    int waiting = 0;
    if (ioctl(handle_, FIONREAD, &waiting) < 0 || waiting == 0) return all;
    const auto wanted = std::min(part.size(), static_cast<std::size_t>(waiting));
    const ssize_t got = recv(handle_, part.data(), wanted, 0);
    if (got <= 0 || !Append(all, part.data(), static_cast<std::size_t>(got))) return all;
  }
}

int Socket::GetIPAddr(const char* host_name, char* address) {
  address[0] = '\0';
  const hostent* host = gethostbyname(host_name);
  if (host == nullptr) return 1;
  in_addr first{};
  memcpy(&first, host->h_addr_list[0], sizeof(first));
  inet_ntop(AF_INET, &first, address, INET_ADDRSTRLEN);
  return 0;
}

int Socket::GetIPAddr(char* address) {
  std::array<char, 255> name{};
  if (gethostname(name.data(), name.size()) != 0) {
    address[0] = '\0';
    return 1;
  }
  name.back() = '\0';
  return GetIPAddr(name.data(), address);
}
