#include "net/socket_server.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <limits>

#include "base/descriptor.h"

namespace {

// The text of the last failure. Constructors throw a pointer to it, so it outlives them.
std::array<char, 256> failure;

sockaddr_in AnyAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  return address;
}

int NewSocket() {
  return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

int Bind(int handle, int port) {
  // Cut to 16 bits, the number would be that of another port.
  if (port < 0 || port > std::numeric_limits<std::uint16_t>::max()) {
    errno = EINVAL;
    return -1;
  }
  const sockaddr_in address = AnyAddress(port);
  return bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

}  // namespace

SocketServer::SocketServer(int port, int backlog) {
  handle_ = NewSocket();
  if (handle_ < 0) {
    snprintf(failure.data(), failure.size(), "INVALID SOCKET: %d", handle_);
    // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference): callers catch texts
    throw failure.data();
  }
  const int bound = Bind(handle_, port);
  if (bound < 0) {
    snprintf(failure.data(), failure.size(), "INVALID SOCKET: returned from bind '%d', error = %s",
             bound, strerror(errno));
    Close();
    // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference): callers catch texts
    throw failure.data();
  }
  listen(handle_, backlog);
}

int SocketServer::IsAvailablePort(int port) {
  const Descriptor probe(NewSocket());
  if (!probe) return -1;
  return Bind(probe.get(), port) == 0 ? 0 : -2;
}

Socket* SocketServer::Accept() {
  Descriptor connection(accept4(handle_, nullptr, nullptr, SOCK_CLOEXEC));
  // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference): callers catch texts
  if (!connection) throw static_cast<const char*>("Invalid Socket");
  auto* master = new Socket(connection.get());
  connection.Release();
  return master;
}

Socket* SocketServer::Accept(int seconds, int* ready) {
  if (handle_ < 0 || handle_ >= FD_SETSIZE) {  // an fd_set has no place for it
    *ready = -1;
    return nullptr;
  }
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(handle_, &readable);
  timeval limit{seconds, 0};
  *ready = select(handle_ + 1, &readable, nullptr, nullptr, &limit);
  return *ready <= 0 ? nullptr : Accept();
}
