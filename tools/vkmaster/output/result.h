#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace vkmaster {

/// A value to show; nothing stands for one that there is not.
using Value = std::variant<std::monostate, bool, std::int64_t, double, std::string>;

struct Field {
  std::string key;    ///< for programs: in JSON and CSV
  std::string label;  ///< for people
  Value value;
  std::string unit;  ///< empty for none
};

struct Column {
  std::string key;
  std::string label;
  std::string unit;
};

struct Table {
  std::string key;
  std::string title;  ///< shown above; empty for none
  std::vector<Column> columns;
  std::vector<std::vector<Value>> rows;  ///< each as long as `columns`
};

/// What a command has to say, whatever form it is shown in.
struct Result {
  std::string command{};
  std::vector<Field> fields{};
  std::vector<Table> tables{};
  std::string drawing{};             ///< for people only
  std::vector<std::string> notes{};  ///< what the engineer should know besides
  bool row = false;  ///< the fields are one row of a table that the next results go on with
};

}  // namespace vkmaster
