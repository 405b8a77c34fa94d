#include "tools/jobmillctl/table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

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

void PrintCut(const std::vector<std::string>& lines) {
  winsize size{};
  const bool narrow = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  for (const std::string& line : lines) {
    fmt::print("{}\n", narrow ? line.substr(0, size.ws_col) : line);
  }
}

}  // namespace jobmillctl
