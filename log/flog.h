#pragma once

// This folder is the log of daemon and controllers. flog is what callers know. Under it, file_place
// puts a file safely into a directory that others may write to, and standard_output writes to what
// may be full without being held by it; both are apart because each has one promise to keep and is
// tried without the other. timestamp() is the only time in a log.

#include <cstdint>
#include <string>

#include "base/descriptor.h"

/// A log that survives a crash at any point: every item goes to the file and to standard output
/// and is flushed in both before the call returns. There are no levels, prefixes or line ends of
/// its own; callers stream a line together and end it with "\n".
///
/// A log is usable (status 0) or disabled (status 1, nothing is written anywhere, standard output
/// included). Nothing here throws or reports an error. One thread uses a log; after fork() parent
/// and child append to the same file through their own copies.
class flog {
 public:
  /// As SetFile() on a log without a file.
  flog(const std::string& file, bool remove_old);
  flog(const flog&) = delete;
  flog& operator=(const flog&) = delete;

  /// Redirects the log to `file`, which ends with mode 0666 whatever the umask says: the daemon
  /// runs as root, and the owners of the runs have to read and remove their logs. With
  /// `remove_old` the log starts in a fresh file, otherwise it appends to the present one.
  ///
  /// Never throws. The log is disabled when `file` is empty or cannot be created or opened, and
  /// when there is no memory for it. A file that is there and cannot be replaced is only written to
  /// when it is a regular one without other names, and belongs to this process's user or lies where
  /// nobody else can put files. Links are never followed: in a directory that everybody may write
  /// to, whoever guesses the name could otherwise aim root's log at any file. A disabled log
  /// becomes usable again by the next successful SetFile().
  void SetFile(const std::string& file, bool remove_old);

  /// 0 while the log is usable, 1 when it is disabled.
  std::int32_t status() const { return disabled_; }

  /// Writes `value` as a standard stream would by default (doubles with six significant digits)
  /// and adds nothing to it. Allocates nothing and never throws. A failed write loses that item
  /// only. Standard output that is not read holds the caller for a second, once; until it is read
  /// again items then go to the file alone. A null text silences this log's file and the standard
  /// output of every log for the rest of the process: the script process ends its argument list
  /// with one and has no more to say.
  ///
  /// Defined for std::string, const char*, char*, int, unsigned long and double.
  template <class T>
  flog& operator<<(T value);

 private:
  Descriptor file_;
  std::int32_t disabled_ = 0;
  bool silent_ = false;  ///< no more goes to the file
};
