#pragma once

#include <string>
#include <string_view>

#include "inspect/site.h"

namespace inspect {

/// What is wrong with the distribution script of a site, and with the simulator that the one for a
/// single machine is told to start.
Findings CheckScript(const Site& site);

/// Whether a script of this text is one of the shipped ones, or was made from one.
bool IsPackagedScript(std::string_view text);

/// Whether the script in use is a shipped one that starts simulators elsewhere.
bool IsForCluster(const Site& site);

/// Gives this process the environment of a run: that in which the daemon starts, with the
/// environment file applied as the daemon does.
void TakeEnvironment(const Site& site);

/// What a variable is in the environment of a run; empty when it is not set.
std::string RunVariable(const Site& site, const char* name);

}  // namespace inspect
