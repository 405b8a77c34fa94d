#pragma once

#include "gate/opening.h"

namespace gate {

/// Now, by a clock that nobody sets and that goes on while the machine sleeps.
Time Now();

/// Milliseconds since 1970, for what people and programs read.
Time WallTime();

}  // namespace gate
