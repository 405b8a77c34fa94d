#pragma once

#include <string>

namespace jobmillctl {

/// Shows the runs, or the one that is meant by `run`, until q or Ctrl-C: on a terminal in place,
/// elsewhere a line for each change.
int Watch(const std::string& run);

}  // namespace jobmillctl
