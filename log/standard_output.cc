#include "log/standard_output.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>

#include "log/write.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPatience{1000};

// Files, and the device that takes everything.
bool IsNeverFull(const struct stat& status) {
  return S_ISREG(status.st_mode) || (S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3));
}

// No file has the numbers that stay when `descriptor` is none.
bool IsSame(int descriptor, const struct stat& status) {
  struct stat present {};
  fstat(descriptor, &present);
  return present.st_dev == status.st_dev && present.st_ino == status.st_ino;
}

// Waits for room to be announced, no longer than `limit`.
bool IsAnnounced(milliseconds limit) {
  pollfd out{STDOUT_FILENO, POLLOUT, 0};
  return poll(&out, 1, static_cast<int>(limit.count())) != 0;
}

// The same until `end`. `again`: what was announced last was not there, and will be announced again
// at once.
bool IsAnnounced(std::chrono::steady_clock::time_point end, bool again) {
  if (again) poll(nullptr, 0, 10);
  const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
  return left.count() > 0 && IsAnnounced(left);
}

}  // namespace

void StandardOutput::Inspect() {
  struct stat status {};
  if (fstat(STDOUT_FILENO, &status) != 0) {
    kind_ = Kind::kHolding;
  } else if (IsNeverFull(status)) {
    kind_ = Kind::kFile;
  } else if (S_ISSOCK(status.st_mode)) {
    kind_ = Kind::kSocket;
  } else {
    Reopen(status);
  }
}

// As a description of its own, unless there is one of the same already.
void StandardOutput::Reopen(const struct stat& status) {
  if (!IsSame(reopened_.get(), status)) {
    reopened_ = Descriptor(open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  }
  kind_ = reopened_ ? Kind::kReopened : Kind::kHolding;
}

void StandardOutput::Print(std::string_view text) {
  if (silent_) return;
  if (kind_ == Kind::kFile) return WriteAll(STDOUT_FILENO, text);
  if (stuck_ && !IsAnnounced(milliseconds(0))) return;
  auto end = Clock::now() + kPatience;
  for (bool again = false; !text.empty();) {
    const ssize_t written = Try(text);
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
      end = Clock::now() + kPatience;
      again = false;
    } else if (written < 0 && errno == EAGAIN) {
      stuck_ = stuck_ || !IsAnnounced(end, again);
      if (stuck_) return;
      again = true;
    } else if (written == 0 || errno != EINTR) {
      return;
    }
  }
  stuck_ = false;
}

// As write(), but EAGAIN in place of waiting.
ssize_t StandardOutput::Try(std::string_view text) const {
  if (kind_ == Kind::kReopened) return write(reopened_.get(), text.data(), text.size());
  if (kind_ == Kind::kSocket)
    return send(STDOUT_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (!IsAnnounced(milliseconds(0))) {
    errno = EAGAIN;
    return -1;
  }
  // As much as a pipe with room takes at once.
  return write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
}
