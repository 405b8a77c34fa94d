#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "config/options.h"
#include "inspect/gates.h"
#include "inspect/process.h"
#include "inspect/sockets.h"

namespace inspect {

/// A process that listens for masters.
struct Daemon {
  ProcessId id;
  double since = 0;  ///< seconds since 1970, like all times here
  std::optional<uid_t> user;
  std::string program;  ///< empty: may not be known
  bool older = false;   ///< its program was replaced or removed after its start
  Options options;
  std::string log;  ///< where this process can read its log; empty: not known
};

enum class RunState {
  kHandshake,         ///< the master's request is not complete, or not checked
  kScript,            ///< the distribution script has not named a host
  kSimulatorListens,  ///< the simulator does not accept the connection yet
  kMaster,            ///< the master's next request has not come
  kSimulator,         ///< the simulator has not answered, for example during a step
  kEnded,             ///< there was a controller, see `cause`
  kEnding,            ///< the controller has gone, and a shipped script ends what is left
  kLost,              ///< processes of a run whose controller has gone, and that nobody ends
  kUnknown,           ///< see `unknown`
};

/// "handshake", "waiting for the script", ... These words are for programs, too: they stay.
const char* Name(RunState state);

/// One connection of a master and what came of it, or, when it is lost, what is left of it. Texts
/// are what masters, scripts and simulators said: they may hold anything.
struct Run {
  ProcessId id;         ///< the connection child; of a lost run the oldest of its processes
  pid_t daemon = 0;     ///< 0: the daemon that accepted it has gone
  int listen_port = 0;  ///< where the master connected; 0: not known
  RunState state = RunState::kUnknown;
  std::string waits_for;        ///< in words; empty: nothing to add
  std::optional<double> since;  ///< when it came into this state
  std::optional<double> began;  ///< when the master connected
  std::optional<uid_t> user;    ///< of the processes
  std::optional<std::string> windows_user;
  std::optional<std::string> proven;  ///< the certificate's name by which a gate has let it in
  std::optional<std::string> gate;    ///< where the other gate is through which it came
  std::optional<std::string> path;
  std::optional<std::string> root;
  std::optional<int> processes;
  std::optional<std::string> version;
  std::optional<int> comms_port;
  std::optional<Endpoint> master;
  std::optional<std::string> host;  ///< of the simulator, a name or an address
  std::optional<pid_t> script;
  std::optional<pid_t> simulator;           ///< where it is on this machine
  std::optional<double> simulator_seconds;  ///< processor time that it has used
  std::optional<std::string> scheduler;
  std::optional<std::string> job;
  std::optional<unsigned> last_request;  ///< its code
  std::optional<double> last_heard;      ///< when the master was last heard
  std::optional<double> day;
  std::optional<std::string> date;
  std::optional<double> until;
  std::optional<std::int64_t> requests;
  std::optional<std::string> cause;
  std::string comms_log;  ///< where this process can read it; empty: there is none, or not known

  /// Script, simulator and what they have started, without the connection child. Of a lost run all.
  std::vector<ProcessId> members;

  /// Why a field is not known, by the field's name in docs/status.md.
  std::map<std::string, std::string> unknown;
};

struct Runs {
  std::vector<Daemon> daemons;  ///< by port and start
  std::vector<Run> runs;        ///< by port and start; lost ones last
  std::vector<Gate> gates;
  std::vector<std::string> missing;  ///< what of all this could not be looked at
  std::optional<double> looked;      ///< when the machine was looked at
};

/// Whether the run's number is that of its controller, which may have ended a moment ago.
bool HasController(const Run& run);

/// The time, in seconds since 1970.
double Now();

/// Looks at this machine. Takes a moment, and two seconds more when a file system does not answer.
/// `gates`: where the gates of this machine say what goes on.
Runs FindRuns(const std::string& gates = kGateDirectory);

}  // namespace inspect
