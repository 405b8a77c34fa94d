#pragma once

#include "master/frame_channel.h"

namespace master {

/// A Wake that any thread may raise: whoever waits on it, or begins to, stops waiting until it is
/// lowered again.
class Alarm {
 public:
  /// Throws std::runtime_error when the system has no descriptor or event left.
  Alarm();
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;
  ~Alarm();

  Wake wake() const { return wake_; }

  /// On Linux a signal handler may call this, too.
  void Raise() noexcept;
  void Lower() noexcept;

 private:
  Wake wake_;
};

}  // namespace master
