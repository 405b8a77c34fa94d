#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/descriptor.h"

namespace inspect {

/// A question that is asked in a process of its own: name services and network file systems may
/// keep a process for minutes. What it changes, its account even, stays there.
class Inquiry {
 public:
  /// Begins to ask. Where no process can be created, nothing is answered.
  Inquiry(const std::function<std::string()>& question, std::chrono::milliseconds limit);
  Inquiry(const Inquiry&) = delete;
  Inquiry& operator=(const Inquiry&) = delete;

  /// Kills the process if it still runs, and does not wait for its end: a process that hangs in a
  /// file system may not even end when it is killed.
  ~Inquiry();

  /// Takes what has been answered so far, and waits for more for `most`. True when there is nothing
  /// more to wait for: all is answered, or the limit is over, and the process was killed.
  bool IsDone(std::chrono::milliseconds most);

  /// The whole answer, once IsDone(); nothing where it failed or took too long.
  std::optional<std::string> TakeAnswer();

  /// Becomes readable when there is something for IsDone() to take.
  int descriptor() const { return input_.get(); }

  /// Whether the process has ended altogether.
  bool HasEnded();

 private:
  using Clock = std::chrono::steady_clock;

  void End(bool answered);

  Descriptor input_;
  Clock::time_point limit_;
  pid_t child_ = -1;  // -1: it has ended
  int status_ = -1;
  bool answered_ = false;
  std::string text_;
};

/// What `question` answers, or nothing when it does not within `limit`.
std::optional<std::string> Ask(const std::function<std::string()>& question,
                               std::chrono::milliseconds limit = std::chrono::seconds(10));

struct CommandAnswer {
  int status = 0;      ///< exit status; 127: it could not be executed; -1: a signal ended it
  std::string output;  ///< what it printed
};

/// Whether what a command says about its failure is part of its answer.
enum class Complaints { kLeftOut, kIncluded };

/// Runs a program with arguments, in /, with LC_ALL=C and nothing to read. A name without a slash
/// is looked for in PATH. Nothing when it does not end within `limit`; it is killed then, with what
/// it has started.
std::optional<CommandAnswer> RunCommand(const std::vector<std::string>& words,
                                        Complaints complaints = Complaints::kLeftOut,
                                        std::chrono::milliseconds limit = std::chrono::seconds(10));

}  // namespace inspect
