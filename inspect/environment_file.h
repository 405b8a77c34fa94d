#pragma once

#include "inspect/site.h"

namespace inspect {

/// What is wrong with the environment file of a site. Values are in no finding: they may be secret.
Findings CheckEnvironmentFile(const Site& site);

}  // namespace inspect
