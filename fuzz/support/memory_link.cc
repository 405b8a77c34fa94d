#include "fuzz/support/memory_link.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <algorithm>

MemoryLink memory_link;

namespace {

ssize_t Receive(void* target, std::size_t size) {
  MemoryLink& link = memory_link;
  if (link.incoming.empty() && link.error != 0) {
    errno = link.error;
    return -1;
  }
  std::size_t got = std::min(size, link.incoming.size());
  if (link.piece > 0) got = std::min(got, link.piece);
  if (got > 0) memcpy(target, link.incoming.data(), got);
  link.incoming.remove_prefix(got);
  return static_cast<ssize_t>(got);
}

ssize_t Fail(int error) {
  errno = error;
  return -1;
}

ssize_t Send(const void* bytes, std::size_t size, int flags) {
  MemoryLink& link = memory_link;
  if (link.send_error != 0) return Fail(link.send_error);
  std::size_t taken = std::min(size, link.room);
  if (taken < size) {
    const bool waits = (flags & MSG_DONTWAIT) == 0;
    if (waits) taken = MemoryLink::HoldsChildrenBack() ? size : size / 2;
    if (taken == 0) return Fail(waits ? EINTR : EAGAIN);
  }
  link.sent.append(static_cast<const char*>(bytes), taken);
  return static_cast<ssize_t>(taken);
}

}  // namespace

bool MemoryLink::HoldsChildrenBack() {
  sigset_t held;
  return pthread_sigmask(SIG_BLOCK, nullptr, &held) == 0 && sigismember(&held, SIGCHLD) == 1;
}

// The names that the linker's --wrap and a fortified C library give.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

ssize_t __wrap_recv(int /*handle*/, void* target, std::size_t size, int /*flags*/) {
  return Receive(target, size);
}

ssize_t __wrap___recv_chk(int /*handle*/, void* target, std::size_t size, std::size_t room,
                          int /*flags*/) {
  if (size > room) __builtin_trap();
  return Receive(target, size);
}

ssize_t __wrap_recvmsg(int /*handle*/, msghdr* message, int /*flags*/) {
  ssize_t all = 0;
  for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
    const iovec& part = message->msg_iov[i];
    const ssize_t got = Receive(part.iov_base, part.iov_len);
    if (got < 0) return all > 0 ? all : got;
    all += got;
    if (static_cast<std::size_t>(got) < part.iov_len) break;
  }
  return all;
}

ssize_t __wrap_send(int /*handle*/, const void* bytes, std::size_t size, int flags) {
  return Send(bytes, size, flags);
}

ssize_t __wrap_sendmsg(int /*handle*/, const msghdr* message, int flags) {
  ssize_t all = 0;
  for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
    const iovec& part = message->msg_iov[i];
    const ssize_t sent = Send(part.iov_base, part.iov_len, flags);
    if (sent < 0) return all > 0 ? all : sent;
    all += sent;
    if (static_cast<std::size_t>(sent) < part.iov_len) break;
  }
  return all;
}

// The peer has gone for good, so whoever waits for that need not.
int __wrap_poll(pollfd* waits, nfds_t count, int /*timeout*/) {
  for (nfds_t i = 0; i < count; ++i) waits[i].revents = POLLHUP;
  return static_cast<int>(count);
}

int __wrap___poll_chk(pollfd* waits, nfds_t count, int timeout, std::size_t /*room*/) {
  return __wrap_poll(waits, count, timeout);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
