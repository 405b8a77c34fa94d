#pragma once

#include <array>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "inspect/runs.h"

namespace jobmillctl {

/// All states, in the order of a run's life.
inline constexpr std::array kStates = {
    inspect::RunState::kHandshake,        inspect::RunState::kScript,
    inspect::RunState::kSimulatorListens, inspect::RunState::kMaster,
    inspect::RunState::kSimulator,        inspect::RunState::kEnded,
    inspect::RunState::kEnding,           inspect::RunState::kLost,
    inspect::RunState::kUnknown,
};

/// How a launch can come out, and why a master can be refused, as far as the daemon's log tells.
/// These words are for programs, too: they stay.
inline constexpr std::array kLaunchResults = {"host named", "no host", "not started"};
inline constexpr std::array kRefusalReasons = {"unknown user",   "user not allowed", "no account",
                                               "account change", "user file",        "environment",
                                               "not a master",   "broken connection"};

/// What the gates count, by their own words.
inline constexpr std::array kGateCounts = {"connections", "refused", "links",   "admitted",
                                           "denied",      "broken",  "resumed", "ended"};

/// What is measured besides the runs themselves: what the daemons use of their limits, and what has
/// been counted since the first measurement. `before` is the last measurement, from which the
/// counts go on, or null. Reads what the logs have got since then, 16 MiB at most.
nlohmann::ordered_json Measure(const inspect::Runs& found, double now,
                               const nlohmann::ordered_json& before);

/// Adds what the whole lines of a daemon's log tell to the counts "launches" and "refusals" of a
/// measurement. Masters and scripts may have sent what looks like such lines.
void CountLines(std::string_view text, nlohmann::ordered_json& measured);

}  // namespace jobmillctl
