#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "inspect/runs.h"

namespace jobmillctl {

/// What is found, as one JSON document. docs/status.md tells its fields.
nlohmann::ordered_json JsonOf(const inspect::Runs& found, double now);

/// The same for people: a line for each daemon, a line of headings and a line for each run. All
/// texts are printable.
std::vector<std::string> LinesOf(const inspect::Runs& found, double now);

/// All that is known of one run, a line for each thing.
std::vector<std::string> DetailsOf(const inspect::Run& run, double now);

/// The one run of `found` that a person means by its number, the number of one of its processes,
/// the root name of its model or its job. Throws Failed when there is none, or more than one.
const inspect::Run& Choose(const inspect::Runs& found, const std::string& name);

/// Whether Choose() would find `name` to mean one run or more.
bool IsOneOf(const inspect::Runs& found, const std::string& name);

/// The run in a few words: "run 4711 (alice, /data/CASE)".
std::string Described(const inspect::Run& run);

/// The name of an account, or its number where it has none.
std::string AccountName(uid_t user);

/// The name under which script and simulator know the model: path and root name. Empty when they
/// are not known.
std::string ModelOf(const inspect::Run& run);

/// "2026-11-22T10:40:19+01:00".
std::string TimeText(double time);

/// "7s", "12m", "3h04m", "2d03h".
std::string DurationText(double seconds);

}  // namespace jobmillctl
