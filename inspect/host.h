#pragma once

#include "inspect/site.h"

namespace inspect {

/// What is wrong with this machine for a daemon of these options: names, clock, room for the log,
/// limits, kernel settings, the commands of the scheduler, and the packet filter. Waits up to half
/// a minute where somebody does not answer.
Findings CheckHost(const Site& site);

/// Whether these rules, as nft lists them, keep somebody away from the port: whether what comes in
/// is dropped unless a rule lets it in, or a rule names the port.
bool Guards(const std::string& rules, int port);

}  // namespace inspect
