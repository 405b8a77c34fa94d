#pragma once

#include <errno.h>
#include <unistd.h>

#include <string_view>

/// Writes all of `text`, blocking. When a write fails the rest is dropped.
inline void WriteAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}
