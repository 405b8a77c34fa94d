#include <string>
#include <vector>

#include "tools/vkmaster/command_line/prompt.h"
#include "tools/vkmaster/commands/registry.h"
#include "tools/vkmaster/session/quantities.h"
#include "tools/vkmaster/text/usage_error.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {
namespace {

// The words, other than wells, that may follow a command.
std::vector<std::string> ArgumentsOf(const std::string& command) {
  if (command == "help") {
    std::vector<std::string> names;
    for (const CommandHelp& help : CommandList()) names.push_back(help.name);
    return names;
  }
  if (command == "until" || command == "every") {
    return {"step", "rates", "until", "daily", "weekly", "monthly", "quarterly", "yearly"};
  }
  std::vector<std::string> names;
  if (command == "vars" || command == "constrain" || command == "unconstrain") {
    const bool limits = command != "vars";
    const std::string end = command == "constrain" ? "=" : "";
    for (const Quantity& quantity : Quantities()) {
      if (limits && quantity.limits == Limits::kNone) continue;
      names.push_back(quantity.name + end);
      names.push_back(quantity.property + end);
    }
  }
  if (command == "set-status") names = Statuses();
  if (command == "ipr") {
    names = {"bhp", "thp", "skewness", "components", "all", "lift", "keep", "no-plot"};
  }
  return names;
}

bool TakesWells(const std::string& command) {
  for (const CommandHelp& help : CommandList()) {
    if (help.name == command) return help.arguments.find("WELL") != std::string::npos;
  }
  return false;
}

// The words of the command that is being typed.
Words CommandBegun(const std::string& before) {
  try {
    Words command;
    for (const std::string& word : SplitWords(before)) {
      if (IsSeparator(word)) {
        command.clear();
      } else {
        command.push_back(word);
      }
    }
    return command;
  } catch (const UsageError&) {
    return {};
  }
}

}  // namespace

std::vector<std::string> Completions(const std::string& before, const std::string& begin,
                                     const RunNames& names) {
  const Words command = CommandBegun(before);
  std::vector<std::string> candidates;
  if (command.empty()) {
    for (const CommandHelp& help : CommandList()) candidates.push_back(help.name);
  } else {
    candidates = ArgumentsOf(command[0]);
    const auto add = [&candidates](const RunNames::Giver& giver, const char* end) {
      for (const std::string& name : giver()) candidates.push_back(name + end);
    };
    if (TakesWells(command[0])) add(names.wells, "");
    if (command[0] == "composition") {
      add(names.sources, "");
      add(names.components, "=");
    }
  }
  std::erase_if(candidates, [&begin](const std::string& name) { return !name.starts_with(begin); });
  return candidates;
}

}  // namespace vkmaster
