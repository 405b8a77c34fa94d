#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string_view>

/// A copy of `bytes` that ends where readable memory ends: whoever reads one byte further is
/// killed by the processor, with or without a sanitizer.
class GuardedBytes {
 public:
  explicit GuardedBytes(std::string_view bytes) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t readable = (bytes.size() / page + 1) * page;
    size_ = readable + page;
    void* memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
    begin_ = static_cast<unsigned char*>(memory);
    data_ = begin_ + readable - bytes.size();
    if (!bytes.empty()) memcpy(data_, bytes.data(), bytes.size());
    if (mprotect(begin_ + readable, page, PROT_NONE) != 0) {
      throw std::runtime_error("mprotect failed");
    }
  }
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;
  ~GuardedBytes() { munmap(begin_, size_); }

  const unsigned char* data() const { return data_; }

 private:
  unsigned char* begin_ = nullptr;
  unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};
