#pragma once

#include <sys/types.h>

#include <array>
#include <memory>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

/// Stops another process while it waits in a system call, so that calls can be made in its name;
/// the destructor lets it go on waiting. Only on x86-64, and for root or its own account.
class StoppedProcess {
 public:
  explicit StoppedProcess(pid_t pid);
  ~StoppedProcess();
  StoppedProcess(const StoppedProcess&) = delete;
  StoppedProcess& operator=(const StoppedProcess&) = delete;

  /// Whether it could be stopped.
  bool stopped() const { return registers_ != nullptr; }

  /// Makes the process call `number` (SYS_...); the kernel's result, a negative errno when refused.
  long Call(long number, const std::array<long, 3>& arguments);

 private:
  struct Registers;
  pid_t pid_;
  std::unique_ptr<Registers> registers_;
};

/// The leak check of a sanitizer ends a traced process with a status of its own: a program that
/// ExitStatuses watches is started with this variable.
constexpr const char* kNoLeakCheck = "ASAN_OPTIONS=detect_leaks=0";

/// Notes with which status the descendants of a process end, those that nobody asks for included.
class ExitStatuses {
 public:
  explicit ExitStatuses(pid_t ancestor);

  /// Whether the notes are being taken; false when the system does not permit it.
  bool watching() const;

  /// The statuses in the order of the ends, "0 1 ", once there are `count` of them; what there is
  /// by then after some seconds.
  std::string First(std::size_t count) const;

 private:
  TemporaryDirectory directory_;
  std::unique_ptr<ChildProcess> watcher_;
};
