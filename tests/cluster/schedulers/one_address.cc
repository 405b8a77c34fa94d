// Preloaded into the schedulers' daemons, which listen on every address of the machine unless its
// name leads to the right one: what would be bound to all addresses is bound to that of the
// variable LISTEN_ADDRESS.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

static in_addr wanted;

__attribute__((constructor)) static void TakeAddress() {
  const char* text = getenv("LISTEN_ADDRESS");
  if (text == nullptr || inet_pton(AF_INET, text, &wanted) != 1) {
    wanted.s_addr = htonl(INADDR_LOOPBACK);
  }
  // Not for what the daemons start: a simulator listens as it does elsewhere.
  unsetenv("LD_PRELOAD");
  unsetenv("LISTEN_ADDRESS");
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system's are reserved
extern "C" int bind(int descriptor, const sockaddr* address, socklen_t length) {
  using Bind = int (*)(int, const sockaddr*, socklen_t);
  static const auto kNext = reinterpret_cast<Bind>(dlsym(RTLD_NEXT, "bind"));
  if (address == nullptr || address->sa_family != AF_INET || length < sizeof(sockaddr_in)) {
    return kNext(descriptor, address, length);
  }
  sockaddr_in bound{};
  memcpy(&bound, address, sizeof(bound));
  if (bound.sin_addr.s_addr == htonl(INADDR_ANY)) bound.sin_addr = wanted;
  return kNext(descriptor, reinterpret_cast<const sockaddr*>(&bound), sizeof(bound));
}
