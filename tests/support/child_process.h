#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// The variable in the environment of whatever a ChildProcess, or what it starts, executes. What is
/// to outlive the ChildProcess is started without it.
inline constexpr const char* kChildMark = "JOBMILL_TEST_CHILD";

/// A process that the test started, with its standard output and standard error in files. It has
/// a process group of its own; the destructor ends the whole group, by its number, and what it has
/// executed in other ones, by kChildMark.
class ChildProcess {
 public:
  struct Options {
    std::string output_file = "/dev/null";
    std::string error_file;  ///< empty: standard error goes where standard output goes
    std::string input_file = "/dev/null";
    std::string directory;                 ///< working directory; empty: the test's
    std::vector<std::string> environment;  ///< "NAME=value", on top of the test's
    /// Runs in the child just before the exec, or in place of it when `arguments` are empty; its
    /// result is then the exit status.
    std::function<int()> in_child;
  };

  ChildProcess(const std::vector<std::string>& arguments, const Options& options);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t pid() const { return pid_; }

  /// Waits for the end. The exit status, 128 plus the number of the signal that ended it, or
  /// nothing when it still runs after `limit`.
  std::optional<int> Wait(std::chrono::milliseconds limit);

  void Signal(int signal) const;

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
};

/// Where this test program is, and beside it the programs that it starts.
std::string ProgramDirectory();

/// Looks every few milliseconds whether `condition` holds; false when it does not within `limit`.
/// For what no descriptor announces, such as the content of another process's log.
bool Eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(10));

/// Whether a process of this number exists and has not ended.
bool IsRunning(pid_t pid);

/// The numbers of the children of `parent`, zombies included.
std::vector<pid_t> ChildrenOf(pid_t parent);

/// How many descriptors a process has open.
std::size_t OpenDescriptors(pid_t pid);

/// A line of /proc/PID/status, as a number: "VmRSS" in KiB for example; -1 when there is none.
long StatusValue(pid_t pid, const std::string& name);
