#pragma once

#include <sys/stat.h>

#include <string>

#include "base/descriptor.h"

/// The place of a file that this process writes in a directory where others may write too. Whoever
/// guesses the name can put a link, a pipe or a file of his own there, so nothing that exists is
/// opened by its name before it is known for what it is, and no link is followed.
///
/// The directory is looked up once and held open: whoever exchanges it meanwhile does not part what
/// happens here. A descriptor that cannot be had is none, with the reason in errno.
class FilePlace {
 public:
  /// The place named `file`.
  explicit FilePlace(const std::string& file);

  /// The same; a name that does not begin at the root begins in the directory of `beside`.
  FilePlace(const std::string& file, const FilePlace& beside);

  /// Puts a fresh, empty file there and opens it to write. The file, link or pipe that was there is
  /// replaced and never opened; a directory is not. `flags` are further ones of open(); the umask
  /// applies to `mode`. Fails, with everything as it was, where the directory takes no new file.
  Descriptor CreateFresh(int flags, mode_t mode) const;

  /// Opens the regular file that stands there to write. One with another name besides fails with
  /// EPERM: it may be none of this process's business, linked here by whoever guessed the name.
  /// Never waits. `flags` are further ones of open(), `mode` is that of a file which they create.
  Descriptor OpenSole(int flags, mode_t mode, struct stat& status) const;

  /// What stands there, a link itself included, to look at: a descriptor that neither reads nor
  /// writes.
  Descriptor Look() const;

  /// Removes what stands there; with AT_REMOVEDIR an empty directory.
  bool Remove(int flags) const;

  /// Whether anybody but this process's user and root may put files there.
  bool IsOpenToOthers() const;

 private:
  FilePlace(const std::string& file, int from);

  Descriptor directory_;
  std::string name_;
};
