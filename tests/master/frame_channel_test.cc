#include "master/frame_channel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/errors.h"
#include "tests/master/frames.h"
#include "tests/support/bytes.h"
#include "tests/support/ports.h"
#include "tests/support/socket_pair.h"

namespace {

using master::Clock;
using master::FrameChannel;
using std::chrono::milliseconds;
using testing::HasSubstr;

class FrameChannelTest : public testing::Test {
 protected:
  void Write(const std::string& hex) { WriteAll(pair_.peer.get(), Bytes(hex)); }

  SocketPair pair_;
  FrameChannel channel_{pair_.ours.Release()};
};

TEST_F(FrameChannelTest, SendsLengthThenBody) {
  channel_.Send("AB");
  EXPECT_EQ(Hex(Arrived(pair_.peer.get())), "02 00 00 00 41 42");
}

TEST_F(FrameChannelTest, EmptyBodyIsFourZeroBytes) {
  channel_.Send("");
  EXPECT_EQ(Hex(Arrived(pair_.peer.get())), "00 00 00 00");
}

TEST_F(FrameChannelTest, ReceivesFramesOneByOne) {
  Write("01000000 41 00000000 02000000 4243");
  EXPECT_EQ(channel_.Receive(), "A");
  EXPECT_EQ(channel_.Receive(), "");
  EXPECT_EQ(channel_.Receive(), "BC");
}

TEST_F(FrameChannelTest, FrameInSingleBytesIsPutTogether) {
  std::thread peer([&] {
    for (const char byte : Bytes("03000000 414243")) WriteAll(pair_.peer.get(), {&byte, 1});
  });
  EXPECT_EQ(channel_.Receive(), "ABC");
  peer.join();
}

TEST_F(FrameChannelTest, FrameOfTenMegabytesIsReadWhole) {
  const std::string body(10 << 20, 'x');
  std::thread peer([&] { WriteAll(pair_.peer.get(), Frame(body)); });
  EXPECT_TRUE(channel_.Receive() == body);
  peer.join();
}

TEST_F(FrameChannelTest, AssignedChannelTakesTheConnectionAndClosesItsOwn) {
  SocketPair other;
  FrameChannel second(other.ours.Release());
  Write("01000000 41");
  second = std::move(channel_);
  EXPECT_EQ(second.Receive(), "A");
  char byte = 0;
  EXPECT_EQ(read(other.peer.get(), &byte, 1), 0);
  FrameChannel& itself = second;
  second = std::move(itself);
  Write("01000000 42");
  EXPECT_EQ(second.Receive(), "B");
}

TEST_F(FrameChannelTest, EndBetweenFramesIsNoFrame) {
  Write("01000000 41");
  pair_.peer.Reset();
  EXPECT_EQ(channel_.Receive(), "A");
  EXPECT_EQ(channel_.Receive(), std::nullopt);
}

TEST_F(FrameChannelTest, EndInTheLengthOrTheBodyIsLinkLost) {
  for (const char* part : {"01", "010000", "01000000", "02000000 41"}) {
    SocketPair pair;
    WriteAll(pair.peer.get(), Bytes(part));
    pair.peer.Reset();
    FrameChannel channel(pair.ours.Release());
    EXPECT_THROW(channel.Receive(), master::LinkLost) << part;
  }
}

TEST_F(FrameChannelTest, NegativeOrGiganticLengthIsRefusedAtOnce) {
  for (const char* length : {"ffffffff", "00000080", "01000040"}) {
    SocketPair pair;
    WriteAll(pair.peer.get(), Bytes(length));
    FrameChannel channel(pair.ours.Release());
    EXPECT_THROW(channel.Receive(), master::ProtocolError) << length;
  }
}

TEST_F(FrameChannelTest, LargestLengthCostsNoMemoryBeforeItsBytesCome) {
  Write("00000040 41");
  pair_.peer.Reset();
  EXPECT_THROW(channel_.Receive(), master::LinkLost);
}

TEST_F(FrameChannelTest, PassedDeadlineIsTimedOutAndTheFrameCanStillBeRead) {
  Write("02000000 41");
  EXPECT_THROW(channel_.Receive(Clock::now() + milliseconds(10)), master::TimedOut);
  Write("42");
  EXPECT_EQ(channel_.Receive(), "AB");
}

TEST_F(FrameChannelTest, WakeDescriptorInterruptsAndTheFrameCanStillBeRead) {
  SocketPair wake;
  channel_.WakeOn(wake.ours.get());
  Write("02000000 41");
  WriteAll(wake.peer.get(), "!");
  EXPECT_THROW(channel_.Receive(), master::Interrupted);
  EXPECT_EQ(ReadExactly(wake.ours.get(), 1), "!");
  Write("42");
  EXPECT_EQ(channel_.Receive(), "AB");
}

TEST_F(FrameChannelTest, TickIsCalledWhileWaiting) {
  int ticks = 0;
  channel_.OnWait(milliseconds(1), [&] {
    if (++ticks == 3) Write("01000000 41");
  });
  EXPECT_EQ(channel_.Receive(), "A");
  EXPECT_EQ(ticks, 3);
}

TEST_F(FrameChannelTest, SendToAClosedPeerIsLinkLostWithoutASignal) {
  pair_.peer.Reset();
  EXPECT_THROW(channel_.Send("A"), master::LinkLost);
}

TEST_F(FrameChannelTest, SendWaitsForAPeerThatReadsLate) {
  const std::string body(4 << 20, 'x');
  std::string read;
  std::thread peer([&] { read = ReadExactly(pair_.peer.get(), body.size() + 4); });
  channel_.Send(body);
  peer.join();
  EXPECT_TRUE(read == Frame(body));
}

TEST_F(FrameChannelTest, FinishedSenderStillReceives) {
  channel_.Send("A");
  channel_.FinishSending();
  EXPECT_EQ(ReadExactly(pair_.peer.get(), 100), Frame("A"));
  Write("01000000 42");
  EXPECT_EQ(channel_.Receive(), "B");
}

TEST(ConnectTo, ReachesAListenerOnLoopback) {
  const Descriptor listener = BindFreePort(1);
  FrameChannel channel =
      FrameChannel::ConnectTo("localhost", PortOf(listener.get()), std::chrono::seconds(10));
  const Descriptor accepted(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  channel.Send("A");
  EXPECT_EQ(ReadExactly(accepted.get(), 5), Frame("A"));
}

TEST(ConnectTo, RefusedConnectionNamesHostPortAndReason) {
  const Descriptor bound = BindFreePort();
  const int port = PortOf(bound.get());
  try {
    FrameChannel::ConnectTo("127.0.0.1", port, std::chrono::seconds(10));
    FAIL() << "connected to a port that nobody listens on";
  } catch (const master::ConnectError& error) {
    EXPECT_EQ(error.what(),
              "Cannot connect to 127.0.0.1 port " + std::to_string(port) + ": Connection refused");
  }
}

TEST(ConnectTo, UnknownHostIsNamed) {
  try {
    FrameChannel::ConnectTo("no host has blanks", 1, std::chrono::seconds(10));
    FAIL() << "connected to nowhere";
  } catch (const master::ConnectError& error) {
    EXPECT_THAT(error.what(), HasSubstr("Unknown host 'no host has blanks'"));
  }
}

TEST(ConnectTo, PortOutOfRangeIsNamed) {
  for (const int port : {0, -1, 65536}) {
    EXPECT_THROW(FrameChannel::ConnectTo("127.0.0.1", port, std::chrono::seconds(1)),
                 master::ConnectError);
  }
}

}  // namespace
