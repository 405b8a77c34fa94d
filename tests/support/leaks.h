#pragma once

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

/// What is allocated while one of these exists may stay allocated: for behaviour that gives memory
/// up on purpose.
class [[maybe_unused]] ExpectedLeaks {
 public:
#if defined(__SANITIZE_ADDRESS__)
  ExpectedLeaks() {
    __lsan_disable();
  }
  ~ExpectedLeaks() {
    __lsan_enable();
  }
#else
  ExpectedLeaks() = default;
  ~ExpectedLeaks() = default;
#endif
  ExpectedLeaks(const ExpectedLeaks&) = delete;
  ExpectedLeaks& operator=(const ExpectedLeaks&) = delete;
};
