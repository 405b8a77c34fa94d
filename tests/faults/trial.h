#pragma once

#include <string>
#include <vector>

#include "tests/faults/point.h"
#include "tests/faults/tracer.h"

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
