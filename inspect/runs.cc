#include "inspect/runs.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <tuple>
#include <utility>

#include "inspect/comms_log_reader.h"
#include "inspect/launch_reader.h"
#include "inspect/machine.h"
#include "inspect/run_members.h"
#include "inspect/run_state.h"
#include "inspect/script_arguments.h"

namespace inspect {
namespace {

// A run that changes while it is looked at is looked at again this often.
constexpr int kAttempts = 4;

class Survey {
 public:
  explicit Survey(const std::string& gates) { found_.gates = ReadGates(gates, Now()); }

  Runs Find();

 private:
  void AddDaemon(const Jobmill& jobmill);
  void AddRun(const Jobmill& first);
  void Describe(const Jobmill& jobmill, Run& run);
  void AddGate(Run& run) const;
  void AddScript(const Jobmill& jobmill, Run& run) const;

  const double looked_ = Now();  // before anything is read
  Machine machine_;
  LaunchReader launches_;
  Runs found_;
};

Runs Survey::Find() {
  found_.missing = machine_.missing();
  found_.looked = looked_;
  for (const auto& [pid, jobmill] : machine_.jobmills()) {
    const pid_t parent = jobmill.stat.parent;
    if (machine_.IsDaemon(pid)) {
      AddDaemon(jobmill);
    } else if (!machine_.IsJobmill(parent) || machine_.IsDaemon(parent)) {
      AddRun(jobmill);
    }
    // Otherwise it is a connection child's own child, which is about to become the script.
  }
  RunMembers members(machine_);
  members.AddSimulators(found_.runs);
  members.AddMembers(found_.runs);
  AddCommsLogs(machine_, found_.runs);
  // What has ended meanwhile may have left fields of two moments, and is gone in any case.
  std::erase_if(found_.runs, [](const Run& run) {
    const auto process = Process::Open(run.id);
    return run.state != RunState::kEnded && (!process || !process->IsAlive());
  });
  members.AddLost(found_.runs);
  std::sort(found_.daemons.begin(), found_.daemons.end(), [](const Daemon& a, const Daemon& b) {
    return std::tuple(a.options.listen_port, a.id.start, a.id.pid) <
           std::tuple(b.options.listen_port, b.id.start, b.id.pid);
  });
  std::sort(found_.runs.begin(), found_.runs.end(), [](const Run& a, const Run& b) {
    const bool lost_a = !HasController(a);
    const bool lost_b = !HasController(b);
    return std::tuple(lost_a, a.listen_port, a.id.start, a.id.pid) <
           std::tuple(lost_b, b.listen_port, b.id.start, b.id.pid);
  });
  return std::move(found_);
}

void Survey::AddDaemon(const Jobmill& jobmill) {
  Daemon daemon;
  daemon.id = jobmill.stat.id;
  daemon.since = StartTime(daemon.id.start);
  daemon.user = jobmill.user;
  daemon.program = jobmill.program.value_or("");
  daemon.older = daemon.program.ends_with(kDeleted);
  daemon.options = jobmill.options;
  Run unused;
  daemon.log = launches_.LogOf(jobmill, unused);
  found_.daemons.push_back(std::move(daemon));
}

void Survey::AddRun(const Jobmill& first) {
  Jobmill jobmill = first;
  for (int attempt = 1;; ++attempt) {
    Run run;
    run.id = jobmill.stat.id;
    run.daemon = machine_.IsDaemon(jobmill.stat.parent) ? jobmill.stat.parent : 0;
    run.began = StartTime(run.id.start);
    if (jobmill.stat.state == 'Z') {
      run.state = RunState::kEnded;
      // Its own command line has gone with it.
      if (run.daemon != 0) {
        run.listen_port = machine_.jobmills().at(run.daemon).options.listen_port;
      }
      run.cause = "unknown";
      run.waits_for = "the daemon, to take note of the end";
    } else {
      Describe(jobmill, run);
    }
    // A program that has just been started listens nowhere yet and has no connection.
    const bool starts = run.daemon == 0 && jobmill.files && machine_.LinksOf(jobmill).empty();
    if (run.state != RunState::kUnknown || !jobmill.files || attempt == kAttempts) {
      if (!starts) found_.runs.push_back(std::move(run));
      return;
    }
    usleep(2000);
    const auto again = machine_.ReadAgain(jobmill);
    if (!again) return;
    jobmill = *again;
  }
}

void Survey::Describe(const Jobmill& jobmill, Run& run) {
  run.listen_port = jobmill.options.listen_port;
  run.user = jobmill.user;
  AddScript(jobmill, run);
  if (!jobmill.files) run.unknown["state"] = "only root may look at what the process has open";
  const std::optional<Link> simulator = SimulatorLinkOf(machine_, jobmill, run);
  const std::optional<Link> master = MasterOf(machine_, jobmill, run);
  if (simulator) {
    run.comms_port = simulator->socket.remote.port;
    run.host = simulator->socket.remote.address;
  }
  if (master) {
    run.master = master->socket.remote;
    AddGate(run);
    if (master->socket.since_received) run.last_heard = Now() - *master->socket.since_received;
  }
  const std::string comms_log = jobmill.FileWith("", kCommsLogEnd);
  if (comms_log.ends_with(kDeleted)) {
    run.unknown["comms_log"] = "it was removed or replaced";
  } else if (!comms_log.empty()) {
    run.comms_log = "/proc/" + std::to_string(run.id.pid) + "/root" + comms_log;
  } else if (!jobmill.options.comms_log) {
    run.unknown["comms_log"] = "the daemon was started without -l";
  }
  SetState(machine_, jobmill, master, simulator, run);
  launches_.Add(jobmill, run);
}

// A gate connects over the loopback interface. A master elsewhere may have the same port number.
void Survey::AddGate(Run& run) const {
  const GateLink* link = FindLink(found_.gates, run.master->port, run.listen_port);
  if (link == nullptr || !run.master->address.starts_with("127.")) return;
  run.gate = link->peer;
  if (!link->proof.empty()) run.proven = link->proof;
}

void Survey::AddScript(const Jobmill& jobmill, Run& run) const {
  for (const ProcessStat& stat : machine_.ChildrenOf(run.id.pid)) {
    // The script begins a session. cp, which copies the input of a cluster run, does not.
    if (stat.session != stat.id.pid) continue;
    run.script = stat.id.pid;
    const auto script = Process::Open(stat.id);
    const auto arguments =
        script ? ReadScript(script->Arguments(), ScriptOf(jobmill.options)) : std::nullopt;
    if (arguments) Take(*arguments, run);
    return;
  }
}

}  // namespace

const char* Name(RunState state) {
  switch (state) {
    case RunState::kHandshake:
      return "handshake";
    case RunState::kScript:
      return "waiting for the script";
    case RunState::kSimulatorListens:
      return "waiting for the simulator to listen";
    case RunState::kMaster:
      return "waiting for the master";
    case RunState::kSimulator:
      return "waiting for the simulator";
    case RunState::kEnded:
      return "ended";
    case RunState::kEnding:
      return "ending";
    case RunState::kLost:
      return "lost";
    case RunState::kUnknown:
      break;
  }
  return "unknown";
}

bool HasController(const Run& run) {
  return run.state != RunState::kEnding && run.state != RunState::kLost;
}

double Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

Runs FindRuns(const std::string& gates) {
  return Survey(gates).Find();
}

}  // namespace inspect