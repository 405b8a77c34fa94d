// What is shown of runs that no test can bring about on its machine.

#include "tools/jobmillctl/run_view.h"

#include <unistd.h>

#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/temporary_directory.h"
#include "tools/jobmillctl/history_view.h"
#include "tools/jobmillctl/run_logs.h"

namespace jobmillctl {
namespace {

using inspect::Daemon;
using inspect::Runs;
using inspect::RunState;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr double kNow = 1'795'171'994;

inspect::Run RunOf(pid_t pid) {
  inspect::Run run;
  run.id.pid = pid;
  run.state = RunState::kMaster;
  return run;
}

TEST(RunViewTest, DurationsAreShort) {
  EXPECT_EQ(DurationText(-1), "0s");
  EXPECT_EQ(DurationText(59.9), "59s");
  EXPECT_EQ(DurationText(12 * 60 + 5), "12m");
  EXPECT_EQ(DurationText(3 * 3600 + 4 * 60), "3h04m");
  EXPECT_EQ(DurationText((2 * 24 + 3) * 3600 + 59), "2d03h");
}

TEST(RunViewTest, MachineWithoutRunsSaysSo) {
  Runs found;
  EXPECT_THAT(LinesOf(found, kNow), ElementsAre("No jobmill and no run is on this machine"));
  found.missing = {"sockets: \x1b"};
  Daemon daemon;
  daemon.options.listen_port = 5000;
  daemon.id.pid = 7;
  daemon.since = kNow - 60;
  daemon.older = true;
  found.daemons = {daemon};
  const auto lines = LinesOf(found, kNow);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_THAT(lines[0], testing::StartsWith("Port 5000: process 7 since "));
  EXPECT_THAT(lines[0],
              testing::EndsWith(" (1m), with an older program than the one that is installed"));
  EXPECT_EQ(lines[1], "Not known: sockets: \\x1b");
  EXPECT_EQ(lines[2], "No run");
}

TEST(RunViewTest, WhatIsNotKnownOfARunIsADash) {
  Runs found;
  inspect::Run run = RunOf(7);
  run.simulator = 8;
  found.runs = {run};
  EXPECT_THAT(LinesOf(found, kNow).at(1),
              testing::MatchesRegex("7 +waiting for the master +- +- +- +- +- +- +8 +- +-.*"));
  const auto document = JsonOf(found, kNow);
  EXPECT_TRUE(document.at("runs").at(0).at("account").is_null());
  EXPECT_TRUE(document.at("runs").at(0).at("day").is_null());
  EXPECT_EQ(Described(run), "run 7 ()");
  EXPECT_THAT(LogsOf(run), IsEmpty());
}

TEST(RunViewTest, ReasonsStandWhereAFieldIsNotKnown) {
  Runs found;
  inspect::Run run = RunOf(7);
  run.state = RunState::kUnknown;
  run.day = std::numeric_limits<double>::infinity();
  run.unknown = {{"comms_log", "it is a link"}, {"state", "it changed"}};
  found.runs = {run};
  EXPECT_THAT(LinesOf(found, kNow).at(1), testing::EndsWith(" it changed"));
  const auto details = DetailsOf(run, kNow);
  EXPECT_THAT(details, Contains("unknown, because       it changed"));
  EXPECT_THAT(details, Contains("comms_log              not known: it is a link"));
  EXPECT_THAT(details, Contains("day                    -"));
}

TEST(RunViewTest, EndedRunShowsItsCause) {
  Runs found;
  inspect::Run run = RunOf(7);
  run.state = RunState::kEnded;
  run.waits_for = "the daemon";
  found.runs = {run, run};
  found.runs[1].cause = "The master left";
  EXPECT_THAT(LinesOf(found, kNow).at(1), testing::EndsWith(" -"));
  EXPECT_THAT(LinesOf(found, kNow).at(2), testing::EndsWith(" The master left"));
}

TEST(RunViewTest, AccountWithoutANameIsItsNumber) {
  EXPECT_EQ(AccountName(4'000'000'000U), "4000000000");
  EXPECT_EQ(AccountName(0), "root");
}

TEST(RunViewTest, ModelIsPathAndRootName) {
  inspect::Run run = RunOf(7);
  run.path = "/data";
  EXPECT_EQ(ModelOf(run), "");
  run.root = "CASE";
  EXPECT_EQ(ModelOf(run), "/data/CASE");
  run.path = "/data/";
  EXPECT_EQ(ModelOf(run), "/data/CASE");
  run.user = getuid();
  EXPECT_EQ(LogsOf(run).size(), 1U);
  run.path = "data/";
  EXPECT_THAT(LogsOf(run), IsEmpty());
}

TEST(RunViewTest, LogThatCannotBeReadIsSaidInItsPlace) {
  EXPECT_THAT(LastLines({"Comms log", "/no/such/log", getuid()}, 3),
              ElementsAre("No such file or directory"));
}

TEST(RunViewTest, RunWithoutLogsHasNoneToPrint) {
  inspect::Run run = RunOf(7);
  const auto error = [&]() -> std::string {
    try {
      PrintLog(run);
    } catch (const std::exception& failed) {
      return failed.what();
    }
    return "printed";
  };
  EXPECT_EQ(error(), "run 7 () has no log that is known here");
  run.unknown["comms_log"] = "the daemon was started without -l";
  EXPECT_EQ(error(), "run 7 () has no log that is known here: the daemon was started without -l");
  run.user = getuid();
  run.comms_log = "/no/such/log";
  EXPECT_EQ(error(), "Comms log: No such file or directory");
}

TEST(RunViewTest, NameThatACertificateHasProvenStandsBesideTheClaimedOne) {
  Runs found;
  inspect::Run run = RunOf(7);
  run.windows_user = "alice";
  run.proven = "upn:alice@example.com\x1b";
  found.runs = {run};
  EXPECT_THAT(LinesOf(found, kNow).at(1), HasSubstr(" alice upn:alice@example.com\\x1b "));
}

TEST(RunViewTest, LogThatEndsWithinALineIsPrintedToItsEnd) {
  const TemporaryDirectory directory;
  inspect::Run run = RunOf(7);
  run.user = getuid();
  run.comms_log = directory.Write("CASE.crvnlog", "one\ntw\x1bo");
  testing::internal::CaptureStdout();
  EXPECT_EQ(PrintLog(run), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "one\ntw\\x1bo\n");
}

// Of a run that has ended, too.
TEST(HistoryViewTest, WhatIsNotKnownIsADash) {
  inspect::EndedRun run;
  run.id = "5000-20261121-120000";
  run.began = kNow;
  run.end.sentence = "It ended";
  inspect::History history;
  EXPECT_THAT(LinesOf(history), ElementsAre("No run"));
  history.missing = {"/var/log: \x1b"};
  history.runs = {run};
  const auto lines = LinesOf(history);
  EXPECT_THAT(lines, Contains(HasSubstr("/var/log: \\x1b")));
  EXPECT_THAT(lines.back(), testing::EndsWith("It ended"));
  history.runs[0].places = {{"/var/log/x", 0}};
  EXPECT_THAT(LinesOf(history).back(), testing::EndsWith("It ended; see /var/log/x"));
  history.runs[0].path = "/data";
  EXPECT_THAT(LinesOf(history).back(), Not(HasSubstr("/data")));
  history.runs[0].root = "";
  EXPECT_THAT(LinesOf(history).back(), Not(HasSubstr("/data")));
  history.runs[0].root = "CASE";
  EXPECT_THAT(LinesOf(history).back(), HasSubstr(" /data/CASE "));
}

TEST(HistoryViewTest, DoubtsAreTold) {
  inspect::EndedRun run;
  run.doubts = {"its lines are mixed"};
  run.began = kNow;
  EXPECT_THAT(DetailsOf(run), Contains(HasSubstr("its lines are mixed")));
}

}  // namespace
}  // namespace jobmillctl
