#include "log/flog.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <new>
#include <string_view>
#include <type_traits>

#include "log/standard_output.h"
#include "log/write.h"

namespace {

// Owner-only until the file is complete; fchmod() then opens it to everybody.
constexpr mode_t kPrivate = 0600;
constexpr mode_t kPublic = 0666;

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
// the caller until somebody reads from it. A file with another name besides may be one that is none
// of the log's business, linked here by whoever guessed the name.
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

StandardOutput output;

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
    // As the system sees the name.
    const std::string name = file.substr(0, file.find('\0'));
    if (!name.empty()) descriptor_ = OpenLog(name, removeOld);
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
  if (!silent_) WriteAll(descriptor_, text);
  output.Print(text);
  return *this;
}

template flog& flog::operator<<(std::string);
template flog& flog::operator<<(const char*);
template flog& flog::operator<<(char*);
template flog& flog::operator<<(int);
template flog& flog::operator<<(unsigned long);  // NOLINT(google-runtime-int): the request code
template flog& flog::operator<<(double);
