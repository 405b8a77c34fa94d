#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace load {

/// What one connection to the daemon comes to.
enum class Kind {
  // Ends before a script is started.
  kLeavesAtOnce,
  kLeavesInHandshake,  ///< after any number of its bytes
  kResetsInHandshake,  ///< the same, with a reset instead of an end
  kRefusesVersion,
  kStranger,        ///< bytes of another protocol
  kDeniedUser,      ///< a daemon that runs as root; otherwise as kRefusesVersion
  kUnknownUser,     ///< the same
  kMissingAccount,  ///< the same
  // Scripts.
  kScriptWithoutHost,
  kScriptKilled,
  kScriptWithBlankHost,
  kScriptChatty,    ///< hundreds of lines before the host
  kScriptStays,     ///< for a moment, as a script that watches its simulator does
  kLeavesInLaunch,  ///< before the host is known
  kLeavesLaunched,  ///< without a request
  // Simulators.
  kSimulatorRefuses,
  kSimulatorHangsUp,
  kSimulatorCuts,    ///< in any of its first messages
  kSimulatorSpoils,  ///< likewise
  // Runs.
  kRun,  ///< to its proper end, every answer compared with the model's
  kClusterRun,
  kLeavesRun,
  kResetsRun,      ///< with requests under way whose answers it does not read
  kResetsRequest,  ///< in the middle of a request's bytes
  kLeavesRecords,  ///< between the records of an answer
  kHostileRequest,
  kUnknownRequest,
  // Slow ones.
  kSimulatorAbsent,  ///< takes the start time-out: six seconds
  kLeavesRequest,    ///< ends in the middle of a request: noticed after a minute of probes
};

struct Action {
  Kind kind;
  std::uint32_t parameter;  ///< where it leaves, how long it lasts: each kind reads it its way

  bool operator==(const Action&) const = default;
};

/// For example "leaves-in-handshake".
std::string NameOf(Kind kind);

/// Whether the daemon starts a script for it.
bool Launches(Kind kind);

/// `connections` connections, of which `launches` start a script, in an order that `seed` gives;
/// nothing else does: the same on every machine. `slow`: also those that take seconds.
std::vector<Action> MakePlan(std::uint64_t seed, std::size_t connections, std::size_t launches,
                             bool slow);

}  // namespace load
