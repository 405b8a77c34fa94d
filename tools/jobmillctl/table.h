#pragma once

#include <string>
#include <vector>

namespace jobmillctl {

using Row = std::vector<std::string>;

/// Rows as lines, with the columns one below the other. The last column is as long as it is.
std::vector<std::string> Aligned(const std::vector<Row>& rows);

/// Prints lines. A terminal would break those that are too long, and with them the table: there
/// they are cut to its width.
void PrintCut(const std::vector<std::string>& lines);

}  // namespace jobmillctl
