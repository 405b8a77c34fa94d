#include "master/frame_channel.h"

#include <dlfcn.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <bit>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/alarm.h"
#include "master/errors.h"
#include "tests/support/answered_call.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/full_listener.h"
#include "tests/support/ports.h"
#include "tests/support/socket_pair.h"
#include "tests/support/text_of_child.h"

namespace {

// A host whose first address nobody listens at, and whose second is this machine.
constexpr const char* kTwoAddresses = "two.addresses.invalid";

}  // namespace

// In front of the system's, which knows no host of two addresses on every machine.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system's are reserved
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** found) {
  static const auto system = std::bit_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (std::string(node) != kTwoAddresses) return system(node, service, hints, found);
  const int failed = system("127.0.0.2", service, hints, found);
  return failed != 0 ? failed : system("127.0.0.1", service, hints, &(*found)->ai_next);
}

namespace {

using master::Clock;
using master::FrameChannel;
using std::chrono::milliseconds;
using testing::HasSubstr;

class FrameChannelTest : public testing::Test {
 protected:
  void Write(const std::string& hex) { WriteAll(pair_.peer.get(), Bytes(hex)); }

  SocketPair pair_;
  FrameChannel channel_{std::move(pair_.ours)};
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
  FrameChannel second(std::move(other.ours));
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

TEST_F(FrameChannelTest, AssignedChannelHasTheHalfFrameThatWasReadAlready) {
  Write("03 00 00 00 41 42");
  EXPECT_THROW(channel_.Receive(Clock::now() + milliseconds(10)), master::TimedOut);
  SocketPair other;
  FrameChannel assigned(std::move(other.ours));
  assigned = std::move(channel_);
  Write("43");
  EXPECT_EQ(assigned.Receive(Clock::now() + std::chrono::seconds(10)), "ABC");
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
    FrameChannel channel(std::move(pair.ours));
    EXPECT_THROW(channel.Receive(), master::LinkLost) << part;
  }
}

TEST_F(FrameChannelTest, NegativeOrGiganticLengthIsRefusedAtOnce) {
  for (const char* length : {"ffffffff", "00000080", "01000040"}) {
    SocketPair pair;
    WriteAll(pair.peer.get(), Bytes(length));
    FrameChannel channel(std::move(pair.ours));
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

TEST_F(FrameChannelTest, AlarmThatAnotherThreadRaisesInterruptsUntilItIsLowered) {
  master::Alarm alarm;
  channel_.WakeOn(alarm.wake());
  std::thread other([&] { alarm.Raise(); });
  EXPECT_THROW(channel_.Receive(), master::Interrupted);
  other.join();
  EXPECT_THROW(channel_.Receive(), master::Interrupted);
  alarm.Lower();
  Write("01000000 41");
  EXPECT_EQ(channel_.Receive(), "A");
}

// Both come to the channel at once; the next wait finds what is left of the first.
TEST_F(FrameChannelTest, AlarmThatIsLoweredBeforeTheWaitInterruptsNothing) {
  master::Alarm alarm;
  channel_.WakeOn(alarm.wake());
  EXPECT_THROW(channel_.Receive(Clock::now()), master::TimedOut);
  for (int i = 0; i < 10; ++i) {
    Write("01000000 41");
    alarm.Raise();
    try {
      channel_.Receive();
    } catch (const master::Interrupted&) {
      alarm.Lower();
      EXPECT_EQ(channel_.Receive(), "A");
      continue;
    }
    alarm.Lower();
    Write("01000000 42");
    EXPECT_EQ(channel_.Receive(), "B");
  }
}

TEST_F(FrameChannelTest, WakeThatIsTakenBackInterruptsNoMore) {
  SocketPair wake;
  channel_.WakeOn(wake.ours.get());
  WriteAll(wake.peer.get(), "!");
  EXPECT_THROW(channel_.Receive(), master::Interrupted);
  channel_.WakeOn(master::kNoWake);
  Write("01000000 41");
  EXPECT_EQ(channel_.Receive(), "A");
}

TEST_F(FrameChannelTest, WakesThatAreTakenBackLeaveNoDescriptor) {
  const master::Alarm alarm;
  const auto wait = [&] {
    channel_.WakeOn(alarm.wake());
    EXPECT_THROW(channel_.Receive(Clock::now() + milliseconds(1)), master::TimedOut);
    channel_.WakeOn(master::kNoWake);
  };
  wait();
  const auto before = OpenDescriptors(getpid());
  for (int i = 0; i < 50; ++i) wait();
  EXPECT_LE(OpenDescriptors(getpid()), before + 1);
}

TEST_F(FrameChannelTest, FrameThatIsThereIsReceivedAfterTheDeadline) {
  Write("02000000 4142");
  EXPECT_EQ(channel_.Receive(Clock::now() - milliseconds(1)), "AB");
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

TEST_F(FrameChannelTest, PeerThatTakesNothingForTheWholeLimitIsLinkLost) {
  channel_.LimitSending(milliseconds(20));
  try {
    channel_.Send(std::string(8 << 20, 'x'));
    FAIL() << "sent more than the connection holds";
  } catch (const master::LinkLost& lost) {
    EXPECT_STREQ(lost.what(), "The daemon takes no more data");
  }
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

TEST(ConnectTo, NextAddressOfAHostIsTriedWhenNobodyListensAtTheFirst) {
  const Descriptor listener = BindFreePort(1);
  const int port = PortOf(listener.get());
  FrameChannel channel = FrameChannel::ConnectTo(kTwoAddresses, port, std::chrono::seconds(10));
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

TEST(ConnectTo, ListenerThatDoesNotAnswerInTimeIsNamed) {
  const FullListener full;
  const int port = PortOf(full.listener.get());
  const auto begin = Clock::now();
  try {
    FrameChannel::ConnectTo("127.0.0.1", port, milliseconds(100));
    FAIL() << "connected to a full listener";
  } catch (const master::ConnectError& error) {
    EXPECT_EQ(error.what(), "Cannot connect to 127.0.0.1 port " + std::to_string(port) +
                                ": Connection timed out");
  }
  EXPECT_GE(Clock::now() - begin, milliseconds(100));
}

TEST(ConnectTo, WakeDescriptorInterruptsTheWait) {
  const FullListener full;
  const SocketPair wake;
  WriteAll(wake.peer.get(), "!");
  try {
    FrameChannel::ConnectTo("127.0.0.1", PortOf(full.listener.get()), std::chrono::seconds(20),
                            wake.ours.get());
    FAIL() << "connected to a full listener";
  } catch (const master::Interrupted& error) {
    EXPECT_STREQ(error.what(), "Interrupted while connecting to the daemon");
  }
}

// What comes of connecting to a listener when the kernel's result of `call` is `answer`'s.
std::optional<std::string> Connecting(int call, CallAnswer answer) {
  return TextOfChild([call, answer]() -> std::optional<std::string> {
    const Descriptor listener = BindFreePort(1);
    if (!AnswerCall(call, answer)) return std::nullopt;
    try {
      FrameChannel::ConnectTo("127.0.0.1", PortOf(listener.get()), std::chrono::seconds(10));
    } catch (const master::ConnectError& error) {
      const std::string text = error.what();
      return text.substr(0, text.find(" port ")) + text.substr(text.rfind(": "));
    }
    return "connected";
  });
}

TEST(ConnectTo, SystemWithoutADescriptorLeftIsTheReasonGiven) {
  const auto text = TextOfChild([]() -> std::optional<std::string> {
    if (!AnswerCall(SYS_socket, [] { return static_cast<long>(-EMFILE); })) return std::nullopt;
    FrameChannel::ConnectTo("127.0.0.1", 5000, std::chrono::seconds(10));
    return "connected";
  });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw No socket: Too many open files");
}

TEST(ConnectTo, NetworkThatRefusesAtOnceIsTheReasonGiven) {
  const auto text = Connecting(SYS_connect, [] { return static_cast<long>(-ENETUNREACH); });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "Cannot connect to 127.0.0.1: Network is unreachable");
}

TEST(ConnectTo, ConnectionThatIsThereAtOnceIsTaken) {
  const auto text = Connecting(SYS_connect, [] { return 0L; });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "connected");
}

// What comes of using a channel with a frame's beginning before it, when `call` is answered.
std::optional<std::string> Using(int call, CallAnswer answer,
                                 const std::function<void(FrameChannel&)>& use) {
  return TextOfChild([=]() -> std::optional<std::string> {
    SocketPair pair;
    WriteAll(pair.peer.get(), Bytes("02000000 41"));
    FrameChannel channel(std::move(pair.ours));
    if (!AnswerCall(call, answer)) return std::nullopt;
    use(channel);
    return "done";
  });
}

TEST(FrameChannelFailure, WaitThatEndsForNothingIsTakenUpAgain) {
  static int calls = 0;
  const auto text = Using(
      SYS_epoll_wait, [] { return ++calls % 2 == 0 ? static_cast<long>(-EINTR) : 0L; },
      [](FrameChannel& channel) {
        try {
          channel.Receive(Clock::now() + milliseconds(50));
        } catch (const master::TimedOut&) {
          throw std::runtime_error(calls > 2 ? "waited on" : "waited once");
        }
      });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw waited on");
}

TEST(FrameChannelFailure, ReadThatIsInterruptedOrHasNothingIsTakenUpAgain) {
  static int calls = 0;
  const auto text = Using(
      SYS_recvfrom,
      [] {
        switch (++calls) {
          case 1:
            return static_cast<long>(-EINTR);
          case 2:
            return static_cast<long>(-EAGAIN);
          default:
            return static_cast<long>(-ECONNRESET);
        }
      },
      [](FrameChannel& channel) { channel.Receive(); });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw The connection to the daemon broke: Connection reset by peer");
}

// A reset may follow what a daemon has said before: a machine that is gone has said nothing.
TEST(FrameChannelFailure, MachineThatIsGoneIsNoReset) {
  const auto text = Using(
      SYS_recvfrom, [] { return static_cast<long>(-ETIMEDOUT); },
      [](FrameChannel& channel) {
        try {
          channel.Receive();
        } catch (const master::LinkReset&) {
          throw std::runtime_error("a reset");
        }
      });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw The connection to the daemon broke: Connection timed out");
}

TEST(FrameChannelFailure, InterruptedSendGoesOn) {
  static int calls = 0;
  const auto text = Using(
      SYS_sendto, [] { return ++calls < 3 ? -EINTR : static_cast<long>(-EPIPE); },
      [](FrameChannel& channel) { channel.Send("A"); });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw The connection to the daemon broke: Broken pipe");
}

TEST(ConnectTo, PortOutOfRangeIsNamed) {
  for (const int port : {0, -1, 65536}) {
    EXPECT_THROW(FrameChannel::ConnectTo("127.0.0.1", port, std::chrono::seconds(1)),
                 master::ConnectError);
  }
}

}  // namespace
