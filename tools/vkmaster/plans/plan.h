#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/vkmaster/command_line/options.h"
#include "tools/vkmaster/commands/advance.h"
#include "tools/vkmaster/commands/registry.h"

namespace vkmaster {

/// Commands at a time.
struct PlanEvent {
  Target at;  ///< days or a date
  std::vector<Command> commands;
};

/// A run written down: where it is launched, how far it goes in which steps, what is changed when,
/// and what is recorded.
struct Plan {
  struct Launch {
    std::optional<std::string> host, path, root, processes, api, user, debug, cluster;
    std::optional<int> port;
  };
  Launch launch;
  Target until;
  std::optional<Step> step;
  std::vector<Command> record;  ///< at the start and at the end of every step
  std::vector<PlanEvent> events;
  std::string directory;  ///< of the files recorded
};

/// Reads a plan from a TOML file. Throws UsageError with file and line for all that is wrong in
/// it, also for a key that there is not: a misspelt one must not silently leave something out.
Plan ReadPlan(const std::string& file);

/// Sets what the plan says of the launch, except for the options `given` otherwise ("--host").
void ApplyLaunch(const Plan& plan, Options& options, const std::set<std::string>& given = {});

/// Carries the plan out. At every stop what is to be recorded is recorded first, then the commands
/// of that time are carried out: records show the state that the controls until then led to. Only
/// at the start it is the other way round, since nothing has been run yet.
///
/// Every table that the commands give goes to a file of the command's name in the directory, with
/// time and date in front of each row; the state at each stop to steps.csv and to the context's
/// output. Throws what commands throw, and UsageError when a file cannot be written.
void CarryOut(const Plan& plan, Context& context);

}  // namespace vkmaster
