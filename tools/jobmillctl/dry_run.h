#pragma once

#include <string>

#include "inspect/site.h"

namespace jobmillctl {

struct DryRun {
  std::string account;          ///< as which the script is started
  std::string beside = "/tmp";  ///< where the private directory of the data is made
  int seconds = 60;             ///< how long the host line may take
};

/// Starts the script of `site` as its daemon would, with the stand-in simulator and data of its
/// own, and prints every line up to the host line. Ends all that it started, and removes the data.
/// The port is one that the system chooses: those of the daemon may be given to a run meanwhile. No
/// connection is made. Returns kOk when a daemon here would find the host. Throws Failed.
///
/// This process becomes the parent of whatever its children leave behind.
int RunDry(const inspect::Site& site, const DryRun& given);

}  // namespace jobmillctl
