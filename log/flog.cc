#include "log/flog.h"

#include <errno.h>
#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <type_traits>

namespace {

// Owner-only until the file is complete; fchmod() then opens it to everybody.
constexpr mode_t kPrivate = 0600;
constexpr mode_t kPublic = 0666;

// An output stream on a descriptor that was opened here, since std::ofstream has no way to refuse
// links or to close on exec.
class DescriptorStream : public std::ostream {
 public:
  explicit DescriptorStream(int descriptor)
      : std::ostream(nullptr), buffer_(descriptor, std::ios::out | std::ios::app) {
    rdbuf(&buffer_);
  }

 private:
  __gnu_cxx::stdio_filebuf<char> buffer_;  // closes the descriptor
};

// A fresh file under a name that nobody can have planted, moved over `file`: the old file, link or
// pipe of that name is replaced, never opened. -1 when the directory does not allow it.
int CreateFresh(const std::string& file) {
  std::string temporary = file + ".XXXXXX";
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
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    close(descriptor);
    return -1;
  }
  fchmod(descriptor, kPublic);
  return descriptor;
}

int OpenLog(const std::string& file, bool removeOld) {
  if (!removeOld) return OpenRegular(file, O_CREAT);
  const int fresh = CreateFresh(file);
  // A file may be writable in a directory that is not.
  return fresh >= 0 ? fresh : OpenRegular(file, 0);
}

// A stream that failed before this item stays silent; one that fails with it loses this item only.
template <class T>
void WriteItem(std::ostream& out, const T& value) {
  const bool usable = out.good();
  out << value << std::flush;
  if (usable && !out.good()) out.clear();
}

void Silence(std::ostream& out) {
  out.setstate(std::ios::badbit);
}

}  // namespace

flog::flog(const std::string& file, bool removeOld) {
  SetFile(file, removeOld);
}

flog::~flog() = default;

void flog::SetFile(const std::string& file, bool removeOld) {
  disabled_ = 0;
  stream_.reset();
  const int descriptor = file.empty() ? -1 : OpenLog(file, removeOld);
  if (descriptor < 0) {
    disabled_ = 1;
    return;
  }
  stream_ = std::make_unique<DescriptorStream>(descriptor);
}

template <class T>
flog& flog::operator<<(T value) {
  if (disabled_ > 0) return *this;
  if constexpr (std::is_pointer_v<T>) {
    if (value == nullptr) {
      Silence(*stream_);
      Silence(std::cout);
      return *this;
    }
  }
  WriteItem(*stream_, value);
  WriteItem(std::cout, value);
  return *this;
}

template flog& flog::operator<<(std::string);
template flog& flog::operator<<(const char*);
template flog& flog::operator<<(char*);
template flog& flog::operator<<(int);
template flog& flog::operator<<(unsigned long);  // NOLINT(google-runtime-int): the request code
template flog& flog::operator<<(double);
