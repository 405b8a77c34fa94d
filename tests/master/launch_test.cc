#include "master/launch.h"

#include <sys/socket.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/errors.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"

namespace {

using master::Clock;
using master::FrameChannel;
using master::Launch;
using master::RunRequest;
using std::chrono::milliseconds;

class LaunchTest : public testing::Test {
 protected:
  void Line(const std::string& text) { WriteAll(pair_.peer.get(), Frame(text)); }
  std::string Sent() { return Arrived(pair_.peer.get()); }

  // The text that the daemon refuses with, or what else came of it.
  std::string Refusal() {
    try {
      return "host " + launch_.AwaitHost();
    } catch (const master::LaunchRefused& refused) {
      return "refused: " + refused.text();
    }
  }

  SocketPair pair_;
  Launch launch_{FrameChannel(std::move(pair_.ours))};
  const RunRequest request_{.cluster = "3",
                            .path = "/data",
                            .root = "CASE",
                            .processes = "16",
                            .version = "20162",
                            .user = "alice",
                            .debug = "1"};
};

TEST_F(LaunchTest, VersionThreeIsAnsweredWithThree) {
  Line("3");
  EXPECT_EQ(launch_.ExchangeVersions(), "3");
  EXPECT_EQ(Hex(Sent()), "01 00 00 00 33");
}

TEST_F(LaunchTest, VersionOfTheSimulatorIsSentWithoutItsDot) {
  for (const auto& [given, sent] :
       std::initializer_list<std::pair<const char*, const char*>>{{"2016.2", "20162"},
                                                                  {"2017.2", "20172"},
                                                                  {"20162", "20162"},
                                                                  {"1.2", "1.2"},
                                                                  {"201722", "201722"}}) {
    SocketPair pair;
    Launch launch{FrameChannel(std::move(pair.ours))};
    RunRequest request = request_;
    request.version = given;
    launch.Request(request);
    const std::string line = Frame(sent) + Frame("alice");
    EXPECT_NE(Arrived(pair.peer.get()).find(line), std::string::npos) << given;
  }
}

TEST_F(LaunchTest, AnotherNumberIsTakenToo) {
  Line("4");
  EXPECT_EQ(launch_.ExchangeVersions(), "4");
  EXPECT_EQ(Hex(Sent()), "01 00 00 00 33");
}

TEST_F(LaunchTest, GreetingThatIsNoVersionIsNoDaemon) {
  for (const char* greeting : {"", "0", "SSH-2.0", "3 or so", "99999999999999999999"}) {
    SocketPair pair;
    WriteAll(pair.peer.get(), Frame(greeting));
    Launch launch{FrameChannel(std::move(pair.ours))};
    EXPECT_THROW(launch.ExchangeVersions(), master::ProtocolError) << greeting;
    EXPECT_EQ(Arrived(pair.peer.get()), "") << greeting;
  }
}

TEST_F(LaunchTest, SilentPeerTimesOut) {
  EXPECT_THROW(launch_.ExchangeVersions(Clock::now() + milliseconds(10)), master::TimedOut);
}

TEST_F(LaunchTest, EndBeforeTheVersionIsARefusalWithoutText) {
  pair_.peer.Reset();
  try {
    launch_.ExchangeVersions();
    FAIL() << "no exception";
  } catch (const master::LaunchRefused& refused) {
    EXPECT_EQ(refused.text(), "");
    EXPECT_STREQ(refused.what(), "The daemon ended the connection without a word");
  }
}

TEST_F(LaunchTest, SevenLinesGoOutInTheirOrder) {
  launch_.Request(request_);
  EXPECT_EQ(Hex(Sent()), Hex(Bytes("01000000 33"
                                   "05000000 2f64617461"
                                   "04000000 43415345"
                                   "02000000 3136"
                                   "05000000 3230313632"
                                   "05000000 616c696365"
                                   "01000000 31")));
}

TEST_F(LaunchTest, DefaultsAreOneProcessNoClusterAndTheNewerInterface) {
  launch_.Request({});
  EXPECT_EQ(Hex(Sent()), Hex(Bytes("01000000 30"
                                   "00000000"
                                   "00000000"
                                   "01000000 31"
                                   "05000000 3230313732"
                                   "00000000"
                                   "01000000 30")));
}

TEST_F(LaunchTest, LineTooLongForTheDaemonIsRefusedBeforeAnythingIsSent) {
  RunRequest request = request_;
  request.user = std::string(32768, 'x');
  EXPECT_THROW(launch_.Request(request), std::invalid_argument);
  EXPECT_EQ(Sent(), "");
  request.user.pop_back();
  launch_.Request(request);
  EXPECT_EQ(Sent().size(), 7U * 4 + 18 + 32767);
}

TEST_F(LaunchTest, HostIsTheTextAfterOkWithoutItsZeroByte) {
  Line(Bytes("4f4b7c 6e6f64653137 00"));
  EXPECT_EQ(launch_.AwaitHost(), "node17");
}

TEST_F(LaunchTest, HostWithoutAZeroByteIsTakenWhole) {
  Line("OK|node17");
  EXPECT_EQ(launch_.AwaitHost(), "node17");
}

TEST_F(LaunchTest, AnyOtherTextIsTheRefusal) {
  Line("Windows user 'alice' not found in administration file");
  EXPECT_EQ(Refusal(), "refused: Windows user 'alice' not found in administration file");
}

TEST_F(LaunchTest, OkWithoutItsBarIsARefusal) {
  Line("OK");
  EXPECT_EQ(Refusal(), "refused: OK");
}

TEST_F(LaunchTest, EndOfConnectionIsARefusalWithoutText) {
  pair_.peer.Reset();
  EXPECT_EQ(Refusal(), "refused: ");
}

TEST_F(LaunchTest, EarlyRefusalIsFoundThoughTheRequestCannotBeSent) {
  Line("Failed to read main environment file");
  pair_.peer.Reset();
  launch_.Request(request_);
  EXPECT_EQ(Refusal(), "refused: Failed to read main environment file");
}

TEST(LaunchOverTcp, RefusalIsReadAlthoughTheDaemonLeftLinesUnread) {
  // Closing with unread bytes resets the connection; the refusal sent before is still delivered.
  TcpPair pair;
  Launch launch{FrameChannel(std::move(pair.ours))};
  launch.Request({.path = "/data", .root = "CASE", .user = "alice"});
  WriteAll(pair.peer.get(), Frame("Failed to read main environment file"));
  pair.peer.Reset();
  try {
    launch.AwaitHost();
    FAIL() << "no exception";
  } catch (const master::LaunchRefused& refused) {
    EXPECT_EQ(refused.text(), "Failed to read main environment file");
  }
}

TEST(LaunchOverTcp, ResetWithoutATextIsARefusalWithoutText) {
  TcpPair pair;
  Launch launch{FrameChannel(std::move(pair.ours))};
  launch.Request({.path = "/data", .root = "CASE", .user = "alice"});
  pair.peer.Reset();
  EXPECT_THROW(launch.AwaitHost(), master::LaunchRefused);
}

TEST_F(LaunchTest, GivingUpLeavesConnectAndShutdownForTheDaemonToFind) {
  launch_.GiveUp();
  EXPECT_EQ(Hex(ReadExactly(pair_.peer.get(), 100)),
            "04 00 00 00 01 00 00 00 04 00 00 00 f0 ff 00 00");
}

TEST_F(LaunchTest, GivingUpOnADeadDaemonIsSilent) {
  pair_.peer.Reset();
  EXPECT_NO_THROW(launch_.GiveUp());
}

}  // namespace
