#pragma once

#include <string>

#include "tools/jobmillctl/serve/page.h"

namespace jobmillctl::serve {

/// What a Prometheus reads: metrics with all values of their labels, which are closed lists. NaN
/// stands for what is not known. docs/monitoring.md tells them.
std::string Metrics(const View& view);

}  // namespace jobmillctl::serve
