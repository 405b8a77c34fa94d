#pragma once

#include "inspect/site.h"

namespace inspect {

/// What is wrong with the options of a daemon, as it will understand them.
Findings CheckOptions(const Site& site);

}  // namespace inspect
