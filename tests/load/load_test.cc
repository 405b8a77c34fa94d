// The scenarios in small, in every run of the tests; jobload runs them in full.

#include <signal.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/errors.h"
#include "tests/load/actor.h"
#include "tests/load/load_site.h"
#include "tests/load/observation.h"
#include "tests/load/plan.h"
#include "tests/load/scenarios.h"
#include "tests/support/child_process.h"
#include "tests/support/sanitized.h"

namespace load {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// The checks themselves: each of them can fail.

TEST(ObservationTest, ChildThatWasNotWaitedForIsAZombie) {
  EXPECT_THAT(ZombiesOf(getpid()), IsEmpty());
  const pid_t child = fork();
  if (child == 0) _exit(0);
  EXPECT_TRUE(Eventually([] { return !ZombiesOf(getpid()).empty(); }));
  EXPECT_THAT(ZombiesOf(getpid()), ElementsAre(child));
  Report report;
  Baseline(getpid()).RequireRest(report, milliseconds(0));
  EXPECT_THAT(report.failures(), ElementsAre("1 children are left, 1 of them zombies"));
  waitpid(child, nullptr, 0);
  EXPECT_THAT(ZombiesOf(getpid()), IsEmpty());
}

TEST(ObservationTest, DescriptorMoreOrLessIsAChange) {
  const Baseline before(getpid());
  const Descriptor one(dup(STDOUT_FILENO));
  Report report;
  before.RequireUnchanged(report);
  ASSERT_EQ(report.failures().size(), 1U);
  EXPECT_THAT(report.failures()[0], HasSubstr("descriptors went from "));
}

TEST(ObservationTest, MemoryBeyondTheToleranceIsAChange) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer's allocator keeps what is freed";
  Report report;
  const Baseline before(getpid());
  before.RequireUnchanged(report);
  EXPECT_THAT(report.failures(), IsEmpty());
  const std::string held(1 << 20, 'x');
  before.RequireUnchanged(report);
  ASSERT_EQ(report.failures().size(), 1U);
  EXPECT_THAT(report.failures()[0], HasSubstr("the daemon's memory grew from "));
}

TEST(ObservationTest, DaemonThatIsGoneIsAFailure) {
  const pid_t child = fork();
  if (child == 0) pause();
  const Baseline before(child);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  Report report;
  before.RequireUnchanged(report);
  EXPECT_THAT(report.failures(), ElementsAre("the daemon has ended"));
}

TEST(ObservationTest, PercentileIsTheSmallestValueThatSoManyDoNotExceed) {
  std::vector<double> values;
  for (int i = 100; i >= 1; --i) values.push_back(i);
  EXPECT_EQ(Percentile(values, 0.99), 99);
  EXPECT_EQ(Percentile(values, 0.5), 50);
  EXPECT_EQ(Percentile(values, 1), 100);
  EXPECT_EQ(Percentile({7}, 0.99), 7);
  EXPECT_EQ(Percentile({}, 0.99), 0);
}

TEST(PlanTest, SeedAloneDecidesWhatARoundDoes) {
  const RoundSize size;
  for (std::uint64_t seed = 1; seed <= 16; ++seed) {
    EXPECT_EQ(RoundPlan(seed, size), RoundPlan(seed, size));
    EXPECT_NE(RoundPlan(seed, size), RoundPlan(seed + 1, size));
  }
  // Another generator would make every seed that was written down worthless.
  const std::vector<Action> first = RoundPlan(1, size);
  EXPECT_EQ(NameOf(first[0].kind) + " " + NameOf(first[1].kind) + " " + NameOf(first[2].kind),
            "resets-run hostile-request simulator-cuts");
}

TEST(PlanTest, HoldsAsManyConnectionsAndLaunchesAsAskedFor) {
  const std::vector<Action> plan = MakePlan(5, 300, 120, false);
  EXPECT_EQ(plan.size(), 300U);
  EXPECT_EQ(std::count_if(plan.begin(), plan.end(),
                          [](const Action& action) { return Launches(action.kind); }),
            120);
}

TEST(PlanTest, AllKindsOccurAndSlowOnesOnlyWhereWanted) {
  std::set<Kind> quick;
  std::set<Kind> all;
  for (const Action& action : MakePlan(1, 4000, 2000, false)) quick.insert(action.kind);
  for (const Action& action : MakePlan(1, 4000, 2000, true)) all.insert(action.kind);
  EXPECT_EQ(all.size(), static_cast<std::size_t>(Kind::kLeavesRequest) + 1);
  EXPECT_EQ(quick.size() + 2, all.size());
  EXPECT_FALSE(quick.contains(Kind::kSimulatorAbsent));
  EXPECT_FALSE(quick.contains(Kind::kLeavesRequest));
}

TEST(CarryOutTest, FailureNamesTheAction) {
  LoadSite site(false);
  site.daemon().process().Signal(SIGKILL);
  site.daemon().process().Wait(seconds(5));
  Report report;
  CarryOut(site, {{Kind::kLeavesAtOnce, 3}}, 1, seconds(10), "test", report);
  EXPECT_THAT(report.failures(), ElementsAre("action 0 (leaves-at-once 3): cannot connect: "
                                             "Connection refused"));
}

TEST(CarryOutTest, RunThatGetsNoAnswerEndsWithTheLimit) {
  LoadSite site(false);
  const Descriptor alarm(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
  const itimerspec now{{0, 0}, {0, 1}};
  timerfd_settime(alarm.get(), 0, &now, nullptr);
  Actor actor(site, alarm.get());
  EXPECT_THROW(actor.Perform({Kind::kRun, 5}, "test"), master::Interrupted);
}

// A sanitizer makes everything several times slower, and judges other things than amounts.
constexpr std::size_t kSlowness = kSanitized ? 5 : 1;

TEST(LoadTest, IdleConnectionsAndLiveRunsLeaveTheDaemonAsItWas) {
  Report report;
  Idle({.connections = 150 / kSlowness,
        .runs = 10 / kSlowness,
        .pause = milliseconds(20),
        .load = seconds(2),
        .limit_ms = 0},
       report);
  EXPECT_THAT(report.failures(), IsEmpty());
}

TEST(LoadTest, ConnectionsOfAllKindsLeaveTheDaemonAsItWas) {
  Report report;
  Churn({.connections = 500 / kSlowness,
         .launches = 100 / kSlowness,
         .at_once = 8,
         .seed = 7,
         .slow = false},
        report);
  EXPECT_THAT(report.failures(), IsEmpty());
}

TEST(LoadTest, ManyRequestsLeaveTheControllerAsItWas) {
  Report report;
  Requests({.requests = 20000 / kSlowness, .settled = 4000 / kSlowness}, report);
  EXPECT_THAT(report.failures(), IsEmpty());
}

TEST(LoadTest, LargeAnswersAreGivenBack) {
  Report report;
  Volume(
      {.bytes = (128UL << 20) / kSlowness, .answer = 16UL << 20, .small_answers = 256 / kSlowness},
      report);
  EXPECT_THAT(report.failures(), IsEmpty());
}

TEST(LoadTest, RoundsOfTheSoakLeaveTheDaemonAsItWas) {
  Report report;
  Soak(seconds(60), 2, 11,
       {.connections = 40 / kSlowness, .launches = 25 / kSlowness, .at_once = 8, .slow = false},
       report);
  EXPECT_THAT(report.failures(), IsEmpty());
}

}  // namespace
}  // namespace load
