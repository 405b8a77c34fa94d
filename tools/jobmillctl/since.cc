#include "tools/jobmillctl/since.h"

#include <stdlib.h>
#include <time.h>

#include <string_view>
#include <utility>

#include <CLI/CLI.hpp>

#include "inspect/runs.h"

namespace jobmillctl {

void DeclareSince(CLI::App& command, std::string& since, const std::string& help) {
  command.add_option("--since", since, help)->type_name("TIME")->check([](const std::string& text) {
    return TimeOf(text) > 0 ? "" : "a time is such as 2d, 12h, 90m or 2026-11-21";
  });
}

double TimeOf(const std::string& since) {
  char* end = nullptr;
  const double number = strtod(since.c_str(), &end);
  constexpr std::pair<std::string_view, double> kUnits[] = {
      {"m", 60}, {"h", 3600}, {"d", 86400}, {"w", 604800}};
  for (const auto& [unit, seconds] : kUnits) {
    if (end == unit && number > 0) return inspect::Now() - number * seconds;
  }
  for (const char* format : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S"}) {
    tm local{};
    local.tm_isdst = -1;
    const char* rest = strptime(since.c_str(), format, &local);
    if (rest == nullptr || *rest != '\0') continue;
    const int day = local.tm_mday;
    const auto time = static_cast<double>(mktime(&local));
    return local.tm_mday == day ? time : 0;  // February 31st would be a day of March
  }
  return 0;
}

}  // namespace jobmillctl
