// Plans: plan.h reads one, course.h carries it out.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/vkmaster/commands/advance.h"
#include "tools/vkmaster/commands/command.h"

namespace vkmaster {

/// Commands that are carried out at a time of the run.
struct PlanEvent {
  Target at;  ///< days or a date
  std::vector<Command> commands;
};

/// A run written down: where it is launched, how far it goes in which steps, what is changed when,
/// and what is recorded.
struct Plan {
  struct Launch {
    std::map<std::string, std::string> texts;  ///< by the names of the options, without "--"
    std::optional<int> port;
  };
  std::string file;  ///< that it was read from
  std::string title;
  Launch launch;
  Target until;
  std::optional<Step> step;
  std::vector<Command> record;  ///< carried out at the start and at the end of every step
  std::vector<PlanEvent> events;
  std::string directory;  ///< for the recorded files
};

/// Reads a plan from a TOML file. Throws UsageError with file and line for anything wrong in it,
/// unknown keys and events after the end included. The events come in the order of their times,
/// where that can be told without the start of the run.
Plan ReadPlan(const std::string& file);

/// The commands with semicolons between them.
std::string TextOf(const std::vector<Command>& commands);

/// A sentence for a plan that neither records nor asks for anything; empty for any other.
std::string NoteOfNothing(const Plan& plan);

/// What the plan will do when, as far as that is known without a run.
Result Preview(const Plan& plan);

}  // namespace vkmaster
