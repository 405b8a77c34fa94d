#include "inspect/sockets.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <vector>

#include "base/descriptor.h"

namespace inspect {
namespace {

// The kernel fills a buffer of this size with as many sockets as fit.
constexpr std::size_t kBuffer = 1 << 16;

// A dump during which the kernel's table has changed is asked for again this often.
constexpr int kAttempts = 3;

Endpoint EndpointOf(int family, const __be32 (&address)[4], __be16 port) {
  Endpoint endpoint{{}, ntohs(port)};
  std::array<char, INET6_ADDRSTRLEN> text{};
  in6_addr wide{};
  memcpy(&wide, address, sizeof(wide));
  if (family == AF_INET) {
    inet_ntop(AF_INET, address, text.data(), text.size());
  } else if (IN6_IS_ADDR_V4MAPPED(&wide)) {
    inet_ntop(AF_INET, &address[3], text.data(), text.size());
  } else {
    inet_ntop(AF_INET6, &wide, text.data(), text.size());
  }
  endpoint.address = text.data();
  return endpoint;
}

TcpSocket SocketOf(const nlmsghdr* header) {
  const auto* message = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
  TcpSocket socket;
  socket.state = message->idiag_state;
  socket.local = EndpointOf(message->idiag_family, message->id.idiag_src, message->id.idiag_sport);
  socket.remote = EndpointOf(message->idiag_family, message->id.idiag_dst, message->id.idiag_dport);
  socket.inode = message->idiag_inode;
  socket.user = message->idiag_uid;
  socket.receive_queue = message->idiag_rqueue;
  socket.send_queue = message->idiag_wqueue;
  if (socket.state == TCP_TIME_WAIT) socket.seconds_left = message->idiag_expires / 1000.0;
  auto rest = static_cast<int>(NLMSG_PAYLOAD(header, sizeof(*message)));
  for (const auto* attribute = reinterpret_cast<const rtattr*>(message + 1);
       RTA_OK(attribute, rest); attribute = RTA_NEXT(attribute, rest)) {
    if (attribute->rta_type != INET_DIAG_INFO || socket.state == TCP_LISTEN) continue;
    tcp_info info{};  // kernels know of more and of fewer members than this
    memcpy(&info, RTA_DATA(attribute), std::min<std::size_t>(sizeof(info), RTA_PAYLOAD(attribute)));
    socket.since_sent = info.tcpi_last_data_sent / 1000.0;
    socket.since_received = info.tcpi_last_data_recv / 1000.0;
  }
  return socket;
}

bool Ask(int netlink, unsigned char family) {
  struct {
    nlmsghdr header;
    inet_diag_req_v2 body;
  } request{};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.body.sdiag_family = family;
  request.body.sdiag_protocol = IPPROTO_TCP;
  request.body.idiag_ext = 1 << (INET_DIAG_INFO - 1);
  request.body.idiag_states = ~0U;
  return send(netlink, &request, sizeof(request), 0) == sizeof(request);
}

enum class Answer { kWhole, kInterrupted, kFailed };

// Appends the sockets of one family to `all`. errno tells why it failed.
Answer Dump(int netlink, unsigned char family, std::vector<TcpSocket>& all) {
  if (!Ask(netlink, family)) return Answer::kFailed;
  std::vector<char> buffer(kBuffer);
  bool interrupted = false;
  while (true) {
    ssize_t size = recv(netlink, buffer.data(), buffer.size(), 0);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return Answer::kFailed;
    auto rest = static_cast<unsigned>(size);
    for (const auto* header = reinterpret_cast<const nlmsghdr*>(buffer.data());
         NLMSG_OK(header, rest); header = NLMSG_NEXT(header, rest)) {
      if ((header->nlmsg_flags & NLM_F_DUMP_INTR) != 0) interrupted = true;
      if (header->nlmsg_type == NLMSG_DONE) {
        return interrupted ? Answer::kInterrupted : Answer::kWhole;
      }
      if (header->nlmsg_type == NLMSG_ERROR) {
        errno = -static_cast<const nlmsgerr*>(NLMSG_DATA(header))->error;
        return Answer::kFailed;
      }
      all.push_back(SocketOf(header));
    }
  }
}

}  // namespace

std::string Text(const Endpoint& endpoint) {
  const bool wide = endpoint.address.find(':') != std::string::npos;
  return (wide ? "[" + endpoint.address + "]" : endpoint.address) + ":" +
         std::to_string(endpoint.port);
}

TcpSockets ReadSockets() {
  const Descriptor netlink(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  const timeval patience{2, 0};
  if (!netlink ||
      setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) != 0) {
    return {{}, strerror(errno)};
  }
  TcpSockets sockets;
  for (const int family : {AF_INET, AF_INET6}) {
    for (int attempt = 1;; ++attempt) {
      std::vector<TcpSocket> found;
      const Answer answer = Dump(netlink.get(), static_cast<unsigned char>(family), found);
      if (answer == Answer::kInterrupted && attempt < kAttempts) continue;
      const bool no_ipv6 = answer == Answer::kFailed && errno == ENOENT && family == AF_INET6;
      if (no_ipv6) break;
      if (answer == Answer::kFailed) return {{}, strerror(errno)};
      sockets.all.insert(sockets.all.end(), found.begin(), found.end());
      break;
    }
  }
  return sockets;
}

}  // namespace inspect
