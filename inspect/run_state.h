#pragma once

#include <optional>

#include "inspect/machine.h"
#include "inspect/runs.h"

namespace inspect {

/// The link of a connection child to its master. Without the right to look at the child only where
/// it can be no other's.
std::optional<Link> MasterOf(const Machine& machine, const Jobmill& jobmill, const Run& run);

/// The same for the link to its simulator.
std::optional<Link> SimulatorLinkOf(const Machine& machine, const Jobmill& jobmill, const Run& run);

/// Sets the state of a run, what it waits for and since when, by what its connection child waits
/// in.
void SetState(const Machine& machine, const Jobmill& jobmill, const std::optional<Link>& master,
              const std::optional<Link>& simulator, Run& run);

}  // namespace inspect
