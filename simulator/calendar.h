#pragma once

#include <array>
#include <chrono>

namespace simulator {

/// Year, month, day, hour, minute, second: the order of "DATE" and "START_DATE" on the link.
using DateTime = std::array<int, 6>;

/// `start` (at midnight) plus `days`, rounded to whole seconds. Proleptic Gregorian, no leap
/// seconds and no time zone.
DateTime date_after(std::chrono::year_month_day start, double days);

}  // namespace simulator
