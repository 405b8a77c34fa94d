#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace inspect {

/// Where the serving gates of a machine say what goes on (`vkgate serve --status`).
inline constexpr const char* kGateDirectory = "/run/jobmill-gate";

/// A link of a gate, which is a master to a daemon. The texts may hold anything.
struct GateLink {
  int port = 0;       ///< from which the gate is connected to the daemon
  std::string peer;   ///< where the other gate is
  std::string proof;  ///< the name that proves the claim; empty: it has not been proven
  std::string claimed;
  bool broken = false;
};

/// A serving gate, as it has said itself.
struct Gate {
  std::string file;
  double time = 0;  ///< when, in seconds since 1970
  int daemon_port = 0;
  std::vector<GateLink> links;
  std::map<std::string, std::int64_t> counts;  ///< of what has happened since its start
  std::int64_t arriving = 0;                   ///< connections that have not proven anything
  std::int64_t most_links = 0;
  std::optional<double> list_expires;  ///< the first list of revoked certificates to become too old
};

/// What the files NAME.json in `directory` say. Gates that have ended, files that are older than
/// half a minute, and what is no such document are left out. So is what the directory's owner, as
/// whom the gate runs, has not written alone: a file of another account, or one that everybody may
/// write.
std::vector<Gate> ReadGates(const std::string& directory, double now);

/// The link through which a master at this port of the loopback interface has come to the daemon at
/// `daemon_port`; null when it has come through none.
const GateLink* FindLink(const std::vector<Gate>& gates, int master_port, int daemon_port);

}  // namespace inspect
