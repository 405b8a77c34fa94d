#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "tests/support/wire_bytes.h"

// The simulator's messages read without the code under test; tests/support/wire_bytes.h writes
// them.
namespace wire {

/// Takes a number from the front of `bytes`; false, with nothing taken, when they are too few.
template <typename Number>
bool Take(std::string_view& bytes, Number& number) {
  if (bytes.size() < sizeof(number)) return false;
  std::memcpy(&number, bytes.data(), sizeof(number));
  bytes.remove_prefix(sizeof(number));
  return true;
}

struct Header {
  std::string_view name;
  std::uint64_t count = 0;
  std::string_view tag;

  bool Is(std::string_view other_name, std::uint64_t other_count,
          std::string_view other_tag) const {
    return name == other_name && count == other_count && tag == other_tag;
  }
};

/// Takes a header; false when the bytes do not hold one or its type is unknown.
inline bool Take(std::string_view& bytes, Header& header) {
  std::uint8_t length = 0;
  if (!Take(bytes, length) || bytes.size() < length + 12U) return false;
  header.name = bytes.substr(0, length);
  bytes.remove_prefix(length);
  Take(bytes, header.count);
  header.tag = bytes.substr(0, 4);
  bytes.remove_prefix(4);
  return header.tag == "MESS" || header.tag == "DOUB" || header.tag == "INTE" ||
         header.tag == "CSTR";
}

/// Takes one string of a list; false when the bytes do not hold it.
inline bool TakeString(std::string_view& bytes, std::string_view& text) {
  std::uint64_t length = 0;
  if (!Take(bytes, length) || length > bytes.size()) return false;
  text = bytes.substr(0, length);
  bytes.remove_prefix(length);
  return true;
}

}  // namespace wire
