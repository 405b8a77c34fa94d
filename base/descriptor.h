#pragma once

#include <errno.h>
#include <unistd.h>

#include <utility>

/// An open descriptor and its owner, or none. Closing leaves errno alone: a function that fails
/// with errno may let go of its descriptors on the way out.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : descriptor_(other.Release()) {}
  Descriptor& operator=(Descriptor other) noexcept {
    std::swap(descriptor_, other.descriptor_);  // and `other` closes the former one
    return *this;
  }
  ~Descriptor() { Reset(); }

  /// Whether there is one.
  explicit operator bool() const { return descriptor_ >= 0; }

  /// Its number, -1 when there is none.
  int get() const { return descriptor_; }

  /// The same, and the caller has to close it from now on.
  int Release() { return std::exchange(descriptor_, -1); }

  void Reset() {
    if (descriptor_ < 0) return;
    const int error = errno;
    close(Release());
    errno = error;
  }

 private:
  int descriptor_ = -1;
};
