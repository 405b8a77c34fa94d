#pragma once

#include <cstddef>
#include <vector>

/// What this thread has allocated since the last Forget(). The whole test program counts.
struct Allocations {
  static void Forget();
  /// The largest of all, in bytes.
  static std::size_t Largest();
  /// The sizes of the arrays made by `new[]`, the first 64 of them: the buffers of replies.
  static std::vector<std::size_t> Arrays();
};
