#pragma once

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "inspect/history.h"

namespace jobmillctl {

/// What has ended, as one JSON document. docs/history.md tells its fields.
nlohmann::ordered_json JsonOf(const inspect::History& history, double now);

/// The same for people: a line for each run under one of headings. All texts are printable.
std::vector<std::string> LinesOf(const inspect::History& history);

/// All that is known of the run, a line for each thing.
std::vector<std::string> DetailsOf(const inspect::EndedRun& run);

/// How the run ended, with what is to be doubted about that: "The master shut it down". Printable.
std::string SentenceOf(const inspect::EndedRun& run);

/// "/data/CASE.crvnlog:12". Printable.
std::string TextOf(const inspect::LogPlace& place);

/// How a run that was seen before has ended. Reads the logs; empty when they do not tell.
/// Printable.
std::string SentenceOfEnd(const inspect::Run& seen);

/// The run of `history` that a person means by its id, or the last one by its root name or its job;
/// null when there is none.
const inspect::EndedRun* Find(const inspect::History& history, const std::string& name);

}  // namespace jobmillctl
