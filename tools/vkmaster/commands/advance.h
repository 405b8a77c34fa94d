#pragma once

#include <optional>
#include <string>

#include "tools/vkmaster/commands/command.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

/// Times that differ by less than this, in days and about a second, count as the same.
inline constexpr double kSameTime = 1e-5;

/// Where an advance goes.
struct Target {
  enum class Kind { kDays, kRelative, kDate };
  Kind kind = Kind::kDays;
  double days = 0;
  master::Date date;
};

/// "3650", "+30", "2030-01-01". Throws UsageError.
Target ParseTarget(const std::string& word);

/// The target as days since the start. Throws UsageError when it lies before the start.
double DaysOf(const Target& target, Session& session);

struct AdvanceRequest {
  Target target;
  std::optional<Step> step;
  bool rates = false;  ///< every row has the sums over all wells
};

/// TARGET [step STEP] [rates]
AdvanceRequest ParseUntil(const Words& arguments);

/// STEP until TARGET [rates]
AdvanceRequest ParseEvery(const Words& arguments);

/// Runs to the target, in the request's steps, else in the context's, else in one piece, and writes
/// a row for each. Begins with the first time step of the run unless that is done. Stops when the
/// simulation ends.
void Advance(Context& context, const AdvanceRequest& request);

/// The row of the present state: time, date, ended, and with `rates` the sums over all wells.
Result StateRow(Session& session, const std::string& command, bool rates);

}  // namespace vkmaster
