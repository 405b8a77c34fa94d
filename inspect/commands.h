#pragma once

#include <string>

#include "inspect/site.h"

namespace inspect {

/// What is wrong with the commands that the shipped scripts call, for the accounts as which they
/// run, and whether the scheduler answers. Waits up to ten seconds for the scheduler, and for each
/// command that is looked for in a file system that does not answer.
Findings CheckCommands(const Site& site);

/// The commands of the system that the shipped script for a single machine calls, or those for
/// clusters.
std::string SystemCommands(bool single_machine);

}  // namespace inspect
