#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace vkmaster {

/// A value to show; std::monostate when it is missing.
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
  std::string recorded{};  ///< stands for the key in the files of a plan; empty for the key itself
};

struct Table {
  std::string key;
  std::string title;  ///< shown above; empty for none
  std::vector<Column> columns;
  std::vector<std::vector<Value>> rows;  ///< each as long as `columns`
};

/// The outcome of a command, in no particular form.
struct Result {
  std::string command{};
  std::vector<Field> fields{};
  std::vector<Table> tables{};
  std::string drawing{};             ///< for people only
  std::vector<std::string> notes{};  ///< what the engineer should know besides
  bool lasting = false;  ///< the notes are of what has happened to the run: kept with its results
  bool row = false;      ///< the fields are a row of a table to which later results add rows
};

}  // namespace vkmaster
