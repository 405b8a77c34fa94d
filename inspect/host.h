#pragma once

#include "inspect/site.h"

namespace inspect {

/// What is wrong with this machine for a daemon of these options: names, clock, limits and kernel
/// settings. Waits up to half a minute where somebody does not answer.
Findings CheckHost(const Site& site);

}  // namespace inspect
