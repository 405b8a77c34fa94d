#pragma once

#include "tools/vkmaster/commands/command.h"
#include "tools/vkmaster/plans/plan.h"

namespace vkmaster {

/// Carries the plan out. At every stop what is to be recorded is recorded first, then the commands
/// of that time are carried out: records show the state that the controls until then led to. Only
/// at the start it is the other way round, since nothing has been run yet.
///
/// Every table that the commands give goes to a file of the command's name in the directory, with
/// time and date in front of each row; the state at each stop to steps.csv and to the context's
/// output. Throws what commands throw, and UsageError when a file cannot be written.
void CarryOut(const Plan& plan, Context& context);

}  // namespace vkmaster
