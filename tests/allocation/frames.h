#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

/// A frame of the master link.
inline std::string Frame(const std::string& body) {
  const auto size = static_cast<std::int32_t>(body.size());
  std::string frame(sizeof(size), '\0');
  memcpy(frame.data(), &size, sizeof(size));
  return frame + body;
}

/// The bodies of the frames that `bytes` hold; what is left of a frame that is not whole comes
/// last, behind the text "torn: ".
inline std::vector<std::string> FramesOf(std::string bytes) {
  std::vector<std::string> frames;
  while (!bytes.empty()) {
    std::int32_t size = 0;
    if (bytes.size() >= sizeof(size)) memcpy(&size, bytes.data(), sizeof(size));
    const std::size_t whole = sizeof(size) + static_cast<std::size_t>(size);
    if (bytes.size() < sizeof(size) || bytes.size() < whole) {
      frames.push_back("torn: " + bytes);
      break;
    }
    frames.push_back(bytes.substr(sizeof(size), static_cast<std::size_t>(size)));
    bytes.erase(0, whole);
  }
  return frames;
}

/// How many of `frames` are missing in `got`; -1 when `got` has others, or another order.
inline int Missing(const std::vector<std::string>& got, const std::vector<std::string>& frames) {
  std::size_t at = 0;
  for (const std::string& frame : frames) {
    if (at < got.size() && got[at] == frame) ++at;
  }
  return at == got.size() ? static_cast<int>(frames.size() - got.size()) : -1;
}

/// Whether `got` are the first of `frames`.
inline bool IsBeginningOf(const std::vector<std::string>& got,
                          const std::vector<std::string>& frames) {
  return got.size() <= frames.size() && std::equal(got.begin(), got.end(), frames.begin());
}
