#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

/// A directory that goes, with all that is in it, when the object does.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "jobmill-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = name;
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }

  /// The absolute name of `file` in the directory.
  std::string File(const std::string& file) const { return (path_ / file).string(); }

  /// Creates or replaces `file` and returns its absolute name.
  std::string Write(const std::string& file, const std::string& text) const {
    std::ofstream(path_ / file, std::ios::binary | std::ios::trunc) << text;
    return File(file);
  }

  /// The whole content of `file`; empty when it does not exist.
  std::string Read(const std::string& file) const {
    std::ifstream in(path_ / file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

 private:
  std::filesystem::path path_;
};
