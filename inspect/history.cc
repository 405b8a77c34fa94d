#include "inspect/history.h"

#include <sys/types.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <utility>

#include "base/number.h"
#include "inspect/account.h"
#include "inspect/comms_log_reader.h"
#include "inspect/connection_log.h"
#include "inspect/log_archive.h"

namespace inspect {
namespace {

// The kernel's clock of processes and that of the log are rounded, and a busy daemon forks late.
constexpr double kSlack = 2;

// What is known of one connection.
struct Item {
  Connection* connection = nullptr;
  const ConnectionLog* log = nullptr;
  int port = 0;
  uid_t owner = 0;  // of the daemon's log; becomes that of the run where an account is told
  std::string comms_log;
  const CommsLogText* comms = nullptr;  // null where the file is another run's, or cannot be read
  std::string comms_error;              // why `comms` is null
};

// What a name is for the system, which ends it at the first zero byte.
std::string UpToZero(const std::string& name) {
  return name.substr(0, name.find('\0'));
}

bool IsLaunched(const Connection& connection) {
  return connection.step == Step::kLaunched || connection.has_host;
}

class Reading {
 public:
  Reading(const Runs& now, double since, const LogDirectories& directories, bool with_lines);

  History Find();

 private:
  void ReadLog(const std::vector<LogPart>& parts);
  void MarkAlive();
  void FindOwners();
  void MarkFresh();
  void ReadComms();
  void TakeComms(const std::vector<Item*>& sharers, const CommsLogText& text);
  EndedRun Describe(const Item& item) const;
  End EndOf(const Item& item) const;

  const Runs& now_;
  double since_;
  bool with_lines_;
  History found_;
  std::vector<std::unique_ptr<ConnectionLog>> logs_;
  std::vector<Item> items_;
  std::vector<CommsLogText> texts_;
};

Reading::Reading(const Runs& now, double since, const LogDirectories& directories, bool with_lines)
    : now_(now), since_(since), with_lines_(with_lines) {
  for (const auto& parts : FindLogs(now, since, directories, found_.missing)) ReadLog(parts);
}

void Reading::ReadLog(const std::vector<LogPart>& parts) {
  std::string rest;
  for (const LogPart& part : parts) {
    if (&part == &parts.front() || part.starts) {
      logs_.push_back(std::make_unique<ConnectionLog>(with_lines_));
      rest.clear();
    }
    ConnectionLog& log = *logs_.back();
    const std::size_t known = log.connections().size();
    log.BeginFile(part.file);
    const std::string error =
        ReadLines(part, rest, [&](std::string_view line) { log.AddLine(line); });
    if (!error.empty()) found_.missing.push_back(part.file + ": " + error);
    for (std::size_t i = known; i < log.connections().size(); ++i) {
      items_.push_back({&log.connections()[i], &log, part.port, part.owner, {}, nullptr, {}});
    }
  }
}

// Finds the connections that go on. Those are found first of which more is known than a time.
void Reading::MarkAlive() {
  for (const bool by_model : {true, false}) {
    for (const Run& run : now_.runs) {
      if (!HasController(run) || run.state == RunState::kEnded || !run.began) continue;
      if (by_model != run.root.has_value()) continue;
      Item* nearest = nullptr;
      const auto distance = [&](const Item& item) {
        return std::abs(static_cast<double>(item.connection->began) - *run.began);
      };
      for (Item& item : items_) {
        const Connection& connection = *item.connection;
        const bool starts = connection.step < Step::kScript;
        const bool ended = connection.step == Step::kEnded || connection.alive ||
                           (run.state == RunState::kHandshake && !starts) ||
                           (run.state == RunState::kScript && connection.step > Step::kMixed);
        const bool fits =
            by_model ? connection.script_root == run.root && connection.script_path == run.path
                     : !run.comms_port || !connection.port ||
                           std::to_string(*run.comms_port) == *connection.port;
        if (ended || !fits || item.port != run.listen_port || distance(item) > kSlack) continue;
        if (nearest == nullptr || distance(item) < distance(*nearest)) nearest = &item;
      }
      if (nearest == nullptr) continue;
      nearest->connection->alive = true;
      // Since the runs were looked at its script may have ended, and the logs tell that.
      const auto process = Process::Open(run.id);
      nearest->connection->runs_on = process && process->IsAlive();
      nearest->connection->has_host =
          run.state != RunState::kScript && run.state != RunState::kHandshake;
    }
  }
}

// What has begun since the runs were looked at may go on, unless the logs tell its end.
void Reading::MarkFresh() {
  for (Item& item : items_) {
    Connection& connection = *item.connection;
    const bool fresh =
        now_.looked && static_cast<double>(connection.began) >= *now_.looked - kSlack;
    const bool told = connection.step == Step::kEnded ||
                      (item.comms != nullptr && item.comms->log.cause.has_value());
    if (fresh && !told) connection.alive = true;
  }
}

// Finds out whose the comms logs have to be.
void Reading::FindOwners() {
  std::set<std::string> names;
  for (const Item& item : items_) {
    if (item.connection->account) names.insert(UpToZero(*item.connection->account));
  }
  if (names.empty()) return;
  const auto accounts = FindAccounts(names);
  if (!accounts) found_.missing.emplace_back("comms logs: the name services do not answer");
  for (Item& item : items_) {
    if (!item.connection->account) continue;
    const auto account = accounts ? accounts->find(UpToZero(*item.connection->account))
                                  : std::map<std::string, Account>::const_iterator();
    if (accounts && account->second.exists) {
      item.owner = account->second.user;
    } else {
      item.comms_error = "its account is not known here any more";
    }
  }
}

void Reading::ReadComms() {
  FindOwners();
  std::map<std::string, std::vector<Item*>> sharers;
  for (Item& item : items_) {
    const Connection& connection = *item.connection;
    const bool possible = connection.step >= Step::kScript && connection.step <= Step::kLaunched;
    const auto& options = item.log->options();
    if (!possible || !item.comms_error.empty()) continue;
    if (options && !options->comms_log) continue;
    const std::string model = *connection.script_path + *connection.script_root;
    // The script got a path up to its first zero byte, and the jobmill writes no comms log then.
    const bool cut = connection.path != connection.script_path;
    if (!model.starts_with('/') || cut) continue;
    item.comms_log = model + std::string(kCommsLogEnd);
    sharers[item.comms_log].push_back(&item);
  }
  std::vector<CommsLogFile> files;
  files.reserve(sharers.size());
  for (const auto& [file, items] : sharers) files.push_back({file, items.back()->owner});
  texts_ = ReadCommsLogs(files);
  auto text = texts_.begin();
  for (auto& [file, items] : sharers) TakeComms(items, *text++);
}

// Each run of a model begins the comms log afresh. So the file is that of the last of `sharers` to
// be launched before it was made.
void Reading::TakeComms(const std::vector<Item*>& sharers, const CommsLogText& text) {
  if (!text.error.empty()) {
    for (Item* item : sharers) item->comms_error = text.error;
    return;
  }
  const Item* owner = nullptr;
  for (auto sharer = sharers.rbegin(); sharer != sharers.rend(); ++sharer) {
    Item& item = **sharer;
    Connection& connection = *item.connection;
    const auto began = static_cast<double>(connection.began);
    const bool fits = text.began.value_or(text.changed) >= began - kSlack &&
                      (!text.log.port || std::to_string(*text.log.port) == *connection.port);
    if (owner == nullptr && fits && !(connection.alive && !connection.has_host)) {
      owner = &item;
      connection.has_host = true;
      if (!connection.host) connection.host = text.log.host;
      item.comms = &text;
    } else {
      item.comms_error = owner != nullptr ? "it was replaced by that of a later run of the model"
                                          : "the one that is there is not of this run";
    }
  }
}

End Reading::EndOf(const Item& item) const {
  const Connection& connection = *item.connection;
  if (!IsLaunched(connection)) return EndOfStart(connection);
  if (item.comms != nullptr) return EndOfRun(item.comms->log, connection);
  const std::string began = "It was started on host '" + connection.host.value_or("") +
                            "'; how it ended is not known, because ";
  if (item.log->options() && !item.log->options()->comms_log) {
    return {Ending::kUnknown, "no-comms-log",
            began + "the daemon writes no comms logs (it has no option -l)"};
  }
  if (item.comms_log.empty()) {
    return {Ending::kUnknown, "no-comms-log",
            began + (item.comms_error.empty() ? "it has no comms log" : item.comms_error)};
  }
  return {Ending::kUnknown, "no-comms-log",
          began + "its comms log cannot be read: " + item.comms_error};
}

std::optional<std::string> Text(const std::optional<std::string>& text) {
  return text ? std::optional(UpToZero(*text)) : std::nullopt;
}

EndedRun Reading::Describe(const Item& item) const {
  const Connection& connection = *item.connection;
  EndedRun run;
  run.listen_port = item.port;
  run.owner = item.owner;
  run.goes_on = connection.alive;
  run.lines = connection.lines;
  run.environment = connection.environment;
  run.began = static_cast<double>(connection.began);
  run.end = EndOf(item);
  run.windows_user = connection.windows_user;
  run.account = connection.account;
  run.path = connection.script_path ? connection.script_path : connection.path;
  run.root = connection.script_root ? connection.script_root : connection.root;
  const auto& processes =
      connection.script_processes ? connection.script_processes : connection.processes;
  if (processes) run.processes = static_cast<int>(NumberIn(processes->c_str()));
  run.version = connection.version;
  if (connection.port) run.comms_port = static_cast<int>(NumberIn(connection.port->c_str()));
  run.host = Text(connection.host);
  run.scheduler = connection.scheduler;
  run.job = connection.job;
  const Ending ending = run.end.ending;
  if (ending == Ending::kRefused || ending == Ending::kNotStarted) run.ended = run.began;
  if (item.comms != nullptr) {
    const CommsLog& log = item.comms->log;
    run.told_by_account = true;
    run.host_named = item.comms->began;
    run.ended = item.comms->changed;
    run.last_request = log.last_request;
    if (item.comms->whole) run.requests = log.requests;
    run.day = log.day;
    run.date = log.date;
    run.until = log.until;
    const std::int64_t line = log.cause_line > 0 ? log.cause_line : log.lines;
    run.places.push_back({item.comms_log, item.comms->whole ? line : 0});
  }
  const bool of_simulator = ending == Ending::kSimulatorEnded || ending == Ending::kNoSimulator ||
                            ending == Ending::kRequestFailed;
  if (of_simulator) {
    const bool slash = run.path->ends_with('/');
    run.places.push_back({*run.path + (slash ? "" : "/") + *run.root + ".out", 0});
  }
  run.places.push_back(connection.last);
  if (connection.first.line != connection.last.line) run.places.push_back(connection.first);
  if (connection.mixed) {
    run.doubts.emplace_back(
        "its lines are mixed with those of others in the log: what is said of one may be "
        "another's");
  }
  if (connection.doubtful) {
    run.doubts.emplace_back(
        "the log contradicts itself here: lines are missing, or somebody has sent texts that look "
        "like lines of the log");
  }
  if (connection.guessed && connection.cluster) {
    run.doubts.emplace_back(
        "several connections waited at that time: it may have begun at another");
  }
  if (connection.unproven && item.comms == nullptr) {
    run.doubts.emplace_back(
        "it began while a script could write into the log, and nothing after it confirms it");
  }
  return run;
}

History Reading::Find() {
  MarkAlive();
  ReadComms();
  for (const auto& log : logs_) log->Settle();
  MarkFresh();
  std::map<std::string, int> of_second;
  for (const Item& item : items_) {
    const std::time_t began = item.connection->began;
    tm local{};
    char text[32] = "";
    localtime_r(&began, &local);
    strftime(text, sizeof(text), "-%Y%m%d-%H%M%S", &local);
    std::string id = std::to_string(item.port) + text;
    const int count = ++of_second[id];
    if (static_cast<double>(began) < since_) continue;
    if (item.connection->alive && !with_lines_) continue;
    if (count > 1) id += "-" + std::to_string(count);
    found_.runs.push_back(Describe(item));
    found_.runs.back().id = std::move(id);
  }
  std::ranges::stable_sort(found_.runs, [](const EndedRun& a, const EndedRun& b) {
    return std::tuple(a.began, a.listen_port) < std::tuple(b.began, b.listen_port);
  });
  return std::move(found_);
}

}  // namespace

std::optional<EndedRun> FindEnd(const History& history, const Run& run) {
  const auto differ = [](const auto& a, const auto& b) { return a && b && *a != *b; };
  const EndedRun* found = nullptr;
  for (const EndedRun& ended : history.runs) {
    if (!run.began || std::abs(ended.began - *run.began) > kSlack) continue;
    if (run.listen_port != 0 && run.listen_port != ended.listen_port) continue;
    if (differ(run.path, ended.path) || differ(run.root, ended.root)) continue;
    if (differ(run.comms_port, ended.comms_port)) continue;
    if (found != nullptr) return std::nullopt;
    found = &ended;
  }
  return found == nullptr ? std::nullopt : std::optional(*found);
}

void AddCauses(Runs& found) {
  double since = 0;
  for (const Run& run : found.runs) {
    if (run.state != RunState::kEnded || !run.began) continue;
    since = since == 0 ? *run.began : std::min(since, *run.began);
  }
  if (since == 0) return;
  const History history = ReadHistory(found, since - kSlack);
  for (Run& run : found.runs) {
    if (run.state != RunState::kEnded) continue;
    if (const auto ended = FindEnd(history, run)) run.cause = ended->end.sentence;
  }
}

History ReadHistory(const Runs& now, double since, const LogDirectories& directories) {
  return Reading(now, since, directories, false).Find();
}

History ReadHistoryWithLines(const Runs& now, double since, const LogDirectories& directories) {
  return Reading(now, since, directories, true).Find();
}

}  // namespace inspect
