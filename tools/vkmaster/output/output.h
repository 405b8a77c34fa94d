#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tools/vkmaster/output/result.h"

namespace vkmaster {

enum class Form { kText, kJson, kCsv };

/// Writes `text` for the engineer, at once. That nobody is there to read it any more, at a terminal
/// that was closed for example, is no error: the run has to be shut down all the same.
void Tell(std::FILE* to, const std::string& text);

/// Writes results to a stream, complete and flushed one by one, so that a program on the other
/// side of a pipe has each as soon as it is there.
///
/// Text: fields as lines, tables aligned. JSON: one object a line, fields and tables (arrays of
/// objects) by their keys, units by key under "units". CSV: a header line, then the rows; fields
/// are one row; a blank line before the header of the next table.
class Output {
 public:
  /// Both streams stay the caller's. Notes go to `notes`, except that JSON has them in the object.
  Output(Form form, std::FILE* out, std::FILE* notes) : form_(form), out_(out), notes_(notes) {}
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  virtual ~Output() = default;

  /// From now on `before` is called before anything is written: the place to clear a progress line.
  void BeforeWriting(std::function<void()> before) { before_ = std::move(before); }

  /// Throws std::system_error when the stream takes no more, a pipe that nobody reads for example,
  /// and master::Interrupted when a signal came while a reader was slow to take it.
  virtual void Write(const Result& result);

  /// What went wrong, and what to look at next (may be empty). Always on the notes' stream; with
  /// JSON an object on the other one too, so that a program finds it in its place. Throws nothing
  /// when the streams take no more.
  void WriteError(const std::string& command, const std::string& text, const std::string& hint);

  /// A line for the engineer.
  void Note(const std::string& text);

 private:
  void WriteText(const Result& result);
  void WriteCsv(const Result& result);
  void Put(const std::string& text);
  bool ContinuesRow(const Result& result);

  Form form_;
  std::FILE* out_;
  std::FILE* notes_;
  std::function<void()> before_;
  bool begun_ = false;
  std::string row_header_;  // of the table that rows go on with; empty when there is none
};

/// The value as text: numbers to six digits, or, `exact`, so that they read back as the same.
std::string FormatValue(const Value& value, bool exact);

/// The fields of a result as a table of one row.
Table FieldsAsTable(const Result& result);

/// A CSV line, quoted where needed, with its newline.
std::string CsvLine(const std::vector<std::string>& cells);

/// The table as aligned lines.
std::string FormatTable(const Table& table);

}  // namespace vkmaster
