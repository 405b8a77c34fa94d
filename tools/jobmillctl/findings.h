#pragma once

#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "inspect/finding.h"
#include "inspect/site.h"

namespace jobmillctl {

/// All severities, the worst first.
inline constexpr inspect::Severity kSeverities[] = {
    inspect::Severity::kError, inspect::Severity::kWarning, inspect::Severity::kUnchecked};

/// What `check` finds at these sites, as one JSON document. docs/jobmillctl.md tells its fields.
nlohmann::ordered_json FindingsOf(const std::vector<inspect::Site>& sites);

}  // namespace jobmillctl
