#pragma once

#include <optional>
#include <string>

#include "tools/vkmaster/commands/command.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

/// Times nearer to each other than these days are the same: a step of less than a second is of no
/// use.
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
  bool rates = false;  ///< the sums over all wells with every step
};

/// TARGET [step STEP] [rates]
AdvanceRequest ParseUntil(const Words& arguments);

/// STEP until TARGET [rates]
AdvanceRequest ParseEvery(const Words& arguments);

/// Runs to the target, in the steps asked for or else in one, and writes a row for each. Takes the
/// run to its first time step first when nobody has. Stops when the simulation ends.
void Advance(Context& context, const AdvanceRequest& request);

/// The row of the present state: time, date, ended, and with `rates` the sums over all wells.
Result StateRow(Session& session, const std::string& command, bool rates);

}  // namespace vkmaster
