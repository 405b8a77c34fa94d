#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

/// A stream to write to whose content is at hand.
class MemoryStream {
 public:
  MemoryStream() : stream_(open_memstream(&bytes_, &size_)) {}
  MemoryStream(const MemoryStream&) = delete;
  MemoryStream& operator=(const MemoryStream&) = delete;
  ~MemoryStream() {
    std::fclose(stream_);
    std::free(bytes_);
  }

  std::FILE* get() const { return stream_; }

  /// All that was written so far.
  std::string Text() const {
    std::fflush(stream_);
    return {bytes_, size_};
  }

 private:
  char* bytes_ = nullptr;
  std::size_t size_ = 0;
  std::FILE* stream_;
};
