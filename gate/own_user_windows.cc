#include <iphlpapi.h>
#include <windows.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstddef>
#include <vector>

#include "gate/own_user.h"

namespace gate {
namespace {

constexpr int kAttempts = 3;                   // to get the whole of a table that grows
constexpr std::size_t kUsualTable = 64 << 10;  // bytes

// A connection that was made this moment may not be in the table yet: in wine's it is once its
// program has used it, for which the program has to get a processor. All links of the gate wait
// meanwhile.
constexpr DWORD kPausesMs[] = {5, 60};

// The process that has the other end, 0 when the table does not tell.
DWORD ProcessAtOtherEnd(const LoopbackConnection& connection) {
  in_addr local{};
  in_addr remote{};
  if (connection.v6 || InetPtonA(AF_INET, connection.local_address.c_str(), &local) != 1 ||
      InetPtonA(AF_INET, connection.remote_address.c_str(), &remote) != 1) {
    return 0;
  }
  std::vector<char> table(kUsualTable);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    auto size = static_cast<DWORD>(table.size());
    const DWORD result = GetExtendedTcpTable(table.data(), &size, FALSE, AF_INET,
                                             TCP_TABLE_OWNER_PID_CONNECTIONS, 0);
    if (result == ERROR_INSUFFICIENT_BUFFER) {
      table.resize(size + 4096);
      continue;
    }
    if (result != NO_ERROR) return 0;
    const auto* rows = reinterpret_cast<const MIB_TCPTABLE_OWNER_PID*>(table.data());
    for (DWORD i = 0; i < rows->dwNumEntries; ++i) {
      const MIB_TCPROW_OWNER_PID& row = rows->table[i];
      if (row.dwLocalAddr == remote.s_addr && row.dwRemoteAddr == local.s_addr &&
          ntohs(static_cast<u_short>(row.dwLocalPort)) == connection.remote_port &&
          ntohs(static_cast<u_short>(row.dwRemotePort)) == connection.local_port) {
        return row.dwOwningPid;
      }
    }
    return 0;
  }
  return 0;
}

// The security identifier of a process's user, empty when it may not be known.
std::vector<char> UserOf(HANDLE process) {
  HANDLE token = nullptr;
  if (!OpenProcessToken(process, TOKEN_QUERY, &token)) return {};
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<char> user(size);
  const bool known = size > 0 && GetTokenInformation(token, TokenUser, user.data(), size, &size);
  CloseHandle(token);
  if (!known) return {};
  auto* sid = reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid;
  const auto* bytes = static_cast<const char*>(sid);
  return {bytes, bytes + GetLengthSid(sid)};
}

}  // namespace

std::string WhyNotOwnUser(const LoopbackConnection& connection) {
  DWORD pid = ProcessAtOtherEnd(connection);
  for (const DWORD pause : kPausesMs) {
    if (pid != 0) break;
    Sleep(pause);
    pid = ProcessAtOtherEnd(connection);
  }
  if (pid == 0) return "it cannot be told whose connection this is";
  HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
  if (process == nullptr) return "it is of a process that may not be looked at";
  const std::vector<char> user = UserOf(process);
  // Numbers of processes are given again: while the handle is open this one is not. The process may
  // have gone before that, so the table has to name it still.
  const bool same = ProcessAtOtherEnd(connection) == pid;
  CloseHandle(process);
  if (user.empty() || !same) return "it cannot be told whose connection this is";
  return user == UserOf(GetCurrentProcess()) ? "" : "it is another user's";
}

}  // namespace gate
