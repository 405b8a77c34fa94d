#pragma once

#include "inspect/site.h"

namespace inspect {

/// What keeps a daemon of these options from listening, or who listens in its place.
Findings CheckPort(const Site& site);

}  // namespace inspect
