#pragma once

#include <exception>
#include <string>

#include "tools/vkmaster/session/session.h"

namespace vkmaster {

/// What became of a launch or a command.
struct Failure {
  int status = 0;            ///< the program's exit status for it
  std::string text;          ///< what happened
  std::string hint;          ///< what to look at next; may be empty
  bool run_goes_on = false;  ///< the link is as it was
};

/// What `error` means for somebody who launched as `launched` says. `connecting` is true until the
/// daemon is connected to the simulator.
Failure Explain(const std::exception& error, const Launched& launched, bool connecting);

/// What to look at when the daemon refused a run with `text`, which is empty when it ended the
/// connection without one.
std::string HintForRefusal(const std::string& text, const master::RunRequest& request);

}  // namespace vkmaster
