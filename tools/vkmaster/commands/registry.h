#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/vkmaster/output/output.h"
#include "tools/vkmaster/output/progress.h"
#include "tools/vkmaster/session/session.h"
#include "tools/vkmaster/text/calendar.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

/// What a command works with; all stay the caller's.
struct Context {
  Session& session;
  Output& output;
  Progress& progress;
  std::optional<Step> step;  ///< of an advance that names none itself; none for a single step
  bool quit = false;         ///< set by quit
};

/// Writes its result to the output. Throws UsageError before anything is sent, and what the
/// library throws.
using Action = std::function<void(Context&)>;

/// A command that has been understood as far as that is possible without the run.
struct Command {
  std::string text;  ///< as it was given
  Action execute;
  bool needs_run = true;  ///< false for help
};

/// One entry of the help.
struct CommandHelp {
  std::string name;
  std::string arguments;
  std::string help;
};

const std::vector<CommandHelp>& CommandList();

/// The help of all commands, or, when `name` is one, of that.
std::string HelpText(const std::string& name = "");

/// Throws UsageError for a command that there is not and for arguments that it cannot have.
Command ParseCommand(const Words& words);

/// All commands of a line or of the program's arguments.
std::vector<Command> ParseCommands(const Words& words);

/// How `words` were written, near enough.
std::string Join(const Words& words);

}  // namespace vkmaster
