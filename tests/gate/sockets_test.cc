#include "gate/sockets.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace gate {
namespace {

TEST(HostAndPortTest, IsReadAndTold) {
  struct Row {
    const char* text;
    const char* host;
    const char* port;
  };
  for (const Row& row : {Row{"a:7", "a", "7"},
                         {"127.0.0.1:5000", "127.0.0.1", "5000"},
                         {"gate.example.com:0", "gate.example.com", "0"},
                         {"[2001:db8::1]:65535", "2001:db8::1", "65535"},
                         {"[::]:1", "::", "1"}}) {
    const HostAndPort read = ReadHostAndPort(row.text);
    EXPECT_EQ(read.host, row.host);
    EXPECT_EQ(read.port, row.port);
    EXPECT_EQ(Text(read), row.text);
  }
}

TEST(HostAndPortTest, OtherTextIsNone) {
  for (const std::string text :
       {"", "5000", ":5000", "host", "host:", "host:x", "host:+5", "host:65536", "host:005000",
        "::1", "::1:5000", "[::1:5000", "::1]:5000", "[::1]", "[::1]5000"}) {
    try {
      ReadHostAndPort(text);
      ADD_FAILURE() << text;
    } catch (const std::invalid_argument& error) {
      EXPECT_EQ(error.what(), "'" + text + "' is no HOST:PORT");
    }
  }
}

TEST(EndpointTest, AddressOfIPv6StandsInBrackets) {
  EXPECT_EQ(Text(Tcp::endpoint(boost::asio::ip::make_address("192.0.2.7"), 5000)),
            "192.0.2.7:5000");
  EXPECT_EQ(Text(Tcp::endpoint(boost::asio::ip::make_address("2001:db8::1"), 5000)),
            "[2001:db8::1]:5000");
}

TEST(ResolveTest, NameThatCannotBeFoundIsTold) {
  boost::asio::io_context context;
  const std::string host(70, 'x');  // longer than a part of a name may be
  try {
    Resolve(context, {host, "5000"});
    ADD_FAILURE();
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()).substr(0, 77), host + ":5000: ");
  }
}

}  // namespace
}  // namespace gate
