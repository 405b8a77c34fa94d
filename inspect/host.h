#pragma once

#include "inspect/site.h"

namespace inspect {

/// What is wrong with this machine for the daemon of a site: names, clock, limits and kernel
/// settings. Waits up to ten seconds for each name and each file system that does not answer.
Findings CheckHost(const Site& site);

}  // namespace inspect
