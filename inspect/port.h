#pragma once

#include "inspect/site.h"

namespace inspect {

/// What keeps a daemon of these options from listening, or who listens in its place.
Findings CheckPort(const Site& site);

/// Who has comms ports that simulators of this machine will be given. Nothing is said about the
/// scripts for clusters: their simulators listen elsewhere.
Findings CheckCommsPorts(const Site& site);

}  // namespace inspect
