#pragma once

#include <chrono>

namespace vkmaster {

/// The wall time since `begin`, to the millisecond.
inline double SecondsSince(std::chrono::steady_clock::time_point begin) {
  const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - begin);
  return static_cast<double>(passed.count()) / 1000;
}

}  // namespace vkmaster
