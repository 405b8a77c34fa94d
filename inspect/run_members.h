#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "inspect/machine.h"
#include "inspect/runs.h"

namespace inspect {

/// Finds the processes that belong to runs, and those whose runs have lost their controller: by
/// descent, and by the mark that the shipped scripts put into the environment of all that they
/// start.
class RunMembers {
 public:
  /// Reads the marks. `machine` has to outlive this object.
  explicit RunMembers(Machine& machine);

  /// Finds the simulators of this machine by their end of the link, or by listening on the comms
  /// port.
  void AddSimulators(std::vector<Run>& runs);

  /// Adds the processes of each run: what descends from its connection child, its simulator, which
  /// a scheduler may have started, and what carries the mark of one of these.
  void AddMembers(std::vector<Run>& runs) const;

  /// Adds a run for each script that is in no run, with what descends from it, and for each mark of
  /// processes that are in none, but for a simulator to which one of `runs` may be about to
  /// connect. To be called after AddMembers().
  void AddLost(std::vector<Run>& runs) const;

 private:
  struct Mark {
    ProcessStat stat;
    uid_t user = 0;
    std::string text;
  };

  Machine& machine_;
  std::vector<Mark> marks_;
};

}  // namespace inspect
