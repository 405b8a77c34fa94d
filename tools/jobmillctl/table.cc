#include "tools/jobmillctl/table.h"

#include <algorithm>
#include <cstddef>

#include <fmt/format.h>

namespace jobmillctl {

std::vector<std::string> Aligned(const std::vector<Row>& rows) {
  std::vector<std::size_t> widths;
  for (const Row& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::vector<std::string> lines;
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const bool last = i + 1 == row.size();
      line += last ? row[i] : fmt::format("{:<{}}  ", row[i], widths[i]);
    }
    lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace jobmillctl
