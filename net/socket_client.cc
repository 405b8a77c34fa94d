#include "net/socket_client.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <cstdint>
#include <limits>

SocketClient::SocketClient(const std::string& host, int port) {
  // Cut to 16 bits, the number would be that of another port.
  if (port < 1 || port > std::numeric_limits<std::uint16_t>::max()) {
    throw std::string(strerror(EINVAL));
  }
  const hostent* found = gethostbyname(host.c_str());
  if (found == nullptr) throw std::string(strerror(errno));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  memcpy(&address.sin_addr, found->h_addr_list[0], sizeof(address.sin_addr));
  if (connect(handle_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::string(strerror(errno));
  }
}
