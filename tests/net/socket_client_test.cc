#include "net/socket_client.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/support/ports.h"

namespace {

std::string FailureOf(const std::string& host, int port) {
  try {
    const SocketClient client(host, port);
  } catch (const std::string& text) {
    return text;
  }
  return "connected";
}

TEST(SocketClientTest, ConnectsToAListener) {
  const Descriptor listener = BindFreePort(1);
  EXPECT_EQ(FailureOf("localhost", PortOf(listener.get())), "connected");
}

TEST(SocketClientTest, RefusedConnectionThrowsTheSystemsText) {
  const Descriptor bound = BindFreePort();  // bound, so that nobody else listens there
  EXPECT_EQ(FailureOf("127.0.0.1", PortOf(bound.get())), "Connection refused");
}

TEST(SocketClientTest, PortThatDoesNotExistIsNotTakenForAnother) {
  const Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  for (const int wrong : {port + 65536, port - 65536, 0}) {
    EXPECT_EQ(FailureOf("127.0.0.1", wrong), "Invalid argument") << wrong;
  }
}

TEST(SocketClientTest, UnknownHostThrowsAText) {
  EXPECT_NE(FailureOf("no such host", 9001), "connected");
}

}  // namespace
