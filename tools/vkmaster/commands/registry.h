#pragma once

#include <string>
#include <vector>

#include "tools/vkmaster/commands/command.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

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

}  // namespace vkmaster
