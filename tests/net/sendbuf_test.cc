#include "net/sendbuf.h"

#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "net/socket.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/sanitized.h"
#include "tests/support/socket_pair.h"

namespace {

thread_local bool memory_is_short = false;
thread_local bool sending_raises = false;

}  // namespace

// The whole program's, so that an allocation can be refused.
void* operator new(std::size_t size) {
  void* memory = memory_is_short ? nullptr : malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  free(memory);
}

// The whole program's, too, so that the socket layer can be left by an exception.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system's are reserved
ssize_t send(int socket, const void* bytes, std::size_t size, int flags) {
  if (sending_raises) throw std::runtime_error("send");
  return sendto(socket, bytes, size, flags, nullptr, 0);
}

namespace {

class SendbufTest : public testing::Test {
 protected:
  SendbufTest() : child_(pair_.ours.Release()) {}

  // The whole frame that Send() gave to the master.
  std::string Sent(unsigned code, int expected_result = 0) {
    EXPECT_EQ(reply_.Send(&child_, code), expected_result);
    child_.Close();
    return Hex(ReadExactly(pair_.peer.get(), 100'000));
  }

  SocketPair pair_;
  Socket child_;
  sendbuf reply_;
};

TEST_F(SendbufTest, ReplyIsLengthThenCodeThenValues) {
  reply_.Pack(0);
  EXPECT_EQ(Sent(17), "08 00 00 00 11 00 00 00 00 00 00 00");
}

TEST_F(SendbufTest, EmptyReplyIsTheCodeTwice) {
  EXPECT_EQ(Sent(5), "08 00 00 00 05 00 00 00 05 00 00 00");
}

TEST_F(SendbufTest, NumbersAreLittleEndian) {
  reply_.Pack(-2);
  reply_.Pack(1.5);
  EXPECT_EQ(Sent(65520), "10 00 00 00 f0 ff 00 00 fe ff ff ff 00 00 00 00 00 00 f8 3f");
}

TEST_F(SendbufTest, TextIsLengthThenCharacters) {
  reply_.Pack(std::string("AB"));
  EXPECT_EQ(Sent(1), "0a 00 00 00 01 00 00 00 02 00 00 00 41 42");
}

TEST_F(SendbufTest, ArraysAndCharactersHaveNoCount) {
  std::array<int, 2> ints{1, 2};
  std::array<double, 2> doubles{-1.0, 2.0};
  std::array<float, 3> floats{0.5F, 1, -1};
  reply_.Pack(ints.data(), 2);
  reply_.Pack(doubles.data(), 2);
  reply_.Pack(floats.data(), 3);
  reply_.Pack("xyz", 3);
  EXPECT_EQ(Sent(2),
            "2b 00 00 00 02 00 00 00 01 00 00 00 02 00 00 00 00 00 00 00 00 00 f0 bf "
            "00 00 00 00 00 00 00 40 00 00 00 3f 00 00 80 3f 00 00 80 bf 78 79 7a");
}

TEST_F(SendbufTest, ArraysWithoutElementsAppendNothing) {
  reply_.Pack(static_cast<int*>(nullptr), 0);
  reply_.Pack(static_cast<double*>(nullptr), -1);
  reply_.Pack(static_cast<const char*>(nullptr), 0);
  EXPECT_EQ(reply_.used(), 0);
}

TEST_F(SendbufTest, StartsWithTenBytesAndGrowsByTens) {
  EXPECT_EQ(reply_.capacity(), 10);
  std::array<int, 3> ints{1, 2, 3};
  reply_.Pack(ints.data(), 3);
  EXPECT_EQ(reply_.used(), 12);
  EXPECT_EQ(reply_.capacity(), 20);
}

TEST_F(SendbufTest, ExactFitDoesNotGrow) {
  reply_.Pack("0123456789", 10);
  EXPECT_EQ(reply_.capacity(), 10);
  reply_.Pack("!", 1);
  EXPECT_EQ(reply_.capacity(), 20);
}

TEST_F(SendbufTest, PrePackMakesRoomOnceAndKeepsWhatIsThere) {
  reply_.Pack(7);
  reply_.PrePack(1000);
  EXPECT_EQ(reply_.capacity(), 1010);
  EXPECT_EQ(reply_.used(), 4);
  reply_.PrePack(5);
  EXPECT_EQ(reply_.capacity(), 1010);
  EXPECT_EQ(Sent(3), "08 00 00 00 03 00 00 00 07 00 00 00");
}

TEST_F(SendbufTest, PrePackCountsWhatIsThere) {
  reply_.Pack(7);
  reply_.PrePack(6);
  EXPECT_EQ(reply_.capacity(), 10);
  reply_.PrePack(7);
  EXPECT_EQ(reply_.capacity(), 20);
  EXPECT_EQ(Sent(3), "08 00 00 00 03 00 00 00 07 00 00 00");
}

TEST_F(SendbufTest, RoomThatEndsAtAStepIsNotOneStepLarger) {
  reply_.PrePack(30);
  EXPECT_EQ(reply_.capacity(), 30);
  reply_.PrePack(31);
  EXPECT_EQ(reply_.capacity(), 40);
}

TEST_F(SendbufTest, MoreThanALengthCanSayIsRefused) {
  reply_.Pack(7);
  EXPECT_THROW(reply_.PrePack(std::numeric_limits<int>::max()), std::length_error);
  EXPECT_EQ(reply_.used(), 4);
}

TEST_F(SendbufTest, SendKeepsTheContent) {
  reply_.Pack(0);
  EXPECT_EQ(reply_.Send(&child_, 9), 0);
  EXPECT_EQ(Sent(9), "08 00 00 00 09 00 00 00 00 00 00 00 08 00 00 00 09 00 00 00 00 00 00 00");
}

TEST_F(SendbufTest, PackedReplyNeedsNoMemoryToLeave) {
  reply_.Pack(0);
  memory_is_short = true;
  const int result = reply_.Send(&child_, 9);
  memory_is_short = false;
  EXPECT_EQ(result, 0);
  child_.Close();
  EXPECT_EQ(Hex(ReadExactly(pair_.peer.get(), 100)), "08 00 00 00 09 00 00 00 00 00 00 00");
}

TEST_F(SendbufTest, TextTakesTheRoomThatItsPartsWould) {
  reply_.Pack(std::string("123456"));
  EXPECT_EQ(reply_.capacity(), 10);
  reply_.Pack(std::string());
  EXPECT_EQ(reply_.used(), 14);
  EXPECT_EQ(reply_.capacity(), 20);
  reply_.Pack(std::string("1234567"));
  EXPECT_EQ(reply_.used(), 25);
  EXPECT_EQ(reply_.capacity(), 30);
}

TEST_F(SendbufTest, ExceptionWhileSendingReturnsThreeAndKeepsTheContent) {
  reply_.Pack(7);
  sending_raises = true;
  const int result = reply_.Send(&child_, 9);
  sending_raises = false;
  EXPECT_EQ(result, 3);
  EXPECT_EQ(Sent(9), "08 00 00 00 09 00 00 00 07 00 00 00");
}

TEST_F(SendbufTest, FailedSendReturnsOne) {
  child_.Close();
  reply_.Pack(0);
  EXPECT_EQ(reply_.Send(&child_, 9), 1);
}

// What a reply of 64 MB is sent with, to a master that reads, by a process that may then have
// `more` megabytes in addition.
int ResultWithMemory(std::size_t more) {
  constexpr int size = 64'000'000;
  SocketPair pair;
  ChildProcess::Options reading;
  reading.in_child = [&pair] {
    pair.ours.Reset();
    return ReadExactly(pair.peer.get(), size + 8).empty() ? 1 : 0;
  };
  const ChildProcess master({}, reading);
  ChildProcess::Options sending;
  sending.in_child = [&pair, more] {
    pair.peer.Reset();
    Socket socket(pair.ours.Release());
    sendbuf reply;
    reply.PrePack(size);
    reply.Pack(std::string(size, '\0').data(), size);
    const auto used = static_cast<std::size_t>(StatusValue(getpid(), "VmSize")) * 1024;
    const rlimit limit{used + more * 1'000'000, used + more * 1'000'000};
    return setrlimit(RLIMIT_AS, &limit) == 0 ? reply.Send(&socket, 9) : -1;
  };
  ChildProcess child({}, sending);
  return child.Wait(std::chrono::seconds(20)).value_or(-1);
}

TEST(SendbufMemoryTest, LargeReplyLeavesFromWhereItWasPacked) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer ends a process that lacks memory";
  EXPECT_EQ(ResultWithMemory(1), 0);
}

}  // namespace
