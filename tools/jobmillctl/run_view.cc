#include "tools/jobmillctl/run_view.h"

#include <pwd.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "inspect/comms_log.h"
#include "inspect/file.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/json_values.h"
#include "tools/jobmillctl/table.h"

namespace jobmillctl {
namespace {

using inspect::Daemon;
using inspect::Printable;
using inspect::Run;
using inspect::Runs;
using inspect::RunState;

Json TimeOrNull(const std::optional<double>& time) {
  return time ? Json(TimeText(*time)) : Json(nullptr);
}

// An age in seconds, to a tenth. The two times are from two clocks: where the age comes out below 0
// by a hair, it is 0.
Json AgeOrNull(const std::optional<double>& time, double now) {
  return time ? Json(std::max(0.0, std::round((now - *time) * 10) / 10)) : Json(nullptr);
}

Json NumberOrNull(int number) {
  return number == 0 ? Json(nullptr) : Json(number);
}

Json JsonOf(const Daemon& daemon, double now) {
  return {{"pid", daemon.id.pid},
          {"since", TimeText(daemon.since)},
          {"age_seconds", AgeOrNull(daemon.since, now)},
          {"account", daemon.user ? Json(AccountName(*daemon.user)) : Json(nullptr)},
          {"port", daemon.options.listen_port},
          {"comms_base_port", daemon.options.comms_base_port},
          {"comms_ports", daemon.options.comms_ports},
          {"script", TextOrNull(daemon.options.script)},
          {"maps_users", daemon.options.run_as_root},
          {"comms_log", daemon.options.comms_log},
          {"program", TextOrNull(daemon.program)},
          {"older_program", daemon.program.empty() ? Json(nullptr) : Json(daemon.older)},
          {"log", TextOrNull(daemon.log)}};
}

Json JsonOf(const Run& run, double now) {
  Json members = Json::array();
  for (const inspect::ProcessId& member : run.members) members.push_back(member.pid);
  return {{"id", run.id.pid},
          {"daemon", NumberOrNull(run.daemon)},
          {"port", NumberOrNull(run.listen_port)},
          {"state", Name(run.state)},
          {"state_since", TimeOrNull(run.since)},
          {"state_seconds", AgeOrNull(run.since, now)},
          {"waits_for", TextOrNull(run.waits_for)},
          {"cause", OrNull(run.cause)},
          {"connected", TimeOrNull(run.began)},
          {"connected_seconds", AgeOrNull(run.began, now)},
          {"master", run.master ? Json(Text(*run.master)) : Json(nullptr)},
          {"windows_user", OrNull(run.windows_user)},
          {"proven_name", OrNull(run.proven)},
          {"gate", OrNull(run.gate)},
          {"account", run.user ? Json(AccountName(*run.user)) : Json(nullptr)},
          {"path", OrNull(run.path)},
          {"root", OrNull(run.root)},
          {"processes", OrNull(run.processes)},
          {"version", OrNull(run.version)},
          {"comms_port", OrNull(run.comms_port)},
          {"host", OrNull(run.host)},
          {"script", OrNull(run.script)},
          {"simulator", OrNull(run.simulator)},
          {"simulator_cpu_seconds", OrNull(run.simulator_seconds)},
          {"scheduler", OrNull(run.scheduler)},
          {"job", OrNull(run.job)},
          {"last_request",
           run.last_request ? Json(inspect::RequestName(*run.last_request)) : Json(nullptr)},
          {"last_request_code", OrNull(run.last_request)},
          {"last_heard", TimeOrNull(run.last_heard)},
          {"last_heard_seconds", AgeOrNull(run.last_heard, now)},
          {"day", DayOrNull(run.day)},
          {"date", OrNull(run.date)},
          {"until", DayOrNull(run.until)},
          {"requests", OrNull(run.requests)},
          {"comms_log", TextOrNull(run.comms_log)},
          {"members", members},
          {"unknown", run.unknown}};
}

std::string LineOf(const Daemon& daemon, double now) {
  std::string line = fmt::format("Port {}: process {}", daemon.options.listen_port, daemon.id.pid);
  if (daemon.user) line += fmt::format(" of {}", AccountName(*daemon.user));
  line += fmt::format(" since {} ({})", TimeText(daemon.since), DurationText(now - daemon.since));
  if (daemon.older) line += ", with an older program than the one that is installed";
  return Printable(line);
}

std::string Or(const std::string& text) {
  return text.empty() ? "-" : Printable(text);
}

template <typename Value>
std::string Or(const std::optional<Value>& value) {
  return value ? Or(fmt::format("{}", *value)) : "-";
}

std::string AgeText(const std::optional<double>& time, double now) {
  return time ? DurationText(now - *time) : "-";
}

std::string JobOf(const Run& run) {
  return run.job ? run.scheduler.value_or("") + " " + *run.job : "";
}

std::string SimulatorOf(const Run& run) {
  std::string text = run.host.value_or("");
  if (run.simulator) text += fmt::format("{}{}", text.empty() ? "" : " ", *run.simulator);
  return text;
}

std::string LastRequestOf(const Run& run) {
  return run.last_request ? inspect::RequestName(*run.last_request) : "";
}

// The name that the master claims, and the one that its certificate has proven.
std::string UserOf(const Run& run) {
  return Or(run.windows_user) + (run.proven ? " " + Printable(*run.proven) : "");
}

// What explains the state: its cause, why it is not known, or what the run waits for.
std::string NoteOf(const Run& run) {
  if (run.state == RunState::kEnded) return run.cause.value_or("");
  const auto reason = run.unknown.find("state");
  return reason == run.unknown.end() ? run.waits_for : reason->second;
}

Row RowOf(const Run& run, double now) {
  return {std::to_string(run.id.pid),
          Name(run.state),
          AgeText(run.since, now),
          run.user ? Or(AccountName(*run.user)) : "-",
          UserOf(run),
          Or(ModelOf(run)),
          Or(run.processes),
          Or(run.comms_port),
          Or(SimulatorOf(run)),
          Or(JobOf(run)),
          Or(LastRequestOf(run)),
          AgeText(run.last_heard, now),
          Or(run.day),
          Or(run.requests),
          Or(NoteOf(run))};
}

}  // namespace

std::string AccountName(uid_t user) {
  static std::map<uid_t, std::string> names;
  const auto [entry, fresh] = names.try_emplace(user);
  if (fresh) {
    const passwd* account = getpwuid(user);
    entry->second = account != nullptr ? account->pw_name : std::to_string(user);
  }
  return entry->second;
}

std::string ModelOf(const Run& run) {
  if (!run.path || !run.root) return {};
  return *run.path + (run.path->ends_with('/') ? "" : "/") + *run.root;
}

std::string TimeText(double time) {
  const auto seconds = static_cast<time_t>(time);
  const tm* local = localtime(&seconds);
  if (local == nullptr) return {};
  std::array<char, 40> text{};
  std::array<char, 10> zone{};
  strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", local);
  strftime(zone.data(), zone.size(), "%z", local);  // "+0100"
  const std::string offset = zone.data();
  return fmt::format("{}{}:{}", text.data(), offset.substr(0, 3), offset.substr(3));
}

std::string DurationText(double seconds) {
  const auto whole = static_cast<std::int64_t>(std::max(0.0, seconds));
  const std::int64_t minutes = whole / 60;
  const std::int64_t hours = minutes / 60;
  if (minutes == 0) return fmt::format("{}s", whole);
  if (hours == 0) return fmt::format("{}m", minutes);
  if (hours < 24) return fmt::format("{}h{:02}m", hours, minutes % 60);
  return fmt::format("{}d{:02}h", hours / 24, hours % 24);
}

nlohmann::ordered_json JsonOf(const Runs& found, double now) {
  Json document{{"schema", 1}, {"version", JOBMILL_VERSION}, {"time", TimeText(now)}};
  document["daemons"] = Json::array();
  for (const Daemon& daemon : found.daemons) document["daemons"].push_back(JsonOf(daemon, now));
  document["runs"] = Json::array();
  for (const Run& run : found.runs) document["runs"].push_back(JsonOf(run, now));
  document["missing"] = found.missing;
  return document;
}

std::vector<std::string> LinesOf(const Runs& found, double now) {
  std::vector<std::string> lines;
  for (const Daemon& daemon : found.daemons) lines.push_back(LineOf(daemon, now));
  for (const std::string& missing : found.missing) {
    lines.push_back("Not known: " + Printable(missing));
  }
  std::vector<Row> rows = {{"RUN", "STATE", "FOR", "ACCOUNT", "USER", "MODEL", "NP", "PORT",
                            "SIMULATOR", "JOB", "REQUEST", "HEARD", "DAY", "REQUESTS",
                            "WAITS FOR"}};
  for (const Run& run : found.runs) rows.push_back(RowOf(run, now));
  if (rows.size() == 1) {
    lines.emplace_back(found.daemons.empty() ? "No jobmill and no run is on this machine"
                                             : "No run");
    return lines;
  }
  std::ranges::move(Aligned(rows), std::back_inserter(lines));
  return lines;
}

std::vector<std::string> DetailsOf(const Run& run, double now) {
  std::vector<std::string> lines;
  const Json fields = JsonOf(run, now);
  for (const auto& [name, value] : fields.items()) {
    std::string text = value.is_string() ? Printable(value.get<std::string>()) : value.dump();
    if (value.is_null()) {
      const auto reason = run.unknown.find(name);
      text = reason == run.unknown.end() ? "-" : "not known: " + Printable(reason->second);
    }
    if (name == "unknown") continue;
    lines.push_back(fmt::format("{:<22} {}", name, text));
  }
  for (const auto& [name, reason] : run.unknown) {
    if (name == "state") lines.push_back(fmt::format("{:<22} {}", "unknown, because", reason));
  }
  return lines;
}

std::string Described(const Run& run) {
  std::string text =
      fmt::format("{} {}", run.state == RunState::kLost ? "lost run" : "run", run.id.pid);
  std::vector<std::string> parts;
  if (run.user) parts.push_back(AccountName(*run.user));
  if (!ModelOf(run).empty()) parts.push_back(ModelOf(run));
  return Printable(fmt::format("{} ({})", text, fmt::join(parts, ", ")));
}

namespace {

std::vector<const Run*> Meant(const Runs& found, const std::string& name) {
  std::vector<const Run*> meant;
  const auto choose = [&](auto matches) {
    if (!meant.empty()) return;
    for (const Run& run : found.runs) {
      if (matches(run)) meant.push_back(&run);
    }
  };
  choose([&](const Run& run) { return std::to_string(run.id.pid) == name; });
  choose([&](const Run& run) {
    return std::any_of(run.members.begin(), run.members.end(), [&](const inspect::ProcessId& id) {
      return std::to_string(id.pid) == name;
    });
  });
  choose([&](const Run& run) { return run.root == name; });
  choose([&](const Run& run) { return run.job == name; });
  return meant;
}

}  // namespace

bool IsOneOf(const Runs& found, const std::string& name) {
  return !Meant(found, name).empty();
}

const Run& Choose(const Runs& found, const std::string& name) {
  const std::vector<const Run*> meant = Meant(found, name);
  if (meant.empty()) {
    throw Failed(fmt::format("'{}' is no run of a jobmill on this machine; see jobmillctl status",
                             Printable(name)));
  }
  if (meant.size() > 1) {
    std::string text = fmt::format("'{}' can be", Printable(name));
    for (const Run* run : meant) {
      text += fmt::format("{} {}", run == meant[0] ? "" : " or", Described(*run));
    }
    throw Failed(text + ": name it by its number");
  }
  return *meant.front();
}

}  // namespace jobmillctl
