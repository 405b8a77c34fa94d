#pragma once

#include <optional>

#include "inspect/machine.h"
#include "inspect/runs.h"

namespace inspect {

/// The link of a connection child to its master. Without the right to see what the child has open,
/// it is found only if it can be no other's.
std::optional<Link> MasterOf(const Machine& machine, const Jobmill& jobmill, const Run& run);

/// The same for the link to its simulator.
std::optional<Link> SimulatorLinkOf(const Machine& machine, const Jobmill& jobmill, const Run& run);

/// Sets the state of a run, what it waits for and since when, by the system call in which its
/// connection child waits, or else by what was last sent and received on the links.
void SetState(const Machine& machine, const Jobmill& jobmill, const std::optional<Link>& master,
              const std::optional<Link>& simulator, Run& run);

}  // namespace inspect
