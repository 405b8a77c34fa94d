#include "inspect/port.h"

#include <netinet/tcp.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <system_error>

#include "inspect/listener.h"
#include "inspect/runs.h"
#include "inspect/script.h"

namespace inspect {
namespace {

constexpr std::size_t kMostHolders = 3;
constexpr std::size_t kMostPorts = 5;

Finding Held(const Site& site, const std::string& by) {
  return {"port.held",
          Severity::kWarning,
          site.configuration,
          site.line,
          "port " + std::to_string(site.options.listen_port) + " is held by " + by,
          "a daemon that starts now does not get the port, and masters are refused",
          "wait, or see jobmillctl status"};
}

// Connections that have ended hold the port together: until the last of them is forgotten.
std::string Ended(const std::vector<TcpSocket>& sockets) {
  const auto longest = std::ranges::max_element(sockets, {}, &TcpSocket::seconds_left);
  const auto left = std::to_string(static_cast<int>(std::ceil(longest->seconds_left)));
  if (sockets.size() == 1) {
    return "a connection from " + Text(longest->remote) + " that has ended, for another " + left +
           " s";
  }
  return std::to_string(sockets.size()) + " connections that have ended, the last one from " +
         Text(longest->remote) + ", for another " + left + " s";
}

void JudgeListener(const Site& site, const TcpSocket& socket, Findings& findings) {
  const std::optional<Process> owner = OwnerOf(socket);
  const std::string port = "port " + std::to_string(site.options.listen_port);
  if (!owner || owner->stat().name != kDaemonProgram) {
    const bool known = owner.has_value();
    findings.push_back(
        {known ? "port.taken" : "port.unchecked", known ? Severity::kError : Severity::kUnchecked,
         site.configuration, site.line, Described(owner) + " listens on " + port,
         known ? "the daemon cannot start" : "it may be the daemon or another program",
         known ? "end that program, or give the daemon another port" : "check as root"});
    return;
  }
  if (owner->stat().state == 'T') {
    findings.push_back({"port.stopped-daemon", Severity::kError, site.configuration, site.line,
                        Described(owner) + " on " + port + " is stopped by a signal",
                        "masters connect, and wait in vain",
                        "kill -CONT " + std::to_string(owner->stat().id.pid)});
  }
  const std::string program = owner->Link("exe").value_or("");
  if (!program.ends_with(kDeleted)) return;
  findings.push_back(
      {"port.older-daemon", Severity::kWarning, site.configuration, site.line,
       Described(owner) + " on " + port + " is an older program than the one that is installed",
       "what the new one mends is not mended", "jobmillctl restart --when-idle"});
}

// "port 9001", "ports 9001, 9002 and 3 others".
std::string PortsText(const std::set<int>& ports) {
  std::string text = ports.size() == 1 ? "port" : "ports";
  std::size_t shown = 0;
  for (const int port : ports) {
    if (++shown > kMostPorts) break;
    text.append(shown == 1 ? " " : ", ").append(std::to_string(port));
  }
  if (ports.size() > kMostPorts) {
    text += " and " + std::to_string(ports.size() - kMostPorts) + " others";
  }
  return text;
}

// Whose comms ports are in use as they should be: those of runs that are not lost.
class Users {
 public:
  explicit Users(const Runs& found) {
    for (const Run& run : found.runs) {
      if (run.state == RunState::kLost) continue;
      processes_.insert(run.id.pid);
      for (const ProcessId& member : run.members) processes_.insert(member.pid);
      if (run.comms_port) ports_[*run.comms_port] = run.user.value_or(0);
    }
  }

  bool Has(const std::optional<Process>& owner, const TcpSocket& socket) const {
    if (owner) return processes_.contains(owner->stat().id.pid);
    const auto port = ports_.find(socket.local.port);
    return port != ports_.end() && port->second == socket.user;
  }

 private:
  std::set<pid_t> processes_;
  std::map<int, uid_t> ports_;
};

// Daemons that run, and of which no configuration file tells.
void CheckOtherDaemons(const Site& site, const Runs& found, Findings& findings) {
  std::set<int> configured{site.options.listen_port};
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(site.others, ignored)) {
    if (entry.path().extension() != ".conf") continue;
    const Site other = SiteOf(site.others, entry.path().stem(), site.program);
    configured.insert(other.options.listen_port);
  }
  const std::int64_t first = site.options.comms_base_port;
  const std::int64_t end = first + site.options.comms_ports;
  for (const Daemon& daemon : found.daemons) {
    const std::int64_t its_first = daemon.options.comms_base_port;
    const std::int64_t its_end = its_first + daemon.options.comms_ports;
    if (configured.contains(daemon.options.listen_port) || its_first >= end || first >= its_end) {
      continue;
    }
    findings.push_back({"port.comms-shared", Severity::kWarning, site.configuration, site.line,
                        "a daemon of port " + std::to_string(daemon.options.listen_port) +
                            ", process " + std::to_string(daemon.id.pid) +
                            ", hands out the comms ports " + std::to_string(its_first) + " to " +
                            std::to_string(its_end - 1) + ", and this one " +
                            std::to_string(first) + " to " + std::to_string(end - 1),
                        "runs of both may be given one port, and one of them fails",
                        "end that daemon, or give it comms ports of its own with -o"});
  }
}

}  // namespace

Findings CheckPort(const Site& site) {
  Findings findings;
  const TcpSockets sockets = ReadSockets();
  if (!sockets.error.empty()) {
    findings.push_back({"port.unchecked", Severity::kUnchecked, site.configuration, site.line,
                        "the sockets of this machine are not known: " + sockets.error,
                        "the port may be taken", "try ss --listening --tcp"});
    return findings;
  }
  std::vector<TcpSocket> held;
  std::vector<TcpSocket> ended;
  for (const TcpSocket& socket : sockets.all) {
    if (socket.local.port != site.options.listen_port || IsOfIpv6Alone(socket)) continue;
    if (socket.state == TCP_LISTEN) {
      JudgeListener(site, socket, findings);
      return findings;
    }
    (socket.state == TCP_TIME_WAIT ? ended : held).push_back(socket);
  }
  for (std::size_t i = 0; i < held.size() && i < kMostHolders; ++i) {
    const std::string by = held[i].inode == 0 ? "no process" : Described(OwnerOf(held[i]));
    findings.push_back(Held(site, "a connection from " + Text(held[i].remote) + ", " + by));
  }
  if (!ended.empty()) findings.push_back(Held(site, Ended(ended)));
  return findings;
}

Findings CheckCommsPorts(const Site& site) {
  Findings findings;
  if (IsForCluster(site)) return findings;
  const std::int64_t first = site.options.comms_base_port;
  const std::int64_t end = first + site.options.comms_ports;
  const Runs found = FindRuns();
  CheckOtherDaemons(site, found, findings);
  const Users users(found);
  std::map<std::string, std::set<int>> taken;
  std::set<int> all;
  for (const TcpSocket& socket : ReadSockets().all) {
    const int port = socket.local.port;
    // What nobody has any more is gone within a minute.
    if (port < first || port >= end || socket.inode == 0) continue;
    const auto owner = OwnerOf(socket);
    if (users.Has(owner, socket)) continue;
    taken[Described(owner)].insert(port);
    all.insert(port);
  }
  if (all.size() == static_cast<std::size_t>(site.options.comms_ports)) {
    findings.push_back({"port.no-comms", Severity::kError, site.configuration, site.line,
                        "every comms port is taken, from " + std::to_string(first) + " to " +
                            std::to_string(end - 1) + ", by " + taken.begin()->first +
                            (taken.size() == 1 ? "" : " and others"),
                        "every run is refused or fails", "move the comms ports with -o"});
    return findings;
  }
  for (const auto& [owner, ports] : taken) {
    findings.push_back(
        {"port.comms-taken", Severity::kWarning, site.configuration, site.line,
         "comms " + PortsText(ports) + (ports.size() == 1 ? " is" : " are") + " taken by " + owner,
         "the run that is given it is refused or fails",
         "end that program, see jobmillctl lost, or move the comms ports with -o"});
  }
  return findings;
}

}  // namespace inspect
