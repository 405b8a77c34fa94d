#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

// The simulator's messages written and read without the code under test.
namespace wire {

inline void AppendHeader(std::string& message, std::string_view name, std::uint64_t count,
                         std::string_view tag) {
  message += static_cast<char>(name.size());
  message += name;
  message.append(reinterpret_cast<const char*>(&count), sizeof(count));
  message += tag;
}

inline void AppendMess(std::string& message, std::string_view name) {
  AppendHeader(message, name, 0, "MESS");
}

inline void Append(std::string& message, std::string_view name, const std::vector<double>& values) {
  AppendHeader(message, name, values.size(), "DOUB");
  if (values.empty()) return;
  message.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(double));
}

inline void Append(std::string& message, std::string_view name, const std::vector<int>& values) {
  AppendHeader(message, name, values.size(), "INTE");
  if (values.empty()) return;
  message.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(int));
}

inline void Append(std::string& message, std::string_view name,
                   const std::vector<std::string>& values) {
  AppendHeader(message, name, values.size(), "CSTR");
  for (const std::string& value : values) {
    const std::uint64_t length = value.size();
    message.append(reinterpret_cast<const char*>(&length), sizeof(length));
    message += value;
  }
}

inline void AppendText(std::string& message, std::string_view name, std::string_view value) {
  const std::uint64_t length = value.size();
  AppendHeader(message, name, 1, "CSTR");
  message.append(reinterpret_cast<const char*>(&length), sizeof(length));
  message += value;
}

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

  bool Is(std::string_view otherName, std::uint64_t otherCount, std::string_view otherTag) const {
    return name == otherName && count == otherCount && tag == otherTag;
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
