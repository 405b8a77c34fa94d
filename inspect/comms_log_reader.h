#pragma once

#include <vector>

#include "inspect/machine.h"
#include "inspect/runs.h"

namespace inspect {

/// Adds what their comms logs tell of the runs, all of which have a connection child. A file system
/// that does not answer within two seconds is left alone.
void AddCommsLogs(const Machine& machine, std::vector<Run>& runs);

}  // namespace inspect
