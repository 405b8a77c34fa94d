#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/vkmaster/commands/command.h"

namespace vkmaster {

// The commands on wells. Each parser gets the words after the command's name and throws UsageError
// when it does not take them.

Parsed ParseWells(const Words& arguments);  // [WELLS]
Parsed ParseData(const Words& arguments);   // [WELLS]
Parsed ParseVars(const Words& arguments);   // WELLS NAME... or ?
Parsed ParseStatusOf(const std::string& command, const std::string& status,
                     const Words& arguments);     // WELLS
Parsed ParseSetStatus(const Words& arguments);    // STATUS WELLS or ?
Parsed ParseUptime(const Words& arguments);       // WELLS FRACTION
Parsed ParseConstrain(const Words& arguments);    // WELLS NAME=VALUE... ... or ?
Parsed ParseUnconstrain(const Words& arguments);  // WELLS [NAME...]

using WellsByName = std::map<std::string, master::WellStatus>;
WellsByName ByName(const std::vector<master::WellStatus>& wells);

/// A limit of `property` that no well of this type meets. There is no request that takes a limit
/// off.
double NoLimit(const std::string& property, const std::string& well_type, bool metric);

/// "P1, P2, P3 and 7 more".
std::string Listed(const Words& words);

/// Wells as they were typed after constrain, and the limits for each of them.
struct ConstraintGroup {
  Words wells;
  std::vector<std::string> names;  ///< the simulator's
  std::vector<double> values;
};

std::vector<ConstraintGroup> ParseConstraints(const Words& arguments);

/// Sets the constraints in as many requests as it takes, and remembers them in the session.
void SetConstraints(Session& session, const std::vector<master::WellConstraints>& wells);

/// Sets `statuses[i]` for `wells[i]`, in as many requests as it takes.
void SetStatuses(Session& session, const std::vector<std::string>& wells,
                 const std::vector<std::string>& statuses);

}  // namespace vkmaster
