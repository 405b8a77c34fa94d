#pragma once

#include <optional>
#include <string>

#include "master/records.h"

namespace vkmaster {

/// The date written as "2026-01-31". Nothing for any other text and for a day that the month lacks.
std::optional<master::Date> ParseDate(const std::string& text);

/// The date as "2026-01-31". Numbers that are no date are shown all the same.
std::string FormatDate(const master::Date& date);

/// Whole days from `start` to `date`.
double DaysBetween(const master::Date& start, const master::Date& date);

/// How far a step of a long advance goes.
struct Step {
  enum class Kind { kDays, kMonthly, kQuarterly, kYearly };
  Kind kind = Kind::kDays;
  double days = 0;  ///< positive with kDays, else without meaning

  bool operator==(const Step&) const = default;
};

/// "30", "daily", "weekly", "monthly", "quarterly", "yearly". Throws UsageError.
Step ParseStep(const std::string& word);

/// When the step that begins at `days` ends, both in days since `start`. Monthly, quarterly and
/// yearly steps end on the first day of the next month, quarter or year, where production is
/// reported, however near that is.
double EndOfStep(const Step& step, const master::Date& start, double days);

}  // namespace vkmaster
