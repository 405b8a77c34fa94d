#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/vkmaster/command_line/input.h"

namespace vkmaster {

class Interrupt;

/// Gives the names of a run. Each is called only for commands that take such names.
struct RunNames {
  using Giver = std::function<std::vector<std::string>()>;
  Giver wells;
  Giver components = [] { return std::vector<std::string>(); };
  Giver sources = [] { return std::vector<std::string>(); };
};

/// The words that begin with `begin` and make sense after the text `before`: commands where a
/// command is due, else what the command takes.
std::vector<std::string> Completions(const std::string& before, const std::string& begin,
                                     const RunNames& names);

/// The line editor at the terminal, with a history kept in a file. One at a time.
///
/// On Windows the console edits the line and keeps the history, until it is closed.
class Prompt : public LineSource {
 public:
  /// `text` gives the prompt, `names` what to complete with; `interrupt` stays the caller's.
  Prompt(std::function<std::string()> text, RunNames names, Interrupt& interrupt);
  ~Prompt() override;
  Prompt(const Prompt&) = delete;
  Prompt& operator=(const Prompt&) = delete;

  /// Ctrl-C empties the line; Ctrl-D on an empty line, SIGTERM and SIGHUP end the input. Throws
  /// master::Interrupted when the names of the run were asked for and their giver did.
  std::optional<std::string> Next() override;

 private:
  std::function<std::string()> text_;
  Interrupt& interrupt_;
#ifdef _WIN32
  RunNames names_;
#else
  std::string history_;
#endif
};

}  // namespace vkmaster
