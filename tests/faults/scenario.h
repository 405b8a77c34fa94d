#pragma once

#include <string>
#include <vector>

#include "tests/faults/peers.h"
#include "tests/faults/point.h"
#include "tests/faults/tracer.h"

/// The `occurrence`th `call` of a process.
struct Handled {
  Role role;
  long call;
  int occurrence;
};

/// One way that a daemon's first session goes. The second is always a whole run, undisturbed.
///
/// Each process is swept from the stage on at which it may behave otherwise than in the scenarios
/// before: other code, another account, another answer to the master or from anybody else.
///
/// A new scenario is a row of Scenarios(): all that it does otherwise is a member here.
struct Scenario {
  enum class Calls {
    kAll,
    kMemory,  ///< only those that ask for memory; no process is killed
    kOutput,  ///< only those that have to do with standard output
  };
  struct Ended {
    int waits = 0;    ///< wait4(), twice in the handler for each and once in system()
    int returns = 0;  ///< from the handler
  };
  std::string name{};
  std::string what{};
  bool as_root = false;             ///< can only be tried by root
  Stage daemon = Stage::kServing;   ///< from where on the daemon is swept
  Stage child = Stage::kHandshake;  ///< from where on its connection child is swept
  bool script = false;              ///< whether the script process and the copy are swept
  Ended ended{};                    ///< what the connection child does about its children's ends
  Calls calls = Calls::kAll;

  Master::Plan plan{};            ///< of the first master
  bool executable = true;         ///< whether the script can be executed
  bool simulator_leaves = false;  ///< in mid-run
  bool into_a_pipe = false;       ///< what standard output is
  bool every_allocation = false;  ///< asks the system for memory
  bool let_in = true;             ///< whether the master may run anything
  /// How the session ends if nothing disturbs it, and what the master is told after the user's
  /// name when it is refused because of that.
  Session::Result result = Session::Result::kServed;
  std::string refusal{};

  /// Whether this call of a recording is one of those that are swept.
  bool Sweeps(const Met& met) const;

  /// The calls that are swept besides: those that follow the end of a child. It ends when it ends,
  /// maybe after its parent, so that one recording has them and the next one has not.
  std::vector<Handled> HandledCalls() const;
};

const std::vector<Scenario>& Scenarios();

/// The scenario of this name. Throws std::invalid_argument.
const Scenario& ScenarioNamed(const std::string& name);

/// Whether the call asks the system for memory.
bool IsMemory(long call);
