#include "tools/vkmaster/command_line/hints.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/errors.h"
#include "tools/vkmaster/text/usage_error.h"

namespace {

using testing::HasSubstr;
using vkmaster::CommsLog;
using vkmaster::Explain;

TEST(CommsLog, IsPathAndRootWithoutASlashBetween) {
  EXPECT_EQ(CommsLog({.path = "/data/run", .root = "CASE"}), "/data/runCASE.crvnlog");
}

TEST(CommsLog, HasTheClusterNumberInItsName) {
  EXPECT_EQ(CommsLog({.cluster = "3", .path = "/data/", .root = "CASE"}), "/data/CASE_3.crvnlog");
  EXPECT_EQ(CommsLog({.cluster = "9", .path = "/data/", .root = "CASE"}), "/data/CASE_9.crvnlog");
  EXPECT_EQ(CommsLog({.cluster = "0", .path = "/data/", .root = "CASE"}), "/data/CASE.crvnlog");
}

TEST(Explain, EveryKindOfErrorHasItsStatus) {
  const vkmaster::Launched run;
  EXPECT_EQ(Explain(vkmaster::UsageError("x"), run, false).status, 2);
  EXPECT_EQ(Explain(master::RequestTooLong("x"), run, false).status, 2);
  EXPECT_EQ(Explain(master::LaunchRefused("x"), run, false).status, 3);
  EXPECT_EQ(Explain(master::ConnectError("x"), run, false).status, 3);
  EXPECT_EQ(Explain(master::RequestFailed("x"), run, false).status, 4);
  EXPECT_EQ(Explain(master::LinkLost("x"), run, false).status, 5);
  EXPECT_EQ(Explain(master::ProtocolError("x"), run, false).status, 6);
  EXPECT_EQ(Explain(std::runtime_error("x"), run, false).status, 1);
}

TEST(Explain, RunGoesOnOnlyWhenNothingWasSent) {
  const vkmaster::Launched run;
  EXPECT_TRUE(Explain(vkmaster::UsageError("x"), run, false).run_goes_on);
  EXPECT_TRUE(Explain(master::RequestTooLong("x"), run, false).run_goes_on);
  EXPECT_FALSE(Explain(master::RequestFailed("x"), run, false).run_goes_on);
  EXPECT_FALSE(Explain(master::ProtocolError("x"), run, false).run_goes_on);
}

TEST(Explain, ArgumentThatALibraryRefusesIsAUsageError) {
  const vkmaster::Failure failure = Explain(std::invalid_argument("x"), {}, false);
  EXPECT_EQ(failure.status, 2);
  EXPECT_TRUE(failure.run_goes_on);
}

TEST(Explain, OnlyAFailedConnectRequestIsExplainedByTheSimulatorsStart) {
  EXPECT_THAT(Explain(master::RequestFailed("request 1 (Connect)"), {}, true).hint,
              HasSubstr("On connecting: "));
  EXPECT_THAT(Explain(master::RequestFailed("request 4 (GetTimeDays)"), {}, true).hint,
              testing::Not(HasSubstr("On connecting: ")));
}

TEST(Explain, OtherTextAboutAWindowsUserIsOnlyTheDaemons) {
  EXPECT_THAT(vkmaster::HintForRefusal("Windows user 'x' is odd", {}),
              HasSubstr("The text is the daemon's"));
}

TEST(Explain, UnknownHostAsksForTheName) {
  EXPECT_THAT(Explain(master::ConnectError("Unknown host 'x': y"), {}, true).hint,
              HasSubstr("Check --host"));
}

}  // namespace
