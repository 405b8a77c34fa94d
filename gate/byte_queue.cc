#include "gate/byte_queue.h"

#include <algorithm>
#include <cstring>

namespace gate {

namespace {

constexpr std::size_t kSmallestPiece = 512;
constexpr std::size_t kLargestPiece = 16384;

}  // namespace

void ByteQueue::Append(std::string_view bytes) {
  while (!bytes.empty()) {
    if (pieces_.empty() || pieces_.back().used == pieces_.back().capacity) {
      // As much again as there is: many small pieces would make a large queue slow.
      const std::size_t capacity =
          std::clamp(std::max(bytes.size(), size_), kSmallestPiece, kLargestPiece);
      // Not std::make_unique, which would clear what is filled at once.
      pieces_.push_back({std::unique_ptr<char[]>(new char[capacity]), capacity, 0});
    }
    Piece& last = pieces_.back();
    const std::size_t count = std::min(bytes.size(), last.capacity - last.used);
    memcpy(last.bytes.get() + last.used, bytes.data(), count);
    last.used += count;
    size_ += count;
    bytes.remove_prefix(count);
  }
}

void ByteQueue::Drop(std::size_t count) {
  size_ -= count;
  if (size_ == 0) {
    Clear();
    return;
  }
  count += dropped_;
  std::size_t whole = 0;
  while (count >= pieces_[whole].used) count -= pieces_[whole++].used;
  pieces_.erase(pieces_.begin(), pieces_.begin() + static_cast<std::ptrdiff_t>(whole));
  dropped_ = count;
}

void ByteQueue::Clear() {
  std::vector<Piece>().swap(pieces_);
  dropped_ = 0;
  size_ = 0;
}

std::string_view ByteQueue::At(std::size_t place) const {
  if (place >= size_) return {};
  place += dropped_;
  std::size_t piece = 0;
  while (place >= pieces_[piece].used) place -= pieces_[piece++].used;
  return {pieces_[piece].bytes.get() + place, pieces_[piece].used - place};
}

std::size_t ByteQueue::Copy(std::size_t place, char* to, std::size_t count) const {
  std::size_t copied = 0;
  while (copied < count) {
    const std::string_view part = At(place + copied).substr(0, count - copied);
    if (part.empty()) break;
    memcpy(to + copied, part.data(), part.size());
    copied += part.size();
  }
  return copied;
}

}  // namespace gate
