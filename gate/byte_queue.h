#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

namespace gate {

/// Bytes in order, appended at the end and dropped at the front. Memory comes in pieces that grow
/// with what is kept, and goes back as soon as a piece is dropped: a queue that has run empty holds
/// none. A piece never moves, so views stay valid while other bytes are appended.
class ByteQueue {
 public:
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  void Append(std::string_view bytes);

  /// Drops the first `count` bytes; there must be so many.
  void Drop(std::size_t count);
  void Clear();

  /// The bytes from `place` on, as far as they lie together: one or more while `place` is below
  /// size(), else none. Valid until they are dropped.
  std::string_view At(std::size_t place) const;

  /// Copies up to `count` bytes from `place` on; returns how many there were.
  std::size_t Copy(std::size_t place, char* to, std::size_t count) const;

 private:
  struct Piece {
    std::unique_ptr<char[]> bytes;
    std::size_t capacity = 0;
    std::size_t used = 0;
  };

  std::vector<Piece> pieces_;
  std::size_t dropped_ = 0;  ///< bytes of the first piece that are no longer in the queue
  std::size_t size_ = 0;
};

}  // namespace gate
