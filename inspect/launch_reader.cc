#include "inspect/launch_reader.h"

#include <ctime>
#include <optional>

#include "inspect/comms_log.h"
#include "inspect/run_file.h"

namespace inspect {
namespace {

// A longer log is read from its end only. A site would otherwise wait for gigabytes.
constexpr std::size_t kMostOfDaemonLog = 64 << 20;

}  // namespace

std::string LaunchReader::LogOf(const Jobmill& jobmill, Run& run) const {
  const std::string name = "VKJobmill_" + std::to_string(jobmill.options.listen_port) + ".";
  if (jobmill.files) {
    const std::string target = jobmill.FileWith(name, ".log");
    if (target.empty() || target.ends_with(kDeleted)) {
      const bool none = jobmill.FileWith(name, "").empty();
      run.unknown["windows_user"] =
          none ? "the daemon writes no log" : "the log that tells it was removed or replaced";
      return {};
    }
    const pid_t reader = run.daemon != 0 ? run.daemon : jobmill.stat.id.pid;
    return "/proc/" + std::to_string(reader) + "/root" + target;
  }
  for (const char* directory : {"/var/log/jobmill/", "/var/log/", "/tmp/"}) {
    std::string file = directory + name + "log";
    // In /tmp anybody may put a file of that name, so its owner has to be the daemon's account.
    if (jobmill.user &&
        RunFile(file, jobmill.options.run_as_root ? 0 : *jobmill.user).error().empty()) {
      return file;
    }
  }
  run.unknown["windows_user"] = "the daemon's log may not be read";
  return {};
}

const DaemonLog* LaunchReader::Log(const std::string& file) {
  const auto [entry, fresh] = logs_.try_emplace(file);
  if (fresh) {
    const RunFile log(file);
    if (log.error().empty()) {
      entry->second.text = log.Tail(kMostOfDaemonLog);
      entry->second.log = std::make_unique<DaemonLog>(entry->second.text);
    }
  }
  return entry->second.log.get();
}

void LaunchReader::Add(const Jobmill& jobmill, Run& run) {
  if (run.state == RunState::kHandshake) {
    run.unknown["windows_user"] =
        "the log does not tell whose line is whose before the script starts";
    return;
  }
  const std::string file = LogOf(jobmill, run);
  const DaemonLog* log = file.empty() ? nullptr : Log(file);
  if (log == nullptr) {
    if (!file.empty()) run.unknown["windows_user"] = "the daemon's log may not be read";
    return;
  }
  LaunchKey key{static_cast<std::time_t>(*run.began), run.path, run.root, run.comms_port, {}};
  // A script that has ended tells path and root name no more. The comms log's name has both.
  std::string model = WithoutDeleted(jobmill.FileWith("", kCommsLogEnd));
  if (!run.root && !model.empty()) key.model = model.substr(0, model.size() - kCommsLogEnd.size());
  if (const auto launch = log->Find(key)) {
    run.path = launch->path;
    run.root = launch->root;
    run.processes = launch->processes;
    run.comms_port = launch->port;
    run.windows_user = launch->windows_user;
    run.version = launch->version;
  }
  if (!run.windows_user) {
    run.unknown["windows_user"] = "the log does not tell it, or its lines are mixed with others";
  }
  const auto script = run.script ? Process::Open(*run.script) : std::nullopt;
  const auto directory = script ? script->Link("cwd") : std::nullopt;
  const std::string name(BaseName(directory.value_or("")));
  if (!name.starts_with("vk_")) return;
  if (const auto job = log->FindJob(name)) {
    run.scheduler = job->scheduler;
    run.job = job->number;
    if (run.state == RunState::kScript) {
      run.waits_for = "job " + job->number + " of " + job->scheduler;
    }
  }
}

}  // namespace inspect
