#pragma once

#include <ostream>

// This program's operator new can be told to fail. So can, with it, everything that the standard
// library and Boost allocate through it; malloc() itself is not touched.

enum class Failing {
  kOnce,    ///< one allocation fails, as in a moment of pressure
  kForGood  ///< it and all later ones fail
};

inline std::ostream& operator<<(std::ostream& out, Failing failing) {
  return out << (failing == Failing::kOnce ? "once" : "for good");
}

/// While one of these exists, the allocation number `first` (counted from 1) of this thread fails.
/// A child process that is forked meanwhile goes on counting for itself.
class FailingAllocations {
 public:
  FailingAllocations(long first, Failing failing);
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;
  ~FailingAllocations();

  /// Whether that allocation was reached, in this process or in a child of it.
  static bool Reached();
};

/// Allocations of all threads that have not been released.
long LiveAllocations();
