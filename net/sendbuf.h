#pragma once

#include <string.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

class Socket;

/// A reply to the master under construction. The format has no tags, so the order of the Pack
/// calls is the layout. Numbers go out in host byte order; the master expects little-endian. A
/// flag is packed as an int, 0 or 1.
///
/// Packing throws std::bad_alloc or std::length_error when there is no room for more.
class sendbuf {
 public:
  sendbuf();

  /// Makes room for `n` more bytes; the capacity moves in steps of 10. Whoever knows the size of
  /// a reply calls this once, since every later growth copies what is there.
  void PrePack(int n);

  void Pack(int value) { Append(&value, sizeof(value)); }
  void Pack(double value) { Append(&value, sizeof(value)); }

  /// Append `n` elements, without their count; nothing when `n` is not positive.
  void Pack(const int* values, int n);
  void Pack(const double* values, int n);
  void Pack(const float* values, int n);
  void Pack(const char* bytes, int n);

  /// Appends the length as a 32-bit integer, then the characters, without a terminator.
  void Pack(const std::string& text);

  /// Sends `code` and the packed values as one frame in one piece; with nothing packed the
  /// body is `code` twice. Returns 0 when the frame left whole, 1 when it left short, 3 when the
  /// socket layer threw. Never throws. The packed values stay, `socket` stays the caller's.
  int Send(Socket* socket, unsigned code) const;

  std::int32_t used() const { return used_; }
  std::int32_t capacity() const { return capacity_; }

 private:
  // Inline: a long reply is packed by thousands of these calls.
  void Append(const void* bytes, std::int64_t size) {
    if (size <= 0) return;
    if (size > capacity_ - used_) Grow(size);
    memcpy(values() + used_, bytes, static_cast<std::size_t>(size));
    used_ += static_cast<std::int32_t>(size);
  }
  void Grow(std::int64_t more);
  char* values() const { return data_.get() + kHead; }

  // In front of the values there is room for the frame's length and the code, so that the frame is
  // sent from where the values were packed.
  static constexpr std::size_t kHead = 8;

  std::unique_ptr<char[]> data_;
  std::int32_t used_;
  std::int32_t capacity_;
};
