#pragma once

#include <string>

namespace CLI {
class App;
}

namespace jobmillctl {

/// Declares the option --since, which takes only texts that TimeOf() understands. `since` has to
/// live as long as `command`.
void DeclareSince(CLI::App& command, std::string& since, const std::string& help);

/// The time "2d" or "90m" ago, "2026-11-21" or "2026-11-21 14:00", the zone being that of this
/// machine, as seconds since 1970; 0 for other texts.
double TimeOf(const std::string& since);

}  // namespace jobmillctl
