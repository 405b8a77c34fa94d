#pragma once

#include <string>

#include "tools/vkmaster/commands/command.h"
#include "tools/vkmaster/plans/plan.h"

namespace vkmaster {

/// Carries the plan out. At every stop the record commands come first and then the events of that
/// time, so that records show what the controls until then led to. At the start the events come
/// first, since nothing has been run yet.
///
/// Every table of a command goes to a file of the command's name in the plan's directory, with time
/// and date in front of each row. The state at each stop goes to steps.csv and to the context's
/// output. Throws what commands throw, and UsageError when a file cannot be written and, at the
/// end, when the simulation ended before events of the plan.
/// `report` is the file of the report, which is made while the run goes on and at its end; empty
/// for none. With `overwrite` the results of an earlier run in the directory are removed, once all
/// that can be checked before the first step has been.
void CarryOut(const Plan& plan, const std::string& report, bool overwrite, Context& context);

}  // namespace vkmaster
