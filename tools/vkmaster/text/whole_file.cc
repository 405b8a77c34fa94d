#include "tools/vkmaster/text/whole_file.h"

#include <errno.h>

#include <filesystem>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

UsageError CannotWrite(const std::string& path, const std::error_code& error) {
  return UsageError(fmt::format("Cannot write '{}': {}", path, error.message()));
}

}  // namespace

WholeFile::WholeFile(std::string path)
    : path_(std::move(path)),
      next_(path_ + ".new"),
      stream_(PathOf(next_), std::ios::binary | std::ios::trunc) {
  Check();
}

WholeFile::~WholeFile() {
  if (in_place_) return;
  stream_.close();
  std::error_code ignored;
  std::filesystem::remove(PathOf(next_), ignored);
}

void WholeFile::Write(std::string_view text) {
  stream_.write(text.data(), static_cast<std::streamsize>(text.size()));
  Check();
}

void WholeFile::PutInPlace() {
  stream_.close();
  Check();
  std::error_code error;
  std::filesystem::rename(PathOf(next_), PathOf(path_), error);
  if (error) throw CannotWrite(path_, error);
  in_place_ = true;
}

void WholeFile::Check() const {
  if (!stream_) throw CannotWrite(path_, {errno, std::generic_category()});
}

}  // namespace vkmaster
