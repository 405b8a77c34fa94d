// What jobmillctl says of runs that have ended, beside how the test has ended them.

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/jobmillctl/jobmillctl.h"
#include "tests/jobmillctl/runs_site.h"
#include "tests/support/bytes.h"
#include "tools/jobmillctl/since.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// What of the history was the daemon's of this port, by root name.
std::map<std::string, json> HistoryOf(const RunningDaemon& daemon,
                                      std::vector<std::string> options = {}) {
  options.insert(options.begin(), {"history", "--json", "--since", "10m"});
  std::map<std::string, json> runs;
  const Outcome outcome = Jobmillctl(options);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const json document = json::parse(outcome.out);
  for (const json& run : document.at("runs")) {
    if (run.at("port") != daemon.port()) continue;
    runs[run.at("root").is_string() ? run.at("root").get<std::string>() : ""] = run;
  }
  return runs;
}

constexpr const char* kScript = R"(#!/bin/bash
cd "$2" || exit 1
case $3 in
  MUTE) exit 1 ;;
  TELLS) echo "the token is $SECRET_TOKEN"; exit 1 ;;
  SAYS) echo "slurm: the job is refused: no such queue"; exit 1 ;;
  NOWHERE) echo HOST=nowhere.invalid; exit ;;
  ABSENT) echo HOST=127.0.0.1; exit ;;
  QUEUED) echo "slurm: job 47 waits: Priority"; sleep 1000; exit ;;
  STEP) delay='--step-delay 3600000' ;;
esac
"$VKSIM" "$2" "$3" --port "$4" --processes "$1" $delay >"$3.out" 2>&1 </dev/null &
echo $! >"$3.pid"
until grep -qs Listening "$3.out"; do
  kill -0 $! || exit 1
  sleep 0.1
done
echo HOST=127.0.0.1
exec >/dev/null 2>&1 </dev/null
wait
)";

// A daemon whose runs end in different ways, one after the other.
class EndedRuns : public testing::Test {
 protected:
  void StartDaemon(std::vector<std::string> arguments, const std::string& users) {
    fs::permissions(data_.path(), fs::perms(0777));
    for (const char* root : {"SHUT", "LEFT", "STEP", "EARLY"}) {
      fs::copy_file(EXAMPLES_DIR "/TENWELLS.afi", data_.File(std::string(root) + ".afi"));
    }
    fs::permissions(programs_.path(), fs::perms(0755));
    fs::copy_file(ProgramDirectory() + "/vksim", programs_.File("vksim"));
    RunningDaemon::Options options;
    arguments.insert(arguments.end(), {"-l", "-t", "5"});
    options.arguments = std::move(arguments);
    options.script = kScript;
    options.users = users;
    options.environment = "SECRET_TOKEN hush-hush-1234\n";
    options.variables = {"VKSIM=" + programs_.File("vksim"), "PATH=/usr/bin:/bin"};
    daemon_ = std::make_unique<RunningDaemon>(options);
  }

  TestMaster& Ask(const std::string& root, const std::string& user = "alice") {
    masters_.push_back(std::make_unique<TestMaster>(daemon_->port()));
    masters_.back()->RequestRun({"0", data_.path().string() + "/", root, "2", "20172", user, "0"});
    return *masters_.back();
  }
  // The same, up to the reply.
  TestMaster& Launch(const std::string& root) {
    TestMaster& master = Ask(root);
    EXPECT_THAT(master.Receive(), StartsWith("OK|")) << root;
    return master;
  }
  // What `jobmillctl` calls a run that goes on. Runs of other tests have its root name, too.
  std::string NumberOf(const std::string& root) const {
    const json document = json::parse(Jobmillctl({"status", "--json"}).out);
    for (const json& run : document.at("runs")) {
      if (run.at("port") == daemon_->port() && run.at("root") == root) return run.at("id").dump();
    }
    return "none";
  }
  void WaitForEnd(const std::string& root, const std::string& word) {
    EXPECT_TRUE(Eventually([&] {
      return data_.Read(root + ".crvnlog").find(word) != std::string::npos;
    })) << data_.Read(root + ".crvnlog");
  }

  const TemporaryDirectory data_;
  const TemporaryDirectory programs_;
  std::unique_ptr<RunningDaemon> daemon_;
  std::vector<std::unique_ptr<TestMaster>> masters_;
};

class HistoryTest : public EndedRuns {};

TEST_F(HistoryTest, EachWayOfEndingIsTold) {
  StartDaemon({"-u", "-o", std::to_string(RunsSite::FreePorts())}, "-");
  TestMaster& shut = Launch("SHUT");
  shut.Ask("01 00 00 00");
  shut.Ask("04 00 00 00");
  shut.Ask("f0 ff 00 00");
  WaitForEnd("SHUT", "naturally");

  TestMaster& left = Launch("LEFT");
  left.Ask("01 00 00 00");
  left.Leave();
  WaitForEnd("LEFT", "failed: No or");

  TestMaster& step = Launch("STEP");
  step.Ask("01 00 00 00");
  step.Send(Bytes("07 00 00 00"));
  WaitForEnd("STEP", "Newton");
  kill(std::stoi(data_.Read("STEP.pid")), SIGKILL);
  WaitForEnd("STEP", "failed: ");

  Launch("EARLY").Send(Bytes("04 00 00 00"));
  WaitForEnd("EARLY", "failed: ");
  Launch("NOWHERE").Send(Bytes("01 00 00 00"));
  WaitForEnd("NOWHERE", "failed: ");
  Launch("ABSENT").Send(Bytes("01 00 00 00"));
  EXPECT_EQ(Ask("MUTE").Receive(), "No host detected");
  EXPECT_EQ(Ask("SAYS").Receive(), "No host detected");
  TestMaster(daemon_->port()).Leave();
  WaitForEnd("ABSENT", "failed: ");
  ASSERT_TRUE(daemon_->WaitForLog("Incorrect response from Corvane"));

  // While a script or simulator has not ended, its run is among those that go on.
  ASSERT_TRUE(Eventually([&] {
    const json document = json::parse(Jobmillctl({"status", "--json"}).out);
    return std::ranges::none_of(document.at("runs"),
                                [&](const json& run) { return run.at("port") == daemon_->port(); });
  }));
  const auto runs = HistoryOf(*daemon_, {"--all"});
  struct Expected {
    const char* root;
    const char* ending;
    const char* sentence;
  };
  for (const Expected& expected : std::initializer_list<Expected>{
           {"SHUT", "shut down", "The master shut it down"},
           {"LEFT", "master left",
            "The master left without shutting it down, or the connection to the master broke"},
           {"STEP", "simulator ended",
            "The simulator ended, or was ended, during the request 'first step'"},
           {"EARLY", "request failed",
            "The master sent the request 'time' before it had the simulator connected"},
           {"NOWHERE", "no simulator",
            "The script named the host 'nowhere.invalid', which the jobmill's machine does not "
            "know"},
           {"MUTE", "no host",
            "The script ended without naming a host and without a word; it may be missing, or not "
            "be executable"},
           {"SAYS", "no host",
            "The script ended without naming a host; the last that it said: slurm: the job is "
            "refused: no such queue"},
           {"", "no request",
            "Whoever connected asked for no run: a probe of the port, or a master that gave up at "
            "once"}}) {
    ASSERT_TRUE(runs.contains(expected.root)) << expected.root;
    const json& run = runs.at(expected.root);
    EXPECT_EQ(run.at("ending"), expected.ending) << run;
    EXPECT_EQ(run.at("sentence"), expected.sentence);
    EXPECT_THAT(run.at("doubts"), IsEmpty()) << run;
  }
  EXPECT_EQ(runs.at("ABSENT").at("ending"), "no simulator");
  EXPECT_THAT(runs.at("ABSENT").at("sentence").get<std::string>(),
              StartsWith("No simulator accepted the connection on host '127.0.0.1', port "));
  const json& shut_down = runs.at("SHUT");
  EXPECT_EQ(shut_down.at("windows_user"), "alice");
  EXPECT_EQ(shut_down.at("processes"), 2);
  EXPECT_EQ(shut_down.at("requests"), 3);
  EXPECT_EQ(shut_down.at("day"), 0.0);
  EXPECT_GE(shut_down.at("lasted_seconds"), shut_down.at("queued_seconds"));
  EXPECT_LT(shut_down.at("lasted_seconds"), 20);

  // The places are those of the lines that tell it.
  const json& place = runs.at("STEP").at("places").at(0);
  EXPECT_EQ(place.at("file"), data_.File("STEP.crvnlog"));
  std::istringstream log(data_.Read("STEP.crvnlog"));
  std::string line;
  for (int i = 0; i < place.at("line"); ++i) std::getline(log, line);
  EXPECT_THAT(line, StartsWith("Request process loop failed: "));

  EXPECT_FALSE(HistoryOf(*daemon_).contains(""));
  const auto failed = HistoryOf(*daemon_, {"--failed"});
  EXPECT_EQ(failed.size(), 7U);
  EXPECT_FALSE(failed.contains("SHUT"));
  EXPECT_TRUE(HistoryOf(*daemon_, {"--user", "nobody-of-this-name"}).empty());
  EXPECT_EQ(HistoryOf(*daemon_, {"--user", "alice"}).size(), 8U);

  const Outcome table = Jobmillctl({"history"});
  EXPECT_THAT(table.out, HasSubstr("The master shut it down; see " + data_.File("SHUT.crvnlog")));
  const Outcome one = Jobmillctl({"history", "SAYS"});
  EXPECT_THAT(one.out, HasSubstr("sentence               The script ended without naming a host"));
  // A run that has just ended is known to status, too. By its id: another test has a run LEFT.
  EXPECT_THAT(Jobmillctl({"status", runs.at("LEFT").at("id").get<std::string>()}).out,
              HasSubstr("ending                 master left\n"));
}

TEST_F(HistoryTest, WhatWasKilledEndedWithoutAWordAndWhatRunsHasNotEnded) {
  StartDaemon({"-u", "-o", std::to_string(RunsSite::FreePorts())}, "-");
  Ask("QUEUED");
  ASSERT_TRUE(daemon_->WaitForLog("slurm: job 47 waits"));
  TestMaster& left = Launch("LEFT");
  left.Ask("01 00 00 00");
  TestMaster idle(daemon_->port());
  idle.Receive();
  EXPECT_THAT(HistoryOf(*daemon_, {"--all"}), IsEmpty());

  std::map<std::string, pid_t> ids;
  const json document = json::parse(Jobmillctl({"status", "--json"}).out);
  for (const json& run : document.at("runs")) {
    if (run.at("port") == daemon_->port() && run.at("root").is_string()) {
      ids[run.at("root").get<std::string>()] = run.at("id").get<pid_t>();
    }
  }
  for (const auto& [root, id] : ids) kill(id, SIGKILL);
  ASSERT_TRUE(Eventually([&] { return HistoryOf(*daemon_, {"--all"}).size() == 2; }));
  const auto runs = HistoryOf(*daemon_, {"--all"});
  EXPECT_EQ(runs.at("QUEUED").at("ending"), "without a word");
  EXPECT_THAT(runs.at("QUEUED").at("sentence").get<std::string>(),
              StartsWith("It ended without a word while its script had not named a host"));
  EXPECT_EQ(runs.at("LEFT").at("ending"), "without a word");
  EXPECT_THAT(runs.at("LEFT").at("sentence").get<std::string>(),
              StartsWith("It ended without a word after the request 'connect': "));
  kill(std::stoi(data_.Read("LEFT.pid")), SIGKILL);
}

TEST_F(HistoryTest, WhoIsRefusedIsTold) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  StartDaemon({"-o", std::to_string(RunsSite::FreePorts())},
              "alice nobody 1\nbob nobody 0\ncarl no-such-account 1\n");
  EXPECT_THAT(Ask("DENIED", "bob").Receive(), HasSubstr("does not have permissions"));
  EXPECT_THAT(Ask("UNKNOWN", "eve").Receive(), HasSubstr("not found"));
  EXPECT_THAT(Ask("NOBODY", "carl").Receive(), HasSubstr("Failed to get password entry"));
  TestMaster& shut = Launch("SHUT");
  shut.Ask("01 00 00 00");
  shut.Ask("f0 ff 00 00");
  WaitForEnd("SHUT", "naturally");
  const auto runs = HistoryOf(*daemon_);
  EXPECT_EQ(runs.at("DENIED").at("reason"), "user-denied");
  EXPECT_EQ(runs.at("UNKNOWN").at("reason"), "user-unknown");
  EXPECT_EQ(runs.at("NOBODY").at("reason"), "account-unknown");
  EXPECT_EQ(runs.at("SHUT").at("ending"), "shut down");
  EXPECT_EQ(runs.at("SHUT").at("account"), "nobody");
  EXPECT_EQ(runs.at("SHUT").at("told_by_account"), true);
  for (const auto& [root, run] : runs) EXPECT_THAT(run.at("doubts"), IsEmpty()) << run;
  EXPECT_EQ(HistoryOf(*daemon_, {"--user", "nobody"}).size(), 1U);
}

TEST_F(HistoryTest, TextsOfMastersCommandNoTerminal) {
  StartDaemon({"-u", "-o", std::to_string(RunsSite::FreePorts())}, "-");
  const std::string hostile = "\x1b[2J<script>\xff" + std::string(30000, 'x');
  EXPECT_EQ(Ask("MUTE", hostile).Receive(), "No host detected");
  const Outcome table = Jobmillctl({"history"});
  EXPECT_THAT(table.out, HasSubstr("\\x1b[2J<script>\\xff"));
  for (const char c : table.out) EXPECT_TRUE(c == '\n' || (c >= ' ' && c < '\x7f')) << int{c};
  EXPECT_TRUE(json::accept(Jobmillctl({"history", "--json"}).out));
}

// An archive, unpacked: what its files hold, by their names.
std::map<std::string, std::string> Unpacked(const std::string& archive) {
  const TemporaryDirectory directory;
  ChildProcess tar({"/usr/bin/tar", "-xzf", archive, "-C", directory.path().string()}, {});
  EXPECT_EQ(tar.Wait(std::chrono::seconds(10)), 0);
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(directory.path())) {
    const std::string name = fs::relative(entry.path(), directory.path()).string();
    if (entry.is_regular_file()) files[name] = directory.Read(name);
  }
  return files;
}

class BundleTest : public EndedRuns {
 protected:
  const TemporaryDirectory out_;
  const std::string file_ = out_.File("bundle.tar.gz");
};

TEST_F(BundleTest, HoldsOneRunAndNothingOfOthersOrOfTheEnvironment) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  StartDaemon({"-o", std::to_string(RunsSite::FreePorts())},
              "alice nobody 1\nbob daemon 1\nzoe daemon 1\n");
  EXPECT_EQ(Ask("MUTE", "bob").Receive(), "No host detected");
  TestMaster& shut = Launch("SHUT");
  shut.Ask("01 00 00 00");
  EXPECT_EQ(Ask("TELLS", "alice").Receive(), "No host detected");
  const Outcome live = Jobmillctl({"bundle", NumberOf("SHUT"), out_.File("live.tar.gz"), "--yes"});
  EXPECT_EQ(live.status, 0) << live.err;
  shut.Ask("f0 ff 00 00");
  WaitForEnd("SHUT", "naturally");
  ASSERT_TRUE(Eventually([&] { return HistoryOf(*daemon_).contains("SHUT"); }));
  const std::string id = HistoryOf(*daemon_).at("SHUT").at("id").get<std::string>();
  const Outcome outcome = Jobmillctl({"bundle", id, file_, "--yes"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(fs::status(file_).permissions(), fs::perms(0600));

  const std::string place = "jobmill-bundle/runs/" + id + "/";
  const auto files = Unpacked(file_);
  EXPECT_EQ(files.size(), 8U);
  for (const auto& [name, text] : files) {
    for (const char* other : {"bob", "zoe", "MUTE", "hush-hush-1234"}) {
      EXPECT_EQ(text.find(other), std::string::npos) << name << " holds " << other;
    }
    if (name == "jobmill-bundle/contents.txt") continue;
    EXPECT_THAT(outcome.out, HasSubstr(" " + name.substr(std::string("jobmill-bundle/").size())));
  }
  const std::string& log = files.at(place + "daemon-log.txt");
  EXPECT_THAT(log, StartsWith("Accepted incoming connection: "));
  EXPECT_THAT(log, HasSubstr("\nSetting non-existing environment variable SECRET_TOKEN to (left "
                             "out)\nWindows user received: alice\n"));
  EXPECT_THAT(log, EndsWith("\nHost detected: 127.0.0.1\n"));
  EXPECT_EQ(files.at(place + "comms-log.txt"), data_.Read("SHUT.crvnlog"));
  EXPECT_EQ(files.at(place + "output.txt"), data_.Read("SHUT.out"));
  const json history = json::parse(files.at("jobmill-bundle/history.json"));
  EXPECT_EQ(history.at("runs").size(), 1U);
  EXPECT_EQ(history.at("runs").at(0).at("ending"), "shut down");
  EXPECT_THAT(json::parse(files.at("jobmill-bundle/status.json")).at("runs"), IsEmpty());
  EXPECT_TRUE(json::accept(files.at("jobmill-bundle/check.json")));

  // While it went on.
  const auto before = Unpacked(out_.File("live.tar.gz"));
  EXPECT_EQ(json::parse(before.at("jobmill-bundle/status.json")).at("runs").at(0).at("root"),
            "SHUT");
  EXPECT_THAT(json::parse(before.at("jobmill-bundle/history.json")).at("runs"), IsEmpty());
  EXPECT_THAT(before.at(place + "daemon-log.txt"), HasSubstr("Windows user received: alice"));

  // What a script prints of the environment is left out, too.
  const Outcome tells = Jobmillctl({"bundle", "TELLS", out_.File("tells.tar.gz"), "--yes"});
  for (const auto& [name, text] : Unpacked(out_.File("tells.tar.gz"))) {
    EXPECT_EQ(text.find("hush-hush-1234"), std::string::npos) << name;
    if (name.ends_with("daemon-log.txt")) {
      EXPECT_THAT(text, HasSubstr("the token is (left out)"));
    }
  }

  // To root all of them.
  const Outcome all =
      Jobmillctl({"bundle", "--all", "--since", "1m", out_.File("all.tar.gz"), "--yes"});
  EXPECT_EQ(all.status, 0) << all.err;
  int of_bob = 0;
  for (const auto& [name, text] : Unpacked(out_.File("all.tar.gz"))) {
    EXPECT_EQ(text.find("hush-hush-1234"), std::string::npos) << name;
    of_bob += text.find("Windows user received: bob") != std::string::npos ? 1 : 0;
  }
  EXPECT_GE(of_bob, 1);
}

TEST_F(BundleTest, NothingIsReplacedAndNothingWrittenWithoutAYes) {
  StartDaemon({"-u", "-o", std::to_string(RunsSite::FreePorts())}, "-");
  EXPECT_EQ(Ask("MUTE").Receive(), "No host detected");
  const std::string id = HistoryOf(*daemon_).at("MUTE").at("id").get<std::string>();
  const Outcome unsure = Jobmillctl({"bundle", id, file_});
  EXPECT_EQ(unsure.status, 1);
  EXPECT_THAT(unsure.out, EndsWith("[y/N] Nothing was written\n"));
  EXPECT_FALSE(fs::exists(file_));
  out_.Write("bundle.tar.gz", "precious");
  EXPECT_EQ(Jobmillctl({"bundle", id, file_, "--yes"}).status, 1);
  EXPECT_EQ(out_.Read("bundle.tar.gz"), "precious");
  fs::remove(file_);
  fs::create_symlink(out_.File("elsewhere"), file_);
  EXPECT_EQ(Jobmillctl({"bundle", id, file_, "--yes"}).status, 1);
  EXPECT_FALSE(fs::exists(out_.File("elsewhere")));
  EXPECT_EQ(Jobmillctl({"bundle", id}).status, 2);
  EXPECT_EQ(Jobmillctl({"bundle", "--all", id, file_}).status, 2);
  EXPECT_EQ(Jobmillctl({"bundle", "no-such-run", file_}).status, 1);
}

TEST(HistoryCommandTest, TimesThatAreNoneAreRefused) {
  EXPECT_EQ(Jobmillctl({"history", "--since", "yesterday"}).status, 2);
  EXPECT_EQ(Jobmillctl({"history", "--since", "2026-13-01"}).status, 2);
  const auto now = static_cast<double>(time(nullptr));
  for (const auto& [text, ago] :
       {std::pair("90m", 5'400), {"12h", 43'200}, {"2d", 172'800}, {"1w", 604'800}}) {
    EXPECT_NEAR(jobmillctl::TimeOf(text), now - ago, 2) << text;
  }
  EXPECT_EQ(jobmillctl::TimeOf("2026-11-21 14:00") - jobmillctl::TimeOf("2026-11-21"), 50'400);
  const Outcome none = Jobmillctl({"history", "--since", "1m", "no-such-run"});
  EXPECT_EQ(none.status, 1);
  EXPECT_THAT(none.err,
              HasSubstr("'no-such-run' is no run that has ended and that a log tells of"));
}

TEST_F(BundleTest, YesIsAskedForAndAllIsRootsToSee) {
  StartDaemon({"-u", "-o", std::to_string(RunsSite::FreePorts())}, "-");
  EXPECT_EQ(Ask("MUTE").Receive(), "No host detected");
  const std::string id = HistoryOf(*daemon_).at("MUTE").at("id").get<std::string>();
  const Outcome outcome = Jobmillctl({"bundle", id, file_}, {}, "yes\n");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr(file_ + " is written; only this account can read it\n"));
  EXPECT_THAT(outcome.out, HasSubstr(", other accounts' runs\n"));
  EXPECT_EQ(Jobmillctl({"bundle", id, out_.File("no/such/directory")}, {}, "y\n").status, 1);
  EXPECT_EQ(Jobmillctl({"bundle", id, out_.File("x")}, {"TMPDIR=/proc"}, "y\n").status, 1);
}

}  // namespace
