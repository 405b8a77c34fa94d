#pragma once

#include <cstdint>
#include <string>

#include "net/master_link.h"

/// Reads the values of a frame's body in their order; the format has no tags. Numbers are in host
/// byte order. Every call copies from the present position and moves it on.
///
/// The body's own length is not looked at: the reader of a request knows its layout, and a request
/// that is too short is read on into what the receive buffer holds after it. The buffer's end is
/// a border: a value that would reach past it throws std::out_of_range and leaves the position
/// where it was.
class getbuf {
 public:
  /// Reads from `data`, which stays the caller's. `size`: bytes from there to the end of the
  /// buffer, by default those of a whole receive buffer.
  explicit getbuf(const unsigned char* data, std::int64_t size = master_link::kMaxFrame);

  /// One byte, 0 or not.
  void UnPack(bool& value);
  void UnPack(unsigned& value);
  void UnPack(int& value);
  void UnPack(double& value);

  /// `n` elements; none when `n` is not positive.
  void UnPack(int* values, int n);
  void UnPack(double* values, int n);
  void UnPack(float* values, int n);
  void UnPack(char* bytes, int n);

  /// A 32-bit length, then as many bytes, of which those before the first zero byte are the text.
  /// A negative length is an empty text.
  void UnPack(std::string& text);

  /// Bytes between the position and the end of the buffer: the most that a list still to be read
  /// can hold, whatever count the master announced for it.
  std::int64_t remaining() const { return size_ - position_; }

 private:
  void Copy(void* target, std::int64_t size);

  const unsigned char* data_;
  std::int64_t size_;
  std::int32_t position_ = 0;
};
