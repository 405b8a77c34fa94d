#pragma once

#include <string>
#include <vector>

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
struct Scenario {
  enum class Calls {
    kAll,
    kMemory,  ///< only those that ask for memory; no process is killed
    kOutput,  ///< only those that have to do with standard output
  };
  struct Ended {
    int waits;    ///< wait4(), twice in the handler for each and once in system()
    int returns;  ///< from the handler
  };
  std::string name;
  std::string what;
  bool asRoot;   ///< can only be tried by root
  Stage daemon;  ///< from where on the daemon is swept
  Stage child;   ///< from where on its connection child is swept
  bool script;   ///< whether the script process and the copy are swept
  Ended ended;   ///< what the connection child does about the ends of its children
  Calls calls = Calls::kAll;

  /// Whether this call of a recording is one of those that are swept.
  bool Sweeps(const Met& met) const;

  /// The calls that are swept besides: those that follow the end of a child. It ends when it ends,
  /// maybe after its parent, so that one recording has them and the next one has not.
  std::vector<Handled> HandledCalls() const;
};

const std::vector<Scenario>& Scenarios();

/// Whether the call asks the system for memory.
bool IsMemory(long call);

/// What was found at one point.
struct Verdict {
  enum class Kind {
    kServed,        ///< the first session was served to its end all the same
    kRefused,       ///< the master was told a demanded text
    kClosed,        ///< the master's connection was ended
    kWaiting,       ///< the master was left waiting where that is demanded
    kDaemonEnded,   ///< with the demanded text and status
    kNotStarted,    ///< the system's loader refused to start the program
    kDaemonKilled,  ///< by us
    kNotReached,    ///< the call did not come up this time
    kFailed,        ///< anything else
  };
  Kind kind = Kind::kServed;
  std::string text;      ///< why it failed
  bool crashed = false;  ///< a process of ours died of a signal, or a sanitizer reported
  std::vector<Met> met;  ///< the system calls, of an undisturbed trial
};

std::string NameOf(Verdict::Kind kind);

/// Runs the scenario of `point` against `daemon`, in a fresh directory and on free ports, from the
/// start of the daemon to the end of its last process. Needs a process without other children.
Verdict RunTrial(const Point& point, const std::string& daemon);
