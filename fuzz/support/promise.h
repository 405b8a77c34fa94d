#pragma once

#include <cstdio>

/// Makes a finding of an execution in which something does not hold that the code under test
/// promises. Not assert(): the replays run in builds that leave assertions out.
#define PROMISE(condition)                                                         \
  do {                                                                             \
    if (!(condition)) {                                                            \
      std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #condition); \
      __builtin_trap();                                                            \
    }                                                                              \
  } while (false)
