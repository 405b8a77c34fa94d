#pragma once

#include <sys/stat.h>

#include <string>

#include "base/descriptor.h"

/// A directory and a name in it, for a file that this process writes although others may write to
/// the directory too. Whoever guesses the name can put a link, a pipe or a file of his own there.
/// So no link is followed, and a file that is there already is written to only after it has been
/// checked.
///
/// The directory is looked up once and held open. All operations work in that one, even when
/// somebody renames it meanwhile and puts another one in its place. A descriptor that cannot be had
/// is none, with the reason in errno.
class FilePlace {
 public:
  /// The place that the path `file` leads to.
  explicit FilePlace(const std::string& file);

  /// The same, but a path that does not begin with a slash begins in the directory of `beside`.
  FilePlace(const std::string& file, const FilePlace& beside);

  /// Makes a fresh, empty file and opens it to write. It replaces a file, link or pipe of the name,
  /// which is never opened; a directory of the name is EISDIR. `flags` are further ones of open();
  /// the umask applies to `mode`. A failure leaves everything as it was.
  Descriptor CreateFresh(int flags, mode_t mode) const;

  /// Opens the regular file of the name to write, and gives its `status`. A file that has a second
  /// name fails with EPERM: whoever guessed the name may have linked any file here. Never waits.
  /// `flags` are further ones of open(), `mode` is for a file that they create.
  Descriptor OpenSole(int flags, mode_t mode, struct stat& status) const;

  /// Opens whatever has the name, a link rather than what it leads to, with a descriptor that can
  /// only be looked at.
  Descriptor Look() const;

  /// Removes the file of the name; with AT_REMOVEDIR an empty directory.
  bool Remove(int flags) const;

  /// Whether anybody but this process's user and root may put files into the directory.
  bool IsOpenToOthers() const;

 private:
  FilePlace(const std::string& file, int from);

  Descriptor directory_;
  std::string name_;
};
