#pragma once

#include "master/frame_channel.h"

namespace vkmaster {

/// SIGINT, SIGTERM and SIGHUP as something that ends waits, so that whoever waits for the daemon
/// can stop waiting and shut the run down. SIGPIPE is ignored from then on. One per process, for
/// its life.
///
/// Windows has Ctrl-C for SIGINT, Ctrl-Break for SIGTERM, and for SIGHUP the end of the console, of
/// the session or of the machine.
class Interrupt {
 public:
  /// Takes the signals over. Throws std::runtime_error when the system refuses what that needs.
  Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  /// Ends waits from a signal on until Clear().
  master::Wake wake() const;

  /// The last signal since Clear(), 0 for none.
  int signal() const;

  /// How many signals have come since Clear().
  int count() const;

  /// Forgets the signals that have come.
  void Clear();
};

}  // namespace vkmaster
