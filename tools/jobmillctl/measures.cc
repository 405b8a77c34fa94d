#include "tools/jobmillctl/measures.h"

#include <sys/resource.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>

#include <fmt/format.h>

#include "inspect/process.h"
#include "inspect/run_file.h"
#include "inspect/sockets.h"
#include "tools/jobmillctl/json_values.h"

namespace jobmillctl {
namespace {

using inspect::Daemon;
using inspect::Run;
using inspect::Runs;

constexpr std::size_t kMostOfLog = 16 << 20;
constexpr double kLongestPause = 60;

// A line of a daemon's log that is counted.
struct Told {
  std::string_view begin;
  std::string_view end;
  const char* list;
  const char* entry;
};

constexpr Told kTold[] = {
    {"Host detected: ", "", "launches", "host named"},
    {"No host detected, exiting.", "", "launches", "no host"},
    {"Error: pipe failed", "", "launches", "not started"},
    {"Error: fork failed", "", "launches", "not started"},
    {"Windows user '", "' not found in administration file", "refusals", "unknown user"},
    {"Windows user '", "' does not have permissions to run Varnok", "refusals", "user not allowed"},
    {"Failed to get password entry for '", "", "refusals", "no account"},
    {"Failed to set user ID for Tolmen job", "", "refusals", "account change"},
    {"Failed to read users administration file - ", "", "refusals", "user file"},
    {"Failed to read ", "/.vk_corvane_env: ", "refusals", "environment"},
    {"Incorrect response from Corvane", "", "refusals", "not a master"},
    {"Socket connection failed", "", "refusals", "broken connection"},
};

bool Tells(std::string_view line, const Told& told) {
  if (!line.starts_with(told.begin)) return false;
  line.remove_prefix(told.begin.size());
  return line.find(told.end) != std::string_view::npos;
}

Json NothingCounted(double now) {
  Json measured{{"since", now}, {"time", now}, {"requests", 0}};
  for (const char* result : kLaunchResults) measured["launches"][result] = 0;
  for (const char* reason : kRefusalReasons) measured["refusals"][reason] = 0;
  for (const inspect::RunState state : kStates) measured["run_seconds"][Name(state)] = 0.0;
  measured["read"] = Json::object();      // of the log of each port: its inode, and how far
  measured["answered"] = Json::object();  // requests of each run
  return measured;
}

void CountLog(const Daemon& daemon, Json& measured) {
  const inspect::RunFile log(daemon.log);
  if (!log.error().empty()) return;
  const auto inode = log.status().st_ino;
  const std::string port = std::to_string(daemon.options.listen_port);
  Json& read = measured["read"][port];
  // A log that was there before the first look is counted from its end on. A fresh one, or one that
  // was emptied, is counted whole.
  const bool fresh = read.is_null() && daemon.since < measured["since"];
  std::int64_t offset = 0;
  if (fresh) {
    offset = log.size();
  } else if (read.is_object() && read["inode"] == inode && read["bytes"] <= log.size()) {
    offset = read["bytes"].get<std::int64_t>();
  }
  std::string text = log.Read(offset, kMostOfLog);
  // A line that is still being written is counted next time; one that fills all that is read at
  // once is left out.
  if (text.size() < kMostOfLog) text.resize(text.rfind('\n') + 1);
  CountLines(text, measured);
  read = {{"inode", inode}, {"bytes", offset + static_cast<std::int64_t>(text.size())}};
}

void CountRuns(const Runs& found, double now, Json& measured) {
  const double passed = std::clamp(now - measured["time"].get<double>(), 0.0, kLongestPause);
  const Json before = std::move(measured["answered"]);
  measured["answered"] = Json::object();
  for (const Run& run : found.runs) {
    Json& seconds = measured["run_seconds"][Name(run.state)];
    // A measurement of an older version does not have all states.
    seconds = (seconds.is_number() ? seconds.get<double>() : 0.0) + passed;
    if (!run.requests) continue;
    const std::string key = fmt::format("{}.{}", run.id.pid, run.id.start);
    const bool newer = run.began && *run.began >= measured["since"].get<double>();
    const std::int64_t last = before.value(key, newer ? std::int64_t{0} : *run.requests);
    const std::int64_t more = std::max<std::int64_t>(0, *run.requests - last);
    measured["requests"] = measured["requests"].get<std::int64_t>() + more;
    measured["answered"][key] = *run.requests;
  }
}

// How many comms ports of a daemon no run has and nobody listens on.
int FreePorts(const Daemon& daemon, const Runs& found, const inspect::TcpSockets& sockets) {
  const int first = daemon.options.comms_base_port;
  const int end = first + daemon.options.comms_ports;
  std::set<int> taken;
  const auto take = [&](int port) {
    if (port >= first && port < end) taken.insert(port);
  };
  for (const Run& run : found.runs) take(run.comms_port.value_or(0));
  for (const inspect::TcpSocket& socket : sockets.all) take(socket.local.port);
  return daemon.options.comms_ports - static_cast<int>(taken.size());
}

Json UseOf(const Daemon& daemon, const Runs& found, const inspect::TcpSockets& sockets) {
  Json use{{"port", daemon.options.listen_port}, {"descriptors", nullptr},
           {"descriptors_limit", nullptr},       {"comms_ports", daemon.options.comms_ports},
           {"comms_ports_free", nullptr},        {"log_bytes", nullptr},
           {"log_free_bytes", nullptr}};
  const auto process = inspect::Process::Open(daemon.id);
  const auto files = process ? process->Files() : std::nullopt;
  if (files) use["descriptors"] = files->size();
  rlimit limit{};
  if (prlimit(daemon.id.pid, RLIMIT_NOFILE, nullptr, &limit) == 0) {
    use["descriptors_limit"] = limit.rlim_cur;
  }
  if (sockets.error.empty()) use["comms_ports_free"] = FreePorts(daemon, found, sockets);
  if (daemon.log.empty()) return use;
  const inspect::RunFile log(daemon.log);
  if (log.error().empty()) use["log_bytes"] = log.size();
  struct statvfs room {};
  if (statvfs(daemon.log.c_str(), &room) == 0) {
    use["log_free_bytes"] = std::uint64_t{room.f_bavail} * room.f_frsize;
  }
  return use;
}

Json UseOf(const inspect::Gate& gate) {
  Json use{{"file", gate.file},
           {"links", gate.links.size()},
           {"broken", std::ranges::count(gate.links, true, &inspect::GateLink::broken)},
           {"most_links", gate.most_links},
           {"arriving", gate.arriving},
           {"list_expires", OrNull(gate.list_expires)},
           {"counts", Json::object()}};
  for (const char* what : kGateCounts) {
    const auto count = gate.counts.find(what);
    use["counts"][what] = count == gate.counts.end() ? 0 : count->second;
  }
  return use;
}

}  // namespace

void CountLines(std::string_view text, Json& measured) {
  for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    for (const Told& told : kTold) {
      if (!Tells(line, told)) continue;
      Json& count = measured[told.list][told.entry];
      count = count.get<std::int64_t>() + 1;
      break;
    }
  }
}

Json Measure(const Runs& found, double now, const Json& before) {
  Json measured = before.is_object() ? before : NothingCounted(now);
  for (const Daemon& daemon : found.daemons) {
    if (!daemon.log.empty()) CountLog(daemon, measured);
  }
  CountRuns(found, now, measured);
  measured["time"] = now;
  measured["daemons"] = Json::array();
  const inspect::TcpSockets sockets = inspect::ReadSockets();
  for (const Daemon& daemon : found.daemons) {
    measured["daemons"].push_back(UseOf(daemon, found, sockets));
  }
  measured["gates"] = Json::array();
  for (const inspect::Gate& gate : found.gates) measured["gates"].push_back(UseOf(gate));
  return measured;
}

}  // namespace jobmillctl
