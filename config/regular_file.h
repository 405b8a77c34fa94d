#pragma once

#include <sys/stat.h>

/// Whether `name` leads to a regular file. Only that can be read to its end: a pipe has none before
/// somebody writes, a device perhaps never.
inline bool IsRegularFile(const char* name) {
  struct stat status {};
  return stat(name, &status) == 0 && S_ISREG(status.st_mode);
}
