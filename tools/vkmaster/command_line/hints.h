#pragma once

#include <exception>
#include <string>

#include "tools/vkmaster/session/session.h"

namespace vkmaster {

/// How a launch or a command failed.
struct Failure {
  int status = 0;            ///< the program's exit status for it
  std::string text;          ///< what happened
  std::string hint;          ///< what to look at next; may be empty
  bool run_goes_on = false;  ///< nothing was sent, and the next command may be tried
};

/// What `error` means for somebody who launched as `launched` says. `connecting` is true until the
/// daemon is connected to the simulator.
Failure Explain(const std::exception& error, const Launched& launched, bool connecting);

/// What to look at when the daemon refused a run with `text`, empty for an end without a word.
std::string HintForRefusal(const std::string& text, const master::RunRequest& request);

}  // namespace vkmaster
