#include "log/file_place.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cstdint>

namespace {

std::string DirectoryOf(const std::string& file) {
  const std::size_t name = file.rfind('/') + 1;
  return name == 0 ? "." : file.substr(0, name);
}

// A name for a file on its way to its own name. It is short, because names have a limit that the
// own one may have reached. It is random, because whoever guessed it could keep the file from being
// made, though do nothing worse.
std::string TemporaryName() {
  std::uint64_t number = 0;
  if (getrandom(&number, sizeof(number), 0) < 0) number = static_cast<std::uint64_t>(getpid());
  return ".jobmill-" + std::to_string(number);
}

}  // namespace

FilePlace::FilePlace(const std::string& file) : FilePlace(file, AT_FDCWD) {}

FilePlace::FilePlace(const std::string& file, const FilePlace& beside)
    : FilePlace(file, beside.directory_.get()) {}

FilePlace::FilePlace(const std::string& file, int from)
    : directory_(openat(from, DirectoryOf(file).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
      name_(file.substr(file.rfind('/') + 1)) {}

Descriptor FilePlace::CreateFresh(int flags, mode_t mode) const {
  const std::string temporary = TemporaryName();
  Descriptor fresh(openat(directory_.get(), temporary.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | flags, mode));
  if (!fresh ||
      renameat(directory_.get(), temporary.c_str(), directory_.get(), name_.c_str()) == 0) {
    return fresh;
  }
  const int error = errno;
  unlinkat(directory_.get(), temporary.c_str(), 0);
  errno = error;
  return {};
}

Descriptor FilePlace::OpenSole(int flags, mode_t mode, struct stat& status) const {
  // A pipe without a reader is refused by O_NONBLOCK instead of waited for.
  Descriptor file(openat(directory_.get(), name_.c_str(),
                         O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags, mode));
  if (!file) return file;
  if (fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1) {
    return file;
  }
  errno = EPERM;
  return {};
}

Descriptor FilePlace::Look() const {
  return Descriptor(openat(directory_.get(), name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

bool FilePlace::Remove(int flags) const {
  return unlinkat(directory_.get(), name_.c_str(), flags) == 0;
}

bool FilePlace::IsOpenToOthers() const {
  struct stat status {};
  if (fstat(directory_.get(), &status) != 0) return true;
  return (status.st_uid != geteuid() && status.st_uid != 0) ||
         (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}
