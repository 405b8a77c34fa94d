#include "gate/own_user.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/text_of_child.h"

namespace gate {
namespace {

using testing::StartsWith;

// A connection over loopback, the connecting end made by another user where that is wanted.
struct Pair {
  explicit Pair(int family = AF_INET, bool stranger = false) : listener(BindFreePort(1)) {
    peer = Descriptor(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (stranger && seteuid(kStranger) != 0) throw std::runtime_error("not root");
    if (stranger) peer = Descriptor(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Connect(family);
    if (stranger && seteuid(0) != 0) throw std::runtime_error("no way back");
    accepted = Descriptor(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

  void Connect(int family) const {
    const auto port = htons(static_cast<std::uint16_t>(PortOf(listener.get())));
    sockaddr_in plain{};
    plain.sin_family = AF_INET;
    plain.sin_port = port;
    plain.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 wide{};
    wide.sin6_family = AF_INET6;
    wide.sin6_port = port;
    wide.sin6_addr.s6_addr[10] = wide.sin6_addr.s6_addr[11] = 0xff;
    wide.sin6_addr.s6_addr[12] = 127;
    wide.sin6_addr.s6_addr[15] = 1;
    const bool v6 = family == AF_INET6;
    if (connect(peer.get(),
                v6 ? reinterpret_cast<sockaddr*>(&wide) : reinterpret_cast<sockaddr*>(&plain),
                v6 ? sizeof(wide) : sizeof(plain)) != 0) {
      throw std::runtime_error("no connection");
    }
  }

  LoopbackConnection Seen() const {
    sockaddr_in remote{};
    socklen_t size = sizeof(remote);
    getpeername(accepted.get(), reinterpret_cast<sockaddr*>(&remote), &size);
    return {false, "127.0.0.1", static_cast<std::uint16_t>(PortOf(listener.get())), "127.0.0.1",
            ntohs(remote.sin_port)};
  }

  static constexpr uid_t kStranger = 65534;
  Descriptor listener;
  Descriptor peer;
  Descriptor accepted;
};

TEST(OwnUserTest, OwnConnectionIsTaken) {
  EXPECT_EQ(WhyNotOwnUser(Pair().Seen()), "");
}

TEST(OwnUserTest, OwnConnectionOfASocketOfBothFamiliesIsTaken) {
  EXPECT_EQ(WhyNotOwnUser(Pair(AF_INET6).Seen()), "");
}

TEST(OwnUserTest, OwnConnectionThatIsHalfClosedIsTaken) {
  const Pair pair;
  shutdown(pair.peer.get(), SHUT_WR);
  EXPECT_EQ(WhyNotOwnUser(pair.Seen()), "");
  // Nor is it another's once this end has acknowledged that.
  EXPECT_TRUE(Eventually([&] {
    tcp_info info{};
    socklen_t size = sizeof(info);
    return getsockopt(pair.peer.get(), IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           info.tcpi_state == TCP_FIN_WAIT2;
  }));
  EXPECT_EQ(WhyNotOwnUser(pair.Seen()), "");
}

TEST(OwnUserTest, ConnectionOverIPv6IsJudgedTheSame) {
  const Descriptor listener(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  if (bind(listener.get(), raw, size) != 0) GTEST_SKIP() << "there is no IPv6";
  listen(listener.get(), 2);
  getsockname(listener.get(), raw, &size);
  const auto judged = [&](bool stranger) {
    if (stranger && seteuid(Pair::kStranger) != 0) return std::string("not root");
    const Descriptor peer(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (stranger && seteuid(0) != 0) return std::string("no way back");
    EXPECT_EQ(connect(peer.get(), raw, size), 0);
    sockaddr_in6 own{};
    getsockname(peer.get(), reinterpret_cast<sockaddr*>(&own), &size);
    return WhyNotOwnUser({true, "::1", ntohs(address.sin6_port), "::1", ntohs(own.sin6_port)});
  };
  EXPECT_EQ(judged(false), "");
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  EXPECT_EQ(judged(true), "it is another user's, number 65534");
}

TEST(OwnUserTest, ConnectionOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  EXPECT_EQ(WhyNotOwnUser(Pair(AF_INET, true).Seen()), "it is another user's, number 65534");
  EXPECT_EQ(WhyNotOwnUser(Pair(AF_INET6, true).Seen()), "it is another user's, number 65534");
}

TEST(OwnUserTest, ConnectionThatHasGoneIsRefused) {
  Pair pair;
  const LoopbackConnection seen = pair.Seen();
  pair.peer.Reset();
  pair.accepted.Reset();
  EXPECT_THAT(WhyNotOwnUser(seen), StartsWith("it cannot be told whose connection this is"));
}

// The kernel says that root owns it.
TEST(OwnUserTest, ConnectionThatAnotherUserHasClosedIsNotRoots) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Pair pair(AF_INET, true);
  const LoopbackConnection seen = pair.Seen();
  pair.peer.Reset();
  EXPECT_EQ(WhyNotOwnUser(seen),
            "it cannot be told whose connection this is: its other end has gone");
}

TEST(OwnUserTest, NobodyIsTakenWhileTheKernelCannotBeAsked) {
  const Pair pair;
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const std::string why = WhyNotOwnUser(pair.Seen());
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(why, "it cannot be told whose connection this is: Too many open files");
}

TEST(OwnUserTest, ConnectionThatNeverWasIsRefused) {
  EXPECT_THAT(WhyNotOwnUser({false, "127.0.0.1", 1, "127.0.0.1", 2}),
              StartsWith("it cannot be told whose connection this is"));
  EXPECT_THAT(WhyNotOwnUser({false, "nonsense", 1, "127.0.0.1", 2}),
              StartsWith("it cannot be told whose connection this is"));
  EXPECT_THAT(WhyNotOwnUser({false, "127.0.0.1", 1, "nonsense", 2}),
              StartsWith("it cannot be told whose connection this is"));
}

}  // namespace
}  // namespace gate
