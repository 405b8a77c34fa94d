#include "net/socket_server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <iomanip>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "net/socket_client.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"

namespace {

// A server on a free port. Between choosing the port and binding it another test may take it.
std::unique_ptr<SocketServer> Listen(int& port) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    port = FreePort();
    try {
      return std::make_unique<SocketServer>(port, 5);
    } catch (const char*) {
    }
  }
  throw std::runtime_error("no free port");
}

TEST(SocketServerTest, AcceptedConnectionCarriesFramesBothWays) {
  int port = 0;
  const auto server = Listen(port);
  SocketClient client("127.0.0.1", port);
  const std::unique_ptr<Socket> accepted(server->Accept());
  accepted->SendLine(std::string("3"));
  client.SendLine(std::string("7"));
  int length = 0;
  EXPECT_EQ(client.ReceiveLine(length), "3");
  EXPECT_EQ(accepted->ReceiveLine(length), "7");
}

TEST(SocketServerTest, AcceptedConnectionIsClosedOnExec) {
  int port = 0;
  const auto server = Listen(port);
  const SocketClient client("127.0.0.1", port);
  const Descriptor next(dup(0));
  const std::unique_ptr<Socket> accepted(server->Accept());
  EXPECT_EQ(fcntl(next.get() + 1, F_GETFD), FD_CLOEXEC);
}

struct OpenServer : SocketServer {
  using SocketServer::SocketServer;
  int handle() const { return handle_; }
};

TEST(SocketServerTest, ConnectionThatGetsTheFirstNumberIsServedToo) {
  ChildProcess::Options options;
  options.in_child = [] {
    OpenServer server(0, 5);
    const SocketClient client("127.0.0.1", PortOf(server.handle()));
    close(0);
    const std::unique_ptr<Socket> accepted(server.Accept());
    return fcntl(0, F_GETFD) == FD_CLOEXEC ? 0 : 1;
  };
  ChildProcess child({}, options);
  EXPECT_EQ(child.Wait(std::chrono::seconds(10)).value_or(-1), 0);
}

TEST(SocketServerTest, ListeningSocketIsClosedOnExec) {
  const OpenServer server(0, 5);
  EXPECT_EQ(fcntl(server.handle(), F_GETFD), FD_CLOEXEC);
}

TEST(SocketServerTest, TakenPortThrowsBindResultAndReason) {
  const Descriptor taken = BindFreePort(1);
  std::string thrown;
  try {
    const SocketServer server(PortOf(taken.get()), 5);
  } catch (char* text) {
    thrown = text;
  }
  EXPECT_EQ(thrown, "INVALID SOCKET: returned from bind '-1', error = Address already in use");
}

// The states that the system shows for the local sockets of a port.
std::string StatesOf(int port) {
  std::ostringstream local;
  local << ':' << std::hex << std::uppercase << std::setw(4) << std::setfill('0') << port;
  std::ifstream file("/proc/net/tcp");
  std::string states;
  std::string line;
  while (std::getline(file, line)) {
    std::istringstream fields(line);
    std::string number;
    std::string from;
    std::string to;
    std::string state;
    fields >> number >> from >> to >> state;
    if (from.ends_with(local.str())) states += state + " ";
  }
  return states;
}

// Without a socket option the port is nobody's for a minute after its last connection.
TEST(SocketServerTest, PortThatWaitsForLatePacketsIsTaken) {
  int port = 0;
  {
    const auto server = Listen(port);
    SocketClient client("127.0.0.1", port);
    const std::unique_ptr<Socket> accepted(server->Accept());
    accepted->Close();  // whoever closes first has to wait
    int length = 0;
    EXPECT_EQ(client.ReceiveLine(length), "");
  }
  // TIME_WAIT: nobody has it.
  ASSERT_TRUE(Eventually([port] { return StatesOf(port) == "06 "; })) << StatesOf(port);
  EXPECT_EQ(SocketServer::IsAvailablePort(port), -2);
  std::string thrown;
  try {
    const SocketServer server(port, 5);
  } catch (char* text) {
    thrown = text;
  }
  EXPECT_EQ(thrown, "INVALID SOCKET: returned from bind '-1', error = Address already in use");
}

// A master's machine may sleep for a night, and find its run again.
TEST(SocketServerTest, ConnectionHasTheOptionsOfAFreshSocket) {
  OpenServer server(0, 5);
  const SocketClient client("127.0.0.1", PortOf(server.handle()));
  const Descriptor next(dup(0));
  const std::unique_ptr<Socket> accepted(server.Accept());
  const Descriptor fresh(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const std::vector<std::pair<int, int>> options = {
      {SOL_SOCKET, SO_KEEPALIVE}, {SOL_SOCKET, SO_REUSEADDR},     {SOL_SOCKET, SO_REUSEPORT},
      {SOL_SOCKET, SO_LINGER},    {SOL_SOCKET, SO_RCVTIMEO},      {SOL_SOCKET, SO_SNDTIMEO},
      {IPPROTO_TCP, TCP_NODELAY}, {IPPROTO_TCP, TCP_USER_TIMEOUT}};
  const auto value = [](int descriptor, int level, int option) {
    std::array<char, 16> bytes{};
    socklen_t size = bytes.size();
    EXPECT_EQ(getsockopt(descriptor, level, option, bytes.data(), &size), 0);
    return std::string(bytes.data(), size);
  };
  const int connection = next.get() + 1;
  ASSERT_EQ(fcntl(connection, F_GETFL), O_RDWR);  // it blocks
  for (const int descriptor : {server.handle(), connection}) {
    for (const auto& [level, option] : options) {
      EXPECT_EQ(value(descriptor, level, option), value(fresh.get(), level, option))
          << (descriptor == connection ? "connection, " : "listener, ") << option;
    }
  }
}

TEST(SocketServerTest, PortThatDoesNotExistIsNotBoundAsAnother) {
  for (const int port : {65536, 70000, -1, std::numeric_limits<int>::max()}) {
    std::string thrown;
    try {
      const SocketServer server(port, 5);
    } catch (char* text) {
      thrown = text;
    }
    EXPECT_EQ(thrown, "INVALID SOCKET: returned from bind '-1', error = Invalid argument") << port;
    EXPECT_EQ(SocketServer::IsAvailablePort(port), -2) << port;
  }
}

TEST(SocketServerTest, ClosedServerThrowsFromAccept) {
  int port = 0;
  const auto server = Listen(port);
  server->Close();
  try {
    server->Accept();
    FAIL() << "accepted on a closed socket";
  } catch (const char* text) {
    EXPECT_STREQ(text, "Invalid Socket");
  }
}

TEST(SocketServerTest, AcceptWithALimitReturnsNullAfterTheTime) {
  int port = 0;
  const auto server = Listen(port);
  int ready = 99;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(server->Accept(1, &ready), nullptr);
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(ready, 0);
  EXPECT_GE(waited.count(), 1.0);
  EXPECT_LT(waited.count(), 3.0);
}

TEST(SocketServerTest, AcceptWithALimitReturnsAWaitingConnection) {
  int port = 0;
  const auto server = Listen(port);
  const SocketClient client("127.0.0.1", port);
  int ready = 0;
  const std::unique_ptr<Socket> accepted(server->Accept(5, &ready));
  EXPECT_EQ(ready, 1);
  EXPECT_NE(accepted, nullptr);
}

TEST(SocketServerTest, AcceptWithALimitReportsAnError) {
  int port = 0;
  const auto server = Listen(port);
  server->Close();
  int ready = 0;
  EXPECT_EQ(server->Accept(1, &ready), nullptr);
  EXPECT_LT(ready, 0);
}

TEST(SocketServerTest, PortIsTriedWithTheFirstNumberToo) {
  ChildProcess::Options options;
  options.in_child = [] {
    close(0);
    const int available = SocketServer::IsAvailablePort(FreePort());
    return available == 0 && fcntl(0, F_GETFD) == -1 ? 0 : 1;
  };
  ChildProcess child({}, options);
  EXPECT_EQ(child.Wait(std::chrono::seconds(10)).value_or(-1), 0);
}

// Leaves this process `more` descriptors to open.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int more) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const Descriptor next(dup(0));
    const rlim_t limit = static_cast<rlim_t>(next.get()) + static_cast<rlim_t>(more);
    const rlimit few{limit, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

TEST(SocketServerTest, ServerThatGetsNoSocketThrowsItsText) {
  const DescriptorLimit one(1);  // which the base class takes
  std::string thrown;
  try {
    const SocketServer server(0, 5);
  } catch (char* text) {
    thrown = text;
  }
  EXPECT_EQ(thrown, "INVALID SOCKET: -1");
}

TEST(SocketServerTest, PortIsUnknownWithoutASocketToTryIt) {
  const DescriptorLimit none(0);
  EXPECT_EQ(SocketServer::IsAvailablePort(0), -1);
}

struct HighServer : OpenServer {
  using OpenServer::OpenServer;
  // Moves the listening socket to the first free number from `number` on.
  bool MoveTo(int number) {
    const int moved = fcntl(handle_, F_DUPFD_CLOEXEC, number);
    if (moved < 0) return false;
    close(handle_);
    handle_ = moved;
    return true;
  }
};

TEST(SocketServerTest, AcceptWithALimitReportsADescriptorThatNoSetHolds) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit many{std::min<rlim_t>(before.rlim_max, 2048), before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &many);
  HighServer server(0, 5);
  const bool moved = server.MoveTo(FD_SETSIZE);
  setrlimit(RLIMIT_NOFILE, &before);
  if (!moved) GTEST_SKIP() << "so many descriptors are not permitted here";
  int ready = 99;
  EXPECT_EQ(server.Accept(1, &ready), nullptr);
  EXPECT_EQ(ready, -1);
}

TEST(SocketServerTest, PortThatNobodyHasIsAvailable) {
  EXPECT_EQ(SocketServer::IsAvailablePort(FreePort()), 0);
}

TEST(SocketServerTest, PortThatIsBoundIsNotAvailable) {
  const Descriptor taken = BindFreePort();
  EXPECT_EQ(SocketServer::IsAvailablePort(PortOf(taken.get())), -2);
}

TEST(SocketServerTest, ServerListensOnAllAddresses) {
  int port = 0;
  const auto server = Listen(port);
  EXPECT_NO_THROW(SocketClient("127.0.0.2", port));
}

}  // namespace
