#include "tools/vkmaster/hints.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/errors.h"
#include "tools/vkmaster/usage_error.h"

namespace {

using testing::HasSubstr;
using vkmaster::CommsLog;
using vkmaster::Explain;

TEST(CommsLog, IsPathAndRootWithoutASlashBetween) {
  EXPECT_EQ(CommsLog({.path = "/data/run", .root = "CASE"}), "/data/runCASE.crvnlog");
}

TEST(CommsLog, HasTheClusterNumberInItsName) {
  EXPECT_EQ(CommsLog({.cluster = "3", .path = "/data/", .root = "CASE"}), "/data/CASE_3.crvnlog");
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

TEST(Explain, UnknownHostAsksForTheName) {
  EXPECT_THAT(Explain(master::ConnectError("Unknown host 'x': y"), {}, true).hint,
              HasSubstr("Check --host"));
}

}  // namespace
