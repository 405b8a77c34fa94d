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

/// Where an advance goes, and when an event of a plan is.
struct Target {
  enum class Kind { kDays, kRelative, kDate };
  Kind kind = Kind::kDays;
  double days = 0;
  master::Date date;
  bool digits = false;  ///< days written as digits alone: they may be meant as a year
};

/// "3650", "+30", "2030-01-01". Throws UsageError, also for a date without its dashes.
Target ParseTarget(const std::string& word);

/// True for days that may be meant as a calendar year: digits alone, 1800 to 2299.
bool MayBeYear(const Target& target);

/// Throws UsageError when the target may as well be a year of a run that starts at `start`: the run
/// would go to a day of that number and could not go back.
void RefuseYear(const Target& target, const master::Date& start);

/// "day 3650", "+30 days", "2030-01-01".
std::string FormatTarget(const Target& target);

/// How many days `one` is before `other`. Nothing when that depends on the start of the run.
std::optional<double> DaysBetween(const Target& one, const Target& other);

/// How far a step of a long advance goes.
struct Step {
  enum class Kind { kDays, kMonthly, kQuarterly, kYearly };
  Kind kind = Kind::kDays;
  double days = 0;  ///< positive with kDays, else without meaning

  bool operator==(const Step&) const = default;
};

/// "30", "2w", "daily", "weekly", "monthly", "quarterly", "yearly". Throws UsageError.
Step ParseStep(const std::string& word);

/// "monthly", or "of 30 days".
std::string FormatStep(const Step& step);

/// When the step that begins at `days` ends, both in days since `start`. Monthly, quarterly and
/// yearly steps end on the first day of the next month, quarter or year, where production is
/// reported, however near that is.
double EndOfStep(const Step& step, const master::Date& start, double days);

}  // namespace vkmaster
