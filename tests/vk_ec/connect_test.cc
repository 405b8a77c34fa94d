#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/answered_call.h"
#include "tests/support/child_process.h"
#include "tests/support/private_network.h"
#include "tests/support/text_of_child.h"
#include "tests/support/wire_bytes.h"
#include "vk_ec/transport.h"

namespace {

// How long this process waits for its turn when it has called connect().
std::chrono::milliseconds pause_after_connect{0};

}  // namespace

// In the place of the C library's.
extern "C" int connect(int fd, const sockaddr* addr, socklen_t len) {
  const auto result = static_cast<int>(syscall(SYS_connect, fd, addr, len));
  const int error = errno;
  std::this_thread::sleep_for(pause_after_connect);
  errno = error;
  return result;
}

namespace {

using ::testing::AllOf;
using ::testing::Ge;
using ::testing::Lt;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using vk_ec::ClientTransporter;
using vk_ec::SendMessage;
using Seconds = std::chrono::duration<double>;

// A port that is taken on `address`; nobody listens there before `Listen`.
class TakenPort {
 public:
  explicit TakenPort(const std::string& address = "127.0.0.1", unsigned port = 0) {
    descriptor_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &name.sin_addr);
    socklen_t size = sizeof(name);
    auto* generic = reinterpret_cast<sockaddr*>(&name);
    if (bind(descriptor_, generic, size) != 0 || getsockname(descriptor_, generic, &size) != 0)
      throw std::system_error(errno, std::generic_category(), "bind");
    port_ = ntohs(name.sin_port);
    name_ = name;
  }
  ~TakenPort() {
    for (const int descriptor : waiting_) close(descriptor);
    close(descriptor_);
  }
  TakenPort(const TakenPort&) = delete;
  TakenPort& operator=(const TakenPort&) = delete;

  unsigned port() const { return port_; }
  int descriptor() const { return descriptor_; }
  void Listen(int backlog = 8) const { listen(descriptor_, backlog); }
  int Accept() const { return accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC); }

  // Fills the queue of a listener that never accepts, so that it swallows further attempts
  // without an answer.
  void Swallow() {
    Listen(0);
    for (int i = 0; i < 4; ++i) {
      waiting_.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      const int result =
          connect(waiting_.back(), reinterpret_cast<const sockaddr*>(&name_), sizeof(name_));
      if (result != 0 && errno != EINPROGRESS)
        throw std::system_error(errno, std::generic_category(), "connect");
    }
  }

 private:
  int descriptor_ = -1;
  unsigned port_ = 0;
  sockaddr_in name_{};
  std::vector<int> waiting_;
};

Seconds Elapsed(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::steady_clock::now() - start;
}

std::set<int> OpenDescriptors() {
  std::set<int> descriptors;
  for (int descriptor = 0; descriptor < 1024; ++descriptor)
    if (fcntl(descriptor, F_GETFD) >= 0) descriptors.insert(descriptor);
  return descriptors;
}

bool IsTcp(int descriptor) {
  int protocol = 0;
  socklen_t size = sizeof(protocol);
  return getsockopt(descriptor, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0 &&
         protocol == IPPROTO_TCP;
}

int Option(int descriptor, int level, int option) {
  int value = -1;
  socklen_t size = sizeof(value);
  getsockopt(descriptor, level, option, &value, &size);
  return value;
}

bool HasNoDelay(int descriptor) {
  return Option(descriptor, IPPROTO_TCP, TCP_NODELAY) == 1;
}

// How many connections this network has begun to open.
int ConnectionAttempts() {
  std::ifstream counters("/proc/net/snmp");
  std::string label;
  while (counters >> label && label != "Tcp:") {
  }
  std::string names;
  std::getline(counters, names);
  int rto[4];
  int active_opens = -1;
  counters >> label >> rto[0] >> rto[1] >> rto[2] >> rto[3] >> active_opens;
  return active_opens;
}

void Hosts(const std::string& lines) {
  const std::string file =
      std::filesystem::temp_directory_path() / ("jobmill_hosts_" + std::to_string(getpid()));
  std::ofstream(file) << lines;
  const int result = mount(file.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr);
  std::filesystem::remove(file);
  if (result != 0) throw std::system_error(errno, std::generic_category(), "mount");
}

std::string TimeOfConnect(const std::string& host, unsigned port, unsigned timeout) {
  ClientTransporter transporter;
  const Seconds elapsed = Elapsed([&] { transporter.connect(host, port, timeout); });
  return elapsed < Seconds(0.4)   ? "at once"
         : elapsed < Seconds(1.4) ? "after a second"
                                  : "after " + std::to_string(elapsed.count()) + " s";
}

TEST(ConnectTest, MessagesTravelOverAConnection) {
  const TakenPort simulator;
  simulator.Listen();
  ClientTransporter transporter;
  transporter.connect("127.0.0.1", simulator.port(), 5);
  const int accepted = simulator.Accept();
  const unsigned char byte = 'x';
  transporter.send(SendMessage(&byte, 1));
  EXPECT_EQ(ReadExactly(accepted, 17), wire::Framed("x"));
  WriteAll(accepted, wire::Framed("answer"));
  std::vector<unsigned char> buffer;
  transporter.recv(buffer);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "answer");
  close(accepted);
}

TEST(ConnectTest, SocketIsCloseOnExecBlockingWithoutDelayAndKeptAlive) {
  const TakenPort simulator;
  simulator.Listen();
  const std::set<int> before = OpenDescriptors();
  ClientTransporter transporter;
  transporter.connect("localhost", simulator.port(), 5);
  std::vector<int> sockets;
  for (const int descriptor : OpenDescriptors()) {
    if (before.contains(descriptor)) continue;
    EXPECT_TRUE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC) << "descriptor " << descriptor;
    if (IsTcp(descriptor)) sockets.push_back(descriptor);
  }
  ASSERT_THAT(sockets, SizeIs(1));
  EXPECT_FALSE(fcntl(sockets[0], F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(HasNoDelay(sockets[0]));
  EXPECT_EQ(Option(sockets[0], SOL_SOCKET, SO_KEEPALIVE), 1);
  // Asked at the system's own times, which a site sets for all its programs.
  const int untouched = simulator.descriptor();
  for (const int time : {TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT}) {
    EXPECT_EQ(Option(sockets[0], IPPROTO_TCP, time), Option(untouched, IPPROTO_TCP, time)) << time;
  }
}

TEST(ConnectTest, AdoptedTcpSocketSendsWithoutDelayToo) {
  const TakenPort simulator;
  simulator.Listen();
  ClientTransporter client;
  client.connect("127.0.0.1", simulator.port(), 5);
  const int accepted = simulator.Accept();
  ASSERT_FALSE(HasNoDelay(accepted));
  const vk_ec::Transporter server(accepted);
  EXPECT_TRUE(HasNoDelay(accepted));
}

TEST(ConnectTest, UnknownHostFailsAtOnce) {
  ClientTransporter transporter;
  const Seconds elapsed = Elapsed([&] {
    // No name server is asked for an address of another family.
    EXPECT_THAT([&] { transporter.connect("::1", 9001, 5); },
                ThrowsMessage<boost::system::system_error>(StartsWith("resolve: ")));
  });
  EXPECT_THAT(elapsed, Lt(Seconds(0.4)));
}

TEST(ConnectTest, PortThatDoesNotExistFailsAtOnceAndLeadsToNoOther) {
  const TakenPort stranger;
  stranger.Listen();
  for (const unsigned port : {stranger.port() + 65536, 65536U, 4'294'967'295U}) {
    ClientTransporter transporter;
    const Seconds elapsed = Elapsed([&] {
      EXPECT_THAT([&] { transporter.connect("127.0.0.1", port, 5); },
                  ThrowsMessage<boost::system::system_error>("resolve: Service not found"))
          << port;
    });
    EXPECT_THAT(elapsed, Lt(Seconds(0.4)));
  }
}

TEST(ConnectTest, HostIsLookedUpOnceHoweverOftenItIsTried) {
  const auto outcome = InPrivateNetwork([] {
    Hosts("127.0.0.2 cluster\n");
    const TakenPort closed("127.0.0.2");
    const TakenPort moved("127.0.0.3", closed.port());
    moved.Listen();
    // The name moves while the client is trying: after one more look-up it would be found.
    std::thread late([] {
      std::this_thread::sleep_for(std::chrono::milliseconds(700));
      std::ofstream("/etc/hosts") << "127.0.0.3 cluster\n";
    });
    std::string text = "connected";
    try {
      ClientTransporter().connect("cluster", closed.port(), 2);
    } catch (const std::runtime_error& error) {
      text = error.what();
    }
    late.join();
    ClientTransporter().connect("cluster", moved.port(), 0);
    return text + " A new look-up finds it.";
  });
  if (!outcome) GTEST_SKIP() << "a network of its own is not permitted here";
  EXPECT_EQ(*outcome, "Connection timed out. A new look-up finds it.");
}

TEST(ConnectTest, TimeoutOfZeroStillTriesForASecond) {
  const TakenPort closed;
  ClientTransporter transporter;
  const Seconds elapsed = Elapsed([&] {
    EXPECT_THAT([&] { transporter.connect("127.0.0.1", closed.port(), 0); },
                ThrowsMessage<std::runtime_error>("Connection timed out."));
  });
  EXPECT_THAT(elapsed, AllOf(Ge(Seconds(1.0)), Lt(Seconds(1.6))));
}

TEST(ConnectTest, TwoAttemptsASecondUntilTheTimeoutIsExceeded) {
  const auto result = InPrivateNetwork([] {
    const TakenPort closed;
    std::string outcome = "connected";
    const Seconds elapsed = Elapsed([&] {
      try {
        ClientTransporter().connect("127.0.0.1", closed.port(), 2);
      } catch (const std::runtime_error& error) {
        outcome = error.what();
      }
    });
    return outcome + "|" + std::to_string(elapsed.count()) + " " +
           std::to_string(ConnectionAttempts());
  });
  if (!result) GTEST_SKIP() << "a network of its own is not permitted here";
  std::istringstream words(*result);
  std::string outcome;
  double seconds = 0;
  int attempts = 0;
  ASSERT_TRUE(std::getline(words, outcome, '|') >> seconds >> attempts) << *result;
  EXPECT_EQ(outcome, "Connection timed out.");
  EXPECT_THAT(seconds, AllOf(Ge(3.0), Lt(3.6)));
  EXPECT_THAT(attempts, AllOf(Ge(6), Lt(8)));
}

TEST(ConnectTest, ListenerThatAppearsLateIsFoundAtTheNextAttempt) {
  const TakenPort simulator;
  std::thread late([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    simulator.Listen();
  });
  ClientTransporter transporter;
  const Seconds elapsed = Elapsed([&] { transporter.connect("127.0.0.1", simulator.port(), 10); });
  late.join();
  EXPECT_THAT(elapsed, AllOf(Ge(Seconds(0.95)), Lt(Seconds(1.45))));
}

TEST(ConnectTest, ListenerThatAppearsLateIsFoundAmongSeveralAddresses) {
  const auto outcome = InPrivateNetwork([] {
    Hosts("127.0.0.2 cluster\n127.0.0.3 cluster\n127.0.0.4 cluster\n");
    const TakenPort first("127.0.0.2");
    const TakenPort simulator("127.0.0.3", first.port());
    const TakenPort later("127.0.0.4", first.port());
    std::thread late([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(700));
      simulator.Listen();
      later.Listen();
    });
    ClientTransporter transporter;
    const Seconds elapsed = Elapsed([&] { transporter.connect("cluster", simulator.port(), 10); });
    late.join();
    // Of the two that listen it is the one that comes first.
    const unsigned char byte = 'x';
    transporter.send(SendMessage(&byte, 1));
    const int accepted = simulator.Accept();
    const bool arrived = ReadExactly(accepted, 17) == wire::Framed("x");
    close(accepted);
    return std::to_string(elapsed.count()) + (arrived ? "" : " to another address");
  });
  if (!outcome) GTEST_SKIP() << "a network of its own is not permitted here";
  EXPECT_THAT(std::stod(*outcome), AllOf(Ge(0.95), Lt(1.45))) << *outcome;
  EXPECT_THAT(*outcome, ::testing::Not(::testing::HasSubstr("another")));
}

TEST(ConnectTest, AttemptThatIsNeverAnsweredIsGivenUpInTime) {
  TakenPort simulator;
  simulator.Swallow();
  ClientTransporter transporter;
  const Seconds elapsed = Elapsed([&] {
    EXPECT_THAT([&] { transporter.connect("127.0.0.1", simulator.port(), 1); },
                ThrowsMessage<std::runtime_error>("Connection timed out."));
  });
  EXPECT_THAT(elapsed, AllOf(Ge(Seconds(2.0)), Lt(Seconds(2.6))));
}

// On a busy machine a process waits for its turn while the network goes on. Longer than an attempt
// may take, there and back.
constexpr std::chrono::milliseconds kLateTurn{1100};

TEST(ConnectTest, SocketConnectedToItselfIsAFailedAttemptAndLeavesThePortFree) {
  for (const auto late : {std::chrono::milliseconds(0), kLateTurn}) {
    const auto outcome = InPrivateNetwork([late]() -> std::string {
      constexpr unsigned kPort = 20001;
      // The only port that the system can choose for the connecting socket.
      std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << kPort << " " << kPort;
      pause_after_connect = late;
      std::string text;
      try {
        ClientTransporter().connect("127.0.0.1", kPort, 0);
        text = "connected to itself";
      } catch (const std::runtime_error& error) {
        text = error.what();
      }
      const TakenPort simulator("127.0.0.1", kPort);
      return text + " The port is free.";
    });
    if (!outcome) GTEST_SKIP() << "a network of its own is not permitted here";
    EXPECT_EQ(*outcome, "Connection timed out. The port is free.");
  }
}

TEST(ConnectTest, ConnectionMadeBeforeTheTimeWasOverIsTakenLate) {
  const TakenPort simulator;
  simulator.Listen();
  pause_after_connect = kLateTurn;
  ClientTransporter transporter;
  const Seconds elapsed = Elapsed([&] { transporter.connect("127.0.0.1", simulator.port(), 0); });
  pause_after_connect = {};
  EXPECT_THAT(elapsed, AllOf(Ge(kLateTurn), Lt(2 * kLateTurn)));
}

TEST(ConnectTest, NextEndpointIsTriedInTheSameAttempt) {
  const auto outcome = InPrivateNetwork([] {
    Hosts("127.0.0.2 cluster\n127.0.0.3 cluster\n127.0.0.4 cluster\n");
    const TakenPort simulator("127.0.0.3");
    simulator.Listen();
    return TimeOfConnect("cluster", simulator.port(), 5);
  });
  if (!outcome) GTEST_SKIP() << "a network of its own is not permitted here";
  EXPECT_EQ(*outcome, "at once");
}

TEST(ConnectTest, AttemptThatTookLongerThanThePaceIsRepeatedAtOnce) {
  const auto outcome = InPrivateNetwork([] {
    Hosts("127.0.0.2 cluster\n127.0.0.3 cluster\n");
    const TakenPort simulator("127.0.0.3");
    TakenPort silent("127.0.0.2", simulator.port());
    silent.Swallow();
    // Two seconds: one with the silent endpoint, whereupon the other refuses; at once again half
    // of what is left with the silent one, and by then the other listens.
    std::thread late([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(1200));
      simulator.Listen();
    });
    ClientTransporter transporter;
    const Seconds elapsed = Elapsed([&] { transporter.connect("cluster", simulator.port(), 1); });
    late.join();
    return std::to_string(elapsed.count());
  });
  if (!outcome) GTEST_SKIP() << "a network of its own is not permitted here";
  EXPECT_THAT(std::stod(*outcome), AllOf(Ge(1.45), Lt(1.75)));
}

// Runs `body` in a child, in which system calls can be answered. Its result, or nothing where that
// is not permitted.
std::optional<int> InChild(const std::function<int()>& body) {
  constexpr int kNotPermitted = 77;
  ChildProcess::Options options;
  options.in_child = body;
  ChildProcess child({}, options);
  const auto status = child.Wait(std::chrono::seconds(10));
  return status == kNotPermitted ? std::nullopt : std::optional(status.value_or(-1));
}

using vk_ec::StreamSocket;

constexpr std::chrono::seconds kAmple{5};

TEST(ConnectFailureTest, AttemptWithoutADescriptorFails) {
  const auto result = InChild([] {
    const TakenPort simulator;
    simulator.Listen();
    StreamSocket socket;
    socket.resolve("127.0.0.1", simulator.port());
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const bool connected = socket.connect_before(StreamSocket::Clock::now() + kAmple);
    setrlimit(RLIMIT_NOFILE, &limit);
    return (connected ? 10 : 0) +
           (socket.connect_before(StreamSocket::Clock::now() + kAmple) ? 1 : 0);
  });
  EXPECT_EQ(result, 1);
}

// The result of an attempt during which the system refuses `call`: whether it connected, and how
// many descriptors it left open.
std::optional<int> AttemptRefused(int call) {
  return InChild([call] {
    const TakenPort simulator;
    simulator.Listen();
    StreamSocket socket;
    socket.resolve("127.0.0.1", simulator.port());
    const auto before = OpenDescriptors().size();
    if (!AnswerCall(call, [] { return static_cast<long>(-ENOMEM); })) return 77;
    const bool connected = socket.connect_before(StreamSocket::Clock::now() + kAmple);
    return (connected ? 10 : 0) + static_cast<int>(OpenDescriptors().size() - before);
  });
}

TEST(ConnectFailureTest, SocketThatCannotBeWatchedIsClosedAgain) {
  const auto result = AttemptRefused(SYS_epoll_ctl);
  if (!result) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*result, 0);
}

TEST(ConnectFailureTest, ConnectionWithoutAnAddressIsAFailedAttempt) {
  for (const int call : {SYS_getsockname, SYS_getpeername}) {
    const auto result = AttemptRefused(call);
    if (!result) GTEST_SKIP() << "system calls cannot be answered here";
    EXPECT_EQ(*result, 0) << "call " << call;
  }
}

long refused_level = 0;

// What comes of a connection whose socket gets none of the options of `level`.
std::optional<std::string> ConnectWithoutOptionsOf(int level) {
  return TextOfChild([level]() -> std::optional<std::string> {
    const TakenPort simulator;
    simulator.Listen();
    refused_level = level;
    const auto answer = [] {
      const auto asked = reinterpret_cast<std::intptr_t>(AnsweredBuffer());
      return asked == refused_level ? -long{ENOPROTOOPT} : 0L;
    };
    if (!AnswerCall(SYS_setsockopt, answer)) return std::nullopt;
    ClientTransporter().connect("127.0.0.1", simulator.port(), 5);
    return "connected";
  });
}

TEST(ConnectFailureTest, ConnectionThatCannotBeFreedOfDelayFails) {
  const auto outcome = ConnectWithoutOptionsOf(IPPROTO_TCP);
  if (!outcome) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*outcome, "threw set_option: Protocol not available");
}

// A run without it is still a run.
TEST(ConnectFailureTest, ConnectionThatCannotBeKeptAliveServes) {
  const auto outcome = ConnectWithoutOptionsOf(SOL_SOCKET);
  if (!outcome) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*outcome, "connected");
}

TEST(ConnectTest, EndpointThatNeverAnswersLeavesTimeForTheNext) {
  const auto outcome = InPrivateNetwork([] {
    Hosts("127.0.0.2 cluster\n127.0.0.3 cluster\n");
    const TakenPort simulator("127.0.0.3");
    simulator.Listen();
    TakenPort silent("127.0.0.2", simulator.port());
    silent.Swallow();
    return TimeOfConnect("cluster", simulator.port(), 1);
  });
  if (!outcome) GTEST_SKIP() << "a network of its own is not permitted here";
  EXPECT_THAT(*outcome, ::testing::AnyOf("at once", "after a second"));
}

}  // namespace
