#pragma once

#include <algorithm>
#include <string>
#include <vector>

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
