#include "simulator/listener.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <system_error>

namespace simulator {
namespace {

bool is_transient(int error) {
  return error == EINTR || error == ECONNABORTED || error == EAGAIN || error == EPROTO;
}

}  // namespace

Listener::Listener(const std::string& address, std::uint16_t port) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &name.sin_addr) != 1) {
    throw std::invalid_argument("not an IPv4 address: " + address);
  }
  descriptor_ = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (descriptor_) {
    const int on = 1;
    // A run that follows another on the same port must not wait for the old connection to expire.
    setsockopt(descriptor_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  }
  if (!descriptor_ || bind(descriptor_.get(), std::bit_cast<sockaddr*>(&name), sizeof name) != 0 ||
      listen(descriptor_.get(), 1) != 0) {
    throw std::system_error(errno, std::generic_category(),
                            "cannot listen on " + address + ":" + std::to_string(port));
  }
}

std::uint16_t Listener::port() const {
  sockaddr_in name{};
  socklen_t size = sizeof name;
  getsockname(descriptor_.get(), std::bit_cast<sockaddr*>(&name), &size);
  return ntohs(name.sin_port);
}

Descriptor Listener::accept(std::chrono::milliseconds limit, const StopSignal& stop) {
  const auto end = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    const auto wait = std::max(left, std::chrono::milliseconds::zero());
    if (stop.wait(descriptor_.get(), wait) != StopSignal::Wait::kReady) return {};
    Descriptor connection(accept4(descriptor_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection) {
      const int on = 1;
      setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      descriptor_.Reset();
      return connection;
    }
    if (!is_transient(errno)) throw std::system_error(errno, std::generic_category(), "accept");
  }
}

}  // namespace simulator
