#include "net/socket_server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <limits>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "net/socket_client.h"
#include "tests/support/bytes.h"
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
