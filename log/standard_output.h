#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <string_view>

#include "base/descriptor.h"

/// Standard output of all logs of a process: what it is, and whether it may still be written to.
///
/// A terminal that nobody empties or a pipe whose reader has stopped would hold daemon and
/// controllers for good, although everything stands in the files as well. Their readiness says
/// little: a terminal announces room for a single byte, and another process may fill a pipe first.
/// So what may hold the caller is written to without blocking; terminals and pipes through a
/// description of their own, since this property of standard output itself is shared with whoever
/// started the daemon. A child inherits all of it with fork().
class StandardOutput {
 public:
  /// Looks at what standard output is now.
  void Inspect();

  /// No more is written for the rest of the process.
  void Silence() { silent_ = true; }

  /// Writes `text`; never throws. Blocks for a second at most, and only once, by this process or
  /// the one that it was forked from, until what has stopped reading reads again; what there is no
  /// room for is dropped. Where standard output may not be opened again (somebody else's terminal,
  /// to a daemon without root's rights) it relies on announced room.
  void Print(std::string_view text);

 private:
  using Clock = std::chrono::steady_clock;

  enum class Kind { kFile, kSocket, kReopened, kHolding };

  void Reopen(const struct stat& status);
  ssize_t Try(std::string_view text) const;

  bool silent_ = false;
  bool stuck_ = false;
  Kind kind_ = Kind::kHolding;
  Descriptor reopened_;
};
