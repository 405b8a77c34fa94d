#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bytes.h"

// Bytes of the external-controller protocol, written without the code that is under test.
namespace wire {

/// A header without its data.
inline std::string Head(std::string_view name, std::uint64_t count, std::string_view tag) {
  std::string bytes = Image(static_cast<std::uint8_t>(name.size()));
  return bytes.append(name).append(Image(count)).append(tag);
}

/// A text as it stands in a header's data and in the framing: its length in 64 bits before it.
inline std::string LongText(std::string_view text) {
  return Image(std::uint64_t{text.size()}).append(text);
}

template <class T>
std::string Numbers(std::string header, const std::vector<T>& values) {
  for (const T& value : values) header += Image(value);
  return header;
}

inline std::string Mess(std::string_view name) {
  return Head(name, 0, "MESS");
}
inline std::string Doub(std::string_view name, const std::vector<double>& values) {
  return Numbers(Head(name, values.size(), "DOUB"), values);
}
inline std::string Inte(std::string_view name, const std::vector<int>& values) {
  return Numbers(Head(name, values.size(), "INTE"), values);
}
inline std::string Cstr(std::string_view name, const std::vector<std::string>& values) {
  std::string bytes = Head(name, values.size(), "CSTR");
  for (const std::string& value : values) bytes += LongText(value);
  return bytes;
}

/// One text as a header's data.
inline std::string Text(std::string_view name, std::string_view value) {
  return Head(name, 1, "CSTR") + LongText(value);
}

/// The header that belongs to values of this type, with them.
inline std::string Data(std::string_view name, const std::vector<double>& values) {
  return Doub(name, values);
}
inline std::string Data(std::string_view name, const std::vector<int>& values) {
  return Inte(name, values);
}
inline std::string Data(std::string_view name, const std::vector<std::string>& values) {
  return Cstr(name, values);
}

/// A message as it travels, cut into chunks of this size.
inline std::string Framed(std::string_view message, std::size_t chunk = 65536) {
  std::string bytes = Image(std::uint64_t{message.size()});
  do {
    bytes += LongText(message.substr(0, chunk));
    message.remove_prefix(std::min(chunk, message.size()));
  } while (!message.empty());
  return bytes;
}

}  // namespace wire
