#include "inspect/port.h"

#include <netinet/tcp.h>

#include <algorithm>
#include <cmath>
#include <optional>

#include "inspect/listener.h"
#include "inspect/sockets.h"

namespace inspect {
namespace {

constexpr std::string_view kProgram = "vkjobmill.exe";
constexpr std::size_t kMostHolders = 3;

Finding Held(const Site& site, const TcpSocket& socket, const std::string& by) {
  return {"port.held",
          Severity::kWarning,
          site.configuration,
          site.line,
          "port " + std::to_string(site.options.listen_port) + " is held by a connection from " +
              Text(socket.remote) + by,
          "a daemon that starts now does not get the port, and masters are refused",
          "wait, or see jobmillctl status"};
}

void JudgeListener(const Site& site, const TcpSocket& socket, Findings& findings) {
  const std::optional<Process> owner = OwnerOf(socket);
  const std::string port = "port " + std::to_string(site.options.listen_port);
  if (!owner || owner->stat().name != kProgram) {
    const bool known = owner.has_value();
    findings.push_back(
        {known ? "port.taken" : "port.unchecked", known ? Severity::kError : Severity::kUnchecked,
         site.configuration, site.line, Described(owner) + " listens on " + port,
         known ? "the daemon cannot start" : "it may be the daemon or another program",
         known ? "end that program, or give the daemon another port" : "check as root"});
    return;
  }
  const std::string program = owner->Link("exe").value_or("");
  if (!program.ends_with(" (deleted)")) return;
  findings.push_back(
      {"port.older-daemon", Severity::kWarning, site.configuration, site.line,
       Described(owner) + " on " + port + " is an older program than the one that is installed",
       "what the new one mends is not mended", "jobmillctl restart --when-idle"});
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
  for (const TcpSocket& socket : sockets.all) {
    if (socket.local.port != site.options.listen_port) continue;
    if (socket.state == TCP_LISTEN) {
      JudgeListener(site, socket, findings);
      return findings;
    }
    held.push_back(socket);
  }
  for (std::size_t i = 0; i < held.size() && i < kMostHolders; ++i) {
    if (held[i].state == TCP_TIME_WAIT) {
      const auto left = static_cast<int>(std::ceil(held[i].seconds_left));
      findings.push_back(
          Held(site, held[i], " that has ended, for another " + std::to_string(left) + " s"));
    } else {
      const auto owner = held[i].inode == 0 ? std::nullopt : OwnerOf(held[i]);
      findings.push_back(Held(site, held[i], ", " + Described(owner)));
    }
  }
  return findings;
}

}  // namespace inspect
