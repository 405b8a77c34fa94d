#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "base/descriptor.h"

namespace inspect {

/// A file that somebody else writes, a log for example. The directory may be anybody's, so no link
/// of the name is followed, and only a regular file is read: opening a pipe could wait for ever.
/// A file system that does not answer can still make every call wait.
class RunFile {
 public:
  /// Opens the file. When that fails, `error()` says why.
  explicit RunFile(const std::string& path);

  /// The same, for a file that has to belong to `owner`.
  RunFile(const std::string& path, uid_t owner);

  const std::string& error() const { return error_; }
  std::int64_t size() const { return status_.st_size; }
  const struct stat& status() const { return status_; }

  /// The file's descriptor, which stays this object's and stands at the beginning.
  int descriptor() const { return file_.get(); }

  /// Up to `most` bytes from `offset` on; fewer at the end of the file or when reading fails.
  std::string Read(std::int64_t offset, std::size_t most) const;

  /// The whole file, or, of one that is longer than `most` bytes, the whole lines among its last
  /// `most` bytes.
  std::string Tail(std::size_t most) const;

 private:
  Descriptor file_;
  struct stat status_ {};
  std::string error_;
};

}  // namespace inspect
