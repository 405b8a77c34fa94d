#include "bench/whole/peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <system_error>

namespace bench {
namespace {

// The end of the connection that ends every service.
struct Left {};

class Link {
 public:
  explicit Link(int listener) : descriptor_(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) {
    if (descriptor_ < 0) throw std::system_error(errno, std::generic_category(), "accept");
    const int on = 1;
    setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link() { close(descriptor_); }

  void Skip(std::size_t size) {
    buffer_.resize(std::max(buffer_.size(), size));
    Receive(buffer_.data(), size);
  }

  // One message as it travels: total length, then chunks with their lengths.
  std::string Message() {
    std::string bytes;
    const std::uint64_t total = Take(bytes);
    std::uint64_t had = 0;
    do {
      const std::uint64_t chunk = Take(bytes);
      const std::size_t start = bytes.size();
      bytes.resize(start + chunk);
      Receive(bytes.data() + start, chunk);
      had += chunk;
    } while (had < total);
    return bytes;
  }

  void Send(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t now = send(descriptor_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (now <= 0) throw Left{};
      sent += static_cast<std::size_t>(now);
    }
  }

 private:
  void Receive(char* target, std::size_t size) {
    std::size_t had = 0;
    while (had < size) {
      const ssize_t now = recv(descriptor_, target + had, size - had, 0);
      if (now <= 0) throw Left{};
      had += static_cast<std::size_t>(now);
    }
  }

  std::uint64_t Take(std::string& bytes) {
    std::uint64_t number = 0;
    bytes.resize(bytes.size() + sizeof(number));
    char* target = bytes.data() + bytes.size() - sizeof(number);
    Receive(target, sizeof(number));
    std::memcpy(&number, target, sizeof(number));
    return number;
  }

  int descriptor_;
  std::string buffer_;
};

void Play(Link& link, Exchange& exchange) {
  if (exchange.query.empty()) {
    exchange.query = link.Message();
  } else {
    link.Skip(exchange.query.size());
  }
  link.Send(exchange.answer);
}

}  // namespace

void Serve(int listener, Step& set_up, Flow& flow) {
  try {
    Link link(listener);
    for (Exchange& exchange : set_up.exchanges) Play(link, exchange);
    while (true) {
      bool any = false;
      for (Step& step : flow.steps) {
        for (Exchange& exchange : step.exchanges) {
          Play(link, exchange);
          any = true;
        }
      }
      // Nothing more to say: wait for the end.
      if (!any) link.Skip(1);
    }
  } catch (const Left&) {
  }
}

std::vector<pid_t> ServeInChildren(int listener, const Step& set_up, const Flow& flow,
                                   int connections) {
  std::vector<pid_t> children;
  for (int i = 0; i < connections; ++i) {
    const pid_t child = fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      Step own_set_up = set_up;
      Flow own_flow = flow;
      Serve(listener, own_set_up, own_flow);
      _exit(0);
    }
    children.push_back(child);
  }
  return children;
}

}  // namespace bench
