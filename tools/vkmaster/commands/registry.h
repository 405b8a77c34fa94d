#pragma once

#include <string>
#include <vector>

#include "tools/vkmaster/commands/command.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

struct CommandHelp {
  std::string name;
  std::string arguments;
  std::string help;
};

const std::vector<CommandHelp>& CommandList();

/// The help of the command `name`, or of all commands when `name` is empty. Throws UsageError for
/// an unknown name.
std::string HelpText(const std::string& name = "");

/// Throws UsageError for an unknown command and for arguments that it does not take.
Command ParseCommand(const Words& words);

/// All commands of a line or of the program's arguments.
std::vector<Command> ParseCommands(const Words& words);

}  // namespace vkmaster
