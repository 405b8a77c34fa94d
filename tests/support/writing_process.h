#pragma once

#include <sys/syscall.h>
#include <sys/types.h>

#include <fstream>
#include <string>

/// Whether the process is in a write to its descriptor for which nobody makes room.
inline bool IsWriting(pid_t pid, int descriptor) {
  std::ifstream call("/proc/" + std::to_string(pid) + "/syscall");
  long number = -1;
  std::string argument;
  call >> number >> argument;
  return number == SYS_write && argument == "0x" + std::to_string(descriptor);
}
