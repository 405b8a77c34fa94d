#pragma once

#include <string>
#include <vector>

namespace jobmillctl {

using Row = std::vector<std::string>;

/// Rows as lines, with the columns one below the other. The last column is as long as it is.
std::vector<std::string> Aligned(const std::vector<Row>& rows);

/// Prints lines: to a terminal cut to its width, which would break them and the table with them;
/// elsewhere whole.
void PrintCut(const std::vector<std::string>& lines);

}  // namespace jobmillctl
