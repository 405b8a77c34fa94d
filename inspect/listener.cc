#include "inspect/listener.h"

#include <netinet/tcp.h>

#include <algorithm>

namespace inspect {

std::optional<Process> OwnerOf(const TcpSocket& socket) {
  if (socket.inode == 0) return std::nullopt;
  const std::string target = "socket:[" + std::to_string(socket.inode) + "]";
  for (const ProcessStat& stat : AllProcesses()) {
    std::optional<Process> process = Process::Open(stat.id);
    const auto files = process ? process->Files() : std::nullopt;
    if (!files) continue;
    const bool has =
        std::ranges::any_of(*files, [&](const auto& file) { return file.target == target; });
    if (has) return process;
  }
  return std::nullopt;
}

std::optional<Process> DaemonOn(int port) {
  for (const TcpSocket& socket : ReadSockets().all) {
    if (socket.state != TCP_LISTEN || socket.local.port != port || IsOfIpv6Alone(socket)) continue;
    auto owner = OwnerOf(socket);
    return owner && owner->stat().name == kDaemonProgram ? std::move(owner) : std::nullopt;
  }
  return std::nullopt;
}

bool IsOfIpv6Alone(const TcpSocket& socket) {
  return socket.local.address.find(':') != std::string::npos && socket.local.address != "::";
}

std::string Described(const std::optional<Process>& process) {
  if (!process) return "a process that only root can see";
  return "process " + std::to_string(process->stat().id.pid) + " (" + process->stat().name + ")";
}

}  // namespace inspect
