// The first bytes of a connection, from anybody: lines are read until the peer is through.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "net/socket.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int ends[2];
  if (size > 100'000 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 0;
  // Fits into the socket's buffer: nobody reads yet.
  const bool sent = send(ends[1], data, size, MSG_DONTWAIT) == static_cast<ssize_t>(size);
  close(ends[1]);
  Socket master(ends[0]);
  std::size_t consumed = 0;
  while (sent && consumed < size) {
    int length = 0;
    const std::string line = master.ReceiveLine(length);
    if (length > 0 && line.size() != static_cast<std::size_t>(length)) __builtin_trap();
    if (line.empty() && length == 0 && master.ReceiveBytes().empty()) break;
    consumed += 4 + line.size();
  }
  return 0;
}
