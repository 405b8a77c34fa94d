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

// Short, whatever the length of the file's own name: names have a limit. That nobody can guess it
// keeps others from standing in the way; nothing else depends on that.
std::string TemporaryName() {
  std::uint64_t number = 0;
  if (getrandom(&number, sizeof(number), 0) < 0) number = static_cast<std::uint64_t>(getpid());
  return ".jobmill-" + std::to_string(number);
}

}  // namespace

FilePlace::FilePlace(const std::string& file) : FilePlace(file, AT_FDCWD) {}

FilePlace::FilePlace(const std::string& file, const FilePlace& beside)
    : FilePlace(file, beside.directory_) {}

FilePlace::FilePlace(const std::string& file, int from) : name_(file.substr(file.rfind('/') + 1)) {
  directory_ = openat(from, DirectoryOf(file).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

FilePlace::~FilePlace() {
  if (directory_ >= 0) close(directory_);
}

int FilePlace::CreateFresh(int flags, mode_t mode) const {
  const std::string temporary = TemporaryName();
  const int descriptor =
      openat(directory_, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | flags, mode);
  if (descriptor < 0) return -1;
  if (renameat(directory_, temporary.c_str(), directory_, name_.c_str()) == 0) return descriptor;
  const int error = errno;
  unlinkat(directory_, temporary.c_str(), 0);
  close(descriptor);
  errno = error;
  return -1;
}

int FilePlace::OpenSole(int flags, mode_t mode, struct stat& status) const {
  // A pipe without a reader is refused by O_NONBLOCK instead of waited for.
  const int descriptor = openat(directory_, name_.c_str(),
                                O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags, mode);
  if (descriptor < 0) return -1;
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1) {
    return descriptor;
  }
  close(descriptor);
  errno = EPERM;
  return -1;
}

int FilePlace::Look() const {
  return openat(directory_, name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
}

bool FilePlace::Remove(int flags) const {
  return unlinkat(directory_, name_.c_str(), flags) == 0;
}

bool FilePlace::IsOpenToOthers() const {
  struct stat status {};
  if (fstat(directory_, &status) != 0) return true;
  return (status.st_uid != geteuid() && status.st_uid != 0) ||
         (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}
