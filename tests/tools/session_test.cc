#include "tools/vkmaster/session/session.h"

#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/socket_pair.h"
#include "tests/tools/fake_daemon.h"
#include "tools/vkmaster/text/usage_error.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Le;
using testing::SizeIs;
using vkmaster::Session;
using vkmaster::UsageError;

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): only the framework destroys it
class SessionTest : public testing::Test {
 protected:
  SessionTest()
      : session_(master::Run(master::FrameChannel(std::move(pair_.ours))), {}),
        end_(pair_.peer.get()) {
    daemon_ = std::thread([this] { run_.Serve(end_); });
    session_.Connect();
  }
  ~SessionTest() override {
    if (!session_.shut_down()) session_.Shutdown();
    daemon_.join();
  }

  SocketPair pair_;
  FakeRun run_;
  Session session_;
  DaemonEnd end_;
  std::thread daemon_;
};

TEST_F(SessionTest, NamesPatternsAndListsAreResolvedInTheirOrder) {
  EXPECT_THAT(session_.Resolve({"I1", "P1"}), ElementsAre("I1", "P1"));
  EXPECT_THAT(session_.Resolve({"P2,P1"}), ElementsAre("P2", "P1"));
  EXPECT_THAT(session_.Resolve({"P*"}), ElementsAre("P1", "P2"));
  EXPECT_THAT(session_.Resolve({"all"}), ElementsAre("P1", "P2", "I1"));
  EXPECT_THAT(session_.Resolve({"P2", "*"}), ElementsAre("P2", "P1", "I1"));
  EXPECT_THAT(session_.Resolve({"P1,", ","}), ElementsAre("P1"));
}

TEST_F(SessionTest, OtherLetterCaseIsUnderstoodWhenUnique) {
  EXPECT_THAT(session_.Resolve({"p1"}), ElementsAre("P1"));
}

TEST_F(SessionTest, AmbiguousLetterCaseIsRefused) {
  run_.wells = {{"pa", "", ""}, {"PA", "", ""}};
  EXPECT_THAT(session_.Resolve({"PA"}), ElementsAre("PA"));
  EXPECT_THROW(session_.Resolve({"Pa"}), UsageError);
}

TEST_F(SessionTest, UnknownWellsAreRefused) {
  EXPECT_THROW(session_.Resolve({"P3"}), UsageError);
  EXPECT_THROW(session_.Resolve({"X*"}), UsageError);
}

TEST_F(SessionTest, WellThatTheModelAddsIsFoundByAskingAgain) {
  EXPECT_THAT(session_.Resolve({"P1"}), ElementsAre("P1"));
  run_.wells.push_back({"P3", "PRODUCER", "OPEN"});
  EXPECT_THAT(session_.Resolve({"P3"}), ElementsAre("P3"));
}

TEST_F(SessionTest, StartDateAndUnitsAreAskedForOnce) {
  session_.StartDate();
  session_.StartDate();
  session_.Metric();
  session_.Metric();
  EXPECT_THAT(end_.received(), SizeIs(3));
}

TEST_F(SessionTest, StatesThatTheDaemonWouldFailInAreRefusedHere) {
  EXPECT_THROW(session_.Connect(), UsageError);
  session_.FirstStep();
  EXPECT_THROW(session_.FirstStep(), UsageError);
  session_.Shutdown();
  EXPECT_THROW(session_.TimeDays(), UsageError);
  EXPECT_THROW(session_.Shutdown(), UsageError);
  EXPECT_THROW(session_.Connect(), UsageError);
}

TEST(Parts, NoPartIsLongerThanARequest) {
  const std::vector<std::string> names(10000, "NAME");
  std::vector<std::size_t> sizes;
  std::size_t count = 0;
  for (const auto& part : vkmaster::Parts(names, 8, 4)) {
    sizes.push_back(8 + part.size() * 12);
    count += part.size();
  }
  EXPECT_THAT(sizes, Each(Le(65536U)));
  EXPECT_THAT(sizes, SizeIs(2));
  EXPECT_EQ(count, 10000U);
  EXPECT_THAT(vkmaster::Parts({}, 8, 4), IsEmpty());
}

}  // namespace
