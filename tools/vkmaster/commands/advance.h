#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/vkmaster/commands/command.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

/// Times that differ by less than this, in days and about a second, count as the same.
inline constexpr double kSameTime = 1e-5;

/// The target as days since the start. Throws UsageError when it lies before the start, and when
/// its days may as well be a year of the run.
double DaysOf(const Target& target, Session& session);

/// Throws UsageError when the target's days may as well be a year of the run.
void RefuseYear(const Target& target, Session& session);

struct AdvanceRequest {
  Target target;
  std::optional<Step> step;
  bool rates = false;  ///< every row has the sums over all wells
};

/// TARGET [step STEP] [rates]
AdvanceRequest ParseUntil(const Words& arguments);

/// STEP until TARGET [rates]
AdvanceRequest ParseEvery(const Words& arguments);

/// The note on a simulation that has ended before the day `target`.
std::string EndedBefore(const Session& session, double target);

/// Runs to the target, in the request's steps, else in the context's, else in one piece, and writes
/// a row for each. Begins with the first time step of the run unless that is done. Stops when the
/// simulation ends. When it has ended already, the row of its end is written.
void Advance(Context& context, const AdvanceRequest& request);

/// Throws UsageError when one of the commands goes to a time that an earlier one has reached.
/// Without `session` days are compared with days and dates with dates. With it, and with dates
/// among the targets, all are compared as days, and with the present time of the run.
void CheckOrder(const std::vector<Command>& commands, Session* session = nullptr);

/// The sums over all wells, and what they add up to with all that the session has read before: the
/// more often rates are read, the better it is.
Result FieldResult(Session& session);

/// The row of the present state: time, date, ended, and with `rates` the sums over all wells.
Result StateRow(Session& session, const std::string& command, bool rates);

}  // namespace vkmaster
