#include "inspect/run_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace inspect {

RunFile::RunFile(const std::string& path)
    : file_(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC)) {
  if (!file_ || fstat(file_.get(), &status_) != 0) {
    error_ = errno == ELOOP ? "it is a link" : strerror(errno);
  } else if (!S_ISREG(status_.st_mode)) {
    error_ = "it is no regular file";
  }
}

RunFile::RunFile(const std::string& path, uid_t owner) : RunFile(path) {
  if (error_.empty() && status_.st_uid != owner) error_ = "it belongs to another account";
}

std::string RunFile::Read(std::int64_t offset, std::size_t most) const {
  std::string text;
  if (!error_.empty()) return text;
  while (text.size() < most) {
    const std::size_t begin = text.size();
    text.resize(std::min(most, begin + (1 << 20)));
    const ssize_t size = pread(file_.get(), text.data() + begin, text.size() - begin,
                               offset + static_cast<std::int64_t>(begin));
    text.resize(begin + static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    if (size <= 0) break;
  }
  return text;
}

std::string RunFile::Tail(std::size_t most) const {
  const std::int64_t offset = std::max<std::int64_t>(0, size() - static_cast<std::int64_t>(most));
  std::string text = Read(offset, most);
  if (offset > 0) text.erase(0, text.find('\n') + 1);
  return text;
}

}  // namespace inspect
