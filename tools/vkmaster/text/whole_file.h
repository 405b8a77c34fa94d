#pragma once

#include <fstream>
#include <string>
#include <string_view>

namespace vkmaster {

/// A file that is replaced as a whole: whoever reads it at any moment finds the former one or the
/// new one. Until PutInPlace() what is written stands beside it, under its name and ".new", and is
/// removed when it never comes to that.
///
/// All of these throw UsageError when the file cannot be written.
class WholeFile {
 public:
  explicit WholeFile(std::string path);
  WholeFile(const WholeFile&) = delete;
  WholeFile& operator=(const WholeFile&) = delete;
  ~WholeFile();

  void Write(std::string_view text);
  void PutInPlace();

 private:
  void Check() const;

  std::string path_;
  std::string next_;
  std::ofstream stream_;
  bool in_place_ = false;
};

}  // namespace vkmaster
