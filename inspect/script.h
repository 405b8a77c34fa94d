#pragma once

#include "inspect/site.h"

namespace inspect {

/// What is wrong with the distribution script of a site, and with the simulator that the one for a
/// single machine is told to start.
Findings CheckScript(const Site& site);

/// Gives this process the environment of a run: that in which the daemon starts, with the
/// environment file applied as the daemon does.
void TakeEnvironment(const Site& site);

}  // namespace inspect
