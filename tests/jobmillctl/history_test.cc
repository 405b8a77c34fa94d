// What jobmillctl says of runs that have ended, beside how the test has ended them.

#include <signal.h>
#include <sys/mount.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/inspect/own_view.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/jobmillctl/runs_site.h"
#include "tests/support/bytes.h"
#include "tests/support/ports.h"
#include "tools/jobmillctl/since.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
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
  // For the users that it names; without any, for everybody under its own account.
  void StartDaemon(const std::string& users = "") {
    fs::permissions(data_.path(), fs::perms(0777));
    for (const char* root : {"SHUT", "LEFT", "STEP", "EARLY", "OWN", "OTHERS", "LONG", "LINK"}) {
      fs::copy_file(EXAMPLES_DIR "/TENWELLS.afi", data_.File(std::string(root) + ".afi"));
    }
    fs::permissions(programs_.path(), fs::perms(0755));
    fs::copy_file(ProgramDirectory() + "/vksim", programs_.File("vksim"));
    RunningDaemon::Options options;
    options.arguments = {
        "-l", "-t", "5", "-o", std::to_string(comms_.first()), "-n", std::to_string(comms_.size())};
    if (users.empty()) options.arguments.emplace_back("-u");
    options.script = kScript;
    options.users = users.empty() ? "-" : users;
    options.environment = "VERBOSITY 2\nSECRET_TOKEN hush-hush-1234\n";
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

  const PortBlock comms_;
  const TemporaryDirectory data_;
  const TemporaryDirectory programs_;
  std::unique_ptr<RunningDaemon> daemon_;
  std::vector<std::unique_ptr<TestMaster>> masters_;
};

class HistoryTest : public EndedRuns {};

TEST_F(HistoryTest, EachWayOfEndingIsTold) {
  StartDaemon();
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
  const auto id = runs.at("LEFT").at("id").get<std::string>();
  EXPECT_THAT(Jobmillctl({"status", id}).out, HasSubstr("ending                 master left\n"));
  const json status = json::parse(Jobmillctl({"status", id, "--json"}).out);
  ASSERT_EQ(status.at("runs").size(), 1U);
  EXPECT_EQ(status.at("runs").at(0).at("ending"), "master left");
}

TEST_F(HistoryTest, WhatWasKilledEndedWithoutAWordAndWhatRunsHasNotEnded) {
  StartDaemon();
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
  StartDaemon("alice nobody 1\nbob nobody 0\ncarl no-such-account 1\n");
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
  StartDaemon();
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
  StartDaemon("alice nobody 1\nbob daemon 1\nzoe daemon 1\n");
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
  EXPECT_THAT(log, HasSubstr("\nArg 2: 2\n")) << "a short value is in other places as well";
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

// An account without rights gets what it may see, of its own runs alone.
TEST_F(BundleTest, AllIsWithoutRightsOnlyWhatIsOnesOwn) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  StartDaemon("alice nobody 1\nbob daemon 1\n");
  Launch("OWN");
  EXPECT_THAT(Ask("OTHERS", "bob").Receive(), StartsWith("OK|"));
  fs::permissions(out_.path(), fs::perms(0777));
  const Outcome outcome = JobmillctlAsNobody({"bundle", "--all", "--since", "1m", file_, "--yes"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out, StartsWith("Left out: the values of the environment file, the list of "
                                      "those who may run, other accounts' runs\n"));
  const auto files = Unpacked(file_);
  std::vector<std::string> accounts;
  const json status = json::parse(files.at("jobmill-bundle/status.json"));
  for (const json& run : status.at("runs")) accounts.push_back(run.at("account"));
  EXPECT_FALSE(accounts.empty());
  EXPECT_THAT(accounts, testing::Each("nobody"));
}

// A file of somebody else in the place of a log is not taken for it.
TEST_F(BundleTest, LogsAreCutAndNotFollowedElsewhere) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  StartDaemon("alice nobody 1\ncarol nobody 1\nbob nobody 0\n");
  // Neither who asks for no run nor who is refused has logs.
  TestMaster(daemon_->port()).Leave();
  ASSERT_TRUE(daemon_->WaitForLog("Incorrect response from Corvane"));
  EXPECT_THAT(Ask("LONG", "bob").Receive(), HasSubstr("does not have permissions"));
  for (const char* root : {"LONG", "LINK"}) {
    TestMaster& master = Launch(root);
    master.Ask("01 00 00 00");
    master.Ask("f0 ff 00 00");
    WaitForEnd(root, "naturally");
  }
  // A path that is no whole one, and one without its slash: the daemon puts the comms log beside.
  fs::create_directory(data_.File("in"));
  fs::permissions(data_.File("in"), fs::perms(0777));
  fs::copy_file(data_.File("LONG.afi"), data_.File("in/LONG.afi"));
  for (const std::string& path : {std::string("data/"), data_.File("in")}) {
    masters_.push_back(std::make_unique<TestMaster>(daemon_->port()));
    masters_.back()->RequestRun({"0", path, "LONG", "2", "20172", "carol", "0"});
    masters_.back()->Receive();
    masters_.back()->Send(Bytes("04 00 00 00"));
  }
  WaitForEnd("inLONG", "failed: ");
  ASSERT_TRUE(Eventually([&] { return HistoryOf(*daemon_, {"--user", "alice"}).size() == 2; }));
  const auto runs = HistoryOf(*daemon_, {"--user", "alice"});
  out_.Write("secret", "of another account\n");
  fs::remove(data_.File("LINK.out"));
  fs::create_symlink(out_.File("secret"), data_.File("LINK.out"));
  data_.Write("LONG.out", std::string(300 << 10, 'x') + "\nthe last line\n");
  fs::remove(daemon_->directory().File("vkjobmill.exe"));
  const Outcome all = Jobmillctl({"bundle", "--all", "--since", "1m", file_, "--yes"});
  ASSERT_EQ(all.status, 0) << all.err;
  const auto files = Unpacked(file_);
  const auto text = [&](const char* root, const std::string& name) {
    return files.at("jobmill-bundle/runs/" + runs.at(root).at("id").get<std::string>() + "/" +
                    name);
  };
  EXPECT_EQ(text("LONG", "output.txt"), "(only the end)\nthe last line\n");
  EXPECT_EQ(text("LINK", "output.txt"), "not read: it is a link\n");
  EXPECT_EQ(text("LINK", "comms-log.txt"), data_.Read("LINK.crvnlog"));
  EXPECT_THAT(files.at("jobmill-bundle/versions.txt"),
              HasSubstr(", an older one than is installed\n"));
  // Each log is that of one run. Those of tests beside this one may have the same text.
  const json known = json::parse(Jobmillctl({"history", "--json", "--since", "10m"}).out);
  std::map<std::string, int> times;
  for (const auto& [name, content] : files) {
    times[content] += std::ranges::any_of(known.at("runs"), [&, &file = name](const json& run) {
      return run.at("port") == daemon_->port() &&
             file.find(run.at("id").get<std::string>()) != std::string::npos;
    });
    EXPECT_EQ(content.find("of another account"), std::string::npos) << name;
  }
  for (const char* log : {"inLONG.crvnlog", "in/LONG.out", "LONG.crvnlog"}) {
    EXPECT_EQ(times[data_.Read(log)], 1) << log;
  }
  EXPECT_EQ(times[text("LONG", "output.txt")], 1);
}

TEST_F(BundleTest, RunOfWhichNoLogTellsIsThereWithItsState) {
  StartDaemon();
  Launch("OWN");
  fs::remove(daemon_->LogFile());
  const json document = json::parse(Jobmillctl({"status", "--json"}).out);
  std::string id;
  for (const json& run : document.at("runs")) {
    if (run.at("port") == daemon_->port()) id = run.at("id").dump();
  }
  const Outcome outcome = Jobmillctl({"bundle", id, file_, "--yes"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  const auto files = Unpacked(file_);
  const json status = json::parse(files.at("jobmill-bundle/status.json"));
  ASSERT_EQ(status.at("runs").size(), 1U);
  EXPECT_EQ(status.at("runs").at(0).at("id").dump(), id);
  EXPECT_EQ(status.at("runs").at(0).at("port"), daemon_->port());
  EXPECT_THAT(json::parse(files.at("jobmill-bundle/history.json")).at("runs"), IsEmpty());
  for (const auto& [name, content] : files) EXPECT_EQ(name.find("/runs/"), std::string::npos);
}

// Which runs hold ports is told to whom all runs are told.
TEST_F(BundleTest, FindingsAreThoseOfAllConfigurationsWithoutThePortsOfOthers) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  StartDaemon();
  EXPECT_EQ(Ask("MUTE").Receive(), "No host detected");
  const std::string id = HistoryOf(*daemon_).at("MUTE").at("id").get<std::string>();
  const TemporaryDirectory etc;
  fs::copy("/etc", etc.path(), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  fs::create_directories(etc.File("jobmill"));
  etc.Write("jobmill/west.conf",
            "OPTIONS='-p " + std::to_string(daemon_->port()) + " -s /bin/true -o 9901'\n");
  fs::remove(daemon_->directory().File("vkjobmill.exe"));  // it is an older one from now on
  etc.Write("jobmill/remarks.txt", "no configuration\n");
  const std::string said = WithMounts({{etc.path().string(), "/etc"}}, [&]() -> std::string {
    const Outcome one = Jobmillctl({"bundle", id, file_, "--yes"});
    const Outcome all =
        Jobmillctl({"bundle", "--all", "--since", "1m", out_.File("all.tar.gz"), "--yes"});
    return one.err + all.err;
  });
  if (said == "no mount") GTEST_SKIP() << "mounting is not permitted here";
  ASSERT_EQ(said, "");
  const auto ids = [](const std::string& archive) {
    const json document = json::parse(Unpacked(archive).at("jobmill-bundle/check.json"));
    EXPECT_EQ(document.at("sites").size(), 1U);
    EXPECT_EQ(document.at("sites").at(0).at("name"), "west");
    std::string found;
    for (const json& finding : document.at("findings")) {
      found += finding.at("id").get<std::string>() + ";";
    }
    return found;
  };
  EXPECT_THAT(ids(out_.File("all.tar.gz")), HasSubstr("port.older-daemon;"));
  EXPECT_THAT(ids(file_), Not(HasSubstr("port.")));
  EXPECT_THAT(ids(file_), HasSubstr("users.missing;"));
}

TEST_F(BundleTest, WhatCannotBeWrittenOrPackedLeavesNoArchive) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  StartDaemon();
  EXPECT_EQ(Ask("MUTE").Receive(), "No host detected");
  const std::string id = HistoryOf(*daemon_).at("MUTE").at("id").get<std::string>();
  const TemporaryDirectory full;
  const auto on_a_full_disk = [&](const std::string& file,
                                  const std::vector<std::string>& environment) {
    return WithMounts({}, [&]() -> std::string {
      if (mount("none", full.path().c_str(), "tmpfs", 0, "size=4k") != 0) return "no mount";
      full.Write("taken", std::string(4096, 'x'));
      const Outcome outcome = Jobmillctl({"bundle", id, file, "--yes"}, environment);
      std::string left;
      for (const auto& entry : fs::directory_iterator(full.path())) {
        left += " " + entry.path().filename().string();
      }
      return outcome.err + std::to_string(outcome.status) + left;
    });
  };
  const std::string archive = on_a_full_disk(full.File("x.tar.gz"), {});
  if (archive == "no mount") GTEST_SKIP() << "mounting is not permitted here";
  EXPECT_EQ(archive, "jobmillctl: " + full.File("x.tar.gz") +
                         " cannot be written: No space left on device\n1 taken");
  EXPECT_THAT(on_a_full_disk(file_, {"TMPDIR=" + full.path().string()}),
              testing::MatchesRegex("jobmillctl: .*/jobmill-bundle/[a-z.]+ cannot be written\n"
                                    "1 taken"));
  EXPECT_FALSE(fs::exists(file_));
  const std::string unpacked = WithMounts({{"/bin/false", "/usr/bin/tar"}}, [&] {
    return Jobmillctl({"bundle", id, file_, "--yes"}).err;
  });
  EXPECT_EQ(unpacked, "jobmillctl: tar could not pack the files\n");
  EXPECT_FALSE(fs::exists(file_));
  // Programs that are not there are a gap in the archive and no failure.
  EXPECT_EQ(Jobmillctl({"bundle", id, file_, "--yes"}, {"PATH=/nowhere"}).status, 0);
  EXPECT_THAT(Unpacked(file_).at("jobmill-bundle/versions.txt"),
              AllOf(HasSubstr("\nuname -a\nnot known\n"), HasSubstr("\nPackages\nnot known\n")));
}

TEST_F(BundleTest, NothingIsReplacedAndNothingWrittenWithoutAYes) {
  StartDaemon();
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
  for (const char* time : {"yesterday", "2026-02-31", "2026-13-01"}) {
    EXPECT_EQ(Jobmillctl({"history", "--since", time}).status, 2) << time;
  }
  for (const char* text : {"0d", "-2d", "d"}) EXPECT_EQ(jobmillctl::TimeOf(text), 0) << text;
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
  StartDaemon();
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
