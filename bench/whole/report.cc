#include "bench/whole/report.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace bench {
namespace {

// Three significant digits or so, without exponents.
std::string Short(double value) {
  if (value == 0) return "";
  if (value >= 100) return fmt::format("{:.0f}", value);
  return fmt::format("{:.{}f}", value, value >= 10 ? 1 : 2);
}

std::string Goal(const Row& row) {
  if (row.goal == 0) return "";
  const double reached = row.ratio > 0 ? row.ratio : row.value;
  return fmt::format("{} {}", Short(row.goal), reached <= row.goal ? "yes" : "NO");
}

}  // namespace

std::string Table(const std::vector<Row>& rows) {
  std::string text = fmt::format("{:<44} {:>9} {:>9} {:>7} {:>7}  {}\n", "", "jobmill", "floor",
                                 "ratio", "+-", "goal");
  for (const Row& row : rows) {
    text += fmt::format("{:<44} {:>9} {:>9} {:>7} {:>7}  {}\n", row.name + " [" + row.unit + "]",
                        Short(row.value), Short(row.floor),
                        row.ratio > 0 ? fmt::format("{:.2f}", row.ratio) : "",
                        row.ratio > 0 ? fmt::format("{:.2f}", row.spread) : "", Goal(row));
  }
  return text;
}

std::string Json(const std::vector<Row>& rows) {
  nlohmann::ordered_json all = nlohmann::ordered_json::array();
  for (const Row& row : rows) {
    nlohmann::ordered_json entry = {{"name", row.name}, {"unit", row.unit}, {"value", row.value}};
    if (row.floor > 0) entry["floor"] = row.floor;
    if (row.ratio > 0) {
      entry["ratio"] = row.ratio;
      entry["spread"] = row.spread;
    }
    if (row.goal > 0) entry["goal"] = row.goal;
    if (row.growth > 0) entry["growth"] = row.growth;
    all.push_back(entry);
  }
  return all.dump(2) + "\n";
}

}  // namespace bench
