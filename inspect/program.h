#pragma once

#include "inspect/site.h"

namespace inspect {

/// What keeps the daemon's executable from being started. It is asked for its version, if nobody
/// but root can have changed it.
Findings CheckProgram(const Site& site);

}  // namespace inspect
