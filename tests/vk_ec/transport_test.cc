#include "vk_ec/transport.h"

#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/answered_call.h"
#include "tests/support/socket_pair.h"
#include "tests/support/text_of_child.h"
#include "tests/support/wire_bytes.h"

namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::ThrowsMessage;
using vk_ec::RecvMessage;
using vk_ec::SendMessage;
using vk_ec::StreamSocket;
using vk_ec::Transporter;
using Buffer = std::vector<unsigned char>;

class TransportTest : public ::testing::Test {
 protected:
  void HangUp() { pair_.peer.Reset(); }

  void Send(const std::string& message) {
    const Buffer bytes(message.begin(), message.end());
    transporter_.send(SendMessage(bytes.data(), bytes.size()));
  }

  std::string Receive() {
    Buffer buffer;
    transporter_.recv(buffer);
    return {buffer.begin(), buffer.end()};
  }

  SocketPair pair_;
  int peer_ = pair_.peer.get();
  int descriptor_ = pair_.ours.Release();
  Transporter transporter_{descriptor_};
};

std::string Pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
  return text;
}

TEST_F(TransportTest, ShortMessageIsTotalThenLengthThenBytes) {
  Send("hello");
  EXPECT_EQ(ReadExactly(peer_, 21),
            Bytes("05 00 00 00 00 00 00 00  05 00 00 00 00 00 00 00  'hello'"));
  EXPECT_THAT(Arrived(peer_), IsEmpty());
}

TEST_F(TransportTest, EmptyMessageIsTheInitialHeaderAlone) {
  Send("");
  EXPECT_EQ(ReadExactly(peer_, 16), Bytes("00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00"));
  EXPECT_THAT(Arrived(peer_), IsEmpty());
}

// The second send of the message that is sent in the child.
std::size_t left_to_send = 0;
long SendAllButOneByte() {
  const auto* message = static_cast<const msghdr*>(AnsweredBuffer());
  std::size_t size = 0;
  for (std::size_t i = 0; i < message->msg_iovlen; ++i) size += message->msg_iov[i].iov_len;
  if (left_to_send == 0) return static_cast<long>(left_to_send = size) - 1;
  left_to_send = size;
  return static_cast<long>(size);
}

TEST_F(TransportTest, LastByteThatTheSystemDoesNotTakeAtOnceFollows) {
  const auto left = TextOfChild([this]() -> std::optional<std::string> {
    if (!AnswerCall(SYS_sendmsg, SendAllButOneByte)) return std::nullopt;
    Send("hello");
    return std::to_string(left_to_send);
  });
  if (!left) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*left, "1");
}

TEST_F(TransportTest, MessageOf65536BytesIsOneChunk) {
  const std::string message = Pattern(65536);
  Send(message);
  EXPECT_EQ(ReadExactly(peer_, 16 + 65536),
            Bytes("00 00 01 00 00 00 00 00  00 00 01 00 00 00 00 00") + message);
  EXPECT_THAT(Arrived(peer_), IsEmpty());
}

TEST_F(TransportTest, MessageOf65537BytesHasASecondChunkOfOneByte) {
  const std::string message = Pattern(65537);
  Send(message);
  EXPECT_EQ(ReadExactly(peer_, 16 + 65536 + 8 + 1),
            Bytes("01 00 01 00 00 00 00 00  00 00 01 00 00 00 00 00") + message.substr(0, 65536) +
                Bytes("01 00 00 00 00 00 00 00") + message.substr(65536));
  EXPECT_THAT(Arrived(peer_), IsEmpty());
}

TEST_F(TransportTest, EveryChunkButTheLastIsFull) {
  const std::string message = Pattern(196608);
  std::string received;
  std::thread reader([&] { received = ReadExactly(peer_, 16 + 196608 + 16); });
  Send(message);
  reader.join();
  const std::string full = Bytes("00 00 01 00 00 00 00 00");
  EXPECT_EQ(received, Bytes("00 00 03 00 00 00 00 00") + full + message.substr(0, 65536) + full +
                          message.substr(65536, 65536) + full + message.substr(131072));
}

TEST_F(TransportTest, PartsOfASendCanBeWrittenAlone) {
  StreamSocket socket(dup(descriptor_));
  SendMessage::send_initial_header(3, 2, socket);
  SendMessage::send_header(1, socket);
  const Buffer bytes{'a', 'b'};
  SendMessage::send_buffer(bytes.data(), bytes.size(), socket);
  EXPECT_EQ(ReadExactly(peer_, 26), Bytes("03 00 00 00 00 00 00 00  02 00 00 00 00 00 00 00"
                                          "01 00 00 00 00 00 00 00  'ab'"));
}

TEST_F(TransportTest, PartsOfAReceptionCanBeReadAlone) {
  StreamSocket socket(dup(descriptor_));
  WriteAll(peer_, Bytes("03 00 00 00 00 00 00 00  02 00 00 00 00 00 00 00"
                        "01 00 00 00 00 00 00 00  'abcd'"));
  EXPECT_EQ(RecvMessage::read_initial_header(socket),
            std::make_pair(std::uint64_t{3}, std::uint64_t{2}));
  EXPECT_EQ(RecvMessage::read_header(socket), 1U);
  Buffer bytes(4);
  RecvMessage::read_payload(bytes.data(), 2, socket);
  RecvMessage::receive_buffer(bytes.data() + 2, 2, socket);
  EXPECT_EQ(bytes, (Buffer{'a', 'b', 'c', 'd'}));
}

TEST_F(TransportTest, MessageIsAssembledFromChunksOfAnyLength) {
  const std::string message = Pattern(250);
  WriteAll(peer_, Bytes("fa 00 00 00 00 00 00 00  64 00 00 00 00 00 00 00") +
                      message.substr(0, 100) + Bytes("64 00 00 00 00 00 00 00") +
                      message.substr(100, 100) + Bytes("32 00 00 00 00 00 00 00") +
                      message.substr(200));
  EXPECT_EQ(Receive(), message);
}

TEST_F(TransportTest, ByteThatComesAloneIsAwaited) {
  WriteAll(peer_, Bytes("01 00 00 00 00 00 00 00  01 00 00 00 00 00 00 00"));
  std::thread writer([&] {
    int waiting = 1;
    while (ioctl(descriptor_, FIONREAD, &waiting) == 0 && waiting > 0) std::this_thread::yield();
    WriteAll(peer_, "x");
  });
  EXPECT_EQ(Receive(), "x");
  writer.join();
}

TEST_F(TransportTest, ChunkMayBeLongerThanASenderWouldCutIt) {
  const std::string message = Pattern(100000);
  WriteAll(peer_, Bytes("a0 86 01 00 00 00 00 00  a0 86 01 00 00 00 00 00") + message);
  EXPECT_EQ(Receive(), message);
}

TEST_F(TransportTest, TotalOfZeroIsAnEmptyMessage) {
  WriteAll(peer_, Bytes("00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00") + wire::Framed("next"));
  EXPECT_EQ(Receive(), "");
  EXPECT_EQ(Receive(), "next");
}

TEST_F(TransportTest, TotalOfZeroIsAnEmptyMessageWhateverFirstChunkItAnnounces) {
  WriteAll(peer_, Bytes("00 00 00 00 00 00 00 00  05 00 00 00 00 00 00 00") + wire::Framed("next"));
  EXPECT_EQ(Receive(), "");
  EXPECT_EQ(Receive(), "next");
}

// What left, and in how many segments, when this message was sent over TCP.
std::pair<int, int> SentOverTcp(const std::string& message) {
  TcpPair pair;
  const int sender = pair.ours.get();
  tcp_info info{};
  socklen_t size = sizeof(info);
  int arrived = 0;
  {
    Transporter transporter(pair.ours.Release());
    transporter.send(
        SendMessage(reinterpret_cast<const unsigned char*>(message.data()), message.size()));
    getsockopt(sender, IPPROTO_TCP, TCP_INFO, &info, &size);
    // Over loopback it has arrived by now, or waits for more to travel with.
    ioctl(pair.peer.get(), FIONREAD, &arrived);
  }
  return {arrived, static_cast<int>(info.tcpi_data_segs_out)};
}

TEST(TransportOverTcpTest, HeaderTravelsWithItsChunkAndAnEmptyMessageAtOnce) {
  EXPECT_EQ(SentOverTcp("x"), std::make_pair(17, 1));
  EXPECT_EQ(SentOverTcp(""), std::make_pair(16, 1));
}

TEST_F(TransportTest, FirstChunkLongerThanTheTotalIsRefused) {
  WriteAll(peer_, Bytes("0a 00 00 00 00 00 00 00  14 00 00 00 00 00 00 00"));
  HangUp();
  EXPECT_THAT([&] { Receive(); }, ThrowsMessage<std::length_error>(
                                      "Incorrect length in header (received: 20 vs allowed:10)"));
}

TEST_F(TransportTest, LaterChunkLongerThanWhatIsDueIsRefusedAndTheBufferStaysFilled) {
  WriteAll(peer_, Bytes("0a 00 00 00 00 00 00 00  04 00 00 00 00 00 00 00  'abcd'"
                        "ff ff ff ff ff ff ff ff"));
  HangUp();
  Buffer buffer;
  EXPECT_THAT([&] { transporter_.recv(buffer); },
              ThrowsMessage<std::length_error>("Incorrect length in header (received: "
                                               "18446744073709551615 vs allowed:6)"));
  EXPECT_THAT(buffer, SizeIs(10));
}

TEST_F(TransportTest, LaterChunkIsComparedWithWhatIsDueRatherThanWithTheTotal) {
  WriteAll(peer_, Bytes("0a 00 00 00 00 00 00 00  04 00 00 00 00 00 00 00  'abcd'"
                        "07 00 00 00 00 00 00 00"));
  HangUp();
  EXPECT_THAT([&] { Receive(); }, ThrowsMessage<std::length_error>(
                                      "Incorrect length in header (received: 7 vs allowed:6)"));
}

TEST_F(TransportTest, ZeroChunkAfterAShortFirstOneIsRefused) {
  WriteAll(peer_, Bytes("0a 00 00 00 00 00 00 00  04 00 00 00 00 00 00 00  'abcd'"
                        "00 00 00 00 00 00 00 00"));
  HangUp();
  EXPECT_THAT([&] { Receive(); },
              ThrowsMessage<std::length_error>("Incorrect zero chunk length received."));
}

// Only the length of a later chunk is compared with 0.
TEST_F(TransportTest, FirstChunkOfLengthZeroIsFollowedByTheNextOne) {
  WriteAll(peer_, Bytes("02 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00"
                        "02 00 00 00 00 00 00 00  'ab'"));
  EXPECT_EQ(Receive(), "ab");
}

TEST_F(TransportTest, NothingIsReadIntoAFilledBuffer) {
  WriteAll(peer_, wire::Framed("kept"));
  Buffer buffer{'x'};
  EXPECT_THAT([&] { transporter_.recv(buffer); },
              ThrowsMessage<std::logic_error>(
                  "Cannot receive a message as the previous message is still on going."));
  EXPECT_EQ(buffer, Buffer{'x'});
  EXPECT_EQ(Receive(), "kept");
}

TEST_F(TransportTest, FinalizeEmptiesTheBuffer) {
  StreamSocket socket(dup(descriptor_));
  WriteAll(peer_, wire::Framed("ab"));
  Buffer buffer;
  RecvMessage message(socket, buffer);
  EXPECT_THAT(buffer, SizeIs(2));
  message.finalize();
  EXPECT_THAT(buffer, IsEmpty());
}

// What the buffer of a message of `total` bytes takes up to where the peer leaves.
class EarnedMemoryTest : public TransportTest {
 protected:
  std::size_t CapacityAfter(std::uint64_t total, std::size_t arriving) {
    const std::string bytes = Image(total) + Image(total) + Pattern(arriving);
    std::thread writer([&] {
      WriteAll(peer_, bytes);
      HangUp();
    });
    Buffer buffer;
    EXPECT_THAT([&] { transporter_.recv(buffer); },
                ThrowsMessage<std::runtime_error>("read: End of file"));
    writer.join();
    EXPECT_GT(buffer.size(), 0U);  // which refuses every later message
    return buffer.capacity();
  }
};

constexpr std::uint64_t kTrusted = 64 << 20;

TEST_F(EarnedMemoryTest, TrustedTotalIsMadeRoomForAtOnce) {
  EXPECT_EQ(CapacityAfter(kTrusted, 3), kTrusted);
}

// A number off the wire must not take memory that its bytes have not earned.
TEST_F(EarnedMemoryTest, LargerTotalTakesNextToNothingBeforeItsBytesArrive) {
  EXPECT_LE(CapacityAfter(kTrusted + 1, 3), 65536U);
}

TEST_F(EarnedMemoryTest, HugeTotalTakesNextToNothingBeforeItsBytesArrive) {
  EXPECT_LE(CapacityAfter(std::uint64_t{1} << 60, 3), 65536U);
}

TEST_F(EarnedMemoryTest, BufferOfALargerTotalAtMostDoublesWhatHasArrived) {
  EXPECT_LE(CapacityAfter(std::uint64_t{1} << 60, 1'000'000), 2'000'000U);
}

TEST_F(EarnedMemoryTest, BufferAtMostDoublesWhatHasArrivedBeyondTheTrustedLengthToo) {
  EXPECT_LE(CapacityAfter(std::uint64_t{1} << 60, kTrusted + 1), 2 * kTrusted);
}

#if !defined(__SANITIZE_ADDRESS__)  // which needs more addresses than a limit leaves
TEST_F(TransportTest, NothingIsReadFromTheMiddleOfAMessageThereWasNoMemoryFor) {
  WriteAll(peer_, Bytes("00 00 00 04 00 00 00 00  00 00 00 04 00 00 00 00  'few'"));
  rlimit before{};
  getrlimit(RLIMIT_AS, &before);
  const rlimit tight{32U << 20, before.rlim_max};
  setrlimit(RLIMIT_AS, &tight);
  Buffer buffer;
  EXPECT_THROW(transporter_.recv(buffer), std::bad_alloc);
  setrlimit(RLIMIT_AS, &before);
  EXPECT_THROW(transporter_.recv(buffer), std::logic_error);
}
#endif

TEST_F(TransportTest, MessageAboveTheTrustedLengthArrivesWhole) {
  const std::string message = Pattern(RecvMessage::kTrustedTotal + 100001);
  std::thread writer([&] { WriteAll(peer_, wire::Framed(message)); });
  const std::string received = Receive();
  writer.join();
  EXPECT_TRUE(received == message);
}

TEST_F(TransportTest, ReadFromAClosedPeerIsEndOfFile) {
  HangUp();
  EXPECT_THAT([&] { Receive(); }, ThrowsMessage<std::runtime_error>("read: End of file"));
}

TEST_F(TransportTest, MessageCutByThePeerIsEndOfFile) {
  WriteAll(peer_, wire::Framed("hello").substr(0, 18));
  HangUp();
  EXPECT_THAT([&] { Receive(); }, ThrowsMessage<std::runtime_error>("read: End of file"));
}

TEST_F(TransportTest, WriteToAClosedPeerIsABrokenPipeAndNoSignal) {
  HangUp();
  EXPECT_THAT([&] { Send("hello"); }, ThrowsMessage<std::runtime_error>("write: Broken pipe"));
}

TEST_F(TransportTest, UnopenedClientHasABadDescriptor) {
  vk_ec::ClientTransporter transporter;
  Buffer buffer;
  EXPECT_THAT([&] { transporter.send(SendMessage(nullptr, 0)); },
              ThrowsMessage<std::runtime_error>("write: Bad file descriptor"));
  EXPECT_THAT([&] { transporter.recv(buffer); },
              ThrowsMessage<std::runtime_error>("read: Bad file descriptor"));
}

// A program that is started later must not keep the simulator's connection open.
TEST_F(TransportTest, DescriptorThatIsTakenOverIsClosedOnExec) {
  const int descriptor = dup(descriptor_);
  ASSERT_EQ(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
  const StreamSocket socket(descriptor);
  EXPECT_EQ(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(TransportTest, DescriptorIsClosedWithTheTransporter) {
  SocketPair pair;
  const int descriptor = pair.ours.Release();
  { const Transporter transporter(descriptor); }
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

std::atomic<int> signals_seen{0};

// The children of the program end while it waits for the simulator.
class InterruptedTransportTest : public TransportTest {
 protected:
  void SetUp() override {
    signals_seen = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals_seen; };  // No SA_RESTART: calls fail with EINTR.
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before_), 0);
  }
  void TearDown() override {
    sigaction(SIGUSR1, &before_, nullptr);
    TransportTest::TearDown();
  }

  // Runs `transfer` beside the test, which has to Join() it.
  template <class Transfer>
  void Begin(Transfer transfer) {
    thread_ = std::thread([this, transfer] {
      try {
        transfer();
      } catch (const std::exception& failure) {
        failure_ = failure.what();
      }
      over_ = true;
    });
  }

  // Signals until one must have hit the transfer, which waits for the test.
  void Interrupt() {
    while (signals_seen < 100 && !over_) {
      pthread_kill(thread_.native_handle(), SIGUSR1);
      std::this_thread::yield();
    }
  }

  void Join() {
    thread_.join();
    EXPECT_EQ(failure_, "");
  }

  bool over() const { return over_; }

 private:
  struct sigaction before_ {};
  std::thread thread_;
  std::string failure_;
  std::atomic<bool> over_{false};
};

TEST_F(InterruptedTransportTest, SignalDoesNotEndAReception) {
  std::string received;
  Begin([&] { received = Receive(); });
  // The message is completed only then.
  WriteAll(peer_, wire::Framed("hello").substr(0, 18));
  Interrupt();
  WriteAll(peer_, wire::Framed("hello").substr(18));
  Join();
  EXPECT_EQ(received, "hello");
}

TEST_F(InterruptedTransportTest, SignalDoesNotEndASend) {
  const std::string message = Pattern(4 << 20);  // more than the sockets hold
  Begin([&] { Send(message); });
  pollfd room{descriptor_, POLLOUT, 0};
  while (poll(&room, 1, 0) > 0 && !over()) std::this_thread::yield();
  Interrupt();
  const std::string expected = wire::Framed(message);
  EXPECT_TRUE(ReadExactly(peer_, expected.size()) == expected);
  Join();
}

TEST(DefaultPortTest, DefaultPortIs9001) {
  EXPECT_EQ(Transporter::default_port(), 9001U);
}

}  // namespace
