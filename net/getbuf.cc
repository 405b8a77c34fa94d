#include "net/getbuf.h"

#include <string.h>

#include <stdexcept>

getbuf::getbuf(const unsigned char* data, std::int64_t size) : data_(data), size_(size) {}

void getbuf::Copy(void* target, std::int64_t size) {
  if (size <= 0) return;
  if (size > remaining()) throw std::out_of_range("Request reaches past the receive buffer");
  memcpy(target, data_ + position_, static_cast<std::size_t>(size));
  position_ += static_cast<std::int32_t>(size);
}

void getbuf::UnPack(bool& value) {
  unsigned char byte = 0;
  Copy(&byte, sizeof(byte));
  value = byte != 0;
}

void getbuf::UnPack(unsigned& value) {
  Copy(&value, sizeof(value));
}

void getbuf::UnPack(int& value) {
  Copy(&value, sizeof(value));
}

void getbuf::UnPack(double& value) {
  Copy(&value, sizeof(value));
}

void getbuf::UnPack(int* values, int n) {
  Copy(values, std::int64_t{sizeof(*values)} * n);
}

void getbuf::UnPack(double* values, int n) {
  Copy(values, std::int64_t{sizeof(*values)} * n);
}

void getbuf::UnPack(float* values, int n) {
  Copy(values, std::int64_t{sizeof(*values)} * n);
}

void getbuf::UnPack(char* bytes, int n) {
  Copy(bytes, n);
}

void getbuf::UnPack(std::string& text) {
  const std::int32_t start = position_;
  int length = 0;
  UnPack(length);
  if (length > remaining()) {
    position_ = start;
    throw std::out_of_range("Text reaches past the receive buffer");
  }
  if (length < 0) length = 0;
  const auto* bytes = reinterpret_cast<const char*>(data_ + position_);
  text.assign(bytes, strnlen(bytes, static_cast<std::size_t>(length)));
  position_ += length;
}
