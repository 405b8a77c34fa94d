#include "tools/vkmaster/plans/plan.h"

#include <signal.h>

#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/temporary_directory.h"
#include "tests/tools/fake_daemon.h"
#include "tests/tools/program.h"
#include "tools/vkmaster/command_line/options.h"
#include "tools/vkmaster/text/usage_error.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using vkmaster::Plan;
using vkmaster::ReadPlan;
using vkmaster::Step;
using vkmaster::Words;

const char* const kEarlierRun = "{\"vkmaster_version\": \"0.1.0\"}\n";
const char* const kEarlierRecord = "time_days,date,well\n";

class PlanTest : public testing::Test {
 protected:
  // What is in the folder, in order.
  std::string Names(const std::string& folder) const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.File(folder))) {
      names.insert(entry.path().filename().string());
    }
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : " ") + name;
    return text;
  }

  Plan Read(const std::string& text) { return ReadPlan(directory_.Write("plan.toml", text)); }

  std::string Refusal(const std::string& text) {
    try {
      Read(text);
      return "understood";
    } catch (const vkmaster::UsageError& error) {
      return error.what();
    }
  }

  TemporaryDirectory directory_;
};

TEST_F(PlanTest, WholePlanIsRead) {
  const Plan plan = Read(R"(
title = "a base case"
[launch]
host = "cluster7"
port = 5000
path = "/data/"
root = "CASE"
processes = 8
api = 20162
user = "alice"
debug = 1
cluster = 2
[advance]
until = 2030-01-31
step = "monthly"
[record]
directory = "out"
commands = ["data", "vars P* bhp; wells"]
[[event]]
at = 365
commands = ["shut P1"]
[[event]]
at = "2025-01-01"
commands = []
)");
  vkmaster::Options options;
  vkmaster::ApplyLaunch(plan, options);
  EXPECT_EQ(options.host, "cluster7");
  EXPECT_EQ(options.port, 5000);
  EXPECT_EQ(options.run.path, "/data/");
  EXPECT_EQ(options.run.root, "CASE");
  EXPECT_EQ(options.run.processes, "8");
  EXPECT_EQ(options.run.version, "20162");
  EXPECT_EQ(options.run.user, "alice");
  EXPECT_EQ(options.run.debug, "1");
  EXPECT_EQ(options.run.cluster, "2");
  EXPECT_EQ(plan.until.date, (master::Date{31, 1, 2030}));
  EXPECT_EQ(plan.step, (Step{Step::Kind::kMonthly, 0}));
  EXPECT_EQ(plan.directory, directory_.File("out"));
  ASSERT_EQ(plan.record.size(), 3U);
  EXPECT_EQ(plan.record[1].text, "vars P* bhp");
  ASSERT_EQ(plan.events.size(), 2U);
  EXPECT_EQ(plan.events[0].at.days, 365);
  EXPECT_EQ(plan.events[0].commands[0].text, "shut P1");
  EXPECT_EQ(plan.events[1].at.date, (master::Date{1, 1, 2025}));
}

TEST_F(PlanTest, AdvanceIsAllThatAPlanNeeds) {
  const Plan plan = Read("[advance]\nuntil = 30\n");
  EXPECT_EQ(plan.until.days, 30);
  EXPECT_EQ(plan.step, std::nullopt);
  EXPECT_EQ(plan.directory, directory_.File("results"));
}

TEST_F(PlanTest, DateOfAnotherKindIsToldHowItIsWritten) {
  for (const char* date : {"01.01.2022", "1/1/2022", "2022-1-1", "2022.01.01 # a year"}) {
    for (const char* end : {"\n", "\r\n"}) {
      EXPECT_THAT(Refusal(fmt::format("[advance]{0}until = {1}{0}", end, date)),
                  EndsWith("plan.toml, line 2: a date is written 2022-01-01"))
          << date;
    }
  }
  for (const char* date : {"2022-01-01T00:00:00", "2022-01-01 12:00:00", "12:00:00"}) {
    EXPECT_THAT(Refusal(std::string("[advance]\nuntil = ") + date + "\n"),
                EndsWith("plan.toml, line 2: a date is written 2022-01-01, without a time"))
        << date;
  }
  EXPECT_THAT(Refusal("[advance]\nuntil = 2022-02-30\n"), HasSubstr("plan.toml, line 2: "));
}

TEST_F(PlanTest, DateWithoutItsDashesIsRefused) {
  EXPECT_THAT(Refusal("[advance]\nuntil = 20220101\n"),
              HasSubstr("plan.toml, line 2: '20220101' looks like a date, which is written "
                        "2022-01-01"));
}

TEST_F(PlanTest, CheckSaysWhatMayBeAYear) {
  const std::string file = directory_.Write("plan.toml",
                                            "[advance]\nuntil = 2030\n[[event]]\nat = 2021.0\n"
                                            "commands = [\"data\"]\n[[event]]\nat = 2022\n"
                                            "commands = []\n");
  const Outcome outcome = RunVkmaster({"run", "--check", file});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(
      outcome.err,
      "note: 2022 may be a year or a day, and is refused when it is a year of the run, before "
      "its first step: write 2022-01-01 for the year, 2022.0 for the day\n"
      "note: 2030 may be a year or a day, and is refused when it is a year of the run, before "
      "its first step: write 2030-01-01 for the year, 2030.0 for the day\n");
}

TEST_F(PlanTest, WhatIsWrongIsNamedWithItsLine) {
  EXPECT_THAT(Refusal(""), EndsWith("plan.toml: the table [advance] is missing"));
  EXPECT_THAT(Refusal("x ="), HasSubstr("plan.toml, line 1: "));
  EXPECT_THAT(Refusal("[advance]\nunitl = 30\n"),
              EndsWith("plan.toml, line 2: there is no key 'unitl' here"));
  for (const char* other : {"[launch]\n", "[record]\n", "[[event]]\nat = 1\ncommands = []\n", ""}) {
    const std::string plan = std::string("[advance]\nuntil = 30\n") + other + "wehn = 3\n";
    EXPECT_THAT(Refusal(plan), EndsWith(": there is no key 'wehn' here")) << other;
  }
  EXPECT_THAT(Refusal("[advance]\nstep = 30\n"), EndsWith("line 1: [advance] has no until"));
  EXPECT_THAT(Refusal("[advance]\nuntil = \"soon\"\n"),
              HasSubstr("plan.toml, line 2: Days, +days"));
  EXPECT_THAT(Refusal("[advance]\nuntil = 3\nstep = 0\n"), HasSubstr("plan.toml, line 3: "));
  EXPECT_THAT(Refusal("[advance]\nuntil = true\n"), EndsWith("line 2: a text or a number wanted"));
  EXPECT_THAT(Refusal("[launch]\nport = \"x\"\n[advance]\nuntil = 3\n"),
              EndsWith("line 2: a port is a number 1 to 65535"));
  for (const char* port : {"0", "65536"}) {
    EXPECT_THAT(Refusal(std::string("[launch]\nport = ") + port + "\n[advance]\nuntil = 3\n"),
                EndsWith("line 2: a port is a number 1 to 65535"));
  }
  EXPECT_EQ(Read("[launch]\nport = 65535\n[advance]\nuntil = 3\n").launch.port, 65535);
  EXPECT_THAT(Refusal("[advance]\nuntil = 3\n[[event]]\ncommands = []\n"),
              EndsWith("line 3: an event has at and commands"));
  EXPECT_THAT(Refusal("launch = 3\n[advance]\nuntil = 3\n"), EndsWith("line 1: a table wanted"));
  const std::string advance = "[advance]\nuntil = 3\n";
  EXPECT_THAT(Refusal(advance + "[record]\ncommands = \"data\"\n"),
              EndsWith("line 4: a list of commands wanted"));
  EXPECT_THAT(Refusal(advance + "[record]\ncommands = [3]\n"),
              EndsWith("line 4: a command wanted, as a text"));
  EXPECT_THAT(Refusal(advance + "[record]\ncommands = [\n\"data\",\n\"dta\"]\n"),
              HasSubstr("line 6: No such command: dta"));
  EXPECT_THAT(Refusal(advance + "[record]\ncommands = [\"until 30\"]\n"),
              EndsWith("line 4: 'until' has no place in a plan"));
  EXPECT_THAT(Refusal(advance + "[record]\ncommands = [\"ipr P1\"]\n"),
              HasSubstr("line 4: ipr in [record] would open and cut back the wells at every stop"));
  EXPECT_THAT(Refusal(advance + "[record]\ncommands = [\"ipr P1 keep\"]\n"), HasSubstr("line 4"));
  EXPECT_EQ(Refusal(advance + "[record]\ncommands = [\"ipr P1 lift\"]\n"), "understood");
  EXPECT_EQ(Refusal(advance + "[record]\ncommands = ['ipr \"#1\" lift', \"data \\\"P's\\\"\"]\n"),
            "understood");
  EXPECT_THAT(Refusal(advance + "[event]\nat = 3\n"),
              EndsWith("line 3: events are written as [[event]]"));
  EXPECT_THAT(Refusal(advance + "[[event]]\nat = 3\n"),
              EndsWith("line 3: an event has at and commands"));
  EXPECT_THAT(Refusal(advance + "[[event]]\nat = \"+3\"\ncommands = []\n"),
              EndsWith("line 4: days or a date wanted"));
  EXPECT_THAT(Refusal(advance + "[[event]]\nat = 800\ncommands = []\n"),
              HasSubstr("line 4: day 800 is after the end of the plan, day "));
}

TEST_F(PlanTest, RecordsThatWouldWriteRowsTwiceAreRefused) {
  const std::string advance = "[advance]\nuntil = 3\n[record]\ncommands = [\n";
  for (const auto& [first, second] : {std::pair("data", "data P1"),
                                      {"data P1", "data"},
                                      {"data P1", "data  P1"},
                                      {"data all", "data P1"}}) {
    EXPECT_THAT(Refusal(fmt::format("{}\"{}\",\n\"wells; {}\"]\n", advance, first, second)),
                AllOf(HasSubstr("line 6: '"), EndsWith("' writes, too: one of them is enough")));
  }
  EXPECT_EQ(Refusal(advance + "\"data P1\", \"data P2\", \"vars P1 oil\", \"vars P1 gas\"]\n"),
            "understood");
}

TEST_F(PlanTest, RecordsThatWouldChangeTheRunAreRefused) {
  const std::string advance = "[advance]\nuntil = 3\n[record]\ncommands = [";
  for (const std::string command :
       {"shut P1", "open P1", "set-status SHUT P1", "uptime P1 0.5", "constrain P1 oil=9",
        "unconstrain P1", "source P1 S1", "composition S1 C1=1"}) {
    const std::string name = command.substr(0, command.find(' '));
    EXPECT_THAT(Refusal(fmt::format("{}\n\"data\",\n\"wells; {}\"]\n", advance, command)),
                EndsWith("line 6: '" + name +
                         "' in [record] would change the run at every stop: give it to an "
                         "[[event]]"));
  }
  EXPECT_EQ(Refusal(advance + "\"status\", \"wells\", \"vars P1 oil\", \"field\", \"eos\"]\n"),
            "understood");
}

TEST_F(PlanTest, InflowTablesThatSayWhatBecomesOfTheLimitsAreUnderstood) {
  const std::string event = "[advance]\nuntil = 3\n[[event]]\nat = 1\ncommands = [\"ipr P1";
  EXPECT_THAT(Refusal(event + "\"]\n"), EndsWith("or say lift or keep"));
  for (const char* word : {"lift", "keep", "--keep"}) {
    EXPECT_EQ(Refusal(event + " " + word + "\"]\n"), "understood") << word;
  }
}

TEST_F(PlanTest, EventsComeInTheOrderOfTheirTimes) {
  const Plan plan = Read(
      "[advance]\nuntil = 2030-01-01\n[[event]]\nat = 2028-01-01\ncommands = [\"shut P2\"]\n"
      "[[event]]\nat = 2027-01-01\ncommands = [\"shut P1\"]\n");
  EXPECT_EQ(plan.events[0].commands[0].text, "shut P1");
}

// The port is nobody's: nothing is launched.
TEST_F(PlanTest, CheckSaysWhatWillHappenWhenWithoutADaemon) {
  const std::string file = directory_.Write("plan.toml", R"(
title = "ten years"
[launch]
port = 5001
root = "CASE"
[advance]
until = 3650
step = "monthly"
[record]
commands = ["data", "wells"]
[[event]]
at = 730
commands = ["shut P1", "constrain P2 bhp=150"]
[[event]]
at = 365
commands = ["open P1"]
)");
  const Outcome outcome = RunVkmaster({"run", "--check", file});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "plan           " + file +
                             "\ntitle          ten years\n"
                             "root           CASE\n"
                             "port           5001\n"
                             "until          day 3650\n"
                             "steps          monthly\n"
                             "at every stop  data; wells\n"
                             "results in     " +
                             directory_.File("results") +
                             "\n\n"
                             "at        does\n"
                             "start     begins, records\n"
                             "day 365   open P1\n"
                             "day 730   shut P1; constrain P2 bhp=150\n"
                             "day 3650  records, ends\n");
  const Outcome mixed = RunVkmaster(
      {"--json", "run",
       directory_.Write("mixed.toml",
                        "[advance]\nuntil = 30\n[[event]]\nat = 2020-01-05\ncommands = []\n"),
       "--check"});
  EXPECT_THAT(mixed.out, HasSubstr("\"notes\":[\"The plan has days and dates"));
  EXPECT_THAT(RunVkmaster({"run", "--check"}).err, HasSubstr("Which plan? run [OPTIONS] PLAN"));
}

// What --check refuses, and a run before its launch: nobody listens on its port.
TEST_F(PlanTest, WhatIsCertainToFailIsRefusedByTheCheckAndBeforeTheLaunch) {
  const auto complaint = [this](const std::string& plan) {
    const std::string file = directory_.Write("plan.toml", plan);
    const Outcome check = RunVkmaster({"run", "--check", file});
    const Outcome run = RunVkmaster(LaunchArguments(FreePort(), {"run", file}));
    EXPECT_EQ(check.status, 2) << plan;
    EXPECT_EQ(run.status, 2) << plan;
    EXPECT_EQ(run.err, check.err);
    return check.err;
  };
  const std::string advance = "[[event]]\nat = 1\ncommands = [\"data\"]\n[advance]\nuntil = 60\n";
  directory_.Write("file", "");
  EXPECT_EQ(complaint(advance + "[record]\ndirectory = \"file/results\"\n"),
            "vkmaster: The results cannot be written to '" + directory_.File("file/results") +
                "': Not a directory\n");
  EXPECT_THAT(complaint(advance + "[record]\ndirectory = \"/proc/none/results\"\n"),
              HasSubstr("The results cannot be written to '/proc/none/results': "));
  EXPECT_THAT(complaint("[advance]\nuntil = 0\n"),
              EndsWith("line 2: the plan would end where the run begins\n"));
  EXPECT_THAT(complaint(advance + "[[event]]\nat = 50\ncommands = [\"constrain P1 oil=9\"]\n"
                                  "[[event]]\nat = 45\ncommands = [\"shut P2\", \"ipr P1\"]\n"),
              EndsWith("plan.toml: day 45, ipr P1: The tables would lift the rate limits of the "
                       "model. Set or take off limits before, or say lift or keep\n"));
  std::filesystem::create_directory(directory_.File("results"));
  directory_.Write("results/run.json", kEarlierRun);
  EXPECT_THAT(complaint(advance), HasSubstr("has the results of an earlier run"));
  const Outcome shown =
      RunVkmaster({"--overwrite", "run", "--check", directory_.Write("plan.toml", advance)});
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_EQ(directory_.Read("results/run.json"), kEarlierRun);
}

TEST_F(PlanTest, CheckLeavesNothingBehind) {
  const std::string file = directory_.Write(
      "plan.toml",
      "[advance]\nuntil = 60\n[record]\ndirectory = \"a/b\"\n[[event]]\nat = 45\ncommands = "
      "[\"unconstrain P1 liquid gas; ipr P1\"]\n[[event]]\nat = 46\ncommands = [\"ipr P2 "
      "keep\"]\n");
  EXPECT_EQ(RunVkmaster({"run", "--check", file}).status, 0);
  for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
    EXPECT_EQ(entry.path().filename(), "plan.toml");
  }
}

TEST_F(PlanTest, TargetMayHaveADecimalPoint) {
  EXPECT_EQ(Read("[advance]\nuntil = 30.5\n").until.days, 30.5);
}

TEST_F(PlanTest, MissingFileIsNamed) {
  EXPECT_THROW(ReadPlan(directory_.File("none.toml")), vkmaster::UsageError);
}

/// Plans carried out by the program.
class PlanRunTest : public PlanTest {
 protected:
  Outcome Run(const std::string& plan, const std::vector<std::string>& options = {}) {
    return Start(plan, options)->Finish();
  }

  std::unique_ptr<VkmasterProcess> Start(const std::string& plan,
                                         const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments = options;
    arguments.insert(arguments.end(), {"run", directory_.Write("plan.toml", plan)});
    return std::make_unique<VkmasterProcess>(LaunchArguments(daemon_.port(), arguments));
  }

  // steps.csv without its header and its wall times, which have to be numbers.
  std::string Steps() const {
    const std::string header = "time_days,date,ended,elapsed [s],computing [s]\n";
    std::string text = directory_.Read("results/steps.csv");
    if (!text.starts_with(header)) return text;
    const std::regex times(",[0-9.]+,[0-9.]+\n");
    return std::regex_replace(text.substr(header.size()), times, "\n");
  }

  FakeRun run_;
  FakeDaemon daemon_{FakeDaemon::Launching(run_)};
};

TEST_F(PlanRunTest, WhatIsWrongInTheLastEventIsKnownBeforeTheFirstStep) {
  const Outcome outcome =
      Run("[advance]\nuntil = 60\n[[event]]\nat = 45\ncommands = [\"constrain P1 oil=9\", \"shut "
          "P9\"]\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("day 45, shut P9: No well is called 'P9'"));
  EXPECT_THAT(daemon_.Requests(), testing::Not(testing::Contains("07 00 00 00")));
}

TEST_F(PlanRunTest, InflowTablesOfAnEventAreFineWhenAnEarlierOneSetsTheLimits) {
  const Outcome outcome =
      Run("[advance]\nuntil = 60\n[[event]]\nat = 10\ncommands = [\"constrain P1 liquid=900 "
          "gas=900\"]\n[[event]]\nat = 45\ncommands = [\"ipr P1\"]\n");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(PlanRunTest, InflowTablesThatWouldLiftLimitsAreRefusedBeforeTheFirstStep) {
  const Outcome outcome =
      Run("[advance]\nuntil = 60\n[[event]]\nat = 45\ncommands = [\"constrain P2 liquid=900 "
          "gas=900\", \"ipr P1\"]\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("day 45, ipr P1: The tables would lift rate limits"));
  EXPECT_THAT(daemon_.Requests(), testing::Not(testing::Contains("07 00 00 00")));
}

TEST_F(PlanRunTest, RunFileSaysWhatWasRunAndHowItEnded) {
  const Outcome outcome = Run(R"(
title = "ten years"
[advance]
until = 40
step = 30
[record]
commands = ["data P1", "vars P1 bhp TOTAL_MOLE_FRACTION[2]", "ipr P1 components all lift"]
[[event]]
at = 30
commands = ["shut P1"]
)");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const auto run = nlohmann::json::parse(directory_.Read("results/run.json"));
  EXPECT_EQ(run["title"], "ten years");
  EXPECT_EQ(run["deck"], "/data/CASE.afi");
  EXPECT_TRUE(run["deck_sha256"].is_null()) << "this machine does not see the file";
  EXPECT_EQ(run["daemon"], "127.0.0.1:" + std::to_string(daemon_.port()));
  EXPECT_EQ(run["simulator_host"], "node17");
  EXPECT_EQ(run["user"], "alice");
  EXPECT_EQ(run["simulator_version"], 2017.2);
  EXPECT_EQ(run["unit_system"], "metric");
  EXPECT_EQ(run["components"], nlohmann::json({"C1", "CO2"}));
  EXPECT_EQ(run["wells"], 3);
  EXPECT_EQ(run["start_date"], "2020-01-01");
  EXPECT_EQ(run["events"][0]["at"], "day 30");
  EXPECT_EQ(run["events"][0]["commands"][0], "shut P1");
  EXPECT_EQ(run["end"], "the plan was carried out");
  EXPECT_EQ(run["last_day"], 40.0);
  EXPECT_EQ(run["files"], nlohmann::json({"data.csv", "events.csv", "ipr.csv", "shut.csv",
                                          "steps.csv", "vars.csv"}));
  EXPECT_THAT(directory_.Read("results/data.csv"),
              testing::StartsWith("time_days,date,well,status,oil_rate [sm3/d],"));
  EXPECT_THAT(directory_.Read("results/vars.csv"),
              testing::StartsWith(
                  "time_days,date,well,BOTTOM_HOLE_PRESSURE [bar],TOTAL_MOLE_FRACTION[CO2]\n"));
  EXPECT_THAT(directory_.Read("results/ipr.csv"),
              HasSubstr(",mole_fraction_C1,mole_fraction_CO2\n"));
}

// The scripts enter the data directory, so that the slash at its end makes no other file.
TEST_F(PlanRunTest, RunFileNamesTheDeckOfAPathWithoutItsSlash) {
  const std::string plan = directory_.Write("plan.toml", "[advance]\nuntil = 1\n");
  const Outcome outcome =
      RunVkmaster({"--host", "127.0.0.1", "--port", std::to_string(daemon_.port()), "--path",
                   "/data/run", "--root", "CASE", "run", plan});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(daemon_.Frames()[2], Hex("/data/run"));
  const auto run = nlohmann::json::parse(directory_.Read("results/run.json"));
  EXPECT_EQ(run["deck"], "/data/run/CASE.afi");
}

TEST_F(PlanRunTest, PlanOfTheWorkingDirectoryHasItsResultsThere) {
  directory_.Write("plan.toml", "[advance]\nuntil = 1\n");
  const std::filesystem::path here = std::filesystem::current_path();
  std::filesystem::current_path(directory_.path());
  const Outcome outcome = RunVkmaster(LaunchArguments(daemon_.port(), {"run", "plan.toml"}));
  std::filesystem::current_path(here);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(Names("."), "plan.toml results");
  EXPECT_EQ(Names("results"), "run.json steps.csv");
}

TEST_F(PlanRunTest, InflowTablesOfBothPressuresAreToldApart) {
  const Outcome outcome =
      Run("[advance]\nuntil = 9\n[[event]]\nat = 0\ncommands = [\"ipr P1 lift\", \"ipr P1 thp "
          "lift\"]\n");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const std::string head = "time_days,date,well,point,";
  EXPECT_THAT(directory_.Read("results/ipr.csv"),
              testing::StartsWith(head + "bottom_hole_pressure [bar],oil_rate [sm3/d],"));
  EXPECT_THAT(directory_.Read("results/ipr_2.csv"),
              testing::StartsWith(head + "tubing_head_pressure [bar],oil_rate [sm3/d],"));
}

TEST_F(PlanRunTest, WhatACommandHasChangedForGoodIsKept) {
  Run("[advance]\nuntil = 9\n[record]\ncommands = [\"ipr P1 lift\"]\n"
      "[[event]]\nat = 5\ncommands = [\"ipr I1 lift\", \"ipr I1 lift\", \"ipr I1 keep\"]\n");
  EXPECT_EQ(directory_.Read("results/events.csv"),
            "time_days,date,command\n"
            "0,2020-01-01,\"note: ipr: The wells have their statuses again, and the rate limits of "
            "this session. Lifted for good, in case the model had any: P1 (liquid, gas)\"\n"
            "5,2020-01-06,ipr I1 lift\n"
            "5,2020-01-06,\"note: ipr: The wells have their statuses again, and the rate limits of "
            "this session. Lifted for good, in case the model had any: I1 (water-injection)\"\n"
            "5,2020-01-06,ipr I1 lift\n"
            "5,2020-01-06,ipr I1 keep\n"
            "5,2020-01-06,note: ipr: The wells are open and limited to the last point's rates: I1; "
            "set their statuses and constraints before the run goes on\n");
}

TEST_F(PlanRunTest, CommandsWithoutEffectAreKept) {
  run_.obeys = false;
  Run("[advance]\nuntil = 9\n[[event]]\nat = 5\ncommands = [\"shut P1\"]\n");
  EXPECT_EQ(directory_.Read("results/events.csv"),
            "time_days,date,command\n5,2020-01-06,shut P1\n"
            "5,2020-01-06,\"note: shut: The simulator has acknowledged it, but P1 is OPEN\"\n");
}

TEST_F(PlanRunTest, EscapesOfTheSimulatorDoNotReachTheTerminal) {
  run_.wells = {{"P\033[31m", "PRODUCER", "OPEN"}};
  run_.obeys = false;
  const Outcome outcome =
      Run("[advance]\nuntil = 9\n[[event]]\nat = 5\ncommands = [\"shut all\"]\n");
  EXPECT_THAT(outcome.err, HasSubstr("P?[31m is OPEN"));
  EXPECT_THAT(outcome.out + outcome.err, Not(HasSubstr("\033")));
}

TEST_F(PlanRunTest, WellsThatTheModelAddsAreRecordedFromThenOn) {
  run_.before = [this, first = true](std::uint32_t code) mutable {
    if (code == 8 && std::exchange(first, false)) run_.wells.push_back({"P9", "PRODUCER", "OPEN"});
  };
  const Outcome outcome =
      Run("[advance]\nuntil = 20\nstep = 10\n[record]\ncommands = [\"vars P* bhp\", \"data\"]\n");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  for (const char* file : {"results/data.csv", "results/vars.csv"}) {
    const std::string rows = directory_.Read(file);
    EXPECT_THAT(rows, Not(HasSubstr("\n0,2020-01-01,P9,"))) << file;
    EXPECT_THAT(rows, HasSubstr("\n10,2020-01-11,P9,")) << file;
    EXPECT_THAT(rows, HasSubstr("\n20,2020-01-21,P9,")) << file;
  }
}

TEST_F(PlanRunTest, RunFileOfARunThatFailedSaysSo) {
  run_.fails = {8};
  EXPECT_EQ(Run("[advance]\nuntil = 40\n").status, 4);
  const auto run = nlohmann::json::parse(directory_.Read("results/run.json"));
  EXPECT_THAT(run["end"].get<std::string>(), testing::StartsWith("failed: The daemon ended the"));
}

TEST_F(PlanRunTest, ResultsOfAnEarlierRunAreNeitherMixedNorLost) {
  const std::string plan = "[advance]\nuntil = 40\n";
  EXPECT_EQ(Run(plan + "[record]\ncommands = [\"wells\"]\n").status, 0);
  const std::string wells = directory_.Read("results/wells.csv");
  // Nobody is there for a second launch: it is refused before.
  const Outcome again = Run(plan);
  EXPECT_EQ(again.status, 2);
  EXPECT_THAT(again.err, HasSubstr("has the results of an earlier run"));
  EXPECT_EQ(directory_.Read("results/wells.csv"), wells);
  directory_.Write("results/remarks.txt", "somebody's own\n");
  std::filesystem::create_directory(directory_.File("results/earlier.csv"));
  FakeRun run;
  FakeDaemon daemon(FakeDaemon::Launching(run));
  const Outcome replaced = RunVkmaster(
      LaunchArguments(daemon.port(), {"--overwrite", "run", directory_.Write("plan.toml", plan)}));
  EXPECT_EQ(replaced.status, 0) << replaced.err;
  EXPECT_EQ(Names("results"), "earlier.csv remarks.txt run.json steps.csv");
  EXPECT_EQ(directory_.Read("results/remarks.txt"), "somebody's own\n");
}

// Another program's table may have the name of one of ours, and a copy of ours is a person's.
TEST_F(PlanTest, FilesThatNoRunHasWrittenAreNeitherMixedInNorReplaced) {
  const std::string plan = directory_.Write(
      "plan.toml", "[advance]\nuntil = 40\n[record]\ndirectory = \".\"\ncommands = [\"data\"]\n");
  for (const auto& [name, text] :
       std::map<std::string, std::string>{{"mine.csv", "a,b\n"},
                                          {"data.csv", "well,rate\n"},
                                          {"copy of data.csv", "time_days,date,well\n"},
                                          {"run.json", "{}\n"}}) {
    if (name.starts_with("copy")) {
      directory_.Write("run.json", R"({"vkmaster_version": "0.1.0", "files": ["data.csv"]})");
    }
    directory_.Write(name, text);
    for (const std::vector<std::string>& options :
         {Words{"run", plan}, {"--overwrite", "run", plan}}) {
      const Outcome outcome = RunVkmaster(LaunchArguments(FreePort(), options));
      EXPECT_EQ(outcome.status, 2);
      EXPECT_THAT(outcome.err,
                  EndsWith("has files that are no results of a plan, and could be taken "
                           "for some: " +
                           name + ". Give the plan another directory\n"));
    }
    EXPECT_EQ(directory_.Read(name), text);
    std::filesystem::remove(directory_.File(name));
    std::filesystem::remove(directory_.File("run.json"));
  }
}

// A plan is copied, and names the directory of the first one still.
TEST_F(PlanRunTest, ResultsOfAnotherPlanAreNotReplaced) {
  const std::string plan = "[advance]\nuntil = 1\n[record]\ncommands = [\"data\"]\n";
  EXPECT_EQ(Run(plan).status, 0);
  const std::string data = directory_.Read("results/data.csv");
  const Outcome other = RunVkmaster(
      LaunchArguments(FreePort(), {"--overwrite", "run", directory_.Write("what if.toml", plan)}));
  EXPECT_EQ(other.status, 2);
  EXPECT_THAT(other.err, EndsWith("has the results of another plan, plan.toml. Give what if.toml "
                                  "another directory, or remove those results\n"));
  EXPECT_EQ(directory_.Read("results/data.csv"), data);
  for (const std::string name : {"field.csv", "run.json"}) {
    const Outcome page = RunVkmaster(
        LaunchArguments(FreePort(), {"--overwrite", "--report", directory_.File("results/" + name),
                                     "run", directory_.Write("plan.toml", plan)}));
    EXPECT_EQ(page.status, 2);
    EXPECT_THAT(page.err, HasSubstr(name + "' is no name for a page: results have such names"));
  }
}

TEST_F(PlanRunTest, DirectoryOfARunUnderWayIsNotTakenNorItsResultsReplaced) {
  Outcome second;
  std::string before;
  run_.before = [&](std::uint32_t code) {
    if (code != 8) return;
    before = directory_.Read("results/run.json");
    const std::string plan = directory_.Write("second.toml", "[advance]\nuntil = 1\n");
    second = RunVkmaster(LaunchArguments(FreePort(), {"--overwrite", "run", plan}));
  };
  EXPECT_EQ(Run("[advance]\nuntil = 1\n").status, 0);
  EXPECT_EQ(second.status, 2);
  EXPECT_EQ(second.err, "vkmaster: A run that is under way writes its results to '" +
                            directory_.File("results") + "'. Give the plan another directory\n");
  EXPECT_THAT(before, HasSubstr("running"));
  EXPECT_EQ(Steps(), "0,2020-01-01,false\n1,2020-01-02,false\n");
}

// The first step, a command at its time, and what is done at every stop.
TEST_F(PlanTest, RunThatFailsAtItsStartLeavesTheResultsThatItWasToReplace) {
  std::filesystem::create_directory(directory_.File("results"));
  directory_.Write("results/run.json", kEarlierRun);
  directory_.Write("results/data.csv", kEarlierRecord);
  const std::string plan =
      directory_.Write("plan.toml",
                       "[advance]\nuntil = 40\n[record]\ncommands = [\"data\"]\n"
                       "[[event]]\nat = 0\ncommands = [\"shut P1\"]\n");
  for (const std::uint32_t code : {7U, 11U, 10U}) {
    FakeRun run;
    run.fails = {code};
    FakeDaemon daemon(FakeDaemon::Launching(run));
    const Outcome outcome =
        RunVkmaster(LaunchArguments(daemon.port(), {"--overwrite", "run", plan}));
    EXPECT_EQ(outcome.status, 4) << code;
    EXPECT_THAT(outcome.err,
                HasSubstr("note: The results of the earlier run are left as they were"));
    EXPECT_EQ(directory_.Read("results/run.json"), kEarlierRun) << code;
    EXPECT_EQ(directory_.Read("results/data.csv"), kEarlierRecord) << code;
    EXPECT_EQ(Names("results"), "data.csv run.json") << code;
  }
}

// kill -9, a machine that stops: the earlier results are under hidden names, and what the killed
// run has begun is under theirs.
TEST_F(PlanTest, RunKilledInItsFirstStepLeavesTheResultsThatItWasToReplace) {
  std::filesystem::create_directory(directory_.File("results"));
  directory_.Write("results/.run.json.before", kEarlierRun);
  directory_.Write("results/.data.csv.before", kEarlierRecord);
  directory_.Write("results/.notes.before", "somebody's own\n");
  directory_.Write("results/.hidden-file", "somebody's own\n");
  directory_.Write("results/data.csv", "time_days,date\n");
  directory_.Write("results/vars.csv", "time_days,date\n");
  const std::string plan =
      directory_.Write("plan.toml", "[advance]\nuntil = 40\n[record]\ncommands = [\"data\"]\n");
  const auto replace = [&](FakeRun run) {
    FakeDaemon daemon(FakeDaemon::Launching(run));
    return RunVkmaster(LaunchArguments(daemon.port(), {"--overwrite", "run", plan})).status;
  };
  const auto hide = [this](const std::string& name) {
    std::filesystem::rename(directory_.File("results/" + name),
                            directory_.File("results/." + name + ".before"));
  };
  FakeRun failing;
  failing.fails = {7};
  // It had written its own run.json and tables, or was still hiding the earlier ones.
  for (const bool written : {true, false}) {
    if (written) {
      directory_.Write("results/run.json", kEarlierRun);
    } else {
      hide("run.json");
      hide("data.csv");
    }
    const Outcome refused = RunVkmaster(LaunchArguments(FreePort(), {"run", plan}));
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr("was killed in its first step: they are there as "
                                       ".NAME.before. Give the plan another directory"));
    if (!written) {
      std::filesystem::rename(directory_.File("results/.data.csv.before"),
                              directory_.File("results/data.csv"));
    }
    EXPECT_EQ(replace(failing), 4);
    EXPECT_EQ(directory_.Read("results/run.json"), kEarlierRun);
    EXPECT_EQ(directory_.Read("results/data.csv"), kEarlierRecord);
    EXPECT_EQ(Names("results"), ".hidden-file .notes.before data.csv run.json");
  }
  hide("run.json");
  hide("data.csv");
  directory_.Write("results/.report.html.before", "page\n");
  EXPECT_EQ(replace({}), 0);
  EXPECT_EQ(Names("results"), ".hidden-file .notes.before data.csv run.json steps.csv");
  // Could not be removed then, and is older than the results that are there now.
  directory_.Write("results/.data.csv.before", kEarlierRecord);
  const std::string data = directory_.Read("results/data.csv");
  const Outcome refused = RunVkmaster(LaunchArguments(FreePort(), {"run", plan}));
  EXPECT_THAT(refused.err, Not(HasSubstr("killed")));
  EXPECT_EQ(replace(failing), 4);
  EXPECT_EQ(directory_.Read("results/data.csv"), data);
  EXPECT_EQ(Names("results"), ".hidden-file .notes.before data.csv run.json steps.csv");
}

// Every way in which a run does not begin: nobody listens, the launch is refused, the daemon does
// not reach the simulator, an event names an unknown well.
TEST_F(PlanTest, RunThatDoesNotBeginLeavesTheResultsThatItWasToReplace) {
  std::filesystem::create_directory(directory_.File("results"));
  directory_.Write("results/data.csv", kEarlierRecord);
  directory_.Write("results/run.json", kEarlierRun);
  directory_.Write("results/report.html", "page\n");
  const auto run = [this](int port, const std::string& plan) {
    return RunVkmaster(
        LaunchArguments(port, {"--overwrite", "run", directory_.Write("plan.toml", plan)}));
  };
  const std::string plan = "[advance]\nuntil = 40\n";
  EXPECT_EQ(run(FreePort(), plan).status, 3);
  FakeDaemon refusing(FakeDaemon::Refusing("No host detected"));
  EXPECT_EQ(run(refusing.port(), plan).status, 3);
  FakeRun unreachable;
  unreachable.fails = {1};
  FakeDaemon failing(FakeDaemon::Launching(unreachable));
  EXPECT_EQ(run(failing.port(), plan).status, 4);
  FakeRun fine;
  FakeDaemon launching(FakeDaemon::Launching(fine));
  EXPECT_EQ(run(launching.port(), plan + "[[event]]\nat = 9\ncommands = [\"shut P9\"]\n").status,
            2);
  EXPECT_EQ(directory_.Read("results/data.csv"), kEarlierRecord);
  EXPECT_EQ(directory_.Read("results/run.json"), kEarlierRun);
  EXPECT_EQ(directory_.Read("results/report.html"), "page\n");
}

// The launch may have queued for hours.
TEST_F(PlanRunTest, ResultsThatAppearDuringTheLaunchAreNotReplaced) {
  run_.before = [this](std::uint32_t code) {
    if (code != 1) return;
    std::filesystem::create_directory(directory_.File("results"));
    directory_.Write("results/run.json", kEarlierRun);
  };
  const Outcome outcome = Run("[advance]\nuntil = 40\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("has the results of an earlier run"));
  EXPECT_EQ(directory_.Read("results/run.json"), kEarlierRun);
}

TEST_F(PlanRunTest, EventAfterTheEndIsKnownBeforeTheFirstStepAlsoBetweenDaysAndDates) {
  const Outcome outcome =
      Run("[advance]\nuntil = 60\n[[event]]\nat = 2020-03-02\ncommands = [\"shut P1\"]\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err,
              HasSubstr("The event of 2020-03-02 is after the end of the plan, day 60"));
  EXPECT_THAT(daemon_.Requests(), testing::Not(testing::Contains("07 00 00 00")));
}

TEST_F(PlanRunTest, StepsEventsAndRecordsEndInTidyFiles) {
  const Outcome outcome = Run(R"(
[advance]
until = 60
step = 30
[record]
commands = ["wells P1", "vars P1 bhp"]
[[event]]
at = 45
commands = ["shut P1", "constrain P1 bhp=150"]
[[event]]
at = 0
commands = ["open P2"]
)");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "         day          date         ended\n"
            "           0    2020-01-01            no\n"
            "          30    2020-01-31            no\n"
            "          45    2020-02-15            no\n"
            "          60    2020-03-01            no\n");
  EXPECT_EQ(Steps(),
            "0,2020-01-01,false\n30,2020-01-31,false\n45,2020-02-15,false\n60,2020-03-01,false\n");
  EXPECT_EQ(directory_.Read("results/events.csv"),
            "time_days,date,command\n0,2020-01-01,open P2\n45,2020-02-15,shut P1\n"
            "45,2020-02-15,constrain P1 bhp=150\n");
  EXPECT_EQ(directory_.Read("results/wells.csv"),
            "time_days,date,well,type,status\n"
            "0,2020-01-01,P1,PRODUCER,OPEN\n30,2020-01-31,P1,PRODUCER,OPEN\n"
            "45,2020-02-15,P1,PRODUCER,OPEN\n60,2020-03-01,P1,PRODUCER,SHUT\n");
  EXPECT_THAT(directory_.Read("results/vars.csv"),
              HasSubstr("time_days,date,well,BOTTOM_HOLE_PRESSURE [bar]\n0,2020-01-01,P1,10.5\n"));
  EXPECT_EQ(directory_.Read("results/open.csv"),
            "time_days,date,well,status\n0,2020-01-01,P2,OPEN\n");
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
}

TEST_F(PlanRunTest, OtherColumnsOfTheSameCommandHaveAFileOfTheirOwn) {
  Run("[advance]\nuntil = 1\n[record]\ncommands = [\"vars P1 bhp\", \"vars P1 oil\"]\n");
  EXPECT_EQ(directory_.Read("results/vars.csv"),
            "time_days,date,well,BOTTOM_HOLE_PRESSURE "
            "[bar]\n0,2020-01-01,P1,10.5\n1,2020-01-02,P1,10.5\n");
  EXPECT_EQ(directory_.Read("results/vars_2.csv"),
            "time_days,date,well,OIL_PRODUCTION_RATE "
            "[sm3/d]\n0,2020-01-01,P1,10.5\n1,2020-01-02,P1,10.5\n");
}

TEST_F(PlanRunTest, EndOfTheSimulationEndsThePlanWithANote) {
  run_.end = 10;
  const Outcome outcome = Run("[advance]\nuntil = 30\nstep = 7\n[record]\ncommands = [\"time\"]\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "note: The simulation ended at day 10, before day 30\n");
  EXPECT_EQ(Steps(), "0,2020-01-01,false\n7,2020-01-08,false\n10,2020-01-11,true\n");
  EXPECT_EQ(nlohmann::json::parse(directory_.Read("results/run.json"))["end"],
            "the simulation ended");
}

TEST_F(PlanRunTest, EventsAfterTheEndOfTheSimulationAreNamedAndFailThePlan) {
  run_.end = 10;
  const Outcome outcome = Run(
      "[advance]\nuntil = 30\nstep = 7\n[[event]]\nat = 20\ncommands = [\"shut P1\", \"wells\"]\n"
      "[[event]]\nat = 25\ncommands = [\"open P1\"]\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(
      outcome.err,
      HasSubstr("vkmaster: The simulation ended at day 10. Not carried out: day 20 (shut P1; "
                "wells), day 25 (open P1)\n"));
  EXPECT_EQ(Steps(), "0,2020-01-01,false\n7,2020-01-08,false\n10,2020-01-11,true\n");
  EXPECT_EQ(directory_.Read("results/events.csv"), "");
  const auto run = nlohmann::json::parse(directory_.Read("results/run.json"));
  EXPECT_EQ(
      run["end"],
      "The simulation ended at day 10. Not carried out: day 20 (shut P1; wells), day 25 (open P1)");
  EXPECT_EQ(run["last_day"], 10.0);
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
}

TEST_F(PlanRunTest, EventOfTheDayOnWhichTheSimulationEndsIsCarriedOut) {
  run_.end = 10;
  const Outcome outcome =
      Run("[advance]\nuntil = 10\n[record]\ncommands = [\"wells P1\"]\n[[event]]\nat = "
          "2020-01-11\ncommands = [\"shut P1\", \"ipr P1 lift\"]\n");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(Steps(), "0,2020-01-01,false\n10,2020-01-11,true\n");
  EXPECT_EQ(
      directory_.Read("results/events.csv"),
      "time_days,date,command\n10,2020-01-11,shut P1\n10,2020-01-11,ipr P1 lift\n"
      "10,2020-01-11,\"note: ipr: The wells have their statuses again, and the rate limits of "
      "this session. Lifted for good, in case the model had any: P1 (liquid, gas)\"\n");
  EXPECT_THAT(directory_.Read("results/wells.csv"), EndsWith("10,2020-01-11,P1,PRODUCER,OPEN\n"))
      << "what the controls until then led to";
  EXPECT_THAT(directory_.Read("results/ipr.csv"), HasSubstr("\n10,2020-01-11,P1,1,"));
}

TEST_F(PlanRunTest, FailedRequestKeepsWhatWasRecorded) {
  run_.fails = {11};
  const Outcome outcome =
      Run("[advance]\nuntil = 30\n[record]\ncommands = [\"wells P1\"]\n"
          "[[event]]\nat = 10\ncommands = [\"shut P1\"]\n");
  EXPECT_EQ(outcome.status, 4);
  EXPECT_THAT(outcome.err, HasSubstr("request 11 (SetWellStatus)"));
  EXPECT_EQ(directory_.Read("results/wells.csv"),
            "time_days,date,well,type,status\n0,2020-01-01,P1,PRODUCER,OPEN\n"
            "10,2020-01-11,P1,PRODUCER,OPEN\n");
}

TEST_F(PlanRunTest, YearForADayIsRefusedBeforeTheFirstStep) {
  const Outcome outcome =
      Run("[advance]\nuntil = 2030-01-01\n[[event]]\nat = 2021\ncommands = [\"shut P1\"]\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("2021 may be a year or a day: write 2021-01-01 for the year, "
                                     "2021.0 for the day"));
  EXPECT_EQ(Steps(), "");
  for (const std::string& request : daemon_.Requests()) EXPECT_NE(request, "07 00 00 00");
}

TEST_F(PlanRunTest, DayWithItsPointIsNoYear) {
  EXPECT_EQ(Run("[advance]\nuntil = 2022.0\n").status, 0);
  EXPECT_EQ(Steps(), "0,2020-01-01,false\n2022,2025-07-15,false\n");
}

TEST_F(PlanRunTest, PlanThatEndsWhereTheRunIsEndsTheRun) {
  run_.time = 30;
  const Outcome outcome = Run("[advance]\nuntil = 30\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("The run is at day 30, beyond the plan's end"));
}

TEST_F(PlanRunTest, SecondTableOfACommandHasAFileOfItsOwnAndNotesAreShown) {
  const Outcome outcome =
      Run("[advance]\nuntil = 1\n[record]\ncommands = [\"eos\", \"ipr P1 lift\"]\n");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(directory_.Read("results/eos_binary_interaction.csv"),
              HasSubstr("time_days,date,number,coefficient\n0,2020-01-01,1,0.1\n"));
  EXPECT_THAT(outcome.err, HasSubstr("note: day 0, ipr: The wells have their statuses again"));
}

TEST_F(PlanRunTest, FileThatCannotBeWrittenEndsTheRunWithItsShutdown) {
  std::filesystem::create_directories(directory_.File("results/wells.csv"));
  const Outcome outcome = Run("[advance]\nuntil = 1\n[record]\ncommands = [\"wells\"]\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("Cannot write '" + directory_.File("results/wells.csv") +
                                     "': Is a directory\n"));
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
}

TEST_F(PlanRunTest, FullDiskIsNamedWithTheFileAndWaitedOutUntilAnInterrupt) {
  std::filesystem::create_directories(directory_.File("results"));
  std::filesystem::create_symlink("/dev/full", directory_.File("results/data.csv"));
  std::unique_ptr<VkmasterProcess> process;
  bool recorded = false;
  run_.before = [&](std::uint32_t code) {
    if (code == 4 && recorded) process->Signal(SIGINT);  // a second later the run is still there
    recorded = recorded || code == 10;
  };
  process = Start("[advance]\nuntil = 1\n[record]\ncommands = [\"data\"]\n");
  const Outcome outcome = process->Finish();
  EXPECT_EQ(outcome.status, 130);
  EXPECT_THAT(outcome.err,
              HasSubstr("note: Cannot write '" + directory_.File("results/data.csv") +
                        "': No space left on device; the run waits until there is room\n"));
  EXPECT_EQ(Steps(), "0,2020-01-01,false\n");
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
}

TEST_F(PlanRunTest, PlanGoesOnWhenNobodyReadsWhatTheScreenWouldShow) {
  // Nobody may be polling the pipe when its reading end is closed: that would keep it open.
  std::promise<void> stepping;
  std::promise<void> closed;
  run_.before = [&, first = true](std::uint32_t code) mutable {
    if (code != 8 || !std::exchange(first, false)) return;
    stepping.set_value();
    closed.get_future().wait_for(std::chrono::seconds(20));
  };
  const auto process = Start("[advance]\nuntil = 60\nstep = 30\n");
  stepping.get_future().wait_for(std::chrono::seconds(20));
  process->CloseOutput();
  closed.set_value();
  const Outcome outcome = process->Finish();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.err, HasSubstr("note: The results cannot be written: Broken pipe; the plan "
                                     "goes on\n"));
  EXPECT_THAT(Steps(), HasSubstr("\n60,"));
}

TEST_F(PlanRunTest, ResultsThatAreTakenAwayAreWrittenAnewFromThereOn) {
  run_.before = [this](std::uint32_t code) {
    if (code == 8) std::filesystem::remove_all(directory_.File("results"));
  };
  const Outcome outcome = Run("[advance]\nuntil = 1\n[record]\ncommands = [\"wells\"]\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.err,
              HasSubstr("note: '" + directory_.File("results/steps.csv") +
                        "' has gone, with what it held; it is written anew from day 1"));
  EXPECT_EQ(Steps(), "1,2020-01-02,false\n");
  EXPECT_THAT(directory_.Read("results/wells.csv"),
              testing::AllOf(testing::StartsWith("time_days,date,well,"), HasSubstr("\n1,2020")));
  EXPECT_THAT(directory_.Read("results/run.json"), HasSubstr("the plan was carried out"));
  EXPECT_THAT(directory_.Read("results/events.csv"), HasSubstr("has gone, with what it held"));
}

TEST_F(PlanRunTest, ResultsThatSomebodyEmptiesAreWrittenAnewFromThereOn) {
  run_.before = [this](std::uint32_t code) {
    if (code == 8) std::filesystem::resize_file(directory_.File("results/wells.csv"), 0);
  };
  const Outcome outcome = Run("[advance]\nuntil = 1\n[record]\ncommands = [\"wells\"]\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.err, HasSubstr("wells.csv' has gone, with what it held"));
  EXPECT_THAT(directory_.Read("results/wells.csv"),
              testing::AllOf(testing::StartsWith("time_days,date,well,"), HasSubstr("\n1,2020")));
}

// Nothing could be written anew there.
TEST_F(PlanRunTest, FileInThePlaceOfTheResultsEndsTheRunWithItsShutdown) {
  run_.before = [this](std::uint32_t code) {
    if (code != 8) return;
    std::filesystem::remove_all(directory_.File("results"));
    directory_.Write("results", "");
  };
  const Outcome outcome = Run("[advance]\nuntil = 60\nstep = 30\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("vkmaster: Cannot make the directory '" +
                                     directory_.File("results") + "': Not a directory\n"));
  EXPECT_THAT(daemon_.Requests(), testing::Contains(testing::StartsWith("08 00 00 00")).Times(1));
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
}

// What an event sets is known to those after it.
TEST_F(PlanRunTest, CommandsThatNeedAnEarlierOneAreRefusedBeforeTheFirstStep) {
  const auto event = [](int day, const std::string& command) {
    return fmt::format("[[event]]\nat = {}\ncommands = [\"{}\"]\n", day, command);
  };
  const std::string advance = "[advance]\nuntil = 60\n";
  const std::string none = "No limit of this session is in force";
  run_.wells.push_back({"G1", "GAS_INJECTOR", "OPEN"});
  for (const auto& [events, complaint] : std::map<std::string, std::string>{
           {event(30, "unconstrain P1"), "day 30, unconstrain P1: " + none},
           {event(30, "unconstrain P1") + event(40, "constrain P1 oil=9"), none},
           {event(10, "constrain P1 oil=9") + event(30, "unconstrain P2"), none},
           {event(10, "constrain P1 oil=9") + event(30, "unconstrain P1") +
                event(40, "unconstrain P1"),
            "day 40, unconstrain P1: " + none},
           {event(30, "unconstrain I1 oil"), "These limits do not concern these wells"},
           {event(30, "composition S1 C1=1"), "No source 'S1' was attached"}}) {
    FakeDaemon daemon(FakeDaemon::Launching(run_));
    const Outcome outcome = RunVkmaster(
        LaunchArguments(daemon.port(), {"run", directory_.Write("plan.toml", advance + events)}));
    EXPECT_EQ(outcome.status, 2) << events;
    EXPECT_THAT(outcome.err, HasSubstr(complaint)) << events;
    EXPECT_THAT(daemon.Requests(), testing::Not(testing::Contains("07 00 00 00"))) << events;
  }
}

TEST_F(PlanRunTest, LimitsAndSourcesOfEarlierEventsAreKnownToLaterOnes) {
  run_.wells.push_back({"G1", "GAS_INJECTOR", "OPEN"});
  const Outcome outcome =
      Run("[advance]\nuntil = 60\n[[event]]\nat = 10\ncommands = [\"constrain P1 oil=9\", "
          "\"source G1 S1\"]\n[[event]]\nat = 20\ncommands = [\"unconstrain P1\", "
          "\"composition S1 C1=1\"]\n");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(PlanTest, CheckSaysWhatTheRunWillTakeFromTheOptions) {
  const std::string plan = directory_.Write("plan.toml",
                                            "[launch]\nroot = \"CASE\"\nport = 1\nprocesses = "
                                            "2\n[advance]\nuntil = 1\nstep = \"monthly\"\n"
                                            "[record]\ncommands = [\"data\"]\n");
  const std::string config = directory_.Write("settings.ini", "root=OTHER\nuser=bob\n");
  setenv("VKMASTER_PORT", "3", 1);
  const Outcome outcome =
      RunVkmaster({"--config", config, "--processes", "8", "--step", "2w", "run", "--check", plan});
  unsetenv("VKMASTER_PORT");
  EXPECT_EQ(outcome.status, 0);
  for (const char* line : {"\nroot +OTHER\n", "\nport +3\n", "\nprocesses +8\n", "\nuser +bob\n",
                           "\nsteps +of 14 days\n"}) {
    EXPECT_THAT(outcome.out, testing::ContainsRegex(line));
  }
  EXPECT_EQ(outcome.err,
            "note: Options win over the plan: processes 8, not 2; root OTHER, not CASE; port 3, "
            "not 1; steps of 14 days, not monthly\n");
}

TEST_F(PlanTest, OptionsThatTakeNothingFromThePlanAreNoNote) {
  const std::string plan = directory_.Write("plan.toml",
                                            "[launch]\nroot = \"CASE\"\nport = 5000\n[advance]\n"
                                            "until = 1\n[record]\ncommands = [\"data\"]\n");
  const Outcome outcome =
      RunVkmaster({"--root", "CASE", "--port", "5000", "--step", "2w", "run", "--check", plan});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, testing::ContainsRegex("\nsteps +of 14 days\n"));
  EXPECT_EQ(outcome.err, "");
}

TEST_F(PlanTest, NumbersOfTheLaunchAreThoseOfTheOptions) {
  for (const char* line :
       {"processes = 0", "processes = \"two\"", "cluster = -1", "cluster = 1.5"}) {
    EXPECT_THAT(Refusal(std::string("[launch]\n") + line + "\n[advance]\nuntil = 1\n"),
                testing::MatchesRegex(".*plan.toml, line 2: a number from [01] up"))
        << line;
  }
}

TEST_F(PlanTest, PlanThatRecordsNothingIsNoticed) {
  const std::string plan = directory_.Write("plan.toml", "[advance]\nuntil = 1\n");
  const std::string note = "note: The plan records nothing but its stops: [record] has no commands";
  EXPECT_THAT(RunVkmaster({"run", "--check", plan}).err, testing::StartsWith(note));
  FakeRun run;
  FakeDaemon daemon(FakeDaemon::Launching(run));
  EXPECT_THAT(RunVkmaster(LaunchArguments(daemon.port(), {"run", plan})).err,
              testing::StartsWith(note));
}

// What ended the run is the failure; that its end could not be written is told besides.
TEST_F(PlanRunTest, EndOfAFailedRunThatCannotBeWrittenIsANote) {
  run_.fails = {8};
  run_.before = [this](std::uint32_t code) {
    if (code == 8) std::filesystem::remove_all(directory_.File("results"));
  };
  const Outcome outcome = Run("[advance]\nuntil = 1\n");
  EXPECT_EQ(outcome.status, 4);
  EXPECT_THAT(outcome.err, HasSubstr("note: Cannot write '" + directory_.File("results/run.json") +
                                     "': No such file or directory\n"));
  EXPECT_THAT(outcome.err, HasSubstr("request 8 (RunUntil)"));
}

TEST_F(PlanRunTest, RunFileOfAnInterruptedPlanSaysSo) {
  std::promise<pid_t> master;
  std::promise<void> over;
  run_.before = [&](std::uint32_t code) {
    if (code != 8) return;
    kill(master.get_future().get(), SIGTERM);
    over.get_future().wait_for(std::chrono::seconds(20));
  };
  const auto process = Start("[advance]\nuntil = 40\n", {"--shutdown-wait", "1"});
  master.set_value(process->pid());
  const Outcome outcome = process->Finish();
  over.set_value();
  EXPECT_EQ(outcome.status, 143);
  EXPECT_EQ(nlohmann::json::parse(directory_.Read("results/run.json"))["end"], "interrupted");
}

TEST_F(PlanRunTest, WallTimesOfTheStepsAndTheLaunchAreKept) {
  run_.before = [](std::uint32_t code) {
    if (code == 8) std::this_thread::sleep_for(std::chrono::milliseconds(30));
    if (code == 6) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  };
  EXPECT_EQ(Run("[advance]\nuntil = 20\nstep = 10\n[record]\ncommands = [\"wells\"]\n").status, 0);
  const auto seconds = [](const std::string& line) {
    const std::size_t comma = line.rfind(',');
    return std::pair(std::stod(line.substr(line.rfind(',', comma - 1) + 1)),
                     std::stod(line.substr(comma + 1)));
  };
  std::istringstream steps(directory_.Read("results/steps.csv"));
  std::string line;
  double before = 0;
  for (int stop = -1; std::getline(steps, line); ++stop) {
    if (stop < 1) continue;
    const auto [elapsed, computing] = seconds(line);
    EXPECT_GE(computing, 0.03) << line;
    EXPECT_GE(elapsed, before + computing) << line;
    before = elapsed;
  }
  const auto run = nlohmann::json::parse(directory_.Read("results/run.json"));
  EXPECT_GE(run["wall_seconds"], before + 0.01) << "the last record, too";
  EXPECT_GE(run["launch_seconds"], 0);
}

TEST_F(PlanRunTest, ReportIsThereWhileTheRunGoesOnAndAtItsEnd) {
  const std::string file = directory_.File("pages/report.html");
  std::string during;
  run_.before = [&](std::uint32_t code) {
    if (code == 8) during = directory_.Read("pages/report.html");
  };
  const Outcome outcome = RunVkmaster(LaunchArguments(
      daemon_.port(),
      {"run", "--report", file, directory_.Write("plan.toml", "[advance]\nuntil = 9\n")}));
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(during, HasSubstr("\"live\":{\"seconds\":"));
  EXPECT_THAT(during, HasSubstr("\"end\":\"running, or ended without a word\""));
  const std::string after = directory_.Read("pages/report.html");
  EXPECT_THAT(after, HasSubstr("\"live\":null"));
  EXPECT_THAT(after, HasSubstr("\"end\":\"the plan was carried out\""));
  EXPECT_FALSE(std::filesystem::exists(file + ".new"));
}

TEST_F(PlanRunTest, ReportOfARunThatFailedSaysSo) {
  run_.fails = {8};
  const std::string file = directory_.File("report.html");
  EXPECT_EQ(Run("[advance]\nuntil = 40\n", {"--report", file}).status, 4);
  EXPECT_THAT(directory_.Read("report.html"), HasSubstr("\"end\":\"failed: The daemon ended the"));
}

TEST_F(PlanRunTest, ReportThatCannotBeWrittenCostsNoRun) {
  const std::string plan = "[advance]\nuntil = 9\n";
  const Outcome before = Run(plan, {"--report", "/proc/none/report.html"});
  EXPECT_EQ(before.status, 2);
  EXPECT_THAT(before.err, HasSubstr("Cannot write '/proc/none/report.html'"));
  // Its place is taken in the course of the run: the results are there, and the failure is told.
  run_.before = [this](std::uint32_t code) {
    if (code != 8) return;
    std::filesystem::remove(directory_.File("report.html"));
    std::filesystem::create_directory(directory_.File("report.html"));
  };
  const Outcome after = Run(plan, {"--report", directory_.File("report.html")});
  EXPECT_EQ(after.status, 2);
  EXPECT_THAT(after.err, HasSubstr("Cannot write '" + directory_.File("report.html") + "'"));
  EXPECT_EQ(nlohmann::json::parse(directory_.Read("results/run.json"))["end"],
            "the plan was carried out");
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00") << "shut down all the same";
}

TEST_F(PlanRunTest, ReportOfEarlierResultsIsMadeWithoutADaemon) {
  EXPECT_EQ(Run("[advance]\nuntil = 9\n").status, 0);
  const Outcome outcome = RunVkmaster({"report", directory_.File("results")});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "report  " + directory_.File("results/report.html") + "\n");
  EXPECT_THAT(directory_.Read("results/report.html"),
              HasSubstr("\"end\":\"the plan was carried out\""));
  EXPECT_EQ(
      RunVkmaster({"report", directory_.File("results"), directory_.File("other.html")}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(directory_.File("other.html")));
  // It belongs to the results: a run that replaces those takes it away.
  FakeRun run;
  FakeDaemon daemon(FakeDaemon::Launching(run));
  EXPECT_EQ(RunVkmaster(LaunchArguments(daemon.port(),
                                        {"--overwrite", "run", directory_.File("plan.toml")}))
                .status,
            0);
  EXPECT_FALSE(std::filesystem::exists(directory_.File("results/report.html")));
}

TEST_F(PlanTest, ReportOfWhatHasNoneIsRefused) {
  const Outcome nothing = RunVkmaster({"report", directory_.path().string()});
  EXPECT_EQ(nothing.status, 2);
  EXPECT_THAT(nothing.err, HasSubstr("has no results of a plan: there is no steps.csv"));
  EXPECT_EQ(RunVkmaster({"report", directory_.path().string(), "--json"}).err,
            "vkmaster: report: Options come before it, and --json is no name for a page\n");
  EXPECT_THAT(RunVkmaster({"report"}).err, HasSubstr("Of which results? report DIRECTORY [FILE]"));
  const Outcome no_plan = RunVkmaster({"--report", "a.html", "status"});
  EXPECT_EQ(no_plan.status, 2);
  EXPECT_THAT(no_plan.err, HasSubstr("--report is for run PLAN"));
}

TEST_F(PlanRunTest, WellsNameWithAZeroByteLosesNoRow) {
  run_.wells = {{std::string("P\0x", 3), "PRODUCER", "OPEN"}, {"P2", "PRODUCER", "SHUT"}};
  EXPECT_EQ(Run("[advance]\nuntil = 1\n[record]\ncommands = [\"wells\"]\n").status, 0);
  EXPECT_THAT(directory_.Read("results/wells.csv"),
              HasSubstr(std::string("P\0x,PRODUCER,OPEN\n0,2020-01-01,P2,", 34)));
}

TEST_F(PlanRunTest, EnvironmentWinsOverThePlansLaunch) {
  setenv("VKMASTER_API", "20162", 1);
  Run("[launch]\napi = 20172\nprocesses = 4\n[advance]\nuntil = 1\n");
  unsetenv("VKMASTER_API");
  EXPECT_EQ(daemon_.Frames()[4], Hex("4"));
  EXPECT_EQ(daemon_.Frames()[5], Hex("20162"));
}

TEST_F(PlanRunTest, VersionMayHaveItsDot) {
  Run("[launch]\napi = 2016.2\n[advance]\nuntil = 1\n");
  EXPECT_EQ(daemon_.Frames()[5], Hex("20162"));
}

TEST_F(PlanRunTest, CommandLineWinsOverThePlansLaunch) {
  EXPECT_EQ(Run("[launch]\nhost = \"no host\"\nroot = \"OTHER\"\nprocesses = 4\n"
                "[advance]\nuntil = 1\n")
                .status,
            0);
  EXPECT_EQ(daemon_.Frames()[3], Hex("CASE"));
  EXPECT_EQ(daemon_.Frames()[4], Hex("4"));
}

TEST_F(PlanRunTest, OptionsMayFollowThePlan) {
  std::filesystem::create_directory(directory_.File("results"));
  directory_.Write("results/run.json", kEarlierRun);
  const std::string plan =
      directory_.Write("plan.toml", "[launch]\nport = 1\n[advance]\nuntil = 1\n");
  std::vector<std::string> arguments = LaunchArguments(daemon_.port(), {"--overwrite", "--json"});
  arguments.insert(arguments.begin(), {"run", plan});
  const Outcome outcome = RunVkmaster(arguments);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out, testing::StartsWith("{\"command\":\"steps\","));
  EXPECT_EQ(daemon_.Frames()[3], Hex("CASE"));
}

TEST_F(PlanTest, CommandLineWinsOverTheEnvironmentAlsoAfterThePlan) {
  setenv("VKMASTER_HOST", "no host", 1);
  const std::string plan = directory_.Write("plan.toml", "[advance]\nuntil = 1\n");
  const std::string port = std::to_string(FreePort());
  const Outcome outcome = RunVkmaster(
      {"--host", "127.0.0.1", "run", plan, "--port", port, "--path", "/data/", "--root", "CASE"});
  unsetenv("VKMASTER_HOST");
  EXPECT_THAT(outcome.err, HasSubstr("Cannot connect to 127.0.0.1 port " + port));
}

TEST_F(PlanTest, WordsAroundAPlanThatAreNoOptionsAreNamed) {
  const std::string plan = directory_.Write("plan.toml", "[advance]\nuntil = 1\n");
  const auto complaint = [](const std::vector<std::string>& arguments) {
    const Outcome outcome = RunVkmaster(arguments);
    EXPECT_EQ(outcome.status, 2);
    return outcome.err;
  };
  EXPECT_EQ(complaint({"run", plan, "--overwite"}),
            "vkmaster: run: '--overwite' is not understood here: run [OPTIONS] PLAN\n");
  EXPECT_EQ(complaint({"--check", "run", plan, plan}),
            "vkmaster: run: '--check' is not understood here: run [OPTIONS] PLAN\n");
  EXPECT_THAT(complaint({"run", plan, "then", "data"}), HasSubstr("'then' is not understood here"));
  EXPECT_THAT(complaint({"run", "--check"}), HasSubstr("run: Which plan? run [OPTIONS] PLAN"));
  const Outcome help = RunVkmaster({"run", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("--check   "));
  EXPECT_THAT(help.out, HasSubstr("All options of vkmaster --help may stand here, too."));
}

TEST_F(PlanRunTest, ConfigFromAPipeWinsOverThePlansLaunchToo) {
  const std::string plan =
      directory_.Write("plan.toml", "[launch]\nport = 1\nprocesses = 4\n[advance]\nuntil = 1\n");
  const Outcome outcome = RunVkmaster(
      {"--host", "127.0.0.1", "--path", "/data/", "--config", "/dev/stdin", "run", plan},
      "root=CASE\nport=" + std::to_string(daemon_.port()) + "\n");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  ASSERT_GE(daemon_.Frames().size(), 8U);
  EXPECT_EQ(daemon_.Frames()[3], Hex("CASE"));
  EXPECT_EQ(daemon_.Frames()[4], Hex("4"));
}

TEST_F(PlanTest, UnknownKeyOfTheConfigIsNamed) {
  const std::string plan = directory_.Write("plan.toml", "[advance]\nuntil = 1\n");
  const auto with = [&](const std::string& text) {
    const std::string config = directory_.Write("vkmaster.conf", text);
    return RunVkmaster({"--config", config, "run", "--check", plan});
  };
  EXPECT_EQ(with("port=5000\noverwrite=true\n# prot\n").status, 0);
  for (const std::string text : {"port=5000\nprot=5000\n", "[run]\nprot=5000\n"}) {
    const Outcome outcome = with(text);
    EXPECT_EQ(outcome.status, 2) << text;
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, testing::StartsWith("vkmaster: --config: ")) << text;
    EXPECT_THAT(outcome.err, HasSubstr("prot; vkmaster --help lists the options\n")) << text;
  }
}

TEST_F(PlanTest, WrongPlanLaunchesNothing) {
  const std::string plan = directory_.Write("plan.toml", "[advance]\nuntil = \"soon\"\n");
  EXPECT_EQ(RunVkmaster(LaunchArguments(FreePort(), {"run", plan})).status, 2);
  EXPECT_EQ(RunVkmaster(LaunchArguments(FreePort(), {"run"})).status, 2);
}

}  // namespace
