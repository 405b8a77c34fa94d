#include "tests/faults/scenario.h"

#include <sys/syscall.h>

#include <algorithm>
#include <stdexcept>

namespace {

using Result = Session::Result;

constexpr const char* kUnknown = "' not found in administration file";
constexpr const char* kDenied = "' does not have permissions to run Varnok";

}  // namespace

const std::vector<Scenario>& Scenarios() {
  static const std::vector<Scenario> scenarios = {
      {.name = "run",
       .what = "a whole cluster run with a mapped account",
       .as_root = true,
       .daemon = Stage::kLoading,
       .script = true,
       .ended = {4, 2},
       .plan = {.cluster = "1"}},
      {.name = "own",
       .what = "a whole run with the daemon's own account",
       .daemon = Stage::kStarting,
       .script = true,
       .ended = {2, 1}},
      {.name = "version",
       .what = "a master that is no master",
       .plan = {.version = "abc"},
       .let_in = false,
       .result = Result::kClosed},
      {.name = "user",
       .what = "an unknown user",
       .as_root = true,
       .plan = {.user = "mallory"},
       .let_in = false,
       .result = Result::kRefused,
       .refusal = kUnknown},
      {.name = "denied",
       .what = "a user who may not",
       .as_root = true,
       .plan = {.user = "bob"},
       .let_in = false,
       .result = Result::kRefused,
       .refusal = kDenied},
      {.name = "noexec",
       .what = "a script that cannot be executed",
       .child = Stage::kLaunch,
       .script = true,
       .ended = {2, 1},
       .executable = false,
       .result = Result::kRefused},
      {.name = "nohost",
       .what = "a script that names no host",
       .child = Stage::kLaunch,
       .ended = {2, 1},
       .plan = {.root = "NOHOST"},
       .result = Result::kRefused},
      {.name = "simulator",
       .what = "a simulator that leaves in mid-run",
       .child = Stage::kStep,
       .simulator_leaves = true,
       .result = Result::kClosed},
      {.name = "master",
       .what = "a master that leaves in mid-run",
       .child = Stage::kAnswered,
       .plan = {.leave_after_connecting = true}},
      {.name = "pipe",
       .what = "a whole run that prints into a pipe",
       .daemon = Stage::kStarting,
       .script = true,
       .calls = Scenario::Calls::kOutput,
       .into_a_pipe = true},
      {.name = "memory",
       .what = "a whole run that asks the system for every allocation",
       .daemon = Stage::kStarting,
       .script = true,
       .calls = Scenario::Calls::kMemory,
       .every_allocation = true},
  };
  return scenarios;
}

const Scenario& ScenarioNamed(const std::string& name) {
  for (const Scenario& scenario : Scenarios()) {
    if (scenario.name == name) return scenario;
  }
  throw std::invalid_argument("no scenario " + name);
}

bool Scenario::Sweeps(const Met& met) const {
  // Those of the signal handler are in no recording but in HandledCalls(): they come when they
  // come.
  if (met.call == SYS_rt_sigreturn || met.call == SYS_wait4) return false;
  if (calls == Calls::kMemory && !IsMemory(met.call)) return false;
  if (calls == Calls::kOutput && !met.output) return false;
  switch (met.role) {
    case Role::kDaemon:
      return met.stage >= daemon;
    case Role::kChild:
      return met.stage >= child;
    default:
      return script;
  }
}

std::vector<Handled> Scenario::HandledCalls() const {
  std::vector<Handled> handled;
  const auto add = [&handled](Role role, long call, int times) {
    for (int time = 1; time <= times; ++time) handled.push_back({role, call, time});
  };
  if (calls != Calls::kAll) return handled;
  add(Role::kDaemon, SYS_wait4, 2);
  add(Role::kDaemon, SYS_rt_sigreturn, 1);
  add(Role::kChild, SYS_wait4, ended.waits);
  add(Role::kChild, SYS_rt_sigreturn, ended.returns);
  return handled;
}

bool IsMemory(long call) {
  return call == SYS_brk || call == SYS_mmap || call == SYS_mremap;
}
