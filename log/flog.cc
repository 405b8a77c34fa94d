#include "log/flog.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <new>
#include <string_view>
#include <type_traits>

namespace {

// Owner-only until the file is complete; fchmod() then opens it to everybody.
constexpr mode_t kPrivate = 0600;
constexpr mode_t kPublic = 0666;

// What could not be written is dropped and not tried again with the next item, by this process or
// by a child that inherited the descriptor.
void Write(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// A fresh file under a name that nobody can have planted, moved over `file`: the old file, link or
// pipe of that name is replaced, never opened. -1 when the directory does not allow it.
int CreateFresh(const std::string& file) {
  // Short, whatever the length of the log's own name: names have a limit.
  std::string temporary = file.substr(0, file.rfind('/') + 1) + ".log-XXXXXX";
  const int descriptor = mkostemp(temporary.data(), O_APPEND | O_CLOEXEC);
  if (descriptor < 0) return -1;
  fchmod(descriptor, kPublic);
  // rename() refuses to replace a directory; an empty one goes the way it would with remove().
  if (rename(temporary.c_str(), file.c_str()) == 0 ||
      (errno == EISDIR && rmdir(file.c_str()) == 0 &&
       rename(temporary.c_str(), file.c_str()) == 0)) {
    return descriptor;
  }
  unlink(temporary.c_str());
  close(descriptor);
  return -1;
}

// The regular file `file`, opened to append. Non-blocking, so that a pipe in its place cannot hold
// the caller until somebody reads from it.
int OpenRegular(const std::string& file, int extraFlags) {
  const int descriptor =
      open(file.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | extraFlags,
           kPrivate);
  if (descriptor < 0) return -1;
  struct stat status {};
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1) {
    close(descriptor);
    return -1;
  }
  fchmod(descriptor, kPublic);
  return descriptor;
}

int OpenLog(const std::string& file, bool removeOld) {
  if (!removeOld) return OpenRegular(file, O_CREAT);
  const int fresh = CreateFresh(file);
  if (fresh >= 0) return fresh;
  // There may be room for one file only, the old one.
  if (unlink(file.c_str()) == 0) return OpenRegular(file, O_CREAT | O_EXCL);
  // A file may be writable in a directory that is not.
  return OpenRegular(file, 0);
}

// Values as a standard stream writes them by default, in `room` where they need any: what is
// logged may be that there is no memory left.
using Room = std::array<char, 32>;

std::string_view Text(const std::string& value, Room& /*room*/) {
  return value;
}
std::string_view Text(const char* value, Room& /*room*/) {
  return value;
}
template <class Integer>
std::string_view IntegerText(Integer value, Room& room) {
  const auto end = std::to_chars(room.data(), room.data() + room.size(), value).ptr;
  return {room.data(), static_cast<std::size_t>(end - room.data())};
}
std::string_view Text(int value, Room& room) {
  return IntegerText(value, room);
}
std::string_view Text(unsigned long value, Room& room) {  // NOLINT(google-runtime-int)
  return IntegerText(value, room);
}
std::string_view Text(double value, Room& room) {
  snprintf(room.data(), room.size(), "%g", value);
  return room.data();
}

// Standard output of all logs of this process: what it is, and whether it may still be written to.
class Output {
 public:
  // Looks at what standard output is. Nobody replaces it in a process that goes on logging.
  void Inspect() {
    struct stat status {};
    const bool known = fstat(STDOUT_FILENO, &status) == 0;
    may_hold_ = !(known && (S_ISREG(status.st_mode) || IsNull(status)));
  }

  void Silence() { silent_ = true; }

  void Print(std::string_view text) {
    if (silent_) return;
    if (!may_hold_) return Write(STDOUT_FILENO, text);
    while (!text.empty() && IsRead()) {
      Write(STDOUT_FILENO, text.substr(0, PIPE_BUF));
      text.remove_prefix(std::min<std::size_t>(text.size(), PIPE_BUF));
    }
  }

 private:
  static bool IsNull(const struct stat& status) {
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
  }

  // Whether standard output takes PIPE_BUF bytes without holding the caller. A stopped terminal or
  // a pipe that nobody empties would stop daemon and controllers for good, although everything
  // stands in the file as well. A slow reader is waited for; one that has stopped reading only
  // once, by this process or the one that it was forked from.
  bool IsRead() {
    constexpr int patience = 1000;  // milliseconds
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    int ready = 0;
    do {
      ready = poll(&out, 1, stuck_ ? 0 : patience);
    } while (ready < 0 && errno == EINTR);
    stuck_ = ready == 0;
    return !stuck_;
  }

  bool silent_ = false;
  bool may_hold_ = true;
  bool stuck_ = false;
};

Output output;

}  // namespace

flog::flog(const std::string& file, bool removeOld) {
  SetFile(file, removeOld);
}

flog::~flog() {
  Close();
}

void flog::Close() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
}

void flog::SetFile(const std::string& file, bool removeOld) {
  Close();
  silent_ = false;
  try {
    // To its first zero byte, as the system sees the name.
    if (!file.empty()) descriptor_ = OpenLog(file.c_str(), removeOld);
  } catch (const std::bad_alloc&) {
    // Disabled, as without a file.
  }
  disabled_ = descriptor_ < 0 ? 1 : 0;
  if (disabled_ == 0) output.Inspect();
}

template <class T>
flog& flog::operator<<(T value) {
  if (disabled_ > 0) return *this;
  if constexpr (std::is_pointer_v<T>) {
    if (value == nullptr) {
      silent_ = true;
      output.Silence();
      return *this;
    }
  }
  Room room;
  const std::string_view text = Text(value, room);
  if (!silent_) Write(descriptor_, text);
  output.Print(text);
  return *this;
}

template flog& flog::operator<<(std::string);
template flog& flog::operator<<(const char*);
template flog& flog::operator<<(char*);
template flog& flog::operator<<(int);
template flog& flog::operator<<(unsigned long);  // NOLINT(google-runtime-int): the request code
template flog& flog::operator<<(double);
