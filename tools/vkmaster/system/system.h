// What vkmaster asks of the system beside the C++ library, and where Linux and Windows differ.
// Texts are UTF-8 on both, the names of files included.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

namespace vkmaster {

/// The path of the file `name`. On Windows the C++ library would not read a std::string as UTF-8,
/// although the string() of a path is.
std::filesystem::path PathOf(const std::string& name);

/// Makes the file `path` anew, for bytes that are written as they are; null with errno when that
/// fails.
std::FILE* OpenToWrite(const std::string& path);

/// Keeps a directory for one program at a time, as far as the others ask as well. Everybody gets a
/// directory that does not exist, or whose file system has no locks.
class DirectoryLock {
 public:
  explicit DirectoryLock(const std::string& directory);
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;
  ~DirectoryLock();

  /// False when another program has it.
  bool held() const { return held_; }

 private:
  std::intptr_t handle_ = -1;
  bool held_ = true;
};

/// The name of the account that the program runs in, "" when it has none.
std::string AccountName();

/// Whether somebody looks at or types into `stream`.
bool IsTerminal(std::FILE* stream);

/// Has `handler` called with SIGINT, SIGTERM or SIGHUP (1) when somebody wants the program to stop:
/// in a signal handler, or on Windows on a thread of the system's. Throws std::runtime_error.
void OnInterrupt(void (*handler)(int signal));

/// The terminal as this program wants it. Windows gives a program a console in the code page and
/// the modes of whoever had it before; at the end of this object it has them again.
class Terminal {
 public:
  Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal();

  /// Whether lines that were written can be taken back: standard output and error are terminals
  /// that understand how.
  bool CanRedraw() const { return can_redraw_; }

 private:
  struct Modes;
  std::unique_ptr<Modes> modes_;
  bool can_redraw_ = false;
};

}  // namespace vkmaster
