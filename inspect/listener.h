#pragma once

#include <optional>
#include <string>

#include "inspect/process.h"
#include "inspect/sockets.h"

namespace inspect {

/// The process that has a socket open; none without the right to know.
std::optional<Process> OwnerOf(const TcpSocket& socket);

/// The daemon that listens for masters on a port; none when nobody does, another program does, or
/// without the right to know.
std::optional<Process> DaemonOn(int port);

/// Whether the socket leaves its port on the addresses of IPv4, where the daemon listens, free.
bool IsOfIpv6Alone(const TcpSocket& socket);

/// "process 4711 (sshd)", or that only root can see it.
std::string Described(const std::optional<Process>& process);

}  // namespace inspect
