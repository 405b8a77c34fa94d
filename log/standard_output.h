#pragma once

#include <sys/types.h>

#include <string_view>

#include "base/descriptor.h"

struct stat;

/// Standard output of all logs of a process, which must never hold a run: a terminal that nobody
/// empties or a pipe whose reader has stopped would otherwise hold the daemon and its controllers
/// for good, although everything stands in the files as well.
///
/// Waiting until poll() announces room and then writing would not keep that promise: a terminal
/// announces room as soon as there is some for a single byte, and another process may fill a pipe
/// between the two calls; the write then blocks. So it must not block in itself. For sockets a flag
/// of send() sees to that. Terminals and pipes are opened again: the flag belongs to the open file,
/// which this process otherwise shares with whoever started the daemon. Regular files are
/// never full, and keep the one position that they share with others. A child inherits all of it
/// with fork().
class StandardOutput {
 public:
  /// Looks at what standard output is now.
  void Inspect();

  /// No more is written for the rest of the process.
  void Silence() { silent_ = true; }

  /// Writes `text`; never throws. Waits for a reader that takes nothing for a second at most. Then
  /// the rest of the text is dropped, and so is all that there is no room for, without waiting,
  /// until a whole text has been taken again. Where standard output may not be opened again
  /// (somebody else's terminal, to a daemon without root's rights) this relies on announced room
  /// after all.
  void Print(std::string_view text);

 private:
  enum class Kind { kNeverFull, kSocket, kReopened, kShared };

  void Reopen(const struct stat& status);
  ssize_t Try(std::string_view text) const;

  bool silent_ = false;
  bool stuck_ = false;  ///< a second was waited in vain, and no whole text has been taken since
  Kind kind_ = Kind::kShared;
  Descriptor reopened_;
};
