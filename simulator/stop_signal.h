#pragma once

#include <atomic>
#include <chrono>

#include "base/descriptor.h"

namespace simulator {

/// Asks a running simulator to end, from a signal handler or another thread.
class StopSignal {
 public:
  StopSignal();  ///< Throws std::system_error if the system has no descriptor left.
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  /// Async-signal-safe. Also cuts the watched connection, so that a read or write on it that is
  /// blocked ends.
  void raise() noexcept;
  bool raised() const { return raised_; }

  /// The connection that raise() cuts; -1 for none.
  void watch(int descriptor) { watched_ = descriptor; }

  enum class Wait { kReady, kTimeout, kStopped };
  /// Waits until `descriptor` (-1: nothing) can be read, `limit` has passed (negative: no limit)
  /// or raise() was called.
  Wait wait(int descriptor, std::chrono::milliseconds limit) const;

 private:
  Descriptor event_;
  std::atomic<int> watched_ = -1;
  std::atomic<bool> raised_ = false;
};

}  // namespace simulator
