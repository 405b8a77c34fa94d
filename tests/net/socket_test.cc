#include "net/socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/answered_call.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/leaks.h"
#include "tests/support/socket_pair.h"

namespace {

using std::chrono::milliseconds;

bool IsOpen(int descriptor) {
  return fcntl(descriptor, F_GETFD) != -1;
}

struct OpenSocket : Socket {
  using Socket::Socket;
  int handle() const { return handle_; }
};

class SocketTest : public testing::Test {
 protected:
  SocketTest() : socket_(pair_.ours.Release()), buffer_(65536, '\x7e') { signal(SIGPIPE, SIG_IGN); }

  void PeerSends(const std::string& bytes) { WriteAll(pair_.peer.get(), bytes); }
  void PeerCloses() { pair_.peer.Reset(); }
  int Receive(int capacity = 2048) {
    return socket_.ReceiveLine(buffer_.data(), capacity, length_);
  }

  SocketPair pair_;
  OpenSocket socket_;
  std::string buffer_;
  int length_ = 99;
};

TEST_F(SocketTest, FrameIsReadWhole) {
  PeerSends(Bytes("03 00 00 00 61 62 63"));
  EXPECT_EQ(Receive(), 0);
  EXPECT_EQ(length_, 3);
  EXPECT_EQ(buffer_.substr(0, 3), "abc");
}

TEST_F(SocketTest, FramesOfOneSegmentAreReadOneByOne) {
  PeerSends(Bytes("01 00 00 00 61 02 00 00 00 62 63"));
  EXPECT_EQ(Receive(), 0);
  EXPECT_EQ(buffer_.substr(0, static_cast<std::size_t>(length_)), "a");
  EXPECT_EQ(Receive(), 0);
  EXPECT_EQ(buffer_.substr(0, static_cast<std::size_t>(length_)), "bc");
}

TEST_F(SocketTest, FrameInOneByteSegmentsIsReadWhole) {
  auto received = std::async(std::launch::async, [this] { return Receive(); });
  for (const char byte : Bytes("03 00 00 00 61 62 63")) {
    PeerSends({byte});
    std::this_thread::sleep_for(milliseconds(2));  // lets the receiver take the byte alone
  }
  EXPECT_EQ(received.get(), 0);
  EXPECT_EQ(length_, 3);
  EXPECT_EQ(buffer_.substr(0, 3), "abc");
}

TEST_F(SocketTest, ZeroLengthFrameReturnsMinusOne) {
  PeerSends(Bytes("00 00 00 00"));
  EXPECT_EQ(Receive(), -1);
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketTest, NegativeLengthFrameReturnsMinusOne) {
  PeerSends(Bytes("ff ff ff ff"));
  EXPECT_EQ(Receive(), -1);
}

TEST_F(SocketTest, PeerThatClosedBeforeAFrameReturnsMinusOne) {
  PeerCloses();
  EXPECT_EQ(Receive(), -1);
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketTest, ReceiveErrorReturnsOneWithLengthZero) {
  Socket closed(-1);
  EXPECT_EQ(closed.ReceiveLine(buffer_.data(), 2048, length_), 1);
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketTest, FrameAboveTheCapacityIsReadWholeAndOnlyTheCapacityCleared) {
  const std::string body(3000, 'x');
  PeerSends(Bytes("b8 0b 00 00") + body);
  EXPECT_EQ(Receive(2048), 0);
  EXPECT_EQ(length_, 3000);
  EXPECT_EQ(buffer_.substr(0, 3000), body);
  EXPECT_EQ(buffer_[3000], '\x7e');
}

TEST_F(SocketTest, OnlyTheCapacityIsCleared) {
  PeerSends(Bytes("01 00 00 00 61"));
  EXPECT_EQ(Receive(2048), 0);
  EXPECT_EQ(buffer_.substr(0, 2048), "a" + std::string(2047, '\0'));
  EXPECT_EQ(buffer_.substr(2048), std::string(65536 - 2048, '\x7e'));
}

TEST_F(SocketTest, CapacityThatIsNotPositiveClearsNothing) {
  for (const int capacity : {0, -1}) {
    PeerSends(Bytes("00 00 00 00"));
    EXPECT_EQ(Receive(capacity), -1);
    EXPECT_EQ(buffer_, std::string(65536, '\x7e'));
  }
}

TEST_F(SocketTest, FrameOfTheBuffersSizeIsRead) {
  const std::string body(65536, 'y');
  auto sender = std::async(std::launch::async, [&] { PeerSends(Bytes("00 00 01 00") + body); });
  EXPECT_EQ(Receive(), 0);
  EXPECT_EQ(length_, 65536);
  EXPECT_EQ(buffer_, body);
}

TEST_F(SocketTest, FrameAboveTheBufferIsAReceiveErrorBeforeItsBodyIsRead) {
  PeerSends(Bytes("01 00 01 00 61"));
  EXPECT_EQ(Receive(), 1);
  EXPECT_EQ(length_, 0);
  EXPECT_EQ(socket_.ReceiveBytes(), "a");
}

TEST_F(SocketTest, PeerGoneInMidFrameIsAReceiveError) {
  PeerSends(Bytes("05 00 00 00 61"));
  PeerCloses();
  EXPECT_EQ(Receive(), 1);
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketTest, ReceiveErrorInMidFrameReturnsOneWithLengthZero) {
  const timeval soon{0, 10'000};
  SocketPair pair;
  setsockopt(pair.ours.get(), SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof(soon));
  Socket socket(pair.ours.Release());
  WriteAll(pair.peer.get(), Bytes("05 00 00 00 61"));
  EXPECT_EQ(socket.ReceiveLine(buffer_.data(), 2048, length_), 1);
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketTest, PeerGoneInMidLengthIsAReceiveError) {
  PeerSends(Bytes("05 00"));
  PeerCloses();
  EXPECT_EQ(Receive(), 1);
  EXPECT_EQ(length_, 0);
}

double ThreadProcessorSeconds() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

class SocketOverTcpTest : public testing::Test {
 protected:
  // Receives in a thread of its own; the result is that of ReceiveLine().
  std::future<int> StartReceive() {
    return std::async(std::launch::async, [this] {
      const double before = ThreadProcessorSeconds();
      const int result = socket_.ReceiveLine(buffer_.data(), 2048, length_);
      processorSeconds_ = ThreadProcessorSeconds() - before;
      return result;
    });
  }

  int Option(int level, int option) const {
    int value = -1;
    socklen_t size = sizeof(value);
    getsockopt(socket_.handle(), level, option, &value, &size);
    return value;
  }

  TcpPair pair_;
  OpenSocket socket_{pair_.ours.Release()};
  std::string buffer_ = std::string(65536, '\0');
  int length_ = 99;
  double processorSeconds_ = 0;
};

TEST_F(SocketOverTcpTest, PeerThatOnlyStopsSendingInMidFrameIsWaitedForWithoutSpinning) {
  WriteAll(pair_.peer.get(), Bytes("05 00 00 00 61"));
  shutdown(pair_.peer.get(), SHUT_WR);
  auto received = StartReceive();
  EXPECT_EQ(received.wait_for(milliseconds(2500)), std::future_status::timeout);
  // A master whose machine has gone without a word is asked for every second, for a minute.
  EXPECT_EQ(Option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(Option(IPPROTO_TCP, TCP_KEEPIDLE), 1);
  EXPECT_EQ(Option(IPPROTO_TCP, TCP_KEEPINTVL), 1);
  EXPECT_EQ(Option(IPPROTO_TCP, TCP_KEEPCNT), 60);
  const linger reset{1, 0};  // the close below then breaks the connection
  setsockopt(pair_.peer.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  pair_.peer.Reset();
  EXPECT_EQ(received.get(), 1);
  EXPECT_EQ(length_, 0);
  EXPECT_LT(processorSeconds_, 0.2);
}

TEST_F(SocketOverTcpTest, PeerThatClosedForGoodInMidFrameIsNoticed) {
  WriteAll(pair_.peer.get(), Bytes("05 00 00 00 61"));
  const int second = 1;  // how long its side of the connection outlives the close
  setsockopt(pair_.peer.get(), IPPROTO_TCP, TCP_LINGER2, &second, sizeof(second));
  pair_.peer.Reset();
  auto received = StartReceive();
  ASSERT_EQ(received.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(received.get(), 1);
  EXPECT_EQ(length_, 0);
}

void NoticeSignal(int) {}

TEST_F(SocketOverTcpTest, SignalDoesNotEndTheWaitForThePeer) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = NoticeSignal;  // a poll() is interrupted by it whatever the flags are
  sigaction(SIGUSR1, &action, &before);
  WriteAll(pair_.peer.get(), Bytes("05 00 00 00 61"));
  shutdown(pair_.peer.get(), SHUT_WR);
  std::promise<pthread_t> receiver;
  auto received = std::async(std::launch::async, [&] {
    receiver.set_value(pthread_self());
    return socket_.ReceiveLine(buffer_.data(), 2048, length_);
  });
  const pthread_t thread = receiver.get_future().get();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(received.wait_for(milliseconds(20)), std::future_status::timeout);
    pthread_kill(thread, SIGUSR1);
  }
  EXPECT_EQ(received.wait_for(milliseconds(50)), std::future_status::timeout);
  const linger reset{1, 0};
  setsockopt(pair_.peer.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  pair_.peer.Reset();
  EXPECT_EQ(received.get(), 1);
  sigaction(SIGUSR1, &before, nullptr);
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

TEST(SocketFailureTest, WaitThatFailsIsAReceiveError) {
  const auto result = InChild([] {
    SocketPair pair;
    Socket socket(pair.ours.Release());
    WriteAll(pair.peer.get(), Bytes("05 00 00 00 61"));
    shutdown(pair.peer.get(), SHUT_WR);
    std::string buffer(65536, '\0');
    int length = 99;
    if (!AnswerCall(SYS_poll, [] { return static_cast<long>(-ENOMEM); })) return 77;
    const int received = socket.ReceiveLine(buffer.data(), 2048, length);
    return 10 * received + length;
  });
  if (!result) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*result, 10);
}

TEST(SocketFailureTest, OwnNameThatCannotBeHadReturnsOneWithAnEmptyAddress) {
  const auto result = InChild([] {
    std::array<char, 64> address{"before"};
    if (!AnswerCall(SYS_uname, [] { return static_cast<long>(-EFAULT); })) return 77;
    return 10 * Socket::GetIPAddr(address.data()) + (address[0] == '\0' ? 0 : 1);
  });
  if (!result) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*result, 10);
}

using SocketStringFormTest = SocketTest;

TEST_F(SocketStringFormTest, ReceiveErrorGivesEmptyWithLengthZero) {
  Socket closed(-1);
  EXPECT_EQ(closed.ReceiveLine(length_), "");
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketStringFormTest, FrameIsReadWhole) {
  PeerSends(Bytes("03 00 00 00 61 00 63"));
  EXPECT_EQ(socket_.ReceiveLine(length_), std::string("a\0c", 3));
  EXPECT_EQ(length_, 3);
}

TEST_F(SocketStringFormTest, NothingAfterTheFrameIsTaken) {
  PeerSends(Bytes("01 00 00 00 33 01 00 00 00 34"));
  EXPECT_EQ(socket_.ReceiveLine(length_), "3");
  EXPECT_EQ(socket_.ReceiveLine(length_), "4");
}

TEST_F(SocketStringFormTest, ZeroLengthFrameIsEmptyWithLengthZero) {
  PeerSends(Bytes("00 00 00 00"));
  EXPECT_EQ(socket_.ReceiveLine(length_), "");
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketStringFormTest, NegativeLengthFrameIsEmptyAtOnce) {
  PeerSends(Bytes("fe ff ff ff"));
  EXPECT_EQ(socket_.ReceiveLine(length_), "");
  EXPECT_EQ(length_, -2);
}

TEST_F(SocketStringFormTest, PeerThatClosedBeforeAFrameGivesEmptyWithLengthZero) {
  PeerCloses();
  EXPECT_EQ(socket_.ReceiveLine(length_), "");
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketStringFormTest, PeerThatClosedInMidFrameGivesEmptyWithLengthZero) {
  PeerSends(Bytes("05 00 00 00 61 62"));
  PeerCloses();
  EXPECT_EQ(socket_.ReceiveLine(length_), "");
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketStringFormTest, WouldBlockGivesWhatHadArrived) {
  const timeval soon{0, 10'000};
  SocketPair pair;
  setsockopt(pair.ours.get(), SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof(soon));
  Socket socket(pair.ours.Release());
  WriteAll(pair.peer.get(), Bytes("05 00 00 00 61 62"));
  EXPECT_EQ(socket.ReceiveLine(length_), "ab");
  EXPECT_EQ(length_, 5);
}

TEST_F(SocketStringFormTest, WouldBlockBeforeAFrameGivesNothingWithLengthZero) {
  fcntl(socket_.handle(), F_SETFL, O_NONBLOCK);
  EXPECT_EQ(socket_.ReceiveLine(length_), "");
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketStringFormTest, WouldBlockInMidLengthLeavesTheLengthAsItStands) {
  fcntl(socket_.handle(), F_SETFL, O_NONBLOCK);
  PeerSends(Bytes("05 01"));
  EXPECT_EQ(socket_.ReceiveLine(length_), "");
  EXPECT_EQ(length_, 261);
}

TEST_F(SocketStringFormTest, EndOfTheConnectionIsNotTakenForAWait) {
  PeerSends(Bytes("05 00 00 00 61 62"));
  PeerCloses();
  errno = EAGAIN;  // of some earlier call
  EXPECT_EQ(socket_.ReceiveLine(length_), "");
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketStringFormTest, ConnectionThatBreaksInMidFrameGivesEmptyWithLengthZero) {
  TcpPair pair;
  Socket socket(pair.ours.Release());
  WriteAll(pair.peer.get(), Bytes("05 00 00 00 61 62"));
  auto received = std::async(std::launch::async, [&] { return socket.ReceiveLine(length_); });
  EXPECT_EQ(received.wait_for(milliseconds(20)), std::future_status::timeout);
  const linger reset{1, 0};
  setsockopt(pair.peer.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  pair.peer.Reset();
  EXPECT_EQ(received.get(), "");
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketStringFormTest, LongestFrameThatCompletesHas32767Bytes) {
  const std::string body(32767, 'z');
  PeerSends(Bytes("ff 7f 00 00") + body);
  EXPECT_EQ(socket_.ReceiveLine(length_), body);
  EXPECT_EQ(length_, 32767);
}

TEST_F(SocketStringFormTest, FrameOf32768BytesNeverCompletes) {
  auto sender = std::async(std::launch::async, [this] {
    PeerSends(Bytes("00 80 00 00") + std::string(200'000, 'z'));
    PeerCloses();
  });
  EXPECT_EQ(socket_.ReceiveLine(length_), "");
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketStringFormTest, WaitInAFrameThatNeverCompletesGivesNothingButItsLength) {
  const timeval soon{0, 10'000};
  SocketPair pair;
  setsockopt(pair.ours.get(), SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof(soon));
  Socket socket(pair.ours.Release());
  WriteAll(pair.peer.get(), Bytes("00 80 00 00 61 62"));
  EXPECT_EQ(socket.ReceiveLine(length_), "");
  EXPECT_EQ(length_, 32768);
}

TEST_F(SocketStringFormTest, HundredMebibytesThatNeverCompleteAreDroppedInLargePieces) {
  auto sender = std::async(std::launch::async, [this] {
    const std::string piece(1 << 20, 'z');
    PeerSends(Bytes("ff ff ff 7f"));
    for (int i = 0; i < 100; ++i) PeerSends(piece);
    PeerCloses();
  });
  const double before = ThreadProcessorSeconds();
  EXPECT_EQ(socket_.ReceiveLine(length_), "");
  EXPECT_LT(ThreadProcessorSeconds() - before, 2);  // byte by byte it is more than ten
  EXPECT_EQ(length_, 0);
}

TEST_F(SocketTest, SendLineIsLengthThenText) {
  EXPECT_EQ(socket_.SendLine(std::string("OK|n1")), 9);
  EXPECT_EQ(Hex(ReadExactly(pair_.peer.get(), 9)), "05 00 00 00 4f 4b 7c 6e 31");
}

TEST_F(SocketTest, SendLineOfAnEmptyTextIsFourZeroBytes) {
  EXPECT_EQ(socket_.SendLine(std::string()), 4);
  socket_.Close();
  EXPECT_EQ(Hex(ReadExactly(pair_.peer.get(), 100)), "00 00 00 00");
}

TEST_F(SocketTest, SendLineOfBytesReturnsZeroWhenAllLeft) {
  EXPECT_EQ(socket_.SendLine("a\0b", 3), 0);
  EXPECT_EQ(Hex(ReadExactly(pair_.peer.get(), 7)), "03 00 00 00 61 00 62");
}

TEST_F(SocketTest, SendsToAPeerThatIsGoneFailByTheirResults) {
  PeerCloses();
  EXPECT_EQ(socket_.SendLine(std::string("x")), -1);
  EXPECT_EQ(socket_.SendLine("x", 1), 1);
  EXPECT_EQ(socket_.SendBytes("x", 1), 1);
  EXPECT_EQ(socket_.SendBytes(std::string("x")), 1);
}

TEST_F(SocketTest, SendBytesHasNoFrame) {
  EXPECT_EQ(socket_.SendBytes(std::string("ab")), 0);
  EXPECT_EQ(socket_.SendBytes("cd", 2), 0);
  EXPECT_EQ(ReadExactly(pair_.peer.get(), 4), "abcd");
}

TEST_F(SocketTest, ReceiveBytesDrainsWhatIsWaitingAndNoMore) {
  EXPECT_EQ(socket_.ReceiveBytes(), "");
  const std::string bytes(2500, 'q');
  PeerSends(bytes);
  EXPECT_EQ(socket_.ReceiveBytes(), bytes);
}

TEST(SocketBytesTest, NothingIsReceivedFromADescriptorThatCannotBeAsked) {
  Socket closed(-1);
  EXPECT_EQ(closed.ReceiveBytes(), "");
}

TEST(SocketBytesTest, NothingIsReceivedFromADescriptorThatIsNoSocket) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const Descriptor writer(ends[1]);
  WriteAll(writer.get(), "waiting");
  Socket reader(ends[0]);
  EXPECT_EQ(reader.ReceiveBytes(), "");
}

TEST(SocketBytesTest, EndOfTheConnectionEndsTheDrain) {
  const auto result = InChild([] {
    SocketPair pair;
    Socket socket(pair.ours.Release());
    WriteAll(pair.peer.get(), "waiting");  // and gone when it is asked for
    if (!AnswerCall(SYS_recvfrom, [] { return 0L; })) return 77;
    return static_cast<int>(socket.ReceiveBytes().size());
  });
  if (!result) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*result, 0);
}

void IgnoreSignal(int) {}

TEST_F(SocketTest, FinishedChildDoesNotCutASendShort) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = IgnoreSignal;
  action.sa_flags = SA_RESTART;
  sigaction(SIGCHLD, &action, &before);
  const std::string body(4'000'000, 'w');  // far above what the socket buffers hold
  const pthread_t sender = pthread_self();
  auto reader = std::async(std::launch::async, [&] {
    std::string got;
    for (int i = 0; i < 20; ++i) {
      pthread_kill(sender, SIGCHLD);
      std::this_thread::sleep_for(milliseconds(1));
      got += ReadExactly(pair_.peer.get(), 100'000);
    }
    return got + ReadExactly(pair_.peer.get(), body.size() + 4 - got.size());
  });
  EXPECT_EQ(socket_.SendLine(body.data(), static_cast<unsigned>(body.size())), 0);
  EXPECT_EQ(reader.get().size(), body.size() + 4);
  sigaction(SIGCHLD, &before, nullptr);
}

// Fills the buffers between the ends of a socket; how many bytes that took.
std::size_t Fill(int descriptor) {
  const std::string bytes(100'000, 'f');
  std::size_t filled = 0;
  for (std::size_t part = bytes.size(); part > 0; part /= 2) {
    ssize_t sent = 0;
    while ((sent = send(descriptor, bytes.data(), part, MSG_DONTWAIT)) > 0) {
      filled += static_cast<std::size_t>(sent);
    }
  }
  return filled;
}

TEST_F(SocketTest, SendIntoAFullConnectionWaitsUntilItIsRead) {
  const std::size_t filled = Fill(socket_.handle());
  auto sent = std::async(std::launch::async, [&] { return socket_.SendLine("x", 1); });
  EXPECT_EQ(sent.wait_for(milliseconds(50)), std::future_status::timeout);
  const std::string got = ReadExactly(pair_.peer.get(), filled + 5);
  EXPECT_EQ(sent.get(), 0);
  EXPECT_EQ(Hex(got.substr(filled)), "01 00 00 00 78");
}

TEST_F(SocketTest, SendThatIsGivenUpBeforeItsFirstByteFails) {
  Fill(socket_.handle());
  const timeval limit{0, 20'000};
  setsockopt(socket_.handle(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  EXPECT_EQ(socket_.SendLine(std::string("x")), -1);
}

TEST_F(SocketTest, SendThatIsGivenUpInItsMiddleIsShort) {
  const timeval limit{0, 20'000};
  setsockopt(socket_.handle(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  const std::string body(4'000'000, 'w');
  const int sent = socket_.SendLine(body);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, static_cast<int>(body.size()));
  EXPECT_EQ(ReadExactly(pair_.peer.get(), static_cast<std::size_t>(sent)).size(),
            static_cast<std::size_t>(sent));
}

// The numbers of the signals that this thread blocks.
std::vector<int> BlockedSignals() {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  std::vector<int> numbers;
  for (int number = 1; number < SIGRTMIN; ++number) {
    if (sigismember(&blocked, number) == 1) numbers.push_back(number);
  }
  return numbers;
}

// A signal that stays blocked would leave zombies, one that is let through cut the next send.
TEST_F(SocketTest, SignalsAreBlockedAsBeforeAfterEverySendHoweverItEnds) {
  sigset_t before;
  sigset_t some;
  sigemptyset(&some);
  for (const bool with_child : {false, true}) {
    SCOPED_TRACE(with_child);
    sigaddset(&some, SIGUSR1);
    if (with_child) sigaddset(&some, SIGCHLD);
    pthread_sigmask(SIG_SETMASK, &some, &before);
    const std::vector<int> blocked = BlockedSignals();
    const timeval limit{0, 20'000};
    setsockopt(socket_.handle(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    for (int round = 0; round < 2; ++round) {
      const std::size_t filled = Fill(socket_.handle());
      EXPECT_EQ(socket_.SendLine(std::string("given up")), -1);
      EXPECT_EQ(BlockedSignals(), blocked);
      auto reader = std::async(std::launch::async,
                               [&] { return ReadExactly(pair_.peer.get(), filled + 9).size(); });
      EXPECT_EQ(socket_.SendLine("waits", 5), 0);
      EXPECT_EQ(reader.get(), filled + 9);
      EXPECT_EQ(BlockedSignals(), blocked);
      EXPECT_EQ(socket_.SendLine("at once", 7), 0);
      EXPECT_EQ(BlockedSignals(), blocked);
      ReadExactly(pair_.peer.get(), 11);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
}

TEST_F(SocketTest, CloseClosesAtOnceAndTheDestructorDoesNotCloseTheNumberAgain) {
  SocketPair pair;
  const int number = pair.ours.get();
  Descriptor reused;
  {
    Socket socket(pair.ours.Release());
    socket.Close();
    ASSERT_FALSE(IsOpen(number));
    reused = Descriptor(fcntl(pair.peer.get(), F_DUPFD_CLOEXEC, number));
    ASSERT_EQ(reused.get(), number);
  }
  EXPECT_TRUE(IsOpen(number));
}

struct CountedSocket : Socket {
  using Socket::nofSockets_;
};

TEST_F(SocketTest, AliveAreCounted) {
  const int before = CountedSocket::nofSockets_;
  {
    Socket own;
    EXPECT_EQ(CountedSocket::nofSockets_, before + 1);
    Socket accepted(dup(0));
    EXPECT_EQ(CountedSocket::nofSockets_, before + 2);
    const auto copy = std::make_unique<Socket>(own);
    EXPECT_EQ(CountedSocket::nofSockets_, before + 3);
  }
  EXPECT_EQ(CountedSocket::nofSockets_, before);
  Socket::Start();
  Socket::End();
  EXPECT_EQ(CountedSocket::nofSockets_, before + 1);
}

TEST_F(SocketTest, CopiesShareTheDescriptorUntilTheLastGoes) {
  SocketPair pair;
  const int number = pair.ours.get();
  auto first = std::make_unique<Socket>(pair.ours.Release());
  auto second = std::make_unique<Socket>(*first);
  first.reset();
  EXPECT_TRUE(IsOpen(number));
  EXPECT_EQ(second->SendLine(std::string("x")), 5);
  second.reset();
  EXPECT_FALSE(IsOpen(number));
}

TEST_F(SocketTest, AssignmentSharesAndLeavesTheFormerDescriptorOpen) {
  SocketPair pair;
  SocketPair former_pair;
  const int number = pair.ours.get();
  const Descriptor former(former_pair.ours.Release());
  {
    Socket target(former.get());
    Socket source(pair.ours.Release());
    target = source;
    EXPECT_EQ(target.SendLine(std::string("x")), 5);
  }
  EXPECT_EQ(Hex(ReadExactly(pair.peer.get(), 5)), "01 00 00 00 78");
  EXPECT_FALSE(IsOpen(number));
  EXPECT_TRUE(IsOpen(former.get()));
}

TEST_F(SocketTest, AssignmentToACopyLeavesTheSharedDescriptorOpenForEver) {
  SocketPair pair;
  SocketPair shared_pair;
  const Descriptor shared(shared_pair.ours.Release());
  {
    const ExpectedLeaks counter;  // which counts an object that is no more
    Socket copy(-1);
    {
      Socket first(shared.get());
      copy = first;
      Socket source(pair.ours.Release());
      first = source;
    }
  }
  EXPECT_TRUE(IsOpen(shared.get()));
}

TEST_F(SocketTest, AssignmentToItselfChangesNothing) {
  SocketPair pair;
  const int number = pair.ours.get();
  {
    Socket socket(pair.ours.Release());
    Socket& itself = socket;
    socket = itself;
    EXPECT_EQ(socket.SendLine(std::string("x")), 5);
  }
  EXPECT_FALSE(IsOpen(number));
}

TEST_F(SocketTest, AssignmentOfACopyLeavesTheSharedDescriptorOpenForEver) {
  SocketPair pair;
  const Descriptor shared(pair.ours.Release());
  {
    const ExpectedLeaks counter;  // which counts the copy twice
    Socket first(shared.get());
    Socket copy(first);
    first = copy;
    EXPECT_EQ(first.SendLine(std::string("x")), 5);
  }
  EXPECT_TRUE(IsOpen(shared.get()));
}

TEST_F(SocketTest, SecondCloseLeavesTheNumbersNextOwnerAlone) {
  SocketPair pair;
  const int number = pair.ours.get();
  Socket socket(pair.ours.Release());
  socket.Close();
  const Descriptor reused(fcntl(pair.peer.get(), F_DUPFD_CLOEXEC, number));
  ASSERT_EQ(reused.get(), number);
  socket.Close();
  EXPECT_TRUE(IsOpen(number));
}

TEST(SocketDescriptorTest, FirstNumberIsADescriptorLikeAnyOther) {
  ChildProcess::Options options;
  options.in_child = [] {
    const auto make_first = [] {
      close(0);
      return open("/dev/null", O_RDWR | O_CLOEXEC) == 0;
    };
    if (!make_first()) return 1;
    { const Socket socket(0); }
    if (IsOpen(0) || !make_first()) return 2;
    Socket socket(0);
    socket.Close();
    return IsOpen(0) ? 3 : 0;
  };
  ChildProcess child({}, options);
  EXPECT_EQ(child.Wait(std::chrono::seconds(10)).value_or(-1), 0);
}

TEST(SocketUseTest, BracketOfUseLeavesSocketsAsTheyAre) {
  Socket::Start();
  SocketPair pair;
  Socket socket(pair.ours.Release());
  Socket::End();
  EXPECT_EQ(socket.SendLine(std::string("x")), 5);
}

TEST(SocketDescriptorTest, NewSocketIsClosedOnExec) {
  const Descriptor next(dup(0));
  const int number = next.get() + 1;
  const Socket socket;
  EXPECT_EQ(fcntl(number, F_GETFD), FD_CLOEXEC);
}

TEST(SocketDescriptorTest, NoDescriptorLeftThrowsItsText) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  std::string thrown;
  try {
    const Socket socket;
  } catch (const char* text) {
    thrown = text;
  }
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(thrown, "INVALID_SOCKET");
}

TEST(SocketAddressTest, LoopbackNameHasItsDottedAddress) {
  std::array<char, 64> address{};
  EXPECT_EQ(Socket::GetIPAddr("localhost", address.data()), 0);
  EXPECT_STREQ(address.data(), "127.0.0.1");
}

TEST(SocketAddressTest, UnknownNameReturnsOneWithAnEmptyAddress) {
  std::array<char, 64> address{"before"};
  EXPECT_EQ(Socket::GetIPAddr("no such host", address.data()), 1);
  EXPECT_STREQ(address.data(), "");
}

TEST(SocketAddressTest, OwnNameIsThatOfTheHost) {
  std::array<char, 256> name{};
  ASSERT_EQ(gethostname(name.data(), name.size()), 0);
  std::array<char, 64> expected{};
  std::array<char, 64> own{"before"};
  const int known = Socket::GetIPAddr(name.data(), expected.data());
  EXPECT_EQ(Socket::GetIPAddr(own.data()), known);
  EXPECT_STREQ(own.data(), expected.data());
}

}  // namespace
