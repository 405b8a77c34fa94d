#pragma once

#include <string>

namespace jobmillctl {

/// Shows the runs, or the one that is meant by `run`, until q or Ctrl-C: on a terminal in place,
/// elsewhere a line for each change. The gates of this machine say in the files of the directory
/// `gates` what goes on.
int Watch(const std::string& run, const std::string& gates);

}  // namespace jobmillctl
