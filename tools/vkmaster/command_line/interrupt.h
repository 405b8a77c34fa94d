#pragma once

namespace vkmaster {

/// SIGINT, SIGTERM and SIGHUP as a descriptor that becomes readable, so that whoever waits for the
/// daemon can stop waiting and shut the run down. SIGPIPE is ignored from then on. One per process,
/// for its life.
class Interrupt {
 public:
  /// Takes the signals over. Throws std::runtime_error when there is no descriptor.
  Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  /// Readable from a signal until Clear().
  int descriptor() const;

  /// The last signal since Clear(), 0 for none.
  int signal() const;

  /// How many signals have come since Clear().
  int count() const;

  void Clear();
};

}  // namespace vkmaster
