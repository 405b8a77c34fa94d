#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/vkmaster/commands/advance.h"
#include "tools/vkmaster/commands/command.h"

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
    std::optional<std::string> host, path, root, processes, version, user, debug, cluster;
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

}  // namespace vkmaster
