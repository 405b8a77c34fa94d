#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace inspect {

/// What `question` answers, or nothing when it does not within `limit`. It is asked in a process of
/// its own, which is killed then: name services and network file systems may keep a process for
/// minutes. So what it changes, its account even, stays there.
std::optional<std::string> Ask(const std::function<std::string()>& question,
                               std::chrono::milliseconds limit = std::chrono::seconds(10));

struct CommandAnswer {
  int status = 0;      ///< exit status; 127: it could not be executed; -1: a signal ended it
  std::string output;  ///< what it printed
};

/// Whether what a command says about its failure is part of its answer.
enum class Complaints { kLeftOut, kIncluded };

/// Runs a program with arguments, in / and with nothing to read. A name without a slash is looked
/// for in PATH. Nothing when it does not end within `limit`; it is killed then, with what it has
/// started.
std::optional<CommandAnswer> RunCommand(const std::vector<std::string>& words,
                                        Complaints complaints = Complaints::kLeftOut,
                                        std::chrono::milliseconds limit = std::chrono::seconds(10));

}  // namespace inspect
