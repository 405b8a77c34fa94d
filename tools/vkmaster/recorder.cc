#include "tools/vkmaster/recorder.h"

#include <filesystem>
#include <utility>

#include <fmt/format.h>

#include "tools/vkmaster/usage_error.h"

namespace vkmaster {

Recorder::Recorder(std::string directory, std::FILE* notes)
    : Output(Form::kCsv, nullptr, notes), directory_(std::move(directory)) {
  std::error_code error;
  std::filesystem::create_directories(directory_, error);
  if (error) {
    throw UsageError("Cannot make the directory '" + directory_ + "': " + error.message());
  }
}

void Recorder::SetTime(double days, std::string date) {
  days_ = days;
  date_ = std::move(date);
}

void Recorder::Write(const Result& result) {
  // A table speaks for the command; its fields are recorded when it has none.
  for (const Table& table : result.tables) {
    const bool first = &table == &result.tables.front();
    WriteTable(first ? result.command : result.command + "_" + table.key, table);
  }
  if (result.tables.empty() && !result.fields.empty()) {
    WriteTable(result.command, FieldsAsTable(result));
  }
  for (const std::string& note : result.notes) {
    Note(fmt::format("note: day {:.6g}, {}: {}", days_, result.command, note));
  }
}

void Recorder::WriteTable(const std::string& name, const Table& table) {
  std::vector<std::string> header{"time_days", "date"};
  for (const Column& column : table.columns) {
    // A state has its own time and date, which are the same.
    if (column.key != "time_days" && column.key != "date") header.push_back(column.key);
  }
  std::FILE* file = FileFor(name, CsvLine(header));
  for (const auto& row : table.rows) {
    std::vector<std::string> cells{FormatValue(days_, true), date_};
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string& key = table.columns[i].key;
      if (key != "time_days" && key != "date") cells.push_back(FormatValue(row[i], true));
    }
    fmt::print(file, "{}", CsvLine(cells));
  }
  if (std::fflush(file) != 0) throw UsageError("Cannot write " + name + ".csv");
}

std::FILE* Recorder::FileFor(const std::string& name, const std::string& header) {
  auto& file = files_[name + "\n" + header];
  if (file) return file.get();
  const int number = ++count_[name];
  const std::string path = (std::filesystem::path(directory_) /
                            (number == 1 ? name + ".csv" : fmt::format("{}_{}.csv", name, number)))
                               .string();
  file.reset(std::fopen(path.c_str(), "we"));
  if (!file) throw UsageError("Cannot write '" + path + "'");
  fmt::print(file.get(), "{}", header);
  return file.get();
}

}  // namespace vkmaster
