#include <sys/socket.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "master/errors.h"
#include "master/run.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"

namespace {

using master::Clock;
using std::chrono::milliseconds;

/// A run whose user has pressed Ctrl-C.
class ShutdownTest : public testing::Test {
 protected:
  void Reply(const std::string& hex) { WriteAll(pair_.peer.get(), Frame(Bytes(hex))); }
  std::string Sent() { return Hex(Arrived(pair_.peer.get())); }

  template <typename Call>
  void Interrupt(const Call& call) {
    SocketPair wake;
    WriteAll(wake.peer.get(), "!");
    run_.channel().WakeOn(wake.ours.get());
    EXPECT_THROW(call(), master::Interrupted);
    run_.channel().WakeOn(-1);
  }

  // The same, but only when all that has been answered is read.
  template <typename Call>
  void InterruptLater(const Call& call) {
    SocketPair wake;
    run_.channel().WakeOn(wake.ours.get());
    run_.channel().OnWait(milliseconds(1), [&] { WriteAll(wake.peer.get(), "!"); });
    EXPECT_THROW(call(), master::Interrupted);
    run_.channel().WakeOn(-1);
  }

  SocketPair pair_;
  master::Run run_{master::FrameChannel(std::move(pair_.ours))};
};

TEST_F(ShutdownTest, IdleRunIsShutDown) {
  Reply("f0ff0000 00000000");
  EXPECT_TRUE(run_.ShutdownWithin({}));
  EXPECT_EQ(Sent(), "04 00 00 00 f0 ff 00 00");
}

TEST_F(ShutdownTest, AnswerStillDueIsPassedOver) {
  Interrupt([&] { run_.RunUntil(365.25); });
  EXPECT_EQ(Sent(), "0c 00 00 00 08 00 00 00 00 00 00 00 00 d4 76 40");
  Reply("08000000 00000000");
  Reply("f0ff0000 00000000");
  EXPECT_TRUE(run_.ShutdownWithin({}));
  EXPECT_EQ(Sent(), "04 00 00 00 f0 ff 00 00");
}

TEST_F(ShutdownTest, RecordRequestsDueGoOutBeforeTheShutdown) {
  Interrupt([&] { run_.GetWellData({"P1", "P2"}); });
  Sent();
  Reply("f0ff0000 00000000");
  EXPECT_TRUE(run_.ShutdownWithin({}));
  EXPECT_EQ(Sent(), Hex(Bytes("04000000 00100000 04000000 00100000 04000000 f0ff0000")));
}

TEST_F(ShutdownTest, RecordRequestsOfInflowTablesGoOutBeforeTheShutdown) {
  Interrupt([&] { run_.GetWellIPRData({.wells = {"P1"}}); });
  Sent();
  Reply("f0ff0000 00000000");
  EXPECT_TRUE(run_.ShutdownWithin({}));
  EXPECT_EQ(Sent(), Hex(Bytes("04000000 01100000 04000000 f0ff0000")));
}

TEST_F(ShutdownTest, RecordsAlreadyAskedForAreNotAskedForAgain) {
  Reply("0a000000 02000000 00000000");
  InterruptLater([&] { run_.GetWellData({"P1", "P2"}); });
  EXPECT_EQ(Sent(), Hex(Bytes("14000000 0a000000 02000000 02000000 5031 02000000 5032"
                              "04000000 00100000 04000000 00100000")));
  Reply("f0ff0000 00000000");
  EXPECT_TRUE(run_.ShutdownWithin({}));
  EXPECT_EQ(Sent(), "04 00 00 00 f0 ff 00 00");
}

TEST_F(ShutdownTest, OneByOneTheRecordsStillDueGoOutBeforeTheShutdown) {
  run_.AskOneByOne();
  Reply("0a000000 02000000 00000000");
  InterruptLater([&] { run_.GetWellData({"P1", "P2"}); });
  Sent();
  Reply("f0ff0000 00000000");
  EXPECT_TRUE(run_.ShutdownWithin({}));
  EXPECT_EQ(Sent(), Hex(Bytes("04000000 00100000 04000000 f0ff0000")));
}

// The second group has been asked for after the records of the first, but not its records.
TEST_F(ShutdownTest, RecordsOfAGroupSentAheadGoOutBeforeTheShutdown) {
  const std::vector<std::string> wells(2, std::string(40000, 'W'));
  Reply("0a000000 01000000 00000000");
  InterruptLater([&] { run_.GetWellData(wells); });
  const std::string asked = Arrived(pair_.peer.get());
  EXPECT_EQ(asked.size(), 2 * (4U + 12 + 40000) + 8);
  Reply("f0ff0000 00000000");
  EXPECT_TRUE(run_.ShutdownWithin({}));
  EXPECT_EQ(Sent(), Hex(Bytes("04000000 00100000 04000000 f0ff0000")));
}

TEST_F(ShutdownTest, RequestThatWasTooLongToBeSentLeavesNoRecordsDue) {
  EXPECT_THROW(run_.GetWellData({"P1", std::string(65536, 'W')}), master::RequestTooLong);
  EXPECT_THROW(run_.GetWellIPRData({.wells = std::vector<std::string>(10000, "WELL")}),
               master::RequestTooLong);
  Reply("f0ff0000 00000000");
  EXPECT_TRUE(run_.ShutdownWithin({}));
  EXPECT_EQ(Sent(), "04 00 00 00 f0 ff 00 00");
}

TEST_F(ShutdownTest, BusyDaemonIsNotWaitedForBeyondTheDeadline) {
  Interrupt([&] { run_.RunUntil(365.25); });
  EXPECT_FALSE(run_.ShutdownWithin(Clock::now() + milliseconds(10)));
}

TEST_F(ShutdownTest, EndOfConnectionInsteadOfTheAcknowledgementIsAFailedRequest) {
  shutdown(pair_.peer.get(), SHUT_WR);
  EXPECT_THROW(run_.ShutdownWithin({}), master::RequestFailed);
}

}  // namespace
