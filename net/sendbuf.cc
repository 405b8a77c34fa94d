#include "net/sendbuf.h"

#include <string.h>

#include <limits>
#include <new>
#include <stdexcept>

#include "net/socket.h"

namespace {

constexpr std::int32_t kStep = 10;

}  // namespace

sendbuf::sendbuf() : data_(std::make_unique<char[]>(kStep)), used_(0), capacity_(kStep) {}

void sendbuf::PrePack(int n) {
  Reserve(n);
}

void sendbuf::Reserve(std::int64_t more) {
  const std::int64_t needed = used_ + more;
  if (needed <= capacity_) return;
  const std::int64_t grown = (needed + kStep - 1) / kStep * kStep;
  if (grown > std::numeric_limits<std::int32_t>::max()) {
    throw std::length_error("Reply too large");
  }
  // Not make_unique: the new bytes are written before they are read, there is no need to clear.
  std::unique_ptr<char[]> larger(new char[static_cast<std::size_t>(grown)]);
  memcpy(larger.get(), data_.get(), static_cast<std::size_t>(used_));
  data_ = std::move(larger);
  capacity_ = static_cast<std::int32_t>(grown);
}

void sendbuf::Append(const void* bytes, std::int64_t size) {
  if (size <= 0) return;
  Reserve(size);
  memcpy(data_.get() + used_, bytes, static_cast<std::size_t>(size));
  used_ += static_cast<std::int32_t>(size);
}

void sendbuf::Pack(int value) {
  Append(&value, sizeof(value));
}

void sendbuf::Pack(double value) {
  Append(&value, sizeof(value));
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
  Reserve(static_cast<std::int64_t>(sizeof(int) + text.size()));
  const auto length = static_cast<int>(text.size());
  Pack(length);
  Pack(text.data(), length);
}

std::string sendbuf::Body(unsigned code) const {
  std::string body;
  body.reserve(sizeof(code) + static_cast<std::size_t>(used_));
  const auto* codeBytes = reinterpret_cast<const char*>(&code);
  body.append(codeBytes, sizeof(code));
  if (used_ == 0) {
    body.append(codeBytes, sizeof(code));
  } else {
    body.append(data_.get(), static_cast<std::size_t>(used_));
  }
  return body;
}

int sendbuf::Send(Socket* socket, unsigned code) const {
  std::string body;
  try {
    body = Body(code);
  } catch (const std::bad_alloc&) {
    return 1;
  }
  try {
    return socket->SendLine(body.data(), static_cast<unsigned>(body.size()));
  } catch (...) {
    return 3;
  }
}
