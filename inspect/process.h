#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"

namespace inspect {

/// The daemon's program, whose name its processes and connection children have.
inline constexpr std::string_view kDaemonProgram = "vkjobmill.exe";

/// What the kernel adds to the name of a file that was removed or replaced.
inline constexpr std::string_view kDeleted = " (deleted)";

/// Who a process is. A number alone is not enough: another process may get it later.
struct ProcessId {
  pid_t pid = 0;
  std::uint64_t start = 0;  ///< clock ticks since the machine started

  friend bool operator==(const ProcessId&, const ProcessId&) = default;
};

/// What everybody may know of a process.
struct ProcessStat {
  ProcessId id;
  std::string name;  ///< at most 15 bytes, of the process's own choice
  char state = '?';  ///< R, S, D, T, Z, ... as in proc(5)
  pid_t parent = 0;
  pid_t group = 0;
  pid_t session = 0;
  std::uint64_t ticks = 0;  ///< processor time that it has used
};

/// Reads the text of /proc/PID/stat. None when the text is not of that form.
std::optional<ProcessStat> ParseStat(std::string_view text);

/// A process while it is looked at. All that is asked for is read from one open directory of /proc,
/// so that it is never another process's: when the process has ended, nothing is found any more.
/// What a process has open is named and never opened itself, which could block. Texts are the
/// process's own and may hold anything.
class Process {
 public:
  /// None when there is no such process.
  static std::optional<Process> Open(pid_t pid);

  /// None also when the number has become another process's.
  static std::optional<Process> Open(const ProcessId& id);

  const ProcessStat& stat() const { return stat_; }

  /// Whether it has not ended since. One that was not waited for by its parent has ended, too.
  bool IsAlive() const;

  /// The effective user.
  std::optional<uid_t> User() const;

  /// Its command line, which it may have rewritten. Empty when there is none.
  std::vector<std::string> Arguments() const;

  /// Where "exe", "cwd", "fd/0" or another link leads to. None without the right to know.
  std::optional<std::string> Link(const char* name) const;

  struct OpenFile {
    int number = -1;
    std::string target;  ///< a path, or "socket:[INODE]", "pipe:[INODE]", ...
  };
  /// What it has open. None without the right to know.
  std::optional<std::vector<OpenFile>> Files() const;

  /// The system call in which it waits, and the descriptor that is the first argument of those that
  /// have one there. None when it is not waiting, or without the right to know.
  struct Call {
    long number = -1;
    int descriptor = -1;
  };
  std::optional<Call> WaitsIn() const;

  /// A variable of its environment, as it was when its program started. None when it is not set, or
  /// without the right to know.
  std::optional<std::string> Variable(std::string_view name) const;

 private:
  Process(Descriptor directory, ProcessStat stat);
  std::optional<std::string> Read(const char* file) const;

  Descriptor directory_;
  ProcessStat stat_;
};

/// All processes that can be seen.
std::vector<ProcessStat> AllProcesses();

/// When a process of these ticks started, in seconds since 1970.
double StartTime(std::uint64_t ticks);

/// `ticks` of processor time in seconds.
double Seconds(std::uint64_t ticks);

/// The inode in "socket:[INODE]" or "pipe:[INODE]". None when `target` is no such text.
std::optional<std::uint64_t> InodeIn(std::string_view target, std::string_view kind);

}  // namespace inspect
