#include "simulator/listener.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

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
  descriptor_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  bool listening = descriptor_ >= 0;
  if (listening) {
    const int on = 1;
    // A run that follows another on the same port must not wait for the old connection to expire.
    setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    listening = bind(descriptor_, std::bit_cast<sockaddr*>(&name), sizeof name) == 0 &&
                listen(descriptor_, 1) == 0;
  }
  if (!listening) {
    const int error = errno;
    if (descriptor_ >= 0) close(descriptor_);
    throw std::system_error(error, std::generic_category(),
                            "cannot listen on " + address + ":" + std::to_string(port));
  }
}

Listener::~Listener() {
  if (descriptor_ >= 0) close(descriptor_);
}

std::uint16_t Listener::port() const {
  sockaddr_in name{};
  socklen_t size = sizeof name;
  getsockname(descriptor_, std::bit_cast<sockaddr*>(&name), &size);
  return ntohs(name.sin_port);
}

std::optional<int> Listener::accept(std::chrono::milliseconds limit, const StopSignal& stop) {
  const auto end = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    const auto wait = std::max(left, std::chrono::milliseconds::zero());
    if (stop.wait(descriptor_, wait) != StopSignal::Wait::kReady) return std::nullopt;
    const int connection = accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection >= 0) {
      const int on = 1;
      setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      close(descriptor_);
      descriptor_ = -1;
      return connection;
    }
    if (!is_transient(errno)) throw std::system_error(errno, std::generic_category(), "accept");
  }
}

}  // namespace simulator
