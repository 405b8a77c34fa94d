#pragma once

#include <stdlib.h>

/// The decimal number at the beginning of `text`, as strtol() reads it: blanks in front are
/// skipped, whatever follows the digits is not looked at, and a text without digits is 0.
/// Every number that administrators and masters write for the daemon is read so.
inline long NumberIn(const char* text) {
  return strtol(text, nullptr, 10);
}
