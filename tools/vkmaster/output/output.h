// What engineers and other programs see of vkmaster: results in three forms, the progress line,
// plots, and the files of a plan. Commands make a Result and do not know in which form it is shown.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tools/vkmaster/output/result.h"

namespace vkmaster {

enum class Form { kText, kJson, kCsv };

/// Writes `text` and flushes it. A failed write is ignored, because the run has to be shut down
/// even when nobody reads any more: the terminal has been closed, or the other end of the pipe is
/// gone.
void Tell(std::FILE* to, const std::string& text);

/// Writes results to a stream, complete and flushed one by one, so that a program on the other
/// side of a pipe has each as soon as it is there.
///
/// Text: fields as lines, tables aligned. JSON: one object a line, fields and tables (arrays of
/// objects) by their keys, units by key under "units". CSV: a header line, then the rows; fields
/// are one row; a blank line before the header of the next table.
class Output {
 public:
  /// Both streams stay the caller's. Notes go to `notes`. With JSON the notes of a result are
  /// part of its object instead.
  Output(Form form, std::FILE* out, std::FILE* notes) : form_(form), out_(out), notes_(notes) {}
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  virtual ~Output() = default;

  /// From now on calls `before` ahead of every write, so that it can clear the progress line.
  void BeforeWriting(std::function<void()> before) { before_ = std::move(before); }

  /// Throws std::system_error when the stream takes no more, as a pipe without a reader, and
  /// master::Interrupted when a signal comes while a slow reader is waited for.
  virtual void Write(const Result& result);

  /// Says what went wrong in `command`, and what to look at next unless `hint` is empty. Both go to
  /// the notes' stream; with JSON an object goes to the result stream too, where a program waits
  /// for the result. Failed writes are ignored.
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
  std::string row_header_;  // of the table to which the next row may belong; empty for none
};

/// The value as text. Numbers have six digits, or with `exact` as many as read back as the same.
std::string FormatValue(const Value& value, bool exact);

/// The fields of a result as a table of one row.
Table FieldsAsTable(const Result& result);

/// A CSV line, quoted where needed, with its newline.
std::string CsvLine(const std::vector<std::string>& cells);

/// The table as aligned lines.
std::string FormatTable(const Table& table);

}  // namespace vkmaster
