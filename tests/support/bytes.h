#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

/// The bytes that `hex` writes down, two digits a byte, blanks between them at will:
/// Bytes("08 00 00 00") has size 4.
inline std::string Bytes(std::string_view hex) {
  std::string digits;
  for (const char c : hex) {
    if (std::isspace(static_cast<unsigned char>(c)) == 0) digits += c;
  }
  if (digits.size() % 2 != 0) throw std::invalid_argument("odd number of hex digits");
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    std::size_t used = 0;
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), &used, 16));
    if (used != 2) throw std::invalid_argument("not hex: " + digits.substr(i, 2));
  }
  return bytes;
}

/// The reverse of Bytes(), to print what came: "08 00 00 00".
inline std::string Hex(std::string_view bytes) {
  std::string hex;
  for (const char c : bytes) {
    char pair[4];
    std::snprintf(pair, sizeof(pair), "%02x ",
                  static_cast<unsigned>(static_cast<unsigned char>(c)));
    hex += pair;
  }
  if (!hex.empty()) hex.pop_back();
  return hex;
}

/// Reads `size` bytes from `descriptor`, fewer when it ends before. Blocks.
inline std::string ReadExactly(int descriptor, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t had = 0;
  while (had < size) {
    const ssize_t got = read(descriptor, bytes.data() + had, size - had);
    if (got <= 0) break;
    had += static_cast<std::size_t>(got);
  }
  bytes.resize(had);
  return bytes;
}

/// Writes all of `bytes` to `descriptor`, as far as it takes them. Blocks.
inline void WriteAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t put = write(descriptor, bytes.data(), bytes.size());
    if (put <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(put));
  }
}
