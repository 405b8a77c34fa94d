#include "relay/connector_socket_wrapper.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "net/sendbuf.h"
#include "relay/corvane_comms_exception.h"
#include "tests/relay/controller_fixture.h"
#include "tests/support/child_process.h"

namespace {

class DispatcherTest : public ControllerTest {
 protected:
  // The loop's result when the connector fails with `failure` in GetVersion.
  template <class Exception>
  int ServeFailing(const Exception& failure) {
    stub_->fail = [failure] { throw failure; };
    MasterSends("11 00 00 00");
    MasterSends("11 00 00 00");
    return Serve();
  }
};

TEST_F(DispatcherTest, ShutdownIsAnsweredAndEndsTheLoopWithZero) {
  MasterSends("f0 ff 00 00");
  MasterSends("11 00 00 00");
  EXPECT_EQ(Serve(), 0);
  EXPECT_EQ(replies_, "08 00 00 00 f0 ff 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, std::vector<std::string>{"Shutdown()"});
  EXPECT_EQ(Logged(), "Received header: 65520\nShutting down\n");
}

TEST_F(DispatcherTest, UnknownCodesAreNotAnsweredAndTheNextFrameIsServed) {
  for (const char* code :
       {"15 00 00 00", "00 00 00 00", "00 10 00 00", "01 10 00 00", "ff ff ff ff"}) {
    MasterSends(code);
  }
  MasterSends("07 00 00 00");
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(replies_, "08 00 00 00 07 00 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, std::vector<std::string>{"Newton()"});
}

TEST_F(DispatcherTest, RequestsOfOneSegmentAreServedInTheirOrder) {
  WriteAll(pair_.peer.get(), Bytes("04 00 00 00 07 00 00 00 04 00 00 00 11 00 00 00 "
                                   "04 00 00 00 f0 ff 00 00"));
  EXPECT_EQ(Serve(), 0);
  EXPECT_EQ(stub_->calls, (std::vector<std::string>{"Newton()", "GetVersion()", "Shutdown()"}));
}

// Every call of the connector leaves many freed pieces of memory behind, and after them one that
// is still in use.
class FreeMemoryTest : public ControllerTest {
 protected:
  // The pieces of one call have a kilobyte each.
  void EachCallLeaves(long pieces) {
    stub_->fail = [this, pieces] {
      std::vector<std::unique_ptr<char[]>> taken;
      for (long i = 0; i < pieces; ++i) {
        taken.push_back(std::make_unique<char[]>(1000));
        std::fill_n(taken.back().get(), 1000, 'x');
      }
      in_use_.push_back(std::move(taken.back()));
    };
  }

  // How much more memory this process has, in KiB, after `requests` were served than before.
  long KeptAfter(int requests) {
    for (int i = 0; i < requests; ++i) MasterSends("07 00 00 00");
    FillHoles();
    const long before = StatusValue(getpid(), "VmRSS");
    EXPECT_EQ(Serve(), 1);
    return StatusValue(getpid(), "VmRSS") - before;
  }

 private:
  // What other tests have left free would be used before the heap grows; a controller's process has
  // nothing of that kind.
  void FillHoles() {
    const void* end = sbrk(0);
    while (sbrk(0) == end) in_use_.push_back(std::make_unique<char[]>(1000));
  }

  std::vector<std::unique_ptr<char[]>> in_use_;
};

#if !defined(__SANITIZE_ADDRESS__)  // whose allocator is another
TEST_F(FreeMemoryTest, IsReturnedToTheSystemAfterALargeAnswer) {
  EachCallLeaves(20'000);
  EXPECT_LT(KeptAfter(1), 10'000);
}

TEST_F(FreeMemoryTest, IsReturnedAfterEachLargeAnswer) {
  EachCallLeaves(20'000);
  EXPECT_LT(KeptAfter(3), 10'000);
}

TEST_F(FreeMemoryTest, IsKeptForTheNextRequestAfterAnyOther) {
  EachCallLeaves(5'000);
  EXPECT_GT(KeptAfter(1), 4'000);
}
#endif

TEST_F(DispatcherTest, MasterThatLeavesEndsTheLoopWithOne) {
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(error_, "No or unexpected data received from Corvane");
  EXPECT_EQ(Logged(), "No or unexpected data received from Corvane\n");
}

TEST_F(DispatcherTest, EmptyFrameEndsTheLoopWithOne) {
  MasterSends("");
  MasterSends("07 00 00 00");
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(replies_, "");
}

TEST_F(DispatcherTest, FrameAboveTheBufferEndsTheLoopWithOne) {
  WriteAll(pair_.peer.get(), Bytes("01 00 01 00 07 00 00 00"));
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(error_, "No or unexpected data received from Corvane");
}

TEST_F(DispatcherTest, ConnectorFailureIsLoggedTwiceAndEndsTheLoopWithTwoWithoutReply) {
  EXPECT_EQ(ServeFailing(std::runtime_error("Connection timed out.")), 2);
  EXPECT_EQ(error_,
            "Failed to handle data packet received from master: Exception returned from VK "
            "controller: Connection timed out.");
  EXPECT_EQ(Logged(),
            "Received header: 17\n"
            "Exception returned from VK controller: Connection timed out.\n"
            "Failed to handle data packet received from master: Exception returned from VK "
            "controller: Connection timed out.\n");
  EXPECT_EQ(replies_, "");
  EXPECT_EQ(stub_->calls.size(), 1U);
}

TEST_F(DispatcherTest, FailureOfTheMastersDataHasItsOwnText) {
  EXPECT_EQ(ServeFailing(corvane_comms_exception("out of step")), 2);
  EXPECT_EQ(error_,
            "Failed to handle data packet received from master: Exception returned from Corvane "
            "comms: out of step");
}

TEST_F(DispatcherTest, OtherStandardExceptionsAreUnknown) {
  EXPECT_EQ(ServeFailing(std::invalid_argument("never shown")), 2);
  EXPECT_EQ(error_, "Failed to handle data packet received from master: Unknown exception");
}

TEST_F(DispatcherTest, ExceptionOfAnotherTypePassesThrough) {
  EXPECT_THROW(ServeFailing(7), int);
}

TEST_F(DispatcherTest, FailedShutdownEndsTheLoopWithTwo) {
  stub_->fail = [] { throw std::runtime_error("gone"); };
  MasterSends("f0 ff 00 00");
  EXPECT_EQ(Serve(), 2);
  EXPECT_EQ(replies_, "");
}

TEST_F(DispatcherTest, HandleReturnsZeroForUnknownCodesAndTheReasonOfAFailure) {
  const std::string body(65532, '\0');
  const auto* bytes = reinterpret_cast<const unsigned char*>(body.data());
  std::string error;
  EXPECT_EQ(controller_->Handle(21, bytes, error), 0);
  EXPECT_EQ(error, "");
  stub_->fail = [] { throw std::runtime_error("gone"); };
  EXPECT_EQ(controller_->Handle(7, bytes, error), 1);
  EXPECT_EQ(error, "Exception returned from VK controller: gone");
}

TEST_F(DispatcherTest, ReasonIsThatOfTheLatestFailure) {
  const std::string body(65532, '\0');
  const auto* bytes = reinterpret_cast<const unsigned char*>(body.data());
  std::string error = "before";
  stub_->fail = [] { throw corvane_comms_exception("a longer reason, and the first"); };
  EXPECT_EQ(controller_->Handle(7, bytes, error), 1);
  stub_->fail = [] { throw std::runtime_error("gone"); };
  EXPECT_EQ(controller_->Handle(7, bytes, error), 1);
  EXPECT_EQ(error, "Exception returned from VK controller: gone");
}

TEST_F(DispatcherTest, ReturnWithAckEndsAndSendsTheReply) {
  sendbuf reply;
  reply.Pack(5);
  EXPECT_EQ(controller_->ReturnWithAck(reply, 0, 3), 0);
  EXPECT_EQ(Hex(ReadExactly(pair_.peer.get(), 16)),
            "0c 00 00 00 03 00 00 00 05 00 00 00 00 00 00 00");
}

// Only the 2017.2 connector needs the simulator to attach a source; that of 2016.2 does nothing.
class VersionTest : public ControllerTest, public testing::WithParamInterface<int> {
 protected:
  int AttachSource() {
    ConnectorSocketWrapper controller(GetParam(), "node17", &socket_, 9001, 60, log_);
    MasterSends("12 00 00 00 01 00 00 00 57 01 00 00 00 53");
    MasterSends("f0 ff 00 00");
    return controller.ProcessRequests(error_);
  }
};

using Version2016Test = VersionTest;
using Version2017Test = VersionTest;

TEST_P(Version2016Test, IsChosenByItsCode) {
  EXPECT_EQ(AttachSource(), 0);
  EXPECT_EQ(Hex(ReadExactly(pair_.peer.get(), 16)),
            "0c 00 00 00 12 00 00 00 00 00 00 00 00 00 00 00");
}

TEST_P(Version2017Test, IsChosenByEveryOtherCode) {
  EXPECT_EQ(AttachSource(), 2);
  EXPECT_EQ(error_,
            "Failed to handle data packet received from master: Exception returned from VK "
            "controller: Not connected to the simulator");
}

INSTANTIATE_TEST_SUITE_P(Codes, Version2016Test, testing::Values(20162));
INSTANTIATE_TEST_SUITE_P(Codes, Version2017Test,
                         testing::Values(20161, 20163, 20170, 20172, 0, -1));

}  // namespace
