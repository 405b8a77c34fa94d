#include "inspect/sockets.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/inspect/own_view.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"

namespace inspect {
namespace {

std::uint64_t InodeOf(int descriptor) {
  struct stat status {};
  fstat(descriptor, &status);
  return status.st_ino;
}

std::optional<TcpSocket> Find(const std::function<bool(const TcpSocket&)>& wanted) {
  const TcpSockets sockets = ReadSockets();
  EXPECT_EQ(sockets.error, "");
  for (const TcpSocket& socket : sockets.all) {
    if (wanted(socket)) return socket;
  }
  return std::nullopt;
}

std::optional<TcpSocket> FindInode(std::uint64_t inode) {
  return Find([&](const TcpSocket& socket) { return socket.inode == inode; });
}

// The two ends of a connection over loopback.
class Connection {
 public:
  explicit Connection(int family = AF_INET) : near(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in6 mapped{};
    mapped.sin6_family = AF_INET6;
    mapped.sin6_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET6, "::ffff:127.0.0.1", &mapped.sin6_addr);
    sockaddr_in plain{};
    plain.sin_family = AF_INET;
    plain.sin_port = mapped.sin6_port;
    plain.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool wide = family == AF_INET6;
    EXPECT_EQ(
        connect(near.get(),
                wide ? reinterpret_cast<sockaddr*>(&mapped) : reinterpret_cast<sockaddr*>(&plain),
                wide ? sizeof(mapped) : sizeof(plain)),
        0);
    far = Descriptor(accept(listener.get(), nullptr, nullptr));
  }

  Descriptor listener = BindFreePort(3);
  int port = PortOf(listener.get());
  Descriptor near;
  Descriptor far;
};

TEST(SocketsTest, ConnectionHasOwnerQueueAndAges) {
  const Connection link;
  EXPECT_EQ(send(link.near.get(), "12345", 5, 0), 5);
  const auto far = FindInode(InodeOf(link.far.get()));
  ASSERT_TRUE(far);
  EXPECT_EQ(far->state, TCP_ESTABLISHED);
  EXPECT_EQ(Text(far->local), "127.0.0.1:" + std::to_string(link.port));
  EXPECT_EQ(far->receive_queue, 5U);
  EXPECT_EQ(far->user, getuid());
  ASSERT_TRUE(far->since_received);
  EXPECT_LT(*far->since_received, 5);
  const auto near = FindInode(InodeOf(link.near.get()));
  ASSERT_TRUE(near);
  EXPECT_EQ(near->remote, far->local);
  EXPECT_EQ(near->local, far->remote);
  usleep(300'000);
  EXPECT_GE(FindInode(InodeOf(link.near.get()))->since_sent.value_or(0), 0.25);
}

TEST(SocketsTest, ListenerCountsWhomNobodyHasAccepted) {
  const Connection link;
  const Descriptor waiting(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  getsockname(link.listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
  ASSERT_EQ(connect(waiting.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  const auto listener = FindInode(InodeOf(link.listener.get()));
  ASSERT_TRUE(listener);
  EXPECT_EQ(listener->state, TCP_LISTEN);
  EXPECT_EQ(listener->receive_queue, 1U);
  EXPECT_EQ(listener->send_queue, 3U);
  EXPECT_FALSE(listener->since_received);
}

TEST(SocketsTest, MappedAddressIsWrittenAsIPv4) {
  const Connection link(AF_INET6);
  const auto near = FindInode(InodeOf(link.near.get()));
  ASSERT_TRUE(near);
  EXPECT_EQ(Text(near->remote), "127.0.0.1:" + std::to_string(link.port));
}

TEST(SocketsTest, EndedConnectionBelongsToNobodyForTheSecondsThatAreLeft) {
  Connection link;
  link.far.Reset();
  link.near.Reset();
  std::optional<TcpSocket> waiting;
  EXPECT_TRUE(Eventually([&] {
    waiting = Find([&](const TcpSocket& socket) {
      return socket.state == TCP_TIME_WAIT && socket.local.port == link.port;
    });
    return waiting.has_value();
  }));
  ASSERT_TRUE(waiting);
  EXPECT_EQ(waiting->inode, 0U);
  EXPECT_GT(waiting->seconds_left, 40);
  EXPECT_LE(waiting->seconds_left, 60);
}

TEST(SocketsTest, IPv6AddressStandsInBrackets) {
  EXPECT_EQ(Text({"2001:db8::1", 80}), "[2001:db8::1]:80");
}

// What the kernel answers, in its place: one message for each question.
struct Said {
  std::array<char, 256> bytes{};
  long size = 0;
  int calls = 0;
};
Said said;

template <class Body>
void Say(unsigned short type, unsigned short flags, const Body& body) {
  nlmsghdr header{};
  header.nlmsg_len = sizeof(header) + sizeof(body);
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  memcpy(said.bytes.data() + said.size, &header, sizeof(header));
  memcpy(said.bytes.data() + said.size + sizeof(header), &body, sizeof(body));
  said.size += NLMSG_ALIGN(header.nlmsg_len);
}

long Answer() {
  ++said.calls;
  memcpy(AnsweredBuffer(), said.bytes.data(), static_cast<std::size_t>(said.size));
  return said.size;
}

// The number of sockets, or the error, and how often was asked.
std::string ReadAs(CallAnswer answer, int number = SYS_recvfrom) {
  return WithAnsweredCall(number, answer, [] {
    const TcpSockets sockets = ReadSockets();
    return (sockets.error.empty() ? std::to_string(sockets.all.size()) : sockets.error) + " " +
           std::to_string(said.calls);
  });
}

TEST(ReadSocketsTest, KernelThatAnswersNothingIsAnError) {
  said = {};
  for (const int number : {SYS_socket, SYS_setsockopt, SYS_sendto, SYS_recvfrom}) {
    EXPECT_EQ(ReadAs([]() -> long { return -EACCES; }, number), "Permission denied 0") << number;
  }
}

TEST(ReadSocketsTest, SignalsDoNotEndIt) {
  said = {};
  Say(NLMSG_DONE, 0, 0);
  EXPECT_EQ(ReadAs([]() -> long {
              if (++said.calls % 2 == 1) return -EINTR;
              --said.calls;
              return Answer();
            }),
            "0 4");
}

TEST(ReadSocketsTest, TableThatChangesMeanwhileIsAskedForAgainAFewTimes) {
  said = {};
  Say(NLMSG_DONE, NLM_F_DUMP_INTR, 0);
  EXPECT_EQ(ReadAs(Answer), "0 6");
}

// The kernel has nothing to say of IPv4, and refuses to say anything of IPv6.
template <int error>
long SecondFails() {
  said.size = 0;
  if (said.calls == 0) {
    Say(NLMSG_DONE, 0, 0);
  } else {
    Say(NLMSG_ERROR, 0, nlmsgerr{.error = -error, .msg = {}});
  }
  return Answer();
}

TEST(ReadSocketsTest, KernelWithoutIPv6HasTheOthers) {
  said = {};
  EXPECT_EQ(ReadAs(SecondFails<ENOENT>), "0 2");
  said = {};
  Say(NLMSG_ERROR, 0, nlmsgerr{.error = -ENOENT, .msg = {}});
  EXPECT_EQ(ReadAs(Answer), "No such file or directory 1");
  said = {};
  EXPECT_EQ(ReadAs(SecondFails<ENOMEM>), "Cannot allocate memory 2");
}

TEST(ReadSocketsTest, AddressesOfIPv6AreWrittenAsSuch) {
  said = {};
  inet_diag_msg socket{};
  socket.idiag_family = AF_INET6;
  socket.idiag_state = TCP_LISTEN;
  inet_pton(AF_INET6, "2001:db8::1", socket.id.idiag_src);
  socket.id.idiag_sport = htons(80);
  Say(SOCK_DIAG_BY_FAMILY, 0, socket);
  Say(NLMSG_DONE, 0, 0);
  EXPECT_EQ(
      WithAnsweredCall(SYS_recvfrom, Answer, [] { return Text(ReadSockets().all.at(0).local); }),
      "[2001:db8::1]:80");
}

TEST(EndpointTest, BothPartsCount) {
  const Endpoint endpoint{"127.0.0.1", 80};
  EXPECT_EQ(endpoint, (Endpoint{"127.0.0.1", 80}));
  EXPECT_NE(endpoint, (Endpoint{"127.0.0.1", 81}));
  EXPECT_NE(endpoint, (Endpoint{"127.0.0.2", 80}));
}

}  // namespace
}  // namespace inspect
