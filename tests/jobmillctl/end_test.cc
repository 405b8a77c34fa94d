// Ending runs, and what has lost its controller.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/process.h"
#include "inspect/runs.h"
#include "tests/inspect/own_view.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/jobmillctl/runs_site.h"
#include "tests/support/bytes.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"

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

std::string TextOf(const char* file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
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

// To be shown a run is no right to end it.
TEST(EndTest, RunOfAnotherAccountIsNotEndedWithoutRights) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  RunsSite site;
  site.Connect("STEP").Send(Bytes("07 00 00 00"));
  ASSERT_TRUE(site.WaitForState("STEP", "waiting for the simulator"));
  const json run = site.Run("STEP");
  const Outcome outcome = JobmillctlAsNobody({"end", "--yes", run.at("id").dump()});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "jobmillctl: a process of the run cannot be ended: Operation not permitted\n");
  EXPECT_THAT(outcome.out, Not(HasSubstr("Ended")));
  ExpectRunning(ProcessesOf(run));
}

TEST(LostTest, WhatIsNotSeenWithoutRightsIsSaid) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  const Outcome outcome = JobmillctlAsNobody({"lost"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out,
              HasSubstr("Not known: processes of other accounts, without root's rights\n"));
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

// A controller has gone, as after every run, and its simulator has not yet.
TEST(LostTest, WhatAShippedScriptEndsIsEndingAndNotLost) {
  const TemporaryDirectory data;
  data.Write("CASE.afi", TextOf(EXAMPLES_DIR "/TENWELLS.afi"));
  // A simulator that goes on without its controller.
  chmod(data.Write("simulator", "#!/bin/sh\nexec '" + ProgramDirectory() +
                                    "/vksim' \"$@\" --step-delay 3600000\n")
            .c_str(),
        0755);
  const PortBlock comms;
  RunningDaemon::Options options;
  const std::string script = SOURCES "/deploy/scripts/local";
  options.arguments = {
      "-u", "-s", script, "-o", std::to_string(comms.first()), "-n", std::to_string(comms.size())};
  options.variables = {"JOBMILL_SIMULATOR=" + data.File("simulator"), "JOBMILL_GRACE_SECONDS=8"};
  const RunningDaemon daemon(options);
  TestMaster master(daemon.port());
  master.RequestRun({"0", data.path().string() + "/", "CASE", "1", "20172", "alice", "0"});
  master.Receive();
  master.Send(Bytes("01 00 00 00"));
  master.Receive();
  master.Send(Bytes("07 00 00 00"));
  const auto run = [&] {
    const json document = json::parse(Jobmillctl({"status", "--json"}).out);
    for (const json& one : document.at("runs")) {
      if (one.at("path") == data.path().string() + "/") return one;
    }
    return json();
  };
  const json before = run();
  ASSERT_TRUE(before.is_object());
  kill(before.at("id").get<pid_t>(), SIGKILL);
  EXPECT_TRUE(Eventually([&] { return run().is_object() && run().at("state") == "ending"; }));
  // A script that is stopped ends nothing.
  kill(before.at("script").get<pid_t>(), SIGSTOP);
  EXPECT_TRUE(Eventually([&] { return run().is_object() && run().at("state") == "lost"; }));
  kill(before.at("script").get<pid_t>(), SIGCONT);
  EXPECT_TRUE(Eventually([&] { return run().is_object() && run().at("state") == "ending"; }));
  const Outcome shown = Jobmillctl({"lost"});
  EXPECT_THAT(shown.out, HasSubstr("/CASE): ending, it waits for its end by the script"));
  EXPECT_THAT(shown.out, Not(HasSubstr("/CASE): lost")));
  EXPECT_TRUE(Eventually([&] { return run().is_null(); }, std::chrono::seconds(30)));
  ExpectEnded(ProcessesOf(before));
}

// The script has ended and the log has gone: nothing tells the comms port before the master has its
// controller connect.
TEST(LostTest, SimulatorOfARunWhoseCommsPortIsNotKnownIsNotLost) {
  RunsSite site([](RunningDaemon::Options& options) { std::erase(options.arguments, "-l"); });
  TestMaster& master = site.Request("GONE");
  master.Receive();
  std::filesystem::remove(site.daemon().LogFile());
  std::vector<json> runs;
  ASSERT_TRUE(Eventually([&] {
    runs = site.Runs();
    return std::ranges::any_of(runs, [](const json& run) {
      return run.at("script").is_null() && run.at("comms_port").is_null();
    });
  }));
  EXPECT_EQ(runs.size(), 1U) << json(runs).dump(1);
  master.Send(Bytes("01 00 00 00"));
  EXPECT_NE(master.Receive(), "");
  EXPECT_TRUE(site.Runs().at(0).at("simulator").is_number());
}

// Which file a script of a relative name is only its daemon knows.
TEST(LostTest, ScriptOfARelativeNameIsNotTakenForAShippedOne) {
  const PortBlock comms;
  RunningDaemon::Options options;
  options.arguments = {"-u", "-o", std::to_string(comms.first()), "-n",
                       std::to_string(comms.size())};
  const RunningDaemon daemon(options);
  chmod(daemon.directory().Write("vkmpi_dir.sh", "#!/bin/sh\nsleep 1000\n").c_str(), 0755);
  TestMaster master(daemon.port());
  master.RequestRun({});
  pid_t script = 0;
  const auto find = [&](inspect::RunState state) {
    return std::ranges::any_of(inspect::FindRuns().runs, [&](const inspect::Run& run) {
      if (state == inspect::RunState::kScript && run.daemon == daemon.pid()) {
        script = run.script.value_or(0);
        if (script != 0) kill(run.id.pid, SIGKILL);
        return script != 0;
      }
      return script != 0 && run.script == script && run.state == state;
    });
  };
  ASSERT_TRUE(Eventually([&] { return find(inspect::RunState::kScript); }));
  // Where a shipped one has the name.
  const TemporaryDirectory here;
  std::filesystem::copy_file(SOURCES "/deploy/scripts/local", here.File("vkmpi_dir.sh"));
  EXPECT_TRUE(Eventually([&] {
    return InProcess([&] {
             if (chdir(here.path().c_str()) != 0) return std::string("no directory");
             return std::string(find(inspect::RunState::kLost) ? "lost" : "");
           }) == "lost";
  }));
  kill(script, SIGKILL);
}

// An MPI simulator is several processes, all of which have the mark of its run.
TEST(LostTest, ProcessesOfOneMarkAreOneLostRun) {
  ChildProcess::Options options;
  options.environment = {"JOBMILL_RUN=" + std::to_string(getpid()) + "-two"};
  const ChildProcess first({"/bin/sleep", "60"}, options);
  const ChildProcess second({"/bin/sleep", "60"}, options);
  const auto lost_with = [](pid_t pid) {
    const json document = json::parse(Jobmillctl({"status", "--json"}).out);
    for (const json& run : document.at("runs")) {
      const auto members = run.at("members").get<std::vector<pid_t>>();
      if (run.at("state") == "lost" && std::ranges::find(members, pid) != members.end()) return run;
    }
    return json();
  };
  EXPECT_TRUE(Eventually([&] {
    const json run = lost_with(second.pid());
    return run.is_object() && run == lost_with(first.pid()) && run.at("members").size() == 2 &&
           run.at("simulator") == std::min(first.pid(), second.pid());
  }));
}

// A script that is stopped does not take note of it.
TEST(LostTest, ProcessThatHasEndedIsNoMember) {
  RunsSite site;
  site.Request("QUEUED");
  ASSERT_TRUE(site.WaitForState("QUEUED", "waiting for the script"));
  const json run = site.Run("QUEUED");
  const auto script = run.at("script").get<pid_t>();
  std::vector<pid_t> children;
  ASSERT_TRUE(Eventually([&] {
    children = ChildrenOf(script);
    const auto child = children.empty() ? std::nullopt : inspect::Process::Open(children[0]);
    return child && child->stat().name == "sleep";
  }));
  const pid_t child = children[0];
  kill(script, SIGSTOP);
  ASSERT_TRUE(Eventually([&] { return inspect::Process::Open(script)->stat().state == 'T'; }));
  kill(run.at("id").get<pid_t>(), SIGKILL);
  kill(child, SIGKILL);
  ASSERT_TRUE(Eventually([&] { return !IsRunning(child); }));
  EXPECT_TRUE(site.WaitForState("QUEUED", "lost"));
  EXPECT_EQ(site.Run("QUEUED").at("members"), json({script}));
  EXPECT_EQ(ChildrenOf(script), children);
  kill(script, SIGKILL);
}

TEST(EndTest, YesIsAskedFor) {
  RunsSite site;
  for (const char* yes : {"y\n", "Y\n", "yes\n"}) {
    const std::string root = std::string("QUEUED") + (yes[0] == 'Y'   ? "2"
                                                      : yes[1] == 'e' ? "3"
                                                                      : "1");
    site.Request(root);
    ASSERT_TRUE(site.WaitForState(root, "waiting for the script"));
    const json run = site.Run(root);
    const Outcome outcome = Jobmillctl({"end", run.at("id").dump()}, {}, yes);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("End this? [y/N] Ended\n"));
    ExpectEnded(ProcessesOf(run));
  }
}

// Its script does not heed SIGTERM, and what it has started does not either.
TEST(EndTest, WhatDoesNotEndByItselfIsKilled) {
  const TemporaryDirectory data;
  const PortBlock comms;
  RunningDaemon::Options options;
  options.arguments = {
      "-u", "-l", "-o", std::to_string(comms.first()), "-n", std::to_string(comms.size())};
  options.script = "#!/bin/bash\ntrap '' TERM\nsleep 1000 &\nwait\nwait\nsleep 1000\n";
  const RunningDaemon daemon(options);
  TestMaster master(daemon.port());
  master.RequestRun({"0", data.path().string() + "/", "CASE", "1", "20172", "alice", "0"});
  json run;
  ASSERT_TRUE(Eventually([&] {
    const json document = json::parse(Jobmillctl({"status", "--json"}).out);
    for (const json& one : document.at("runs")) {
      if (one.at("path") == data.path().string() + "/") run = one;
    }
    return run.is_object() && run.at("members").size() >= 2;
  }));
  // Longer than the tool waits for a script, and then for the others.
  ChildProcess::Options quiet;
  ChildProcess end({ProgramDirectory() + "/jobmillctl", "end", "--yes", run.at("id").dump()},
                   quiet);
  EXPECT_EQ(end.Wait(std::chrono::seconds(60)), 0);
  ExpectEnded(ProcessesOf(run));
}

TEST(LostTest, NothingIsEndedWithoutAYes) {
  RunsSite site;
  site.Connect("STEP").Send(Bytes("07 00 00 00"));
  ASSERT_TRUE(site.WaitForState("STEP", "waiting for the simulator"));
  const json run = site.Run("STEP");
  kill(run.at("script").get<pid_t>(), SIGKILL);
  kill(run.at("id").get<pid_t>(), SIGKILL);
  ASSERT_TRUE(site.WaitForState("STEP", "lost"));
  const Outcome outcome = Jobmillctl({"lost", "--end"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, HasSubstr("End this? [y/N] Nothing was ended\n"));
  ExpectRunning({run.at("simulator").get<pid_t>()});
  EXPECT_EQ(Jobmillctl({"end", "--yes", site.Run("STEP").at("id").dump()}).status, 0);
}

// In a list of processes of their own, in which nobody else's are. Number 2, which elsewhere starts
// the kernel's threads, is the simulator there.
TEST(LostTest, AllThatIsLostIsEnded) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  const TemporaryDirectory directory;
  const std::string jobmillctl = ProgramDirectory() + "/jobmillctl";
  const std::string lose = "JOBMILL_RUN=7-x sleep 1000 & sleep 0.1; ";
  const std::string text = lose + jobmillctl + " lost --end --yes; " + lose + "echo y | " +
                           jobmillctl + " lost --end; " + jobmillctl + " lost; " + jobmillctl +
                           " lost --end";
  ChildProcess::Options options;
  options.output_file = directory.File("out");
  ChildProcess own({"/usr/bin/unshare", "--pid", "--fork", "--mount-proc", "/bin/sh", "-c", text},
                   options);
  if (own.Wait(std::chrono::seconds(30)) != 0) GTEST_SKIP() << "no processes of its own here";
  const std::string out = directory.Read("out");
  EXPECT_THAT(out, HasSubstr("simulator  sleep 1000\nEnded\n"));
  EXPECT_THAT(out, HasSubstr("simulator  sleep 1000\nEnd this? [y/N] Ended\n"));
  EXPECT_THAT(out, testing::EndsWith("Nothing on this machine has lost its controller\n"
                                     "Nothing on this machine has lost its controller\n"));
}

}  // namespace
