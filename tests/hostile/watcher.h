#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>

/// The end of a process that was watched.
struct Ended {
  pid_t pid = 0;
  pid_t parent = 0;
  int status = 0;              ///< exit status, or 128 plus the number of the signal
  uid_t user = 0;              ///< effective user at the end
  std::int64_t memory = 0;     ///< most resident memory, in KiB
  std::int64_t processor = 0;  ///< time on a processor, in microseconds
};

/// Sees the ends of a daemon's children and of what they fork, which nobody but the daemon may wait
/// for: a process of its own traces the daemon and looks at each child in the moment of its exit.
/// A child that executes another program is let go.
class Watcher {
 public:
  /// Watches `daemon`, which has no child yet. Throws std::runtime_error when it may not.
  explicit Watcher(pid_t daemon);
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  ~Watcher();

  /// The next end, in their order; nothing when there is none until `limit`.
  std::optional<Ended> Next(std::chrono::steady_clock::time_point limit);

 private:
  int reports_ = -1;
  pid_t process_ = -1;
};
