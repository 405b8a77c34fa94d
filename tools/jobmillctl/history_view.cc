#include "tools/jobmillctl/history_view.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include <fmt/format.h>

#include "inspect/comms_log.h"
#include "inspect/file.h"
#include "tools/jobmillctl/json_values.h"
#include "tools/jobmillctl/run_view.h"
#include "tools/jobmillctl/table.h"

namespace jobmillctl {
namespace {

using inspect::EndedRun;
using inspect::History;
using inspect::LogPlace;
using inspect::Printable;

constexpr std::size_t kMostOfCell = 100;

Json TimeOrNull(const std::optional<double>& time) {
  return time ? Json(TimeText(*time)) : Json(nullptr);
}

std::optional<double> Between(double begin, const std::optional<double>& end) {
  return end ? std::optional(std::max(0.0, *end - begin)) : std::nullopt;
}

std::optional<double> Queued(const EndedRun& run) {
  return Between(run.began, run.host_named);
}

std::optional<double> Lasted(const EndedRun& run) {
  return Between(run.began, run.ended);
}

// Rounded to a tenth.
Json SecondsOrNull(const std::optional<double>& seconds) {
  return seconds ? Json(std::round(*seconds * 10) / 10) : Json(nullptr);
}

// A cell of the table. What a master has sent may have 64 KiB, and would make every line as long.
std::string Or(const std::optional<std::string>& text) {
  if (!text || text->empty()) return "-";
  const std::string printable = Printable(text->substr(0, kMostOfCell));
  return text->size() > kMostOfCell ? printable + "..." : printable;
}

std::string DurationOr(const std::optional<double>& seconds) {
  return seconds ? DurationText(*seconds) : "-";
}

std::string ModelOf(const EndedRun& run) {
  if (!run.path || !run.root || run.root->empty()) return {};
  return *run.path + (run.path->ends_with('/') ? "" : "/") + *run.root;
}

Json JsonOf(const EndedRun& run) {
  Json places = Json::array();
  for (const LogPlace& place : run.places) {
    places.push_back({{"file", place.file}, {"line", place.line}});
  }
  return {{"id", run.id},
          {"port", run.listen_port},
          {"connected", TimeText(run.began)},
          {"host_named", TimeOrNull(run.host_named)},
          {"queued_seconds", SecondsOrNull(Queued(run))},
          {"ended", TimeOrNull(run.ended)},
          {"lasted_seconds", SecondsOrNull(Lasted(run))},
          {"ending", Name(run.end.ending)},
          {"reason", TextOrNull(run.end.reason)},
          {"failed", IsFailure(run.end.ending)},
          {"sentence", run.end.sentence},
          {"doubts", run.doubts},
          {"told_by_account", run.told_by_account},
          {"places", places},
          {"windows_user", OrNull(run.windows_user)},
          {"account", OrNull(run.account)},
          {"path", OrNull(run.path)},
          {"root", OrNull(run.root)},
          {"processes", OrNull(run.processes)},
          {"version", OrNull(run.version)},
          {"comms_port", OrNull(run.comms_port)},
          {"host", OrNull(run.host)},
          {"scheduler", OrNull(run.scheduler)},
          {"job", OrNull(run.job)},
          {"last_request",
           run.last_request ? Json(inspect::RequestName(*run.last_request)) : Json(nullptr)},
          {"last_request_code", OrNull(run.last_request)},
          {"requests", OrNull(run.requests)},
          {"day", DayOrNull(run.day)},
          {"date", OrNull(run.date)},
          {"until", DayOrNull(run.until)}};
}

Row RowOf(const EndedRun& run) {
  return {run.id,
          DurationOr(Queued(run)),
          DurationOr(Lasted(run)),
          Or(run.account),
          Or(run.windows_user),
          Or(ModelOf(run)),
          Name(run.end.ending),
          SentenceOf(run) + (run.places.empty() ? "" : "; see " + TextOf(run.places.front()))};
}

}  // namespace

std::string TextOf(const LogPlace& place) {
  return Printable(place.file) + (place.line > 0 ? fmt::format(":{}", place.line) : "");
}

std::string SentenceOf(const EndedRun& run) {
  std::string text = run.end.sentence;
  if (!run.doubts.empty()) text += fmt::format(" (not certain: {})", fmt::join(run.doubts, "; "));
  return Printable(text);
}

nlohmann::ordered_json JsonOf(const History& history, double now) {
  Json document{{"schema", 1}, {"version", JOBMILL_VERSION}, {"time", TimeText(now)}};
  document["runs"] = Json::array();
  for (const EndedRun& run : history.runs) document["runs"].push_back(JsonOf(run));
  document["missing"] = history.missing;
  return document;
}

std::vector<std::string> LinesOf(const History& history) {
  std::vector<std::string> lines;
  for (const std::string& missing : history.missing) {
    lines.push_back("Not known: " + Printable(missing));
  }
  if (history.runs.empty()) {
    lines.emplace_back("No run");
    return lines;
  }
  std::vector<Row> rows = {
      {"RUN", "QUEUED", "LASTED", "ACCOUNT", "USER", "MODEL", "ENDED", "HOW, AND WHERE TO LOOK"}};
  for (const EndedRun& run : history.runs) rows.push_back(RowOf(run));
  std::ranges::move(Aligned(rows), std::back_inserter(lines));
  return lines;
}

std::vector<std::string> DetailsOf(const EndedRun& run) {
  std::vector<std::string> lines;
  const Json fields = JsonOf(run);
  for (const auto& [name, value] : fields.items()) {
    if (name == "places" || name == "doubts") continue;
    std::string text = value.is_string() ? Printable(value.get<std::string>()) : value.dump();
    if (value.is_null()) text = "-";
    lines.push_back(fmt::format("{:<22} {}", name, text));
  }
  for (const std::string& doubt : run.doubts) {
    lines.push_back(fmt::format("{:<22} {}", "not certain:", doubt));
  }
  for (const LogPlace& place : run.places) {
    lines.push_back(fmt::format("{:<22} {}", "see", TextOf(place)));
  }
  return lines;
}

std::string SentenceOfEnd(const inspect::Run& seen) {
  const double since = seen.began.value_or(inspect::Now()) - 60;
  const auto ended = FindEnd(inspect::ReadHistory(inspect::FindRuns(), since), seen);
  return ended ? SentenceOf(*ended) : "";
}

const EndedRun* Find(const History& history, const std::string& name) {
  const auto last = [&](auto matches) -> const EndedRun* {
    const auto found = std::find_if(history.runs.rbegin(), history.runs.rend(), matches);
    return found == history.runs.rend() ? nullptr : &*found;
  };
  if (const auto* run = last([&](const EndedRun& candidate) { return candidate.id == name; })) {
    return run;
  }
  if (const auto* run = last([&](const EndedRun& candidate) { return candidate.root == name; })) {
    return run;
  }
  return last([&](const EndedRun& candidate) { return candidate.job == name; });
}

}  // namespace jobmillctl
