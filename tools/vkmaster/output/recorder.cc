#include "tools/vkmaster/output/recorder.h"

#include <errno.h>

#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

std::string CannotWrite(const std::string& path) {
  return fmt::format("Cannot write '{}': {}", path, std::generic_category().message(errno));
}

bool IsFull(int error) {
#ifdef EDQUOT
  if (error == EDQUOT) return true;
#endif
  return error == ENOSPC;
}

}  // namespace

Recorder::Recorder(std::string directory, std::FILE* notes, std::function<void()> await_room)
    : Output(Form::kCsv, nullptr, notes),
      directory_(std::move(directory)),
      await_room_(std::move(await_room)) {
  MakeDirectory();
}

void Recorder::MakeDirectory() {
  std::error_code error;
  std::filesystem::create_directories(PathOf(directory_), error);
  if (error) {
    throw UsageError("Cannot make the directory '" + directory_ + "': " + error.message());
  }
}

void Recorder::SetTime(double days, std::string date) {
  days_ = days;
  date_ = std::move(date);
}

void Recorder::Write(const Result& result) {
  // A result with tables is recorded by its tables, a result without any by its fields.
  for (const Table& table : result.tables) {
    const bool first = &table == &result.tables.front();
    WriteTable(first ? result.command : result.command + "_" + table.key, table);
  }
  if (result.tables.empty()) WriteTable(result.command, FieldsAsTable(result));
  for (const std::string& note : result.notes) {
    Note(fmt::format("note: day {:.6g}, {}: {}", days_, result.command, note));
    if (result.lasting) lasting_.push_back(fmt::format("{}: {}", result.command, note));
  }
}

std::set<std::string> Recorder::Close() {
  std::set<std::string> names;
  for (const auto& [key, file] : std::exchange(files_, {})) {
    names.insert(PathOf(file.path).filename().string());
  }
  return names;
}

void Recorder::WriteTable(const std::string& name, const Table& table) {
  std::vector<std::string> header{"time_days", "date"};
  for (const Column& column : table.columns) {
    // The state at a stop has columns of its own for time and date, with the same values.
    if (column.key != "time_days" && column.key != "date") {
      const std::string& title = column.recorded.empty() ? column.key : column.recorded;
      header.push_back(column.unit.empty() ? title : title + " [" + column.unit + "]");
    }
  }
  std::string text;
  for (const auto& row : table.rows) {
    std::vector<std::string> cells{FormatValue(days_, true), date_};
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string& key = table.columns[i].key;
      if (key != "time_days" && key != "date") cells.push_back(FormatValue(row[i], true));
    }
    text += CsvLine(cells);
  }
  Append(FileFor(name, CsvLine(header)), text);
}

Recorder::File& Recorder::FileFor(const std::string& name, const std::string& header) {
  File& file = files_[name + "\n" + header];
  if (file.stream) {
    namespace fs = std::filesystem;
    const fs::path path = PathOf(file.path);
    // Of a file that cannot be looked at file_size() gives the largest number: it is not gone.
    std::error_code error;
    const bool gone = fs::status(path, error).type() == fs::file_type::not_found ||
                      fs::file_size(path, error) < file.size;
    if (!gone) return file;
    const std::string note = fmt::format(
        "'{}' has gone, with what it held; it is written anew from day {:.6g}", file.path, days_);
    Note("note: " + note);
    lasting_.push_back(note);
    MakeDirectory();
    file.size = 0;
  } else {
    const int number = ++count_[name];
    file.path = (PathOf(directory_) /
                 (number == 1 ? name + ".csv" : fmt::format("{}_{}.csv", name, number)))
                    .string();
  }
  file.stream.reset(OpenToWrite(file.path));
  if (!file.stream) throw UsageError(CannotWrite(file.path));
  // A buffer would later write, once more, rows whose write has failed.
  std::setvbuf(file.stream.get(), nullptr, _IONBF, 0);
  Append(file, header);
  return file;
}

// Rows are written at once, so that they are in the file however the program ends. When the file
// system is full, what was written of them is taken back and the run waits: no row is lost.
void Recorder::Append(File& file, const std::string& text) {
  for (bool told = false;
       std::fwrite(text.data(), 1, text.size(), file.stream.get()) != text.size(); told = true) {
    const std::string failure = CannotWrite(file.path);
    const bool full = IsFull(errno);
    std::error_code ignored;
    std::filesystem::resize_file(PathOf(file.path), file.size, ignored);
    if (!full) throw UsageError(failure);
    if (!told) Note("note: " + failure + "; the run waits until there is room");
    await_room_();
    std::clearerr(file.stream.get());
    std::fseek(file.stream.get(), static_cast<long>(file.size), SEEK_SET);
  }
  file.size += text.size();
}

}  // namespace vkmaster
