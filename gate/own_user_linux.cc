#include <arpa/inet.h>
#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>

#include "base/descriptor.h"
#include "gate/own_user.h"

namespace gate {
namespace {

struct Request {
  nlmsghdr header;
  inet_diag_req_v2 body;
};

// Asks for the socket at the other end, so the addresses change places.
bool Fill(const LoopbackConnection& connection, Request& request) {
  const int family = connection.v6 ? AF_INET6 : AF_INET;
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.body.sdiag_family = static_cast<unsigned char>(family);
  request.body.sdiag_protocol = IPPROTO_TCP;
  request.body.idiag_states = ~0U;
  request.body.id.idiag_sport = htons(connection.remote_port);
  request.body.id.idiag_dport = htons(connection.local_port);
  request.body.id.idiag_cookie[0] = request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  return inet_pton(family, connection.remote_address.c_str(), request.body.id.idiag_src) == 1 &&
         inet_pton(family, connection.local_address.c_str(), request.body.id.idiag_dst) == 1;
}

}  // namespace

std::string WhyNotOwnUser(const LoopbackConnection& connection) {
  const std::string unknown = "it cannot be told whose connection this is: ";
  const Descriptor netlink(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  const timeval patience{1, 0};
  Request request{};
  if (!netlink || !Fill(connection, request) ||
      setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) != 0 ||
      send(netlink.get(), &request, sizeof(request), 0) != sizeof(request)) {
    return unknown + strerror(errno);
  }
  alignas(nlmsghdr) std::array<char, 4096> answer{};
  const ssize_t size = recv(netlink.get(), answer.data(), answer.size(), 0);
  if (size < 0) return unknown + strerror(errno);
  const auto* header = reinterpret_cast<const nlmsghdr*>(answer.data());
  if (!NLMSG_OK(header, static_cast<unsigned>(size))) return unknown + "no answer";
  if (header->nlmsg_type == NLMSG_ERROR) {
    return unknown + strerror(-static_cast<const nlmsgerr*>(NLMSG_DATA(header))->error);
  }
  const auto* message = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
  // A socket that its program has closed has no owner any more: the kernel then says root.
  const bool lives = message->idiag_state == TCP_ESTABLISHED ||
                     message->idiag_state == TCP_FIN_WAIT1 || message->idiag_state == TCP_FIN_WAIT2;
  if (!lives || message->idiag_inode == 0) {
    return unknown + "its other end has gone";
  }
  if (message->idiag_uid == geteuid()) return "";
  return "it is another user's, number " + std::to_string(message->idiag_uid);
}

}  // namespace gate
