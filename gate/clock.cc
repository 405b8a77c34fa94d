#include "gate/clock.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <time.h>
#endif

#include <chrono>

namespace gate {

Time Now() {
#ifdef _WIN32
  return Time(static_cast<Time::rep>(GetTickCount64()));
#else
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + Time(now.tv_nsec / 1'000'000);
#endif
}

Time WallTime() {
  return std::chrono::duration_cast<Time>(std::chrono::system_clock::now().time_since_epoch());
}

}  // namespace gate
