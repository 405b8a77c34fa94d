// Ending runs, and what has lost its controller.

#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/process.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/jobmillctl/runs_site.h"
#include "tests/support/bytes.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

// The number of a run and those of all its processes.
std::vector<pid_t> ProcessesOf(const json& run) {
  auto processes = run.at("members").get<std::vector<pid_t>>();
  processes.push_back(run.at("id").get<pid_t>());
  return processes;
}

void ExpectEnded(const std::vector<pid_t>& processes) {
  for (const pid_t pid : processes) EXPECT_FALSE(IsRunning(pid)) << pid;
}

void ExpectRunning(const std::vector<pid_t>& processes) {
  for (const pid_t pid : processes) EXPECT_TRUE(IsRunning(pid)) << pid;
}

TEST(EndTest, RunEndsInEachStateAndItsNeighbourDoesNot) {
  RunsSite site;
  site.Connect("STAYS");
  site.Request("QUEUED");
  site.Connect("ABSENT");
  site.Connect("IDLE");
  site.Connect("STEP").Send(Bytes("07 00 00 00"));
  ASSERT_TRUE(site.WaitForState("STEP", "waiting for the simulator"));
  ASSERT_TRUE(site.WaitForState("QUEUED", "waiting for the script"));
  const auto neighbour = ProcessesOf(site.Run("STAYS"));
  for (const char* root : {"QUEUED", "ABSENT", "IDLE", "STEP"}) {
    const json run = site.Run(root);
    const auto processes = ProcessesOf(run);
    EXPECT_GE(processes.size(), 2U) << root;
    const Outcome outcome = Jobmillctl({"end", "--yes", run.at("id").dump()});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.out,
                HasSubstr(std::string("/") + root + "): " + run.at("state").get<std::string>()));
    EXPECT_THAT(outcome.out, HasSubstr(" script "));
    ExpectEnded(processes);
  }
  ExpectRunning(neighbour);
  ExpectRunning({site.daemon().pid()});
}

// The controller, asked last, tells why the run ended.
TEST(EndTest, CommsLogTellsTheEndOfAStep) {
  RunsSite site;
  site.Connect("STEP").Send(Bytes("07 00 00 00"));
  ASSERT_TRUE(site.WaitForState("STEP", "waiting for the simulator"));
  EXPECT_EQ(Jobmillctl({"end", "--yes", site.Run("STEP").at("id").dump()}).status, 0);
  EXPECT_THAT(site.data().Read("STEP.crvnlog"), HasSubstr("\nRequest process loop failed: "));
}

TEST(EndTest, HandshakeIsEndedToo) {
  RunsSite site;
  TestMaster& master = site.Greet();
  ASSERT_TRUE(Eventually([&] { return site.Runs().size() == 1; }));
  EXPECT_EQ(Jobmillctl({"end", "--yes", site.Runs()[0].at("id").dump()}).status, 0);
  EXPECT_TRUE(master.SeesEndWithin(5));
}

TEST(EndTest, NothingIsEndedWithoutAYes) {
  RunsSite site;
  site.Request("QUEUED");
  ASSERT_TRUE(site.WaitForState("QUEUED", "waiting for the script"));
  const json run = site.Run("QUEUED");
  const Outcome outcome = Jobmillctl({"end", run.at("id").dump()});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, HasSubstr("Nothing was ended\n"));
  ExpectRunning(ProcessesOf(run));
}

TEST(EndTest, WhatIsNoRunIsRefused) {
  RunsSite site;
  for (const pid_t pid : {getpid(), site.daemon().pid(), 1, 0, -1}) {
    const Outcome outcome = Jobmillctl({"end", "--yes", "--", std::to_string(pid)});
    EXPECT_EQ(outcome.status, 1) << pid;
    EXPECT_THAT(outcome.err, HasSubstr("is no run of a jobmill on this machine"));
  }
  ExpectRunning({site.daemon().pid()});
}

TEST(LostTest, WhatAKilledControllerLeavesIsShownAndEnded) {
  RunsSite site;
  site.Connect("STAYS");
  site.Connect("STEP").Send(Bytes("07 00 00 00"));
  ASSERT_TRUE(site.WaitForState("STEP", "waiting for the simulator"));
  const json run = site.Run("STEP");
  const auto neighbour = ProcessesOf(site.Run("STAYS"));
  // The script dies as well: nobody is left who would end the simulator.
  kill(run.at("script").get<pid_t>(), SIGKILL);
  kill(run.at("id").get<pid_t>(), SIGKILL);
  ASSERT_TRUE(site.WaitForState("STEP", "lost"));
  const Outcome shown = Jobmillctl({"lost"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_THAT(shown.out, HasSubstr("/STEP): lost\n"));
  EXPECT_THAT(shown.out, Not(HasSubstr("/STAYS)")));
  ExpectRunning({run.at("simulator").get<pid_t>()});
  // Only this one: tests beside this one have lost runs of their own.
  EXPECT_EQ(Jobmillctl({"end", "--yes", site.Run("STEP").at("id").dump()}).status, 0);
  ExpectEnded(ProcessesOf(run));
  ExpectRunning(neighbour);
}

}  // namespace
