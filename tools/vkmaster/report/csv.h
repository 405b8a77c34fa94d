#pragma once

#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace vkmaster {

/// The lines of a CSV file as Recorder writes them.
class CsvFile {
 public:
  /// Throws UsageError when the file cannot be read.
  explicit CsvFile(const std::string& path);

  const std::vector<std::string>& header() const { return header_; }

  /// The cells of the next line, which hold until the next call; null at the end. A last line
  /// without its end is left out: the run that writes it goes on. Throws UsageError for a line that
  /// has not as many cells as the header.
  const std::vector<std::string_view>* Next();

  /// Throws UsageError for the line that Next() gave last.
  [[noreturn]] void Refuse(const std::string& reason) const;

 private:
  bool ReadLine();
  void Split();

  std::string path_;
  std::ifstream stream_;
  std::string line_;
  std::string unquoted_;  // what the cells with quotes hold
  std::vector<std::string_view> cells_;
  std::vector<std::string> header_;
  std::size_t number_ = 0;
};

}  // namespace vkmaster
