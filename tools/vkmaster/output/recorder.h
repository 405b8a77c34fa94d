#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/vkmaster/output/output.h"

namespace vkmaster {

/// An output that writes the tables of results to CSV files, one for each command, and each row
/// with the time and date that it belongs to. A table with other columns than the command's first
/// one has a file of its own: "vars.csv", "vars_2.csv".
class Recorder : public Output {
 public:
  /// Makes the directory. Notes go to `notes`. `await_room` is called as long as the file system is
  /// full, takes its time, and throws to give the results up. Throws UsageError when the directory
  /// cannot be made.
  Recorder(std::string directory, std::FILE* notes, std::function<void()> await_room);

  /// The time, in days since the start, and date ("2026-01-31") of the results to come.
  void SetTime(double days, std::string date);

  /// Closes the files and returns their names.
  std::set<std::string> Close();

  /// The notes of results that are `lasting`, each with its command, since the last call.
  std::vector<std::string> TakeNotes() { return std::exchange(lasting_, {}); }

  /// Replaces files of earlier runs when it first writes to them. Throws UsageError when a file
  /// cannot be written.
  void Write(const Result& result) override;

 private:
  struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  struct File {
    std::string path;
    std::unique_ptr<std::FILE, Closer> stream;
    std::uintmax_t size = 0;  ///< bytes of the rows that were written whole
  };

  void MakeDirectory();
  void WriteTable(const std::string& name, const Table& table);
  File& FileFor(const std::string& name, const std::string& header);
  void Append(File& file, const std::string& text);

  std::string directory_;
  std::function<void()> await_room_;
  double days_ = 0;
  std::string date_;
  std::map<std::string, File> files_;  // by name and header
  std::map<std::string, int> count_;   // how many files have this name
  std::vector<std::string> lasting_;
};

}  // namespace vkmaster
