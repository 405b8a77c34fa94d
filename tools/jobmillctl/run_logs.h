#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "inspect/run_file.h"
#include "inspect/runs.h"

namespace jobmillctl {

struct RunLog {
  std::string title;  ///< printable
  std::string file;
  uid_t owner = 0;  ///< the account of the run, which has to own the file
};

/// The comms log and the simulator's output, as far as there are any.
std::vector<RunLog> LogsOf(const inspect::Run& run);

/// The last lines, printable; in place of them one that says why they cannot be read.
std::vector<std::string> LastLines(const RunLog& log, std::size_t count);

/// Prints the whole first log of the run.
int PrintLog(const inspect::Run& run);

/// The same, and then what is added until the process that the run is numbered by has ended.
int FollowLog(const inspect::Run& run);

}  // namespace jobmillctl
