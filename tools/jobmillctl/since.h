#pragma once

#include <string>

namespace CLI {
class App;
}

namespace jobmillctl {

/// Declares the option --since with a text that stays in `since` as long as it has a meaning.
void DeclareSince(CLI::App& command, std::string& since, const std::string& help);

/// "2d" ago, "90m", "2026-11-21", "2026-11-21 14:00" as seconds since 1970; 0 for other texts.
double TimeOf(const std::string& since);

}  // namespace jobmillctl
