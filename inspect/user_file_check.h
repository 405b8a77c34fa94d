#pragma once

#include "inspect/site.h"

namespace inspect {

/// What is wrong with the user administration file of a site.
Findings CheckUserFile(const Site& site);

}  // namespace inspect
