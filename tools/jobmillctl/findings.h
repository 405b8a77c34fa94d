#pragma once

#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "inspect/site.h"

namespace jobmillctl {

/// What `check` finds at these sites, as one JSON document. docs/jobmillctl.md tells its fields.
nlohmann::ordered_json FindingsOf(const std::vector<inspect::Site>& sites);

}  // namespace jobmillctl
