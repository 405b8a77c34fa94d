#pragma once

#include <optional>
#include <string>

#include "master/records.h"

namespace vkmaster {

/// The date that "2026-01-31" is; nothing for any other text, also one of a day that no month has.
std::optional<master::Date> ParseDate(const std::string& text);

/// "2026-01-31"; whatever the numbers are, they are shown.
std::string FormatDate(const master::Date& date);

/// Whole days from `start` to `date`.
double DaysBetween(const master::Date& start, const master::Date& date);

/// How far a step of a long advance goes.
struct Step {
  enum class Kind { kDays, kMonthly, kQuarterly, kYearly };
  Kind kind = Kind::kDays;
  double days = 0;  ///< of kDays; positive

  bool operator==(const Step&) const = default;
};

/// "30", "daily", "weekly", "monthly", "quarterly", "yearly". Throws UsageError.
Step ParseStep(const std::string& word);

/// The time, in days since `start`, at which the step that begins at `days` ends. Months, quarters
/// and years end on their firsts, where production is reported, not after so many days.
double EndOfStep(const Step& step, const master::Date& start, double days);

}  // namespace vkmaster
