#pragma once

#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>

#include "tests/support/bytes.h"

/// `body` with its length in front.
inline std::string Frame(const std::string& body) {
  const auto length = static_cast<std::uint32_t>(body.size());
  std::string frame(sizeof(length), '\0');
  memcpy(frame.data(), &length, sizeof(length));
  return frame + body;
}

/// All that has arrived at `descriptor` and was not read yet; does not wait.
inline std::string Arrived(int descriptor) {
  std::string all;
  std::array<char, 65536> part{};
  while (true) {
    const ssize_t got = recv(descriptor, part.data(), part.size(), MSG_DONTWAIT);
    if (got <= 0) return all;
    all.append(part.data(), static_cast<std::size_t>(got));
  }
}
