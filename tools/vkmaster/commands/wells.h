#pragma once

#include <string>
#include <vector>

#include "tools/vkmaster/commands/command.h"

namespace vkmaster {

/// The commands on wells. Each takes the words behind the command's name and throws UsageError for
/// those that it cannot have.

Action ParseWells(const Words& arguments);  // [WELLS]
Action ParseData(const Words& arguments);   // [WELLS]
Action ParseVars(const Words& arguments);   // WELLS NAME...
Action ParseStatusOf(const std::string& command, const std::string& status,
                     const Words& arguments);   // WELLS
Action ParseSetStatus(const Words& arguments);  // STATUS WELLS
Action ParseUptime(const Words& arguments);     // WELLS FRACTION
Action ParseConstrain(const Words& arguments);  // WELLS NAME=VALUE... ...

/// What constrain understood, with the wells still as they were typed.
struct ConstraintGroup {
  Words wells;
  std::vector<std::string> names;  ///< the simulator's
  std::vector<double> values;
};

std::vector<ConstraintGroup> ParseConstraints(const Words& arguments);

/// Sets the constraints in as many requests as it takes, and remembers them in the session.
void SetConstraints(Session& session, const std::vector<master::WellConstraints>& wells);

/// Sets one status each, likewise.
void SetStatuses(Session& session, const std::vector<std::string>& wells,
                 const std::vector<std::string>& statuses);

}  // namespace vkmaster
