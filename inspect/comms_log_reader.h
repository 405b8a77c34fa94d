#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "inspect/comms_log.h"
#include "inspect/machine.h"
#include "inspect/runs.h"

namespace inspect {

struct CommsLogFile {
  std::string file;
  uid_t owner = 0;  ///< whose file it has to be
};

/// What a comms log holds.
struct CommsLogText {
  std::string error;   ///< why it was not read
  bool whole = false;  ///< otherwise only its end was read
  CommsLog log;
  double changed = 0;           ///< when it was written to last
  std::optional<double> began;  ///< when it was made, as far as the file system tells
};

/// Reads the files. One whose file system does not answer within two seconds is left alone.
std::vector<CommsLogText> ReadCommsLogs(const std::vector<CommsLogFile>& files);

/// Adds to each run what its comms log tells. All of `runs` have to have a connection child.
void AddCommsLogs(const Machine& machine, std::vector<Run>& runs);

}  // namespace inspect
