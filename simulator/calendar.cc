#include "simulator/calendar.h"

#include <cmath>

namespace simulator {

DateTime date_after(std::chrono::year_month_day start, double days) {
  using std::chrono::sys_days;
  constexpr double kSecondsPerDay = 86400;
  const std::chrono::seconds since{std::llround(days * kSecondsPerDay)};
  const auto whole = std::chrono::floor<std::chrono::days>(since);
  const std::chrono::year_month_day date{sys_days{start} + whole};
  const std::chrono::hh_mm_ss clock{since - whole};
  return {static_cast<int>(date.year()),
          static_cast<int>(static_cast<unsigned>(date.month())),
          static_cast<int>(static_cast<unsigned>(date.day())),
          static_cast<int>(clock.hours().count()),
          static_cast<int>(clock.minutes().count()),
          static_cast<int>(clock.seconds().count())};
}

}  // namespace simulator
