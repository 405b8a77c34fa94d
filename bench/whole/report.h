#pragma once

#include <string>
#include <vector>

namespace bench {

/// One line of the table.
struct Row {
  std::string name;
  std::string unit;
  double value = 0;
  double floor = 0;   ///< 0: there is none
  double ratio = 0;   ///< 0: there is none
  double spread = 0;  ///< of the ratio
  double goal = 0;    ///< of the ratio or, without one, of the value; 0: none
  double growth = 0;  ///< over the base of a scale; 0: there is none
};

/// The table for people.
std::string Table(const std::vector<Row>& rows);

/// The same for programs.
std::string Json(const std::vector<Row>& rows);

}  // namespace bench
