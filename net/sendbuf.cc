#include "net/sendbuf.h"

#include <string.h>

#include <limits>
#include <stdexcept>
#include <utility>

#include "net/socket.h"

namespace {

constexpr std::int32_t kStep = 10;

}  // namespace

sendbuf::sendbuf() : data_(new char[kHead + kStep]), used_(0), capacity_(kStep) {}

void sendbuf::PrePack(int n) {
  if (n > capacity_ - used_) Grow(n);
}

// Makes room for `more` bytes after the used ones.
void sendbuf::Grow(std::int64_t more) {
  const std::int64_t needed = used_ + more;
  const std::int64_t grown = (needed + kStep - 1) / kStep * kStep;
  if (grown > std::numeric_limits<std::int32_t>::max()) {
    throw std::length_error("Reply too large");
  }
  // Not make_unique: the new bytes are written before they are read, there is no need to clear.
  std::unique_ptr<char[]> larger(new char[kHead + static_cast<std::size_t>(grown)]);
  memcpy(larger.get() + kHead, values(), static_cast<std::size_t>(used_));
  data_ = std::move(larger);
  capacity_ = static_cast<std::int32_t>(grown);
}

void sendbuf::Pack(const int* values, int n) {
  Append(values, std::int64_t{sizeof(*values)} * n);
}

void sendbuf::Pack(const double* values, int n) {
  Append(values, std::int64_t{sizeof(*values)} * n);
}

void sendbuf::Pack(const float* values, int n) {
  Append(values, std::int64_t{sizeof(*values)} * n);
}

void sendbuf::Pack(const char* bytes, int n) {
  Append(bytes, n);
}

void sendbuf::Pack(const std::string& text) {
  // Grow() refuses a text that is too long, before its length is cut to 32 bits for the wire.
  const auto size = static_cast<std::int64_t>(sizeof(int) + text.size());
  if (size > capacity_ - used_) Grow(size);
  const auto length = static_cast<int>(text.size());
  Pack(length);
  Pack(text.data(), length);
}

int sendbuf::Send(Socket* socket, unsigned code) const {
  // A reply without values has the code a second time in their place; there is always room for it.
  if (used_ == 0) memcpy(values(), &code, sizeof(code));
  const auto size = used_ == 0 ? std::uint32_t{sizeof(code)} : static_cast<std::uint32_t>(used_);
  const std::uint32_t body = size + static_cast<std::uint32_t>(sizeof(code));
  memcpy(data_.get(), &body, sizeof(body));
  memcpy(data_.get() + sizeof(body), &code, sizeof(code));
  try {
    return socket->SendBytes(data_.get(), static_cast<unsigned>(kHead) + size);
  } catch (...) {
    return 3;
  }
}
