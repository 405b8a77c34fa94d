// What jobmillctl says about runs, beside what the test has done with them.

#include <errno.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/process.h"
#include "inspect/runs.h"
#include "log/timestamp.h"
#include "tests/inspect/own_view.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/jobmillctl/runs_site.h"
#include "tests/support/bytes.h"
#include "tests/support/refused_calls.h"
#include "tests/support/sanitized.h"
#include "tests/support/traced_process.h"

namespace {

using nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kHandshake = "handshake";
constexpr const char* kScript = "waiting for the script";
constexpr const char* kListens = "waiting for the simulator to listen";
constexpr const char* kMaster = "waiting for the master";
constexpr const char* kSimulator = "waiting for the simulator";

// Fifty runs, ten in each state, at the same time.
class FiftyRuns {
 public:
  FiftyRuns() {
    for (int i = 0; i < 10; ++i) {
      const std::string number = std::to_string(i);
      site.Greet();
      site.Request("QUEUED" + number);
      site.Connect("ABSENT" + number);
      site.Connect("IDLE" + number);
      site.Connect("STEP" + number).Send(Bytes("07 00 00 00"));
      states["QUEUED" + number] = kScript;
      states["ABSENT" + number] = kListens;
      states["IDLE" + number] = kMaster;
      states["STEP" + number] = kSimulator;
    }
  }

  RunsSite site;
  std::map<std::string, std::string> states;  // by root name
};

// What is said, with "" for the root name of those that have none yet.
std::multimap<std::string, std::string> StatesOf(const std::vector<json>& runs) {
  std::multimap<std::string, std::string> states;
  for (const json& run : runs) {
    states.emplace(run.at("root").is_string() ? run.at("root").get<std::string>() : "",
                   run.at("state").get<std::string>());
  }
  return states;
}

TEST(StatusTest, FiftyRunsAreInTheStatesIntoWhichTheyWerePut) {
  FiftyRuns fifty;
  std::multimap<std::string, std::string> expected(fifty.states.begin(), fifty.states.end());
  for (int i = 0; i < 10; ++i) expected.emplace("", kHandshake);
  EXPECT_TRUE(Eventually([&] { return StatesOf(fifty.site.Runs()) == expected; }));
  EXPECT_EQ(StatesOf(fifty.site.Runs()), expected);

  // Without rights it may be unknown what they wait for, and is never wrong.
  if (getuid() == 0) {
    const auto runs = fifty.site.RunsForNobody();
    EXPECT_EQ(runs.size(), 50U);
    for (const json& run : runs) {
      if (!run.at("root").is_string()) continue;
      if (run.at("state") != "unknown") {
        EXPECT_EQ(run.at("state"), fifty.states.at(run.at("root").get<std::string>())) << run;
      } else {
        EXPECT_TRUE(run.at("unknown").contains("state")) << run;
      }
    }
  }

  // The daemon is killed: its runs go on, and are found.
  fifty.site.daemon().process().Signal(SIGKILL);
  fifty.site.daemon().process().Wait(std::chrono::seconds(10));
  const auto orphans = fifty.site.Runs();
  EXPECT_EQ(StatesOf(orphans), expected);
  for (const json& run : orphans) EXPECT_TRUE(run.at("daemon").is_null()) << run;

  // A controller is killed in each state. What its run leaves behind is lost.
  for (const json& run : orphans) {
    const std::string root = run.at("root").is_string() ? run.at("root").get<std::string>() : "";
    if (root.empty() || root.ends_with("7")) kill(run.at("id").get<pid_t>(), SIGKILL);
  }
  expected.erase("");
  expected.erase("IDLE7");  // its simulator sees the end of the link, and the script ends with it
  for (const char* root : {"QUEUED7", "ABSENT7", "STEP7"}) expected.find(root)->second = "lost";
  EXPECT_TRUE(Eventually([&] { return StatesOf(fifty.site.Runs()) == expected; }));
  EXPECT_EQ(StatesOf(fifty.site.Runs()), expected);
}

TEST(StatusTest, RunIsDescribedInFull) {
  RunsSite site;
  site.Request("QUEUED1", "bob");
  ASSERT_TRUE(site.WaitForState("QUEUED1", kScript));  // lines of launches at once are mixed
  TestMaster& master = site.Connect("CASE");
  master.Ask("04 00 00 00");
  master.Ask("02 00 00 00");
  ASSERT_TRUE(site.WaitForState("CASE", kMaster));
  const json run = site.Run("CASE");
  ASSERT_TRUE(run.is_object());
  EXPECT_EQ(run.at("state"), kMaster);
  EXPECT_EQ(run.at("windows_user"), "alice");
  EXPECT_EQ(run.at("path"), site.data().path().string() + "/");
  EXPECT_EQ(run.at("processes"), 1);
  EXPECT_EQ(run.at("version"), "20172");
  EXPECT_EQ(run.at("daemon"), site.daemon().pid());
  EXPECT_EQ(run.at("host"), "127.0.0.1");
  EXPECT_EQ(run.at("last_request"), "date");
  EXPECT_EQ(run.at("requests"), 3);
  EXPECT_EQ(run.at("day"), 0.0);
  EXPECT_EQ(run.at("date"), "2020-01-01");
  EXPECT_LT(run.at("state_seconds"), 10);
  EXPECT_LT(run.at("last_heard_seconds"), 10);
  EXPECT_TRUE(run.at("unknown").empty()) << run.at("unknown");
  const auto simulator = run.at("simulator").get<pid_t>();
  EXPECT_EQ(inspect::Process::Open(simulator)->stat().name, "vksim");
  const json queued = site.Run("QUEUED1");
  EXPECT_EQ(queued.at("windows_user"), "bob");
  EXPECT_EQ(queued.at("scheduler"), "somescheduler");
  EXPECT_EQ(queued.at("job"), "471");
  EXPECT_EQ(queued.at("waits_for"), "job 471 of somescheduler");
}

// A master may send what commands a terminal, looks like another column, or is no text at all.
TEST(StatusTest, HostileTextsAreEscapedAndWhole) {
  RunsSite site;
  const std::string hostile = "QUEUED\x1b[2J \xff\n<b>" + std::string(3000, 'x');
  std::filesystem::create_directory(site.data().File("\x1b]0;title\a"));
  TestMaster master(site.daemon().port());
  master.RequestRun(
      {"0", site.data().File("\x1b]0;title\a"), "QUEUED\xff", "1", "20172", hostile, "0"});
  ASSERT_TRUE(
      Eventually([&] { return !site.Runs().empty() && site.Runs()[0].at("path").is_string(); }));
  const Outcome table = Jobmillctl({"status"});
  EXPECT_EQ(table.status, 0);
  EXPECT_THAT(table.out, HasSubstr("\\x1b]0;title\\x07/QUEUED\\xff"));
  EXPECT_THAT(table.out, HasSubstr("QUEUED\\x1b[2J \\xff"));
  for (const char c : table.out) EXPECT_TRUE(c == '\n' || (c >= ' ' && c < '\x7f')) << int{c};
  const Outcome document = Jobmillctl({"status", "--json"});
  EXPECT_EQ(document.out.find('\x1b'), std::string::npos);
  EXPECT_TRUE(json::accept(document.out));
}

TEST(StatusTest, OneRunIsShownWithItsLogs) {
  RunsSite site;
  site.Connect("CASE");
  ASSERT_TRUE(site.WaitForState("CASE", kMaster));
  const std::string id = site.Run("CASE").at("id").dump();
  const Outcome shown = Jobmillctl({"status", id});
  EXPECT_EQ(shown.status, 0);
  EXPECT_THAT(shown.out, HasSubstr("state                  waiting for the master\n"));
  EXPECT_THAT(shown.out, HasSubstr("\n  Received header: 1\n"));
  EXPECT_THAT(shown.out, HasSubstr("\n  Controller connected\n"));
  const json document = json::parse(Jobmillctl({"status", id, "--json"}).out);
  EXPECT_EQ(document.at("schema"), 1);
  EXPECT_EQ(document.at("runs").size(), 1U);
  EXPECT_EQ(document.at("runs").at(0).at("root"), "CASE");
  const Outcome log = Jobmillctl({"log", id});
  EXPECT_THAT(log.out, StartsWith("Received header: 1\nConnect on host: 127.0.0.1\\x00, port: "));
}

TEST(StatusTest, SimulatorThatComputesIsToldFromOneThatDoesNot) {
  RunsSite site;
  const char* to_the_end = "08 00 00 00 00 00 00 00 00 00 a9 40";
  for (const char* root : {"BUSY1", "STEP1"}) {
    site.Connect(root).Send(Bytes(to_the_end));
    ASSERT_TRUE(site.WaitForState(root, kSimulator));
  }
  // By its number: runs of other tests have these names, too.
  const auto status = [&](const char* root) {
    return Jobmillctl({"status", site.Run(root).at("id").dump()}).out;
  };
  EXPECT_THAT(status("BUSY1"),
              ContainsRegex("\nsimulator is           computing, [01]\\.[0-9]{2} processors\n"));
  EXPECT_THAT(status("STEP1"),
              HasSubstr("\nsimulator is           no processor time in this second\n"));
}

TEST(StatusTest, LogIsFollowedUntilTheRunEnds) {
  RunsSite site;
  TestMaster& master = site.Connect("CASE");
  const std::string id = site.Run("CASE").at("id").dump();
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("out");
  ChildProcess follower({ProgramDirectory() + "/jobmillctl", "log", "-f", id}, options);
  EXPECT_TRUE(
      Eventually([&] { return directory.Read("out").starts_with("Received header: 1\n"); }));
  master.Ask("04 00 00 00");
  EXPECT_TRUE(Eventually([&] { return directory.Read("out").ends_with("GetTimeDays: 0\n"); }));
  master.Ask("f0 ff 00 00");
  EXPECT_EQ(follower.Wait(std::chrono::seconds(10)), 0);
  EXPECT_THAT(directory.Read("out"), HasSubstr("\nProcess loop has exited naturally"));
}

TEST(StatusTest, WhatIsNoRunIsSaidToBeNone) {
  const Outcome outcome = Jobmillctl({"status", "1"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "jobmillctl: '1' is no run of a jobmill on this machine; see jobmillctl status\n");
  EXPECT_EQ(Jobmillctl({"log", "no such\x1b"}).status, 1);
  const Outcome name = Jobmillctl({"status", "no-such-root"});
  EXPECT_EQ(name.status, 1);
  EXPECT_THAT(name.err, StartsWith("jobmillctl: 'no-such-root' is no run of a jobmill"));
}

TEST(StatusTest, NameOfTwoRunsIsNotGuessed) {
  RunsSite site;
  site.Request("QUEUED1");
  ASSERT_TRUE(site.daemon().WaitForLog("(vk_QUEUED1) is submitted"));
  // The script of the second run makes the directory anew.
  std::filesystem::remove(site.data().File("vk_QUEUED1"));
  site.Request("QUEUED1");
  ASSERT_TRUE(Eventually([&] { return site.Runs().size() == 2; }));
  ASSERT_TRUE(Eventually([&] { return Jobmillctl({"status", "QUEUED1"}).status == 1; }));
  EXPECT_THAT(Jobmillctl({"status", "QUEUED1"}).err, HasSubstr(": name it by its number"));
}

// What 2,000 idle connections and 50 runs cost, with fewer of them: the cost grows with their
// number.
TEST(StatusTest, ManyConnectionsAreCheap) {
  RunsSite site;
  for (int i = 0; i < 200; ++i) site.Greet();
  ASSERT_TRUE(Eventually([&] { return site.Runs().size() == 200; }));
  double least = 1e9;
  for (int turn = 0; turn < 3; ++turn) {
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_CHILDREN, &before);
    EXPECT_EQ(Jobmillctl({"status"}).status, 0);
    getrusage(RUSAGE_CHILDREN, &after);
    const auto seconds = [](const rusage& usage) {
      return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
             static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    };
    least = std::min(least, seconds(after) - seconds(before));
  }
  EXPECT_TRUE(kSanitized || least < 0.25) << least;
}

TEST(StatusTest, StoppedRunIsSaidToBeStopped) {
  RunsSite site;
  site.Connect("CASE");
  const auto id = site.Run("CASE").at("id").get<pid_t>();
  kill(id, SIGSTOP);
  EXPECT_TRUE(
      Eventually([&] { return site.Run("CASE").at("waits_for") == "a signal: it is stopped"; }));
  kill(id, SIGCONT);
}

TEST(StatusTest, MasterThatLeavesDuringAStepIsSaidToHaveLeft) {
  RunsSite site;
  TestMaster& master = site.Connect("STEP");
  master.Send(Bytes("07 00 00 00"));
  ASSERT_TRUE(site.WaitForState("STEP", kSimulator));
  master.Leave();
  EXPECT_TRUE(Eventually([&] {
    const json run = site.Run("STEP");
    return run.is_object() &&
           run.at("waits_for").get<std::string>().ends_with("; the master has left");
  }));
}

TEST(StatusTest, LogsThatWereRemovedAreSaidToBe) {
  RunsSite site;
  site.Connect("CASE");
  ASSERT_TRUE(site.WaitForState("CASE", kMaster));
  std::filesystem::remove(site.data().File("CASE.crvnlog"));
  const json run = site.Run("CASE");
  EXPECT_EQ(run.at("unknown").at("comms_log"), "it was removed or replaced");
  EXPECT_EQ(run.at("windows_user"), "alice");
}

TEST(StatusTest, DaemonWhoseProgramWasReplacedIsSaidToBeOlder) {
  RunsSite site;
  std::filesystem::remove(site.daemon().directory().File("vkjobmill.exe"));
  const json document = json::parse(Jobmillctl({"status", "--json"}).out);
  for (const json& daemon : document.at("daemons")) {
    if (daemon.at("port") == site.daemon().port()) {
      EXPECT_EQ(daemon.at("older_program"), true);
    }
  }
  EXPECT_THAT(Jobmillctl({"status"}).out,
              HasSubstr(", with an older program than the one that is installed\n"));
}

// The only run of a daemon is known by its connections, whoever looks.
TEST(StatusTest, OnlyRunIsKnownWithoutRights) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  RunsSite site;
  TestMaster& master = site.Connect("STEP");
  // Request and answer within one tick of the kernel's clock do not tell which was the last.
  const auto simulator = site.Run("STEP").at("simulator").get<pid_t>();
  kill(simulator, SIGSTOP);
  master.Send(Bytes("06 00 00 00"));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  kill(simulator, SIGCONT);
  master.Receive();
  const auto state = [&] {
    const auto runs = site.RunsForNobody();
    return runs.size() == 1 ? runs[0].at("state").get<std::string>() : "";
  };
  EXPECT_TRUE(Eventually([&] { return state() == kMaster; }));
  master.Send(Bytes("07 00 00 00"));
  EXPECT_TRUE(Eventually([&] { return state() == kSimulator; }));
  // Whether it computes is not seen, and nothing is said about it.
  const Outcome shown = JobmillctlAsNobody({"status", site.Run("STEP").at("id").dump()});
  EXPECT_THAT(shown.out, HasSubstr("state                  waiting for the simulator\n"));
  EXPECT_THAT(shown.out, Not(HasSubstr("simulator is")));
}

TEST(StatusTest, HandshakeUnderRootIsKnownWithoutRights) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  RunningDaemon::Options options;
  options.arguments = {"-l"};
  const RunningDaemon daemon(options);
  TestMaster master(daemon.port());
  master.Receive();
  const std::string found = AsNobody([&] {
    std::string states;
    for (const inspect::Run& run : inspect::FindRuns().runs) {
      if (run.daemon == daemon.pid()) states += Name(run.state);
    }
    return states;
  });
  EXPECT_EQ(found, kHandshake);
}

TEST(CollectTest, OneLookIsWrittenWhereItCanBe) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("snapshot.json");
  const Outcome outcome = Jobmillctl({"collect", "--once", "--snapshot", file});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const json snapshot = json::parse(directory.Read("snapshot.json"));
  for (const char* part : {"runs", "history", "check"}) {
    EXPECT_EQ(snapshot.at(part).at("ok"), true) << part;
  }
  const Outcome nowhere =
      Jobmillctl({"collect", "--once", "--snapshot", directory.File("no/snapshot.json")});
  EXPECT_EQ(nowhere.status, 1);
  EXPECT_THAT(nowhere.err, HasSubstr("no/snapshot.json cannot be written: No such file"));
}

// The server goes on with the snapshot that it has.
TEST(CollectTest, SnapshotThatCannotBeWrittenLeavesTheFormerOne) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("snapshot.json");
  const auto left = [&directory] {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
      names.insert(entry.path().filename());
    }
    return names;
  };
  std::filesystem::create_directory(file);
  const Outcome taken = Jobmillctl({"collect", "--once", "--snapshot", file});
  EXPECT_EQ(taken.status, 1);
  EXPECT_EQ(taken.err, "jobmillctl: " + file + " cannot be written: Is a directory\n");
  EXPECT_THAT(left(), testing::ElementsAre("snapshot.json"));
  if (getuid() != 0) GTEST_SKIP() << "mounting needs root";
  const std::string full = WithMounts({}, [&]() -> std::string {
    if (mount("none", directory.path().c_str(), "tmpfs", 0, "size=4k") != 0) return "no mount";
    directory.Write("snapshot.json", std::string(4096, 'x'));
    const std::string err = Jobmillctl({"collect", "--once", "--snapshot", file}).err;
    return err + std::to_string(std::filesystem::file_size(file)) + " " +
           std::to_string(left().size());
  });
  if (full == "no mount") GTEST_SKIP() << "mounting is not permitted here";
  EXPECT_EQ(full, "jobmillctl: " + file + " cannot be written: No space left on device\n4096 1");
}

TEST(CollectTest, LookThatCannotBeMadeIsNoAnswer) {
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.environment = {kNoLeakCheck};  // it takes a child
  options.in_child = [] { return RefuseCalls(NoChildren(EAGAIN)) ? 0 : 1; };
  const Outcome outcome = OutcomeOf({ProgramDirectory() + "/jobmillctl", "collect", "--once",
                                     "--snapshot", directory.File("snapshot.json")},
                                    options);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const json snapshot = json::parse(directory.Read("snapshot.json"));
  for (const char* part : {"runs", "history", "check"}) {
    EXPECT_EQ(snapshot.at(part).at("ok"), false) << part;
    EXPECT_TRUE(snapshot.at(part).at("document").is_null()) << part;
  }
}

// However long one of the looks takes.
TEST(CollectTest, OnceIsOneLookAtEach) {
  const TemporaryDirectory directory;
  directory.Write(".vk_corvane_env", "PATH " + directory.path().string() + "\n");
  for (const auto& [name, text] : {std::pair("slurm", "#!/bin/bash\nneeded='squeue'\n"),
                                   std::pair("squeue", "#!/bin/sh\nsleep 3\n")}) {
    std::filesystem::permissions(directory.Write(name, text), std::filesystem::perms(0755));
  }
  const Outcome outcome =
      Jobmillctl({"collect", "--once", "--every", "1", "--snapshot",
                  directory.File("snapshot.json"), "--program", directory.File("vkjobmill.exe"),
                  "--", "-p", "1", "-u", "-s", directory.File("slurm")});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const json snapshot = json::parse(directory.Read("snapshot.json"));
  const auto time = [&](const char* part) { return snapshot.at(part).at("time").get<double>(); };
  EXPECT_GE(snapshot.at("check").at("took_seconds"), 3.0);
  EXPECT_LE(time("runs"), time("history"));
  EXPECT_LE(time("history"), time("check"));
}

TEST(CollectTest, OfVeryManyRunsTheLatestAreTold) {
  RunningDaemon::Options options;
  options.arguments = {"-u"};
  const RunningDaemon daemon(options);
  const std::time_t begin = time(nullptr) - 5000;
  std::ofstream log(daemon.LogFile(), std::ios::app);
  for (int i = 0; i <= 1000; ++i) {
    const std::string at = timestamp(begin + i);
    log << "Accepted incoming connection: " << at << "Answering call in child process: " << at
        << "Sending back version number: 3\nClust: 0\nPath: /data/\nRoot: CASE" << i
        << "\nProc: 1\nVer: 20172\nWindows user received: alice\nDebug flag received: 0\n"
           "Windows user 'alice' not found in administration file\n";
  }
  log.close();
  const TemporaryDirectory directory;
  const Outcome outcome =
      Jobmillctl({"collect", "--once", "--snapshot", directory.File("snapshot.json")});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const json history = json::parse(directory.Read("snapshot.json")).at("history");
  const json& runs = history.at("document").at("runs");
  EXPECT_EQ(runs.size(), 1000U);
  std::vector<std::string> roots;
  for (const json& run : runs) {
    if (run.at("port") == daemon.port()) roots.push_back(run.at("root").get<std::string>());
  }
  EXPECT_THAT(roots, Not(testing::Contains("CASE0")));
  ASSERT_FALSE(roots.empty());
  EXPECT_EQ(roots.back(), "CASE1000");
}

TEST(TableTest, LinesEndWhereTheTerminalDoes) {
  RunsSite site;
  site.Connect("CASE");
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("out");
  ChildProcess script(
      {"/usr/bin/script", "-qec",
       "stty cols 30 rows 20; " + ProgramDirectory() + "/jobmillctl status", "/dev/null"},
      options);
  EXPECT_EQ(script.Wait(std::chrono::seconds(30)), 0);
  const std::string out = directory.Read("out");
  EXPECT_THAT(out, HasSubstr("RUN"));
  for (std::size_t begin = 0; begin < out.size(); begin = out.find('\n', begin) + 1) {
    EXPECT_LE(out.find_first_of("\r\n", begin) - begin, 30U);
  }
  // A terminal that does not know its width is taken for a wide one.
  options.output_file = directory.File("whole");
  ChildProcess unknown({"/usr/bin/script", "-qec",
                        "stty cols 0; " + ProgramDirectory() + "/jobmillctl status", "/dev/null"},
                       options);
  EXPECT_EQ(unknown.Wait(std::chrono::seconds(30)), 0);
  EXPECT_THAT(directory.Read("whole"), HasSubstr(site.data().path().string() + "/CASE "));
}

}  // namespace
