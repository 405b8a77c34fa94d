#include "tools/vkmaster/output/output.h"

#include <errno.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <system_error>
#include <type_traits>
#include <variant>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "master/errors.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {
namespace {

using Json = nlohmann::ordered_json;

// Length in characters of UTF-8 text, for alignment.
std::size_t Width(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string Pad(const std::string& text, std::size_t width, bool right) {
  const std::string blanks(width - std::min(width, Width(text)), ' ');
  return right ? blanks + text : text + blanks;
}

bool IsNumber(const Value& value) {
  return std::holds_alternative<double>(value) || std::holds_alternative<std::int64_t>(value);
}

Json ToJson(const Value& value) {
  return std::visit(
      [](const auto& held) -> Json {
        if constexpr (std::is_same_v<std::decay_t<decltype(held)>, std::monostate>) {
          return nullptr;
        } else {
          return held;
        }
      },
      value);
}

void AddUnit(Json& units, const std::string& key, const std::string& unit) {
  if (!unit.empty()) units[key] = unit;
}

Json ToJson(const Table& table) {
  Json rows = Json::array();
  for (const auto& cells : table.rows) {
    Json row = Json::object();
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
      row[table.columns[i].key] = ToJson(cells[i]);
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

// JSON is UTF-8: a peer's bytes that are not become replacement characters, and no result is lost.
std::string Dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string JsonLine(const Result& result) {
  Json object{{"command", result.command}};
  Json units = Json::object();
  for (const Field& field : result.fields) {
    object[field.key] = ToJson(field.value);
    AddUnit(units, field.key, field.unit);
  }
  for (const Table& table : result.tables) {
    object[table.key] = ToJson(table);
    for (const Column& column : table.columns) AddUnit(units, column.key, column.unit);
  }
  if (!units.empty()) object["units"] = units;
  if (!result.notes.empty()) object["notes"] = result.notes;
  return Dump(object);
}

std::string Heading(const Column& column) {
  return Printable(column.label) + (column.unit.empty() ? "" : " [" + column.unit + "]");
}

std::string CsvHeader(const Table& table) {
  std::vector<std::string> cells;
  cells.reserve(table.columns.size());
  for (const Column& column : table.columns) cells.push_back(column.key);
  return CsvLine(cells);
}

std::string CsvRows(const Table& table) {
  std::string text;
  for (const auto& row : table.rows) {
    std::vector<std::string> cells;
    cells.reserve(row.size());
    for (const Value& value : row) cells.push_back(FormatValue(value, true));
    text += CsvLine(cells);
  }
  return text;
}

// Rows that are written one by one cannot have the width of values that are yet to come.
constexpr std::size_t kStreamWidth = 12;

std::string StreamLine(const std::vector<std::string>& cells, const std::vector<Column>& columns) {
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::size_t width = std::max(kStreamWidth, Width(Heading(columns[i])));
    line += Pad(cells[i], width, true) + "  ";
  }
  return TrimRight(line) + "\n";
}

std::string StreamHeader(const Table& table) {
  std::vector<std::string> cells;
  for (const Column& column : table.columns) cells.push_back(Heading(column));
  return StreamLine(cells, table.columns);
}

std::string StreamRow(const Table& table) {
  std::vector<std::string> cells;
  for (const Value& value : table.rows[0]) cells.push_back(Printable(FormatValue(value, false)));
  return StreamLine(cells, table.columns);
}

std::string FormatFields(const std::vector<Field>& fields) {
  std::size_t width = 0;
  for (const Field& field : fields) width = std::max(width, Width(field.label));
  std::string text;
  for (const Field& field : fields) {
    const std::string value = Printable(FormatValue(field.value, false));
    const std::string unit = value.empty() || field.unit.empty() ? "" : " " + field.unit;
    text += TrimRight(Pad(field.label, width, false).append("  ").append(value).append(unit));
    text += '\n';
  }
  return text;
}

}  // namespace

std::string FormatValue(const Value& value, bool exact) {
  return std::visit(
      [exact](const auto& held) -> std::string {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, std::monostate>) {
          return "";
        } else if constexpr (std::is_same_v<Held, bool>) {
          return held ? (exact ? "true" : "yes") : (exact ? "false" : "no");
        } else if constexpr (std::is_same_v<Held, double>) {
          if (exact) return fmt::format("{}", held);
          return std::abs(held) >= 1e6 && std::abs(held) < 1e12 ? fmt::format("{:.0f}", held)
                                                                : fmt::format("{:.6g}", held);
        } else {
          return fmt::format("{}", held);
        }
      },
      value);
}

Table FieldsAsTable(const Result& result) {
  Table table{"", "", {}, {{}}};
  for (const Field& field : result.fields) {
    table.columns.push_back({field.key, field.label, field.unit});
    table.rows[0].push_back(field.value);
  }
  return table;
}

std::string CsvLine(const std::vector<std::string>& cells) {
  std::string line;
  for (const std::string& cell : cells) {
    if (&cell != &cells.front()) line += ',';
    if (cell.find_first_of(",\"\r\n") == std::string::npos) {
      line += cell;
      continue;
    }
    line += '"';
    for (const char c : cell) line += c == '"' ? std::string("\"\"") : std::string(1, c);
    line += '"';
  }
  return line + "\n";
}

std::string FormatTable(const Table& table) {
  std::vector<std::vector<std::string>> lines(1);
  std::vector<bool> right(table.columns.size(), false);
  for (const Column& column : table.columns) lines[0].push_back(Heading(column));
  for (const auto& row : table.rows) {
    lines.emplace_back();
    for (std::size_t i = 0; i < row.size(); ++i) {
      lines.back().push_back(Printable(FormatValue(row[i], false)));
      if (IsNumber(row[i])) right[i] = true;
    }
  }
  std::vector<std::size_t> widths(table.columns.size(), 0);
  for (const auto& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], Width(line[i]));
  }
  std::string text = table.title.empty() ? "" : Printable(table.title) + "\n";
  for (const auto& cells : lines) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      line += Pad(cells[i], widths[i], right[i]) + "  ";
    }
    text += TrimRight(line) + "\n";
  }
  return text;
}

void Tell(std::FILE* to, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), to);
  std::fflush(to);
}

void Output::Write(const Result& result) {
  switch (form_) {
    case Form::kText:
      WriteText(result);
      break;
    case Form::kJson:
      Put(JsonLine(result));
      return;
    case Form::kCsv:
      WriteCsv(result);
      break;
  }
  for (const std::string& note : result.notes) Note("note: " + Printable(note));
}

void Output::WriteError(const std::string& command, const std::string& text,
                        const std::string& hint) {
  Note("vkmaster: " + Printable(text));
  if (!hint.empty()) Note("hint: " + Printable(hint));
  if (form_ != Form::kJson) return;
  // Programs compare the name with that of the results.
  const std::string name = command.substr(0, command.find(' '));
  Json object{{"command", name}};
  if (name != command) object["text"] = command;
  object["error"] = text;
  if (!hint.empty()) object["hint"] = hint;
  if (before_) before_();
  Tell(out_, Dump(object));
}

void Output::Note(const std::string& text) {
  if (before_) before_();
  std::string shown;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    shown += Printable(std::string_view(text).substr(begin, end - begin)) + "\n";
    begin = end + 1;
  }
  Tell(notes_, shown);
}

// True when the result is a row of the table that the last result belonged to: no new header.
bool Output::ContinuesRow(const Result& result) {
  if (!result.row) {
    row_header_.clear();
    return false;
  }
  std::string header = result.command + " " + CsvHeader(FieldsAsTable(result));
  if (header == row_header_) return true;
  row_header_ = std::move(header);
  return false;
}

void Output::WriteText(const Result& result) {
  const bool goes_on = ContinuesRow(result);
  std::string text;
  if (result.row) {
    const Table table = FieldsAsTable(result);
    text = (goes_on ? "" : StreamHeader(table)) + StreamRow(table);
  } else {
    text = FormatFields(result.fields);
  }
  for (const Table& table : result.tables) {
    if (!text.empty()) text += '\n';
    text += FormatTable(table);
  }
  if (!result.drawing.empty()) text += '\n' + result.drawing;
  Put(text);
}

void Output::WriteCsv(const Result& result) {
  const bool goes_on = ContinuesRow(result);
  const auto put = [this](const Table& table, bool with_header) {
    if (with_header) Put((begun_ ? "\n" : "") + CsvHeader(table));
    begun_ = true;
    Put(CsvRows(table));
  };
  if (!result.fields.empty()) put(FieldsAsTable(result), !goes_on);
  for (const Table& table : result.tables) put(table, true);
}

void Output::Put(const std::string& text) {
  if (before_) before_();
  // The run ends when nobody reads the results: days of computing would be lost.
  if (std::fwrite(text.data(), 1, text.size(), out_) != text.size() || std::fflush(out_) != 0) {
    if (errno == EINTR) throw master::Interrupted("Interrupted while writing the results");
    throw std::system_error(errno, std::generic_category(), "The results cannot be written");
  }
}

}  // namespace vkmaster
