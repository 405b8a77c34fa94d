#include <errno.h>
#include <sys/socket.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "net/socket.h"
#include "tests/allocation/failing_allocations.h"
#include "tests/allocation/frames.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"

// The socket layer never throws: what there is no memory for fails like a broken connection.

namespace {

class SocketWithoutMemory : public testing::Test {
 protected:
  // Runs `body` while the allocation number `first` and all later ones fail.
  static void WithoutMemory(long first, const std::function<void()>& body) {
    const FailingAllocations failures(first, Failing::kForGood);
    errno = 0;
    body();
  }

  // What has been sent to the peer.
  std::string Sent() {
    shutdown(pair_.peer.get(), SHUT_WR);
    socket_.Close();
    return ReadExactly(pair_.peer.get(), 1 << 16);
  }

  SocketPair pair_;
  Socket socket_{pair_.ours.Release()};
};

TEST_F(SocketWithoutMemory, LineThatCannotBeKeptIsAFailedReceive) {
  const std::string line(10'000, 'x');
  for (const long first : {1L, 2L}) {
    SCOPED_TRACE(first);
    WriteAll(pair_.peer.get(), Frame(line));
    std::string received = "x";
    int length = 99;
    int error = 0;
    WithoutMemory(first, [&] {
      received = socket_.ReceiveLine(length);
      error = errno;
    });
    EXPECT_EQ(received, "");
    EXPECT_EQ(length, 0);
    EXPECT_EQ(error, ENOMEM);
    socket_.ReceiveBytes();  // the rest of the line
  }
  WriteAll(pair_.peer.get(), Frame(line));
  int length = 0;
  EXPECT_EQ(socket_.ReceiveLine(length), line);
}

TEST_F(SocketWithoutMemory, BytesThatCannotBeKeptAreNotReceived) {
  WriteAll(pair_.peer.get(), std::string(1000, 'x'));
  std::string received = "x";
  WithoutMemory(1, [&] { received = socket_.ReceiveBytes(); });
  EXPECT_EQ(received, "");
}

TEST_F(SocketWithoutMemory, LineThatCannotBeBuiltIsAFailedSend) {
  const std::string line(1000, 'x');
  int result = 0;
  int result_of_bytes = 0;
  int error = 0;
  WithoutMemory(1, [&] {
    result = socket_.SendLine(line);
    error = errno;
    result_of_bytes = socket_.SendLine(line.data(), 1000);
  });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(error, ENOMEM);
  EXPECT_EQ(result_of_bytes, 1);
  EXPECT_EQ(socket_.SendLine("next"), 8);
  EXPECT_EQ(Sent(), Frame("next"));
}

}  // namespace
