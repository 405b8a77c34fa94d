#include "log/standard_output.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "log/write.h"

namespace {

// How long a reader is waited for: a second in all, looking every so often whether there is room.
constexpr int kMostPauses = 100;
constexpr std::chrono::milliseconds kPause{10};

// Files and the null device never make a writer wait.
bool IsNeverFull(const struct stat& status) {
  return S_ISREG(status.st_mode) || (S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3));
}

// Whether standard output announces room. Terminals do so for a single byte.
bool HasRoom() {
  pollfd out{STDOUT_FILENO, POLLOUT, 0};
  return poll(&out, 1, 0) != 0;
}

}  // namespace

void StandardOutput::Inspect() {
  // If nothing can be learnt, these zeros stand for something that may be full and is no socket.
  struct stat status {};
  fstat(STDOUT_FILENO, &status);
  if (IsNeverFull(status)) {
    kind_ = Kind::kNeverFull;
  } else if (S_ISSOCK(status.st_mode)) {
    kind_ = Kind::kSocket;
  } else {
    Reopen(status);
  }
}

// Once only for each output: after the change to the account of a run it may not be permitted.
void StandardOutput::Reopen(const struct stat& status) {
  struct stat reopened {};
  fstat(reopened_.get(), &reopened);
  if (reopened.st_dev != status.st_dev || reopened.st_ino != status.st_ino) {
    reopened_ = Descriptor(open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  }
  kind_ = reopened_ ? Kind::kReopened : Kind::kShared;
}

void StandardOutput::Print(std::string_view text) {
  if (silent_) return;
  if (kind_ == Kind::kNeverFull) return WriteAll(STDOUT_FILENO, text);
  if (stuck_ && !HasRoom()) return;
  for (int pauses = 0; !text.empty();) {
    const ssize_t written = Try(text);
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
      pauses = 0;
    } else if (written < 0 && errno == EAGAIN) {
      stuck_ = stuck_ || pauses++ == kMostPauses;
      if (stuck_) return;
      std::this_thread::sleep_for(kPause);
    } else if (written == 0 || errno != EINTR) {
      return;
    }
  }
  stuck_ = false;
}

// As write(), but where write() would wait, this fails with EAGAIN.
ssize_t StandardOutput::Try(std::string_view text) const {
  if (kind_ == Kind::kReopened) return write(reopened_.get(), text.data(), text.size());
  if (kind_ == Kind::kSocket) {
    return send(STDOUT_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  if (!HasRoom()) {
    errno = EAGAIN;
    return -1;
  }
  // A pipe that announces room takes so much at once.
  return write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
}
