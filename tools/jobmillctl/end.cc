#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "base/descriptor.h"
#include "inspect/file.h"
#include "inspect/process.h"
#include "inspect/runs.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/run_view.h"

namespace jobmillctl {
namespace {

using inspect::ProcessId;
using inspect::Run;
using inspect::Runs;
using std::chrono::seconds;

// A shipped script gives a simulator five seconds to end; a scheduler takes some to cancel a job.
constexpr seconds kForScript{20};
constexpr seconds kForOthers{5};

// A process that cannot be mistaken for a later one of the same number.
class Target {
 public:
  explicit Target(const ProcessId& id)
      : handle_(static_cast<int>(syscall(SYS_pidfd_open, id.pid, 0))) {
    if (!handle_ && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOSYS)) {
      throw Failed(fmt::format("a process of the run cannot be ended: {}", std::strerror(errno)));
    }
    // As long as the process of this id is there, the handle is of no other with its number.
    if (!inspect::Process::Open(id)) handle_.Reset();
  }

  // Throws Failed when the signal may not be sent.
  void Signal(int signal) const {
    if (!handle_ || syscall(SYS_pidfd_send_signal, handle_.get(), signal, nullptr, 0) == 0) return;
    if (errno != ESRCH) {
      throw Failed(fmt::format("a process of the run cannot be ended: {}", std::strerror(errno)));
    }
  }

  bool EndsBefore(std::chrono::steady_clock::time_point deadline) const {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd ended{handle_.get(), POLLIN, 0};
    return !handle_ ||
           poll(&ended, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) == 1;
  }

 private:
  Descriptor handle_;
};

std::vector<Target> TargetsOf(const std::vector<ProcessId>& ids) {
  return {ids.begin(), ids.end()};
}

// Sends `signal` to all targets, with 0 none, and says whether all end within `patience`.
bool End(const std::vector<Target>& targets, int signal, seconds patience) {
  for (const Target& target : targets) target.Signal(signal);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  bool all = true;
  for (const Target& target : targets) {
    if (!target.EndsBefore(deadline)) all = false;
  }
  return all;
}

void EndRun(const Run& run) {
  std::vector<ProcessId> script;
  std::vector<ProcessId> others;
  for (const ProcessId& id : run.members) (run.script == id.pid ? script : others).push_back(id);
  const std::vector<Target> scripts = TargetsOf(script);
  const std::vector<Target> rest = TargetsOf(others);
  const std::vector<Target> controller = TargetsOf({run.id});
  // The script first: it knows how its simulator ends, or its job is cancelled. The controller
  // last: when its simulator has ended it says so in the comms log.
  End(scripts, SIGTERM, kForScript);
  if (!End(rest, 0, seconds(0))) End(rest, SIGTERM, kForOthers);
  if (!End(controller, 0, seconds(1))) End(controller, SIGTERM, kForOthers);
  const bool ended = End(scripts, SIGKILL, kForOthers) && End(rest, SIGKILL, kForOthers) &&
                     End(controller, SIGKILL, kForOthers);
  if (!ended) throw Failed(fmt::format("{} has not ended", Described(run)));
}

void Show(const Run& run) {
  fmt::print("{}: {}\n", Described(run), Name(run.state));
  const auto show = [&](const ProcessId& id, const char* what) {
    const auto process = inspect::Process::Open(id);
    if (!process) return;
    std::string command;
    for (const std::string& word : process->Arguments()) {
      command += (command.empty() ? "" : " ") + word;
    }
    fmt::print("  {:>7} {:<10} {}\n", id.pid, what, inspect::Printable(command).substr(0, 200));
  };
  if (HasController(run)) show(run.id, "controller");
  for (const ProcessId& id : run.members) {
    show(id, run.script == id.pid ? "script" : run.simulator == id.pid ? "simulator" : "");
  }
  if (run.job) {
    fmt::print("  {:>7} job of {}\n", inspect::Printable(*run.job),
               inspect::Printable(run.scheduler.value_or("")));
  }
}

int EndCommand(const std::string& name, bool yes) {
  const Runs found = inspect::FindRuns();
  const Run& run = Choose(found, name);
  Show(run);
  if (!yes && !IsWanted("End this?")) {
    fmt::print("Nothing was ended\n");
    return kNotGood;
  }
  EndRun(run);
  fmt::print("Ended\n");
  return kOk;
}

int LostCommand(bool end, bool yes) {
  Runs found = inspect::FindRuns();
  for (const Run& run : found.runs) {
    if (run.state != inspect::RunState::kEnding) continue;
    fmt::print("{}: ending, it waits for {}\n", Described(run), run.waits_for);
  }
  std::erase_if(found.runs, [](const Run& run) { return run.state != inspect::RunState::kLost; });
  for (const std::string& missing : found.missing) fmt::print("Not known: {}\n", missing);
  if (getuid() != 0) fmt::print("Not known: processes of other accounts, without root's rights\n");
  for (const Run& run : found.runs) Show(run);
  if (found.runs.empty()) fmt::print("Nothing on this machine has lost its controller\n");
  if (!end || found.runs.empty()) return kOk;
  if (!yes && !IsWanted("End this?")) {
    fmt::print("Nothing was ended\n");
    return kNotGood;
  }
  for (const Run& run : found.runs) EndRun(run);
  fmt::print("Ended\n");
  return kOk;
}

}  // namespace

void DeclareEnd(CLI::App& app, Action& chosen) {
  struct Given {
    std::string run;
    bool yes = false;
    bool end = false;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* end = app.add_subcommand(
      "end", "End a run: its script and simulator are asked first, its controller last");
  end->add_option("RUN", given->run, "Its number, root name or job")->required();
  end->add_flag("--yes", given->yes, "Do not ask");
  end->callback(
      [given, &chosen] { chosen = [given] { return EndCommand(given->run, given->yes); }; });
  CLI::App* lost =
      app.add_subcommand("lost", "Say which scripts and simulators have lost their controller");
  lost->add_flag("--end", given->end, "End them");
  lost->add_flag("--yes", given->yes, "Do not ask")->needs("--end");
  lost->callback(
      [given, &chosen] { chosen = [given] { return LostCommand(given->end, given->yes); }; });
}

}  // namespace jobmillctl
