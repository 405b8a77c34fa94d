#include "tools/vkmaster/report/csv.h"

#include <algorithm>

#include <fmt/format.h>

#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

[[noreturn]] void RefuseToRead(const std::string& path) {
  throw UsageError("Cannot read the file '" + path + "'");
}

}  // namespace

CsvFile::CsvFile(const std::string& path) : path_(path), stream_(PathOf(path), std::ios::binary) {
  if (!stream_) RefuseToRead(path);
  if (ReadLine()) header_.assign(cells_.begin(), cells_.end());
}

const std::vector<std::string_view>* CsvFile::Next() {
  if (!ReadLine()) return nullptr;
  if (cells_.size() != header_.size()) {
    Refuse(fmt::format("{} cells, but {} in the header", cells_.size(), header_.size()));
  }
  return &cells_;
}

void CsvFile::Refuse(const std::string& reason) const {
  throw UsageError(fmt::format("{}, line {}: {}", path_, number_, reason));
}

bool CsvFile::ReadLine() {
  line_.clear();
  std::string more;
  // A line end inside quotes belongs to the cell.
  do {
    std::getline(stream_, more);
    if (stream_.bad()) RefuseToRead(path_);
    if (stream_.eof()) return false;
    ++number_;
    if (!line_.empty()) line_ += '\n';
    line_ += more;
  } while (std::count(line_.begin(), line_.end(), '"') % 2 != 0);
  if (line_.ends_with('\r')) line_.pop_back();
  Split();
  return true;
}

void CsvFile::Split() {
  cells_.clear();
  unquoted_.clear();
  unquoted_.reserve(line_.size());  // the cells point into it
  const std::string_view line = line_;
  for (std::size_t at = 0; at <= line.size(); ++at) {
    if (at == line.size() || line[at] != '"') {
      const std::size_t end = std::min(line.find(',', at), line.size());
      cells_.push_back(line.substr(at, end - at));
      at = end;
      continue;
    }
    const std::size_t begin = unquoted_.size();
    for (++at; at < line.size(); ++at) {
      if (line[at] == '"' && (++at == line.size() || line[at] != '"')) break;
      unquoted_ += line[at];
    }
    cells_.push_back(std::string_view(unquoted_).substr(begin));
  }
}

}  // namespace vkmaster
