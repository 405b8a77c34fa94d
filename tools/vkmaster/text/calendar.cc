#include "tools/vkmaster/text/calendar.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <system_error>

#include <fmt/core.h>

#include "tools/vkmaster/text/usage_error.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {
namespace {

using std::chrono::months;
using std::chrono::sys_days;
using std::chrono::year_month_day;

year_month_day Calendar(const master::Date& date) {
  return std::chrono::year(date.year) / date.month / date.day;
}

std::optional<int> Digits(const std::string& text, std::size_t begin, std::size_t size) {
  int value = 0;
  const char* end = text.data() + begin + size;
  const auto [stop, error] = std::from_chars(text.data() + begin, end, value);
  if (error != std::errc() || stop != end || text[begin] == '-') return std::nullopt;
  return value;
}

unsigned MonthsPerStep(Step::Kind kind) {
  if (kind == Step::Kind::kYearly) return 12;
  return kind == Step::Kind::kQuarterly ? 3 : 1;
}

}  // namespace

std::optional<master::Date> ParseDate(const std::string& text) {
  if (text.size() != 10 || text[4] != '-' || text[7] != '-') return std::nullopt;
  const auto year = Digits(text, 0, 4);
  const auto month = Digits(text, 5, 2);
  const auto day = Digits(text, 8, 2);
  if (!year || !month || !day) return std::nullopt;
  const master::Date date{*day, *month, *year};
  if (!Calendar(date).ok()) return std::nullopt;
  return date;
}

std::string FormatDate(const master::Date& date) {
  return fmt::format("{:04}-{:02}-{:02}", date.year, date.month, date.day);
}

double DaysBetween(const master::Date& start, const master::Date& date) {
  return static_cast<double>((sys_days(Calendar(date)) - sys_days(Calendar(start))).count());
}

Target ParseTarget(const std::string& word) {
  if (const auto date = ParseDate(word)) return {Target::Kind::kDate, 0, *date};
  const bool relative = word.starts_with('+');
  const double days = ParseNumber(word, "Days, +days or a date like 2030-01-31");
  if (days < 0 || (relative && days == 0)) {
    throw UsageError("A run goes forward only, not to '" + word + "'");
  }
  const bool digits = word.find_first_not_of("0123456789") == std::string::npos;
  if (digits && word.size() == 8) {
    const auto date = ParseDate(word.substr(0, 4) + "-" + word.substr(4, 2) + "-" + word.substr(6));
    if (date && date->year >= 1900) {
      throw UsageError(
          fmt::format("'{0}' looks like a date, which is written {1}; day {0} is "
                      "written {0}.0",
                      word, FormatDate(*date)));
    }
  }
  return {relative ? Target::Kind::kRelative : Target::Kind::kDays, days, {}, digits};
}

bool MayBeYear(const Target& target) {
  return target.digits && target.days >= 1800 && target.days < 2300;
}

void RefuseYear(const Target& target, const master::Date& start) {
  constexpr double kLongestRun = 60;  // years
  const double years = target.days - start.year;
  if (!MayBeYear(target) || years < 0 || years > kLongestRun) return;
  throw UsageError(fmt::format(
      "{0} may be a year or a day: write {0}-01-01 for the year, {0}.0 for the day", target.days));
}

std::string FormatTarget(const Target& target) {
  if (target.kind == Target::Kind::kDate) return FormatDate(target.date);
  return target.kind == Target::Kind::kDays ? fmt::format("day {:.6g}", target.days)
                                            : fmt::format("+{:.6g} days", target.days);
}

std::optional<double> DaysBetween(const Target& one, const Target& other) {
  if (one.kind != other.kind || one.kind == Target::Kind::kRelative) return std::nullopt;
  return one.kind == Target::Kind::kDate ? DaysBetween(one.date, other.date)
                                         : other.days - one.days;
}

Step ParseStep(const std::string& word) {
  if (word == "daily") return {Step::Kind::kDays, 1};
  if (word == "weekly") return {Step::Kind::kDays, 7};
  if (word == "monthly") return {Step::Kind::kMonthly, 0};
  if (word == "quarterly") return {Step::Kind::kQuarterly, 0};
  if (word == "yearly") return {Step::Kind::kYearly, 0};
  if (word.size() > 1 && word.back() == 'w') {
    const double weeks = ParseNumber(word.substr(0, word.size() - 1), "A number of weeks before w");
    if (weeks > 0) return {Step::Kind::kDays, 7 * weeks};
  }
  const std::string what =
      "A number of days, 2w for weeks, daily, weekly, monthly, quarterly or yearly";
  const double days = ParseNumber(word, what);
  if (days <= 0) throw UsageError(what + " wanted, not '" + word + "'");
  return {Step::Kind::kDays, days};
}

std::string FormatStep(const Step& step) {
  switch (step.kind) {
    case Step::Kind::kMonthly:
      return "monthly";
    case Step::Kind::kQuarterly:
      return "quarterly";
    case Step::Kind::kYearly:
      return "yearly";
    case Step::Kind::kDays:
      break;
  }
  return fmt::format("of {:.6g} days", step.days);
}

double EndOfStep(const Step& step, const master::Date& start, double days) {
  if (step.kind == Step::Kind::kDays) return days + step.days;
  const sys_days begin = sys_days(Calendar(start));
  const sys_days today = begin + std::chrono::days(static_cast<int>(std::floor(days)));
  const year_month_day now(today);
  const unsigned per_step = MonthsPerStep(step.kind);
  const unsigned first = (static_cast<unsigned>(now.month()) - 1) / per_step * per_step;
  const year_month_day next =
      now.year() / std::chrono::month(first + 1) / 1 + months(static_cast<int>(per_step));
  return static_cast<double>((sys_days(next) - begin).count());
}

}  // namespace vkmaster
