#pragma once

#include <sys/stat.h>

/// Whether `name` leads to a regular file. Only a regular file is sure to have an end: the reader
/// of a pipe waits for somebody who writes, and a device may go on for ever.
inline bool IsRegularFile(const char* name) {
  struct stat status {};
  return stat(name, &status) == 0 && S_ISREG(status.st_mode);
}
