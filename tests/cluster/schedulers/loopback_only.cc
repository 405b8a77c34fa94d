// Preloaded into Grid Engine's daemons, which listen on every address of the machine and have no
// setting for it: what would be bound to all addresses is bound to loopback.

#include <dlfcn.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

// Not for what the daemons start: a simulator listens as it does elsewhere.
__attribute__((constructor)) static void LeaveOutChildren() {
  unsetenv("LD_PRELOAD");
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system's are reserved
extern "C" int bind(int descriptor, const sockaddr* address, socklen_t length) {
  using Bind = int (*)(int, const sockaddr*, socklen_t);
  static const auto kNext = reinterpret_cast<Bind>(dlsym(RTLD_NEXT, "bind"));
  sockaddr_in loopback{};
  if (address == nullptr || length != sizeof(loopback) || address->sa_family != AF_INET) {
    return kNext(descriptor, address, length);
  }
  memcpy(&loopback, address, sizeof(loopback));
  if (loopback.sin_addr.s_addr == htonl(INADDR_ANY)) {
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  return kNext(descriptor, reinterpret_cast<const sockaddr*>(&loopback), sizeof(loopback));
}
