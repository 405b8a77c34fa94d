#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "fuzz/support/promise.h"

/// A file in memory that can be opened by name. With a `link`, its name is that of a symbolic link
/// in a directory of its own, for readers that know their file's name.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& link = "")
      : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)),
        path_("/proc/self/fd/" + std::to_string(descriptor_)) {
    PROMISE(descriptor_ >= 0);
    if (link.empty()) return;
    directory_ = (std::filesystem::temp_directory_path() / "fuzz-XXXXXX").string();
    PROMISE(mkdtemp(directory_.data()) != nullptr);
    std::filesystem::create_symlink(path_, directory_ + "/" + link);
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() {
    if (!directory_.empty()) std::filesystem::remove_all(directory_);
    close(descriptor_);
  }

  const std::string& path() const { return path_; }
  const std::string& directory() const { return directory_; }

  /// Replaces what it holds.
  void Write(std::string_view text) {
    const auto size = static_cast<ssize_t>(text.size());
    PROMISE(pwrite(descriptor_, text.data(), text.size(), 0) == size);
    PROMISE(ftruncate(descriptor_, size) == 0);
  }

 private:
  int descriptor_;
  std::string path_;
  std::string directory_;
};
