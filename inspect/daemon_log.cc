#include "inspect/daemon_log.h"

#include <time.h>

#include <algorithm>

#include "base/number.h"

namespace inspect {
namespace {

constexpr std::string_view kUser = "Windows user received: ";
constexpr std::string_view kAnswered = "Answering call in child process: ";
constexpr std::string_view kSubmitted = ") is submitted";

// The time with which a line ends; -1 when that is none.
std::time_t TimeIn(std::string_view line) {
  const std::string text(line.substr(kAnswered.size()));
  tm local{};
  local.tm_isdst = -1;
  return strptime(text.c_str(), "%a %b %d %H:%M:%S %Y", &local) == nullptr ? -1 : mktime(&local);
}

}  // namespace

DaemonLog::DaemonLog(std::string_view text) {
  for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    lines_.push_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    const std::string_view line = lines_[i];
    if (line.starts_with("Clust: ")) ReadRequest(i);
    if (line == "Argument list") ReadScript(i);
    if (line.starts_with(kUser)) users_.push_back(i);
    if (line.starts_with(kAnswered)) answered_.push_back({i, TimeIn(line)});
    if (line.ends_with(kSubmitted)) jobs_.push_back(i);
  }
}

std::string_view DaemonLog::Line(std::size_t index) const {
  return index < lines_.size() ? lines_[index] : std::string_view();
}

std::optional<std::string> DaemonLog::Value(std::size_t line, std::string_view label) const {
  const std::string_view text = Line(line);
  if (!text.starts_with(label)) return std::nullopt;
  return std::string(text.substr(label.size()));
}

void DaemonLog::ReadRequest(std::size_t line) {
  const auto path = Value(line + 1, "Path: ");
  const auto root = Value(line + 2, "Root: ");
  const auto processes = Value(line + 3, "Proc: ");
  const auto version = Value(line + 4, "Ver: ");
  const auto cluster = Value(line, "Clust: ");
  if (!path || !root || !processes || !version) return;
  const bool extended = NumberIn(cluster->c_str()) > 0;
  requests_.push_back({line, *path, extended ? *root + "_" + *cluster : *root, *version});
}

void DaemonLog::ReadScript(std::size_t line) {
  const auto processes = Value(line + 2, "Arg 2: ");
  const auto path = Value(line + 3, "Arg 3: ");
  const auto root = Value(line + 4, "Arg 4: ");
  const auto port = Value(line + 5, "Arg 5: ");
  const auto debug = Value(line + 6, "Arg 6: ");
  if (!processes || !path || !root || !port || !debug) return;
  scripts_.push_back({line, *path, *root, static_cast<int>(NumberIn(processes->c_str())),
                      static_cast<int>(NumberIn(port->c_str()))});
}

// The first line of a connection child that began at `started` or later. The second before counts,
// too, because the kernel's clock and that of the log are rounded.
std::optional<std::size_t> DaemonLog::FirstLineSince(std::time_t started) const {
  for (const Answered& answered : answered_) {
    if (answered.time >= started - 1) return answered.line;
  }
  return std::nullopt;
}

std::optional<Launch> DaemonLog::Find(const LaunchKey& key) const {
  const std::optional<std::size_t> first = FirstLineSince(key.started);
  if (!first || (!key.root && !key.port && !key.model)) return std::nullopt;
  const auto matches = [&](const Script& script) {
    return script.line > *first && (!key.path || script.path == *key.path) &&
           (!key.root || script.root == *key.root) && (!key.port || script.port == *key.port) &&
           (!key.model || script.path + script.root == *key.model);
  };
  const auto script = std::find_if(scripts_.begin(), scripts_.end(), matches);
  if (script == scripts_.end()) return std::nullopt;
  // A port is handed out again only after all others: more likely one of two launches is made up.
  if (std::any_of(script + 1, scripts_.end(), matches)) return std::nullopt;
  Launch launch{script->path, script->root, script->processes, script->port, {}, {}};
  AddRequest(*first, script->line, launch);
  return launch;
}

// Adds what the lines between the beginning of a child and the start of its script tell.
void DaemonLog::AddRequest(std::size_t first, std::size_t last, Launch& launch) const {
  const Request* request = nullptr;
  for (const Request& candidate : requests_) {
    if (candidate.line < first || candidate.line > last || candidate.path != launch.path ||
        candidate.root != launch.root) {
      continue;
    }
    if (request != nullptr) return;  // two launches of one model: either could be meant
    request = &candidate;
  }
  if (request == nullptr) return;
  launch.version = request->version;
  const auto begin = std::upper_bound(users_.begin(), users_.end(), request->line);
  const auto end = std::lower_bound(users_.begin(), users_.end(), last);
  if (end - begin == 1) launch.windows_user = Value(*begin, kUser);
}

std::optional<DaemonLog::Job> DaemonLog::FindJob(std::string_view job_name) const {
  std::optional<Job> job;
  const std::string end = " (" + std::string(job_name) + std::string(kSubmitted);
  for (const std::size_t index : jobs_) {
    std::string_view line = lines_[index];
    if (!line.ends_with(end)) continue;
    line.remove_suffix(end.size());
    const std::size_t middle = line.find(": job ");
    if (middle == std::string_view::npos) continue;
    if (job) return std::nullopt;  // somebody else's script may print what it likes
    std::string_view scheduler = line.substr(0, middle);
    // A label may stand before it: "Arg 7: " has no value, and that of another launch comes later.
    if (const std::size_t label = scheduler.rfind(": "); label != std::string_view::npos) {
      scheduler.remove_prefix(label + 2);
    }
    job = Job{std::string(scheduler), std::string(line.substr(middle + 6))};
  }
  return job;
}

}  // namespace inspect
