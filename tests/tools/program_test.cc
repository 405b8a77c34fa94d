#include "tests/tools/program.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <filesystem>
#include <future>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/refused_calls.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/writing_process.h"
#include "tests/tools/fake_daemon.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// Writing to a program that has ended is not the end of the tests.
const auto kNoPipeSignal = signal(SIGPIPE, SIG_IGN);

// Requests as they show in a list of frames.
const char* const kConnect = "01 00 00 00";
const char* const kDate = "02 00 00 00";
const char* const kMetric = "03 00 00 00";
const char* const kTime = "04 00 00 00";
const char* const kWells = "06 00 00 00";
const char* const kNewton = "07 00 00 00";
const char* const kEnded = "09 00 00 00";
const char* const kVersion = "11 00 00 00";
const char* const kStartDate = "14 00 00 00";
const char* const kShutdown = "f0 ff 00 00";

class ProgramTest : public testing::Test {
 protected:
  Outcome Master(const std::vector<std::string>& arguments, const std::string& in = "") {
    return RunVkmaster(LaunchArguments(daemon_.port(), arguments), in);
  }

  FakeRun run_;
  FakeDaemon daemon_{FakeDaemon::Launching(run_)};
};

TEST_F(ProgramTest, LaunchSendsTheRunRequestInItsOrder) {
  Master({"--processes", "16", "--api", "20162", "--debug", "1", "--cluster", "3", "quit"});
  auto frames = daemon_.Frames();
  frames.resize(8);
  EXPECT_THAT(frames, ElementsAre("33", Hex("3"), Hex("/data/"), Hex("CASE"), Hex("16"),
                                  Hex("20162"), Hex("alice"), Hex("1")));
}

TEST(VersionTest, VersionGoesOutAsANumberAndIsShownWithItsDot) {
  for (const char* version : {"2016.2", "20162"}) {
    FakeRun run;
    FakeDaemon daemon{FakeDaemon::Launching(run)};
    const Outcome outcome =
        RunVkmaster(LaunchArguments(daemon.port(), {"--api", version, "status"}));
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(daemon.Frames()[5], Hex("20162")) << version;
    EXPECT_THAT(outcome.out, HasSubstr("version asked for  2016.2\n")) << version;
  }
}

TEST_F(ProgramTest, NumberThatIsNoKnownVersionIsTheDaemonsToJudge) {
  Master({"--api", "7", "quit"});
  EXPECT_EQ(daemon_.Frames()[5], Hex("7"));
}

TEST(ProgramOptions, HelpAfterRunAndReportIsHelp) {
  for (const char* help : {"--help", "-h"}) {
    const Outcome run = RunVkmaster({"run", help});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.out, HasSubstr("\n  --check                     say what the plan does"));
    const Outcome report = RunVkmaster({"report", help});
    EXPECT_EQ(report.status, 0) << report.err;
    EXPECT_THAT(report.out, HasSubstr("\n  report DIRECTORY [FILE] make a page"));
  }
}

TEST(ProgramOptions, NumbersThatAreTooLowAreToldTheLowest) {
  const std::pair<const char*, const char*> wrong[] = {
      {"--processes", "0"}, {"--processes", "few"}, {"--cluster", "-1"}, {"--launch-wait", "-1"}};
  for (const auto& [option, value] : wrong) {
    const std::string low = std::string(option) == "--processes" ? "1" : "0";
    const Outcome outcome = RunVkmaster(LaunchArguments(1, {option, value, "status"}));
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(outcome.err, HasSubstr(std::string(option) + ": A number from " + low +
                                       " on wanted, not '" + value + "'\n"));
  }
}

TEST(ProgramOptions, VersionThatDoesNotExistIsRefusedWithThoseThatDo) {
  for (const char* version : {"2018", "2018.1", "2016"}) {
    const Outcome outcome = RunVkmaster(LaunchArguments(1, {"--api", version, "status"}));
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, std::string("vkmaster: There is no version ") + version +
                               ": --api is 2016.2 or 2017.2; any other number of the protocol has "
                               "five digits, such as 20180\n");
  }
}

TEST_F(ProgramTest, NumberOfTheProtocolForAnotherVersionIsSent) {
  Master({"--api", "20180", "quit"});
  EXPECT_EQ(daemon_.Frames()[5], Hex("20180"));
}

TEST_F(ProgramTest, CommandIsCarriedOutBetweenConnectAndShutdown) {
  const Outcome outcome = Master({"time"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "time  0 days\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kTime, kShutdown));
}

TEST_F(ProgramTest, SeveralCommandsAreSeparatedByThenCommaOrSemicolon) {
  const Outcome outcome = Master({"time", "then", "units", ",", "version", ";", "date"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "time  0 days\nunit system  metric\nsimulator version  2017.2\ndate  2020-01-01\n");
  EXPECT_THAT(daemon_.Requests(),
              ElementsAre(kConnect, kTime, kMetric, kVersion, kDate, kShutdown));
}

TEST_F(ProgramTest, ShutdownByCommandIsNotRepeated) {
  EXPECT_EQ(Master({"shutdown"}).status, 0);
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kShutdown));
}

TEST_F(ProgramTest, LeaveSendsNoShutdown) {
  EXPECT_EQ(Master({"--leave", "time"}).status, 0);
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kTime));
}

TEST_F(ProgramTest, NoConnectLeavesConnectingToTheCommand) {
  const Outcome outcome = Master({"--no-connect", "connect", "then", "quit"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "simulator on  node17\n");
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kShutdown));
}

TEST_F(ProgramTest, PlanWithoutAConnectionIsRefusedBeforeTheLaunch) {
  const TemporaryDirectory directory;
  const Outcome outcome =
      Master({"--no-connect", "run", directory.Write("plan.toml", "[advance]\nuntil = 3\n")});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "vkmaster: --no-connect leaves run PLAN no run to act on\n");
  EXPECT_EQ(Master({"--no-connect", "run", "--check", directory.File("plan.toml")}).status, 0);
  EXPECT_FALSE(daemon_.Called());
}

// What the simulator calls its wells comes to a terminal.
TEST_F(ProgramTest, EscapesOfTheSimulatorDoNotReachTheTerminal) {
  run_.wells = {{"P\033[31m", "PRODUCER", "OPEN"}};
  run_.obeys = false;
  const Outcome outcome = Master({"wells", "then", "shut", "all"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("P?[31m"));
  EXPECT_THAT(outcome.err, HasSubstr("P?[31m is OPEN"));
  EXPECT_THAT(outcome.out + outcome.err, Not(HasSubstr("\033")));
}

TEST_F(ProgramTest, FileOfCommandsThatCannotBeReadIsRefusedBeforeTheLaunch) {
  const Outcome outcome = Master({"--file", "/"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "vkmaster: Cannot read the file '/'\n");
  EXPECT_FALSE(daemon_.Called());
}

TEST_F(ProgramTest, CommandBeforeConnectIsNotSentSinceItWouldEndTheRun) {
  const Outcome outcome = Master({"--no-connect", "time"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("connect first"));
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kShutdown));
}

TEST_F(ProgramTest, StatusShowsTheRunOnOnePage) {
  const Outcome outcome = Master({"status"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "daemon             127.0.0.1:" + std::to_string(daemon_.port()) +
                             "\n"
                             "protocol version   3\n"
                             "data path          /data/\n"
                             "model              CASE\n"
                             "simulator on       node17\n"
                             "version asked for  2017.2\n"
                             "simulator version  2017.2\n"
                             "unit system        metric\n"
                             "compositional      yes\n"
                             "start date         2020-01-01\n"
                             "date               2020-01-01\n"
                             "time               0 days\n"
                             "ended              no\n"
                             "wells              3\n"
                             "open wells         2\n");
}

TEST_F(ProgramTest, UntilTakesTheFirstStepItselfAndRunsInOnePiece) {
  const Outcome outcome = Master({"until", "365.25"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "         day          date         ended\n"
            "      365.25    2020-12-31            no\n");
  EXPECT_THAT(daemon_.Requests(),
              ElementsAre(kConnect, kNewton, kTime, "08 00 00 00 00 00 00 00 00 d4 76 40", kTime,
                          kDate, kEnded, kShutdown));
}

TEST_F(ProgramTest, FieldCountsTheRatesThatAnAdvanceHasShown) {
  run_.rise = 1;
  const Outcome outcome = Master({"--csv"}, "field\nuntil 20 step 10 rates\nfield\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(outcome.out, HasSubstr("\n20,2020-01-21,false,660,666,663,669,672\n"));
  EXPECT_THAT(outcome.out, HasSubstr("\n660,666,663,669,672,12900,13020,12960,13080,13140\n"));
}

TEST_F(ProgramTest, FieldSaysWhereOneRateCountsForAnAdvance) {
  EXPECT_THAT(Master({}, "field\nuntil 20\nfield\n").err,
              HasSubstr("note: The totals take the rates of day 20 for all 20 days before it"));
}

TEST_F(ProgramTest, YearForADayIsRefusedBeforeTheFirstStep) {
  const Outcome outcome = Master({"time", "then", "until", "2022"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, HasSubstr("2022 may be a year or a day: write 2022-01-01"));
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kStartDate, kShutdown));
}

TEST_F(ProgramTest, YearForADayOfATypedLineIsRefusedBeforeTheFirstStep) {
  const Outcome outcome = Master({"--keep-going"}, "every 30 until 2022\nuntil 2022.0\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out,
            "         day          date         ended\n"
            "        2022    2025-07-15            no\n");
  EXPECT_THAT(outcome.err, HasSubstr("2022 may be a year or a day: write 2022-01-01"));
}

TEST_F(ProgramTest, FirstStepIsNotTakenTwice) {
  EXPECT_EQ(Master({"first-step", "then", "until", "+1"}).status, 0);
  EXPECT_THAT(daemon_.Requests(),
              ElementsAre(kConnect, kNewton, kTime, kTime, kTime,
                          "08 00 00 00 00 00 00 00 00 00 f0 3f", kTime, kDate, kEnded, kShutdown));
}

TEST_F(ProgramTest, MonthlyStepsEndOnTheFirstsAndOnTheTarget) {
  const Outcome outcome = Master({"until", "2020-03-10", "step", "monthly"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "         day          date         ended\n"
            "          31    2020-02-01            no\n"
            "          60    2020-03-01            no\n"
            "          69    2020-03-10            no\n");
}

TEST_F(ProgramTest, EveryIsUntilWithItsStepFirst) {
  const Outcome outcome = Master({"--csv", "every", "30", "until", "70"});
  EXPECT_EQ(outcome.out,
            "time_days,date,ended\n"
            "30,2020-01-31,false\n"
            "60,2020-03-01,false\n"
            "70,2020-03-11,false\n");
}

TEST_F(ProgramTest, StepOptionHoldsForAdvancesThatNameNone) {
  const Outcome outcome = Master({"--csv", "--step", "40", "until", "70"});
  EXPECT_EQ(outcome.out,
            "time_days,date,ended\n"
            "40,2020-02-10,false\n"
            "70,2020-03-11,false\n");
}

TEST_F(ProgramTest, RatesAreSummedOverTheWells) {
  const Outcome outcome = Master({"--csv", "until", "1", "rates"});
  EXPECT_EQ(outcome.out,
            "time_days,date,ended,oil_rate,water_rate,gas_rate,water_injection_rate,"
            "gas_injection_rate\n"
            "1,2020-01-02,false,600,606,603,609,612\n");
}

// The daemon answers each record at once and would not notice: what is to be read while it answers
// is what was sent ahead.
TEST(ProgramDistance, RecordsAreAskedForAheadUnlessOneByOneIsWanted) {
  for (const bool one_by_one : {false, true}) {
    bool ahead = false;
    FakeDaemon daemon([&](DaemonEnd& end) {
      FakeDaemon::Handshake(end);
      end.Send("OK|node17");
      FakeRun run;
      for (int request = 0; request < 3; ++request) {  // connect, wells, units
        const std::string frame = *end.Receive();
        run.Answer(end, NumberAt<std::uint32_t>(frame), frame.substr(4));
      }
      end.Receive();
      end.Send(Pack(10).Int(3).Done());
      end.Receive();
      ahead = end.HasMore();
      for (int i = 0; i < 3 && (i == 0 || end.Receive()); ++i) {
        Pack record(4096);
        record.String("OPEN");
        for (int value = 0; value < 8; ++value) record.Double(value);
        end.Send(record.Done());
      }
      run.Serve(end);
    });
    std::vector<std::string> arguments = LaunchArguments(daemon.port(), {"data"});
    if (one_by_one) arguments.insert(arguments.begin(), "--one-by-one");
    const Outcome outcome = RunVkmaster(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(ahead, !one_by_one);
  }
}

TEST_F(ProgramTest, EndOfTheSimulationEndsAnAdvance) {
  run_.end = 50;
  const Outcome outcome = Master({"until", "90", "step", "30"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "         day          date         ended\n"
            "          30    2020-01-31            no\n"
            "          50    2020-02-20           yes\n");
  EXPECT_EQ(outcome.err, "note: The simulation ended at day 50, before day 90\n");
}

TEST_F(ProgramTest, TargetBehindTheRunIsRefusedWithoutSendingIt) {
  const Outcome outcome = Master({}, "until 30\nuntil 20\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("The run is at day 30 already, it cannot go to day 20"));
  EXPECT_THAT(daemon_.Requests(), testing::Contains(kShutdown));
}

TEST(ProgramOrder, TargetBehindAnEarlierOneIsKnownBeforeTheLaunch) {
  // Nobody listens on this port: the launch would fail with another status.
  const auto complaint = [](const std::vector<std::string>& commands) {
    const Outcome outcome = RunVkmaster(LaunchArguments(FreePort(), commands));
    EXPECT_EQ(outcome.status, 2) << outcome.err;
    return outcome.err;
  };
  EXPECT_EQ(complaint({"until", "30", "then", "until", "30"}),
            "vkmaster: until 30: the run is at day 30 already then\n");
  EXPECT_THAT(
      complaint({"until", "30", "then", "until", "+5", "then", "every", "1", "until", "35"}),
      HasSubstr("the run is at day 35 already then"));
  EXPECT_THAT(complaint({"until", "2030-01-01", "then", "until", "2029-01-01"}),
              HasSubstr("the run is at 2030-01-01 already then"));
}

TEST_F(ProgramTest, WrongWellInTheLastCommandIsKnownBeforeTheFirstStep) {
  const Outcome outcome = Master({"until", "30", "then", "shut", "P9"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, HasSubstr("No well is called 'P9'"));
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kWells, kWells, kShutdown));
}

TEST_F(ProgramTest, WellThatTheModelAddsLaterIsMarkedSo) {
  run_.before = [this](std::uint32_t code) {
    if (code == 8) run_.wells.push_back({"P9", "PRODUCER", "OPEN"});
  };
  const Outcome outcome = Master(
      {"until", "30", "then", "shut", "later:P9", "then", "constrain", "later:P9", "oil=900"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("P9    SHUT"));
}

TEST_F(ProgramTest, SlipWithKeepGoingIsPassedOverWhenItsTurnComes) {
  const Outcome outcome = Master({"--keep-going", "time", "then", "shut", "P9", "then", "time"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "time  0 days\ntime  0 days\n");
}

TEST_F(ProgramTest, DateBeforeTheStartIsRefused) {
  const Outcome outcome = Master({"until", "2019-12-31"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("2019-12-31 is before the start of the run, 2020-01-01"));
}

TEST_F(ProgramTest, AdvanceOfARunThatHasEndedLeavesTheCommandsAfterIt) {
  run_.end = 5;
  const Outcome outcome = Master({"until", "5", "then", "until", "9", "then", "time"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "         day          date         ended\n"
            "           5    2020-01-06           yes\n"
            "           5    2020-01-06           yes\n"
            "time  5 days\n");
  EXPECT_EQ(outcome.err, "note: The simulation ended at day 5, before day 9\n");
}

TEST_F(ProgramTest, TargetBehindAnEarlierOneIsKnownBeforeTheFirstStepAlsoBetweenDaysAndDates) {
  const Outcome outcome = Master({"until", "366", "then", "until", "2020-06-01", "then", "data"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "vkmaster: until 2020-06-01: the run is at day 366 already then\n");
  EXPECT_THAT(daemon_.Requests(), Not(testing::Contains("07 00 00 00"))) << "no step";
  EXPECT_EQ(daemon_.Requests().back(), kShutdown);
}

// A date and so many days more is a day that only the run knows: that is no complaint before it.
TEST_F(ProgramTest, TargetBehindADateAndDaysIsKnownOnceTheRunTellsItsStart) {
  const Outcome outcome = Master(
      {"until", "2020-02-01", "then", "until", "+5", "then", "until", "+5", "then", "until", "10"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "vkmaster: until 10: the run is at day 41 already then\n");
  EXPECT_THAT(daemon_.Requests(), testing::Contains(kConnect));
  EXPECT_THAT(daemon_.Requests(), Not(testing::Contains(kNewton)));
}

TEST_F(ProgramTest, DateBeforeTheStartOrBehindTheRunIsKnownBeforeTheCommandsInFrontOfIt) {
  run_.time = 40;
  const Outcome outcome = Master({"time", "then", "until", "2020-01-20"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "vkmaster: until 2020-01-20: the run is at day 40 already then\n");
}

TEST_F(ProgramTest, TargetBehindTheRunCostsNoCommandWithKeepGoing) {
  const Outcome outcome =
      Master({"--keep-going", "until", "60", "then", "until", "2020-01-20", "then", "time"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.out, testing::EndsWith("time  60 days\n"));
}

TEST_F(ProgramTest, DaysAndDatesInTheirOrderAreCarriedOut) {
  const Outcome outcome = Master({"until", "2020-01-11", "then", "until", "+5", "then", "until",
                                  "16.5", "then", "until", "2020-02-01"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(ProgramTest, SimpleQuestionsAreAnsweredByTheRun) {
  const Outcome outcome = Master({"--csv", "compositional", "then", "start-date", "then", "ended"});
  EXPECT_EQ(outcome.out, "compositional\ntrue\n\nstart_date\n2020-01-01\n\nended\nfalse\n");
}

TEST_F(ProgramTest, ShutdownOnAPipeEndsTheReading) {
  EXPECT_EQ(Master({}, "shutdown\ntime\n").status, 0);
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kShutdown));
}

TEST_F(ProgramTest, WhatComesAfterQuitOnALineIsLeftOutWithoutANote) {
  const Outcome outcome = Master({}, "time; quit; version\nversion\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "time  0 days\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kTime, kShutdown));
}

TEST_F(ProgramTest, DashAsTheFileIsStandardInput) {
  const Outcome outcome = Master({"--file", "-"}, "time\n");
  EXPECT_EQ(outcome.out, "time  0 days\n");
}

TEST(ProgramHelpTest, HelpOfACommandNeedsNoRun) {
  const Outcome outcome = RunVkmaster({"help", "until"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, HasSubstr("until TARGET [step STEP] [rates]"));
  EXPECT_THAT(outcome.out, Not(HasSubstr("set-status")));
}

TEST(ProgramHelpTest, SeveralCommandsAreHelpedWithInTheirOrder) {
  const Outcome outcome = RunVkmaster({"help", "time", "then", "help", "date"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "  time                    simulated time in days since the start\n"
            "  date                    simulated date\n");
}

TEST(ProgramHelpTest, HelpOfACommandFromAFileNeedsNoRun) {
  const TemporaryDirectory directory;
  const Outcome outcome = RunVkmaster({"--file", directory.Write("commands", "help date\n")});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "  date                    simulated date\n");
}

TEST(ProgramHelpTest, HelpWithoutACommandListsThemAll) {
  const Outcome outcome = RunVkmaster({"help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, testing::StartsWith("Commands:\n  connect  "));
  EXPECT_THAT(outcome.out, HasSubstr("\n  set-status STATUS WELLS "));
}

TEST(ProgramHelpTest, HelpThatCannotBeWrittenIsAnError) {
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("errors");
  ChildProcess child({"/bin/sh", "-c", VkmasterExecutable() + " help >/dev/full"}, options);
  EXPECT_EQ(child.Wait(std::chrono::seconds(30)), 1);
  EXPECT_EQ(directory.Read("errors"),
            "vkmaster: The help cannot be written: No space left on device\n");
}

TEST(ProgramLaunchTest, ListenerThatNeverSpeaksIsNoDaemon) {
  FakeDaemon daemon([](DaemonEnd& master) { master.Receive(); });
  const Outcome outcome =
      RunVkmaster(LaunchArguments(daemon.port(), {"--connect-wait", "1", "time"}));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("Is it a jobmill daemon that listens there?"));
}

TEST_F(ProgramTest, JsonIsOneObjectALine) {
  const Outcome outcome = Master({"--json", "time", "then", "until", "2", "step", "1"});
  EXPECT_EQ(outcome.out, R"({"command":"time","time_days":0.0,"units":{"time_days":"days"}})"
                         "\n"
                         R"({"command":"until","time_days":1.0,"date":"2020-01-02","ended":false})"
                         "\n"
                         R"({"command":"until","time_days":2.0,"date":"2020-01-03","ended":false})"
                         "\n");
}

TEST_F(ProgramTest, StatusAsJsonHasUnitSystemAndNumbersOfWells) {
  const Outcome outcome = Master({"--json", "status"});
  EXPECT_THAT(outcome.out, HasSubstr(R"("unit_system":"metric")"));
  EXPECT_THAT(outcome.out, HasSubstr(R"("wells":3,"open_wells":2,"units":{"time_days":"days"})"));
}

TEST_F(ProgramTest, ErrorAsJsonHasTheNameOfTheCommand) {
  const Outcome outcome = Master({"--json"}, "shut P9\n");
  EXPECT_THAT(outcome.out,
              testing::StartsWith(R"({"command":"shut","text":"shut P9","error":"No well is)"));
}

TEST_F(ProgramTest, CommandsAreReadFromAPipe) {
  const Outcome outcome = Master({}, "# a comment\ntime; units\n\nversion");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "time  0 days\nunit system  metric\nsimulator version  2017.2\n");
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kTime, kMetric, kVersion, kShutdown));
}

TEST_F(ProgramTest, AnswersOnAPipeComeBeforeTheNextCommandIsWritten) {
  VkmasterProcess process(LaunchArguments(daemon_.port(), {"--json"}));
  process.Type("time\n");
  EXPECT_EQ(process.ReadLine(),
            R"({"command":"time","time_days":0.0,"units":{"time_days":"days"}})");
  process.Type("until 3\n");
  EXPECT_EQ(process.ReadLine(),
            R"({"command":"until","time_days":3.0,"date":"2020-01-04","ended":false})");
  EXPECT_EQ(process.Finish().status, 0);
}

TEST_F(ProgramTest, SlipOnAPipeEndsTheRun) {
  const Outcome outcome = Master({}, "tiem\ntime\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kShutdown));
}

TEST_F(ProgramTest, KeepGoingTakesTheNextCommandAfterASlip) {
  const Outcome outcome = Master({"--keep-going", "--json"}, "tiem\ntime\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, R"x({"command":"tiem","error":"No such command: tiem (time?)"})x"
                         "\n"
                         R"({"command":"time","time_days":0.0,"units":{"time_days":"days"}})"
                         "\n");
}

TEST_F(ProgramTest, SlipAmongArgumentsIsTheStatusThoughTheNextCommandSucceeds) {
  const Outcome outcome = Master({"--keep-going", "data", "P9", "then", "time"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "time  0 days\n");
}

// What was done already is nothing to end a run for.
TEST_F(ProgramTest, ConnectAndFirstStepMayBeSaidAgain) {
  const Outcome outcome =
      Master({"until", "30", "then", "first-step", "then", "connect", "then", "time"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, testing::EndsWith("time  30 days\n"));
  EXPECT_EQ(outcome.err,
            "note: The first time step was taken already\n"
            "note: The daemon was connected to the simulator already\n");
}

TEST_F(ProgramTest, ConnectAfterShutdownIsRefusedWithoutSendingIt) {
  const Outcome outcome = Master({"shutdown", "then", "connect"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "vkmaster: The run has been shut down\n");
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kShutdown));
}

// That one slip was tolerated says nothing about the next failure.
TEST(ProgramKeepGoing, FailedRequestAfterAToleratedSlipEndsTheCommands) {
  FakeRun run;
  run.fails = {2};
  for (const bool from_arguments : {true, false}) {
    SCOPED_TRACE(from_arguments);
    FakeDaemon daemon(FakeDaemon::Launching(run));
    const Outcome outcome =
        from_arguments
            ? RunVkmaster(LaunchArguments(
                  daemon.port(), {"--keep-going", "connect", "then", "date", "then", "time"}))
            : RunVkmaster(LaunchArguments(daemon.port(), {"--keep-going"}),
                          "connect\ndate\ntime\n");
    EXPECT_EQ(outcome.status, 4);
    EXPECT_THAT(outcome.err, HasSubstr("(GetDate)"));
    EXPECT_THAT(outcome.err, Not(HasSubstr("vkmaster: The connection")));
    EXPECT_THAT(outcome.err, Not(HasSubstr("(GetTimeDays)")));
  }
}

TEST_F(ProgramTest, CommandsOfAFileAreUnderstoodBeforeAnythingIsLaunched) {
  const TemporaryDirectory directory;
  const std::string file = directory.Write("plan", "time\nuntil then\n");
  // Nobody listens on this port: the launch would fail with another status.
  const Outcome outcome = RunVkmaster(LaunchArguments(FreePort(), {"--file", file}));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("plan, line 2: until: Until when?"));
  EXPECT_EQ(Master({"--file", directory.Write("plan", "# nothing but\ntime\n")}).out,
            "time  0 days\n");
}

TEST_F(ProgramTest, FailedRequestIsNamedWithTheLogToLookAt) {
  run_.fails = {8};
  const Outcome outcome = Master({"until", "30"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_THAT(outcome.err, HasSubstr("vkmaster: The daemon ended the connection while waiting for "
                                     "the answer of request 8 (RunUntil)\n"));
  EXPECT_THAT(outcome.err, HasSubstr("comms log /data/CASE.crvnlog"));
}

TEST_F(ProgramTest, FailedConnectAsksAboutTimeOutAndVersion) {
  run_.fails = {1};
  const Outcome outcome = Master({"time"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_THAT(outcome.err, HasSubstr("request 1 (Connect)"));
  EXPECT_THAT(outcome.err, HasSubstr("did the simulator start on node17 within the daemon's "
                                     "time-out (-t), and is 2017.2 its version (--api)?"));
}

TEST_F(ProgramTest, SignalDuringAStepShutsTheRunDown) {
  std::promise<pid_t> master;
  run_.before = [&](std::uint32_t code) {
    if (code == 8) kill(master.get_future().get(), SIGINT);
  };
  VkmasterProcess process(LaunchArguments(daemon_.port(), {"until", "30"}));
  // The step is answered at once here; the answer may come before or after the signal.
  master.set_value(process.pid());
  const Outcome outcome = process.Finish();
  EXPECT_EQ(outcome.status, 130);
  EXPECT_EQ(daemon_.Requests().back(), kShutdown);
}

TEST_F(ProgramTest, TerminationWhileWaitingForInputShutsTheRunDown) {
  VkmasterProcess process(LaunchArguments(daemon_.port(), {}));
  process.Type("time\n");
  EXPECT_EQ(process.ReadLine(), "time  0 days");
  process.Signal(SIGTERM);
  // The input stays open until the program has ended by itself.
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kTime, kShutdown));
  EXPECT_EQ(process.Finish().status, 143);
}

TEST_F(ProgramTest, OutputThatNobodyReadsEndsTheRun) {
  VkmasterProcess process(LaunchArguments(daemon_.port(), {}));
  process.Type("time\n");
  EXPECT_EQ(process.ReadLine(), "time  0 days");
  process.CloseOutput();
  process.Type("time\nversion\n");
  const Outcome outcome = process.Finish();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("The results cannot be written: Broken pipe"));
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kTime, kTime, kShutdown));
}

TEST_F(ProgramTest, ErrorThatNobodyReadsEndsTheRunToo) {
  VkmasterProcess process(LaunchArguments(daemon_.port(), {"--json"}));
  process.Type("time\n");
  process.ReadLine();
  process.CloseOutput();
  process.Type("time\n");
  const Outcome outcome = process.Finish();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "vkmaster: The results cannot be written: Broken pipe\n");
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kTime, kTime, kShutdown));
}

TEST_F(ProgramTest, SignalWhileTheResultsWaitForTheirReaderShutsTheRunDown) {
  std::promise<void> over;
  run_.before = [&](std::uint32_t code) {
    if (code == 65520) over.set_value();
  };
  VkmasterProcess process(LaunchArguments(daemon_.port(), {}));
  const int room = fcntl(process.output(), F_SETPIPE_SZ, 4096);
  ASSERT_GT(room, 0);
  std::string commands;
  for (int i = 0; i < room / 10; ++i) commands += "time\n";
  process.Type(commands);
  const std::string line = "time  0 days\n";
  ASSERT_TRUE(Eventually([&] {
    int waiting = 0;
    return ioctl(process.output(), FIONREAD, &waiting) == 0 && waiting > room - std::ssize(line) &&
           IsWriting(process.pid(), STDOUT_FILENO);
  }));
  process.Signal(SIGINT);
  // Nothing is read before, which would let the write end well.
  ASSERT_EQ(over.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  const Outcome outcome = process.Finish();
  EXPECT_EQ(outcome.status, 130);
  EXPECT_THAT(outcome.err, testing::StartsWith("Interrupted: shutting the run down"));
  EXPECT_EQ(daemon_.Requests().back(), kShutdown);
}

TEST_F(ProgramTest, SignalBetweenTwoCommandsKeepsTheSecondFromBeingSent) {
  std::promise<void> narrow;
  run_.before = [&](std::uint32_t code) {
    if (code == 1) narrow.get_future().wait();
  };
  VkmasterProcess process(
      LaunchArguments(daemon_.port(), {"help", "then", "help", "then", "open", "P1"}));
  const int room = fcntl(process.errors(), F_SETPIPE_SZ, 4096);
  narrow.set_value();
  ASSERT_EQ(room, 4096);
  ASSERT_TRUE(Eventually([&] { return IsWriting(process.pid(), STDERR_FILENO); }))
      << "the second help has no room beside the first";
  process.Signal(SIGINT);
  const Outcome outcome = process.Finish();
  EXPECT_EQ(outcome.status, 130);
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kWells, kShutdown));
}

TEST_F(ProgramTest, NothingButSeparatorsIsALaunchAndAShutdown) {
  const Outcome outcome = Master({"then", ","});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out + outcome.err, "");
  EXPECT_THAT(daemon_.Requests(), ElementsAre(kConnect, kShutdown));
}

TEST_F(ProgramTest, HelpInARunIsARemarkBesideTheResults) {
  const Outcome outcome = Master({}, "help date; help\ntime\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "time  0 days\n");
  EXPECT_THAT(
      outcome.err,
      testing::StartsWith("  date                    simulated date\n\nCommands:\n  connect "));
}

TEST_F(ProgramTest, ShutdownThatFailsAtTheEndIsTheStatus) {
  run_.fails = {65520};
  const Outcome outcome = Master({"time"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_EQ(outcome.out, "time  0 days\n");
  EXPECT_THAT(outcome.err, HasSubstr("vkmaster: The daemon ended the connection while waiting for "
                                     "the answer of request 65520 (Shutdown)\n"));
}

// The user's name in the run request when the environment holds these; null for not at all.
std::string UserSent(const char* user, const char* logname) {
  for (const auto& [name, value] : {std::pair("USER", user), std::pair("LOGNAME", logname)}) {
    if (value == nullptr) {
      unsetenv(name);
    } else {
      setenv(name, value, 1);
    }
  }
  FakeRun run;
  FakeDaemon daemon(FakeDaemon::Launching(run));
  const Outcome outcome =
      RunVkmaster({"--host", "127.0.0.1", "--port", std::to_string(daemon.port()), "--path",
                   "/data/", "--root", "CASE", "quit"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const std::vector<std::string> frames = daemon.Frames();
  return frames.size() < 8 ? "none" : Bytes(frames[6]);
}

TEST(ProgramUser, NameIsThatOfTheEnvironment) {
  EXPECT_EQ(UserSent("bob", "carol"), "bob");
  EXPECT_EQ(UserSent("", "carol"), "carol");
  EXPECT_EQ(UserSent(nullptr, "carol"), "carol");
  EXPECT_EQ(UserSent(nullptr, nullptr), getpwuid(getuid())->pw_name);
  unsetenv("LOGNAME");
}

TEST(ProgramUser, AccountWithoutANameClaimsNone) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  const TemporaryDirectory directory;
  std::filesystem::permissions(directory.path(), std::filesystem::perms(0755));
  const std::string program = directory.File("vkmaster");  // where every account may execute it
  std::filesystem::copy_file(VkmasterExecutable(), program);
  FakeRun run;
  FakeDaemon daemon(FakeDaemon::Launching(run));
  ChildProcess::Options options;
  options.environment = {"USER=", "LOGNAME="};
  options.in_child = [] {
    constexpr unsigned nameless = 54321;
    return setgid(nameless) + setuid(nameless);
  };
  ChildProcess child({program, "--host", "127.0.0.1", "--port", std::to_string(daemon.port()),
                      "--path", "/data/", "--root", "CASE", "quit"},
                     options);
  EXPECT_EQ(child.Wait(std::chrono::seconds(30)), 0);
  const std::vector<std::string> frames = daemon.Frames();
  ASSERT_GE(frames.size(), 8U);
  EXPECT_EQ(frames[6], "");
}

TEST(ProgramFailure, SystemWithoutADescriptorLeftIsAnInternalError) {
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("errors");
  options.in_child = [] { return RefuseCalls({{SYS_eventfd2, EMFILE}}) ? 0 : 1; };
  ChildProcess child({VkmasterExecutable(), "help"}, options);
  EXPECT_EQ(child.Wait(std::chrono::seconds(30)), 1);
  EXPECT_EQ(directory.Read("errors"), "vkmaster: no event descriptor\n");
}

TEST_F(ProgramTest, EnvironmentGivesHostAndPort) {
  setenv("VKMASTER_HOST", "127.0.0.1", 1);
  setenv("VKMASTER_PORT", std::to_string(daemon_.port()).c_str(), 1);
  const Outcome outcome = RunVkmaster({"--path", "/data/", "--root", "CASE", "time"});
  unsetenv("VKMASTER_HOST");
  unsetenv("VKMASTER_PORT");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "time  0 days\n");
}

TEST_F(ProgramTest, ConfigFileGivesOptionsThatTheCommandLineOverrides) {
  const TemporaryDirectory directory;
  const std::string file = directory.Write(
      "site.ini", "host=127.0.0.1\nport=" + std::to_string(daemon_.port()) + "\nroot=OTHER\n");
  const Outcome outcome =
      RunVkmaster({"--config", file, "--path", "/data/", "--root", "CASE", "time"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(daemon_.Frames()[3], Hex("CASE"));
}

TEST(ProgramSignal, BusyRunIsLeftWithTheOrderAfterTheTimeGiven) {
  std::promise<pid_t> master;
  std::vector<std::string> left;
  FakeDaemon daemon([&](DaemonEnd& end) {
    FakeDaemon::Handshake(end);
    end.Send("OK|node17");
    FakeRun run;
    run.Answer(end, 1, *end.Receive());
    end.Receive();  // shutdown or anything: never answered
    kill(master.get_future().get(), SIGTERM);
    while (const auto frame = end.Receive()) left.push_back(Hex(*frame));
  });
  VkmasterProcess process(LaunchArguments(daemon.port(), {"--shutdown-wait", "0", "time"}));
  master.set_value(process.pid());
  const Outcome outcome = process.Finish();
  EXPECT_EQ(outcome.status, 143);
  EXPECT_THAT(outcome.err, HasSubstr("The simulator is busy"));
  daemon.Frames();
  EXPECT_THAT(left, ElementsAre(kShutdown));
}

TEST(ProgramSignal, SecondSignalLeavesAtOnce) {
  std::promise<pid_t> master;
  FakeDaemon daemon([&](DaemonEnd& end) {
    FakeDaemon::Handshake(end);
    end.Send("OK|node17");
    FakeRun run;
    run.Answer(end, 1, *end.Receive());
    end.Receive();
    const pid_t pid = master.get_future().get();
    kill(pid, SIGINT);
    end.Receive();  // the shutdown, which shows that the first signal has been seen
    kill(pid, SIGINT);
    end.Receive();
  });
  VkmasterProcess process(LaunchArguments(daemon.port(), {"time"}));
  master.set_value(process.pid());
  const Outcome outcome = process.Finish();
  EXPECT_EQ(outcome.status, 130);
  EXPECT_THAT(outcome.err, HasSubstr("Left before the shutdown was confirmed"));
}

TEST(ProgramSignal, LaunchGivenUpLeavesConnectAndShutdownBehind) {
  std::promise<pid_t> master;
  FakeDaemon daemon([&](DaemonEnd& end) {
    FakeDaemon::Handshake(end);
    kill(master.get_future().get(), SIGINT);
    while (end.Receive()) {
    }
  });
  VkmasterProcess process(LaunchArguments(daemon.port(), {"time"}));
  master.set_value(process.pid());
  const Outcome outcome = process.Finish();
  EXPECT_EQ(outcome.status, 130);
  EXPECT_THAT(outcome.err, HasSubstr("finds the order to shut it down"));
  EXPECT_THAT(daemon.Requests(), ElementsAre(kConnect, kShutdown));
}

TEST(ProgramSignal, SignalBeforeTheDaemonSpeaksLeavesNothingBehind) {
  std::promise<pid_t> master;
  FakeDaemon daemon([&](DaemonEnd& end) {
    kill(master.get_future().get(), SIGTERM);
    end.Receive();
  });
  VkmasterProcess process(LaunchArguments(daemon.port(), {"time"}));
  master.set_value(process.pid());
  const Outcome outcome = process.Finish();
  EXPECT_EQ(outcome.status, 143);
  EXPECT_THAT(outcome.err, testing::StartsWith("vkmaster: Interrupted while "));
  EXPECT_THAT(daemon.Frames(), IsEmpty());
}

TEST(ProgramLaunch, LaunchThatTakesTooLongIsLeftAloneWithLeave) {
  FakeDaemon daemon([&](DaemonEnd& end) {
    FakeDaemon::Handshake(end);
    while (end.Receive()) {
    }
  });
  const Outcome outcome =
      RunVkmaster(LaunchArguments(daemon.port(), {"--launch-wait", "1", "--leave", "time"}));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.err, "vkmaster: The daemon did not answer in time\n");
  EXPECT_THAT(daemon.Requests(), IsEmpty());
}

TEST(ProgramLaunch, RunThatCannotBeAskedForIsAUsageError) {
  FakeDaemon daemon([](DaemonEnd& end) {
    end.Send("3");
    while (end.Receive()) {
    }
  });
  const Outcome outcome =
      RunVkmaster(LaunchArguments(daemon.port(), {"--debug", std::string(32768, 'x'), "time"}));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "vkmaster: The debug flag is too long: 32768 characters\n");
  EXPECT_THAT(daemon.Frames(), ElementsAre("33"));
}

TEST(ProgramLaunch, LaunchThatTakesTooLongIsGivenUp) {
  FakeDaemon daemon([&](DaemonEnd& end) {
    FakeDaemon::Handshake(end);
    while (end.Receive()) {
    }
  });
  const Outcome outcome =
      RunVkmaster(LaunchArguments(daemon.port(), {"--launch-wait", "1", "time"}));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(daemon.Requests(), ElementsAre(kConnect, kShutdown));
}

struct Refusal {
  const char* text;
  const char* hint;
};

class ProgramRefused : public testing::TestWithParam<Refusal> {};

TEST_P(ProgramRefused, ShowsTheTextAndWhatToLookAt) {
  FakeDaemon daemon(FakeDaemon::Refusing(GetParam().text));
  const Outcome outcome = RunVkmaster(LaunchArguments(daemon.port(), {"time"}));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err,
              testing::StartsWith(std::string("vkmaster: ") + GetParam().text + "\nhint: "));
  EXPECT_THAT(outcome.err, HasSubstr(GetParam().hint));
  EXPECT_THAT(daemon.Requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ProgramRefused,
    testing::Values(Refusal{"Failed to read main environment file", ".vk_corvane_env"},
                    Refusal{"Could not open the user administration file: /opt/./.vk_corvane_users",
                            "or the daemon is started with -u"},
                    Refusal{"Windows user 'alice' not found in administration file",
                            "\"alice LINUX_ACCOUNT 1\""},
                    Refusal{"Windows user 'alice' does not have permissions to run Varnok",
                            "ends in 0"},
                    Refusal{"Failed to get password entry for 'bob'", "getent passwd"},
                    Refusal{"Failed to set user ID for Tolmen job - error = 1", "lacks the right"},
                    Refusal{"No host detected", "HOST="},
                    Refusal{"No host detected", "may the account read and write there?"},
                    Refusal{"No host detected", "when the port for the simulator was taken"},
                    Refusal{"Windows user 'alice' not found in administration file",
                            "a tab belongs to the name"},
                    Refusal{"something that no daemon says today", "The text is the daemon's"}));

TEST(ProgramLaunch, EndOfConnectionWithoutATextPointsToTheDaemonsLog) {
  FakeDaemon daemon([](DaemonEnd& end) { FakeDaemon::Handshake(end); });
  const Outcome outcome = RunVkmaster(LaunchArguments(daemon.port(), {"time"}));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("The daemon ended the connection without a word"));
  EXPECT_THAT(outcome.err, HasSubstr("see the end of the daemon's log"));
}

TEST(ProgramLaunch, RefusedConnectionAsksWhetherTheDaemonRuns) {
  const Outcome outcome = RunVkmaster(LaunchArguments(FreePort(), {"time"}));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("Connection refused"));
  EXPECT_THAT(outcome.err, HasSubstr("Is the daemon running on 127.0.0.1"));
}

TEST(ProgramLaunch, AnotherServiceIsRecognised) {
  FakeDaemon daemon([](DaemonEnd& end) { end.Send("220 mail ready"); });
  const Outcome outcome = RunVkmaster(LaunchArguments(daemon.port(), {"time"}));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("No jobmill daemon: '220 mail ready'"));
}

TEST(ProgramLaunch, ControlCharactersOfAPeerDoNotReachTheTerminal) {
  FakeDaemon daemon(FakeDaemon::Refusing("\033[2Jgone"));
  const Outcome outcome = RunVkmaster(LaunchArguments(daemon.port(), {"time"}));
  EXPECT_THAT(outcome.err, HasSubstr("vkmaster: ?[2Jgone\n"));
  EXPECT_THAT(outcome.err, Not(HasSubstr("\033")));
}

TEST(ProgramLink, CutAnswerIsALostLink) {
  FakeDaemon daemon([](DaemonEnd& end) {
    FakeDaemon::Handshake(end);
    end.Send("OK|node17");
    FakeRun run;
    run.Answer(end, 1, *end.Receive());
    end.Receive();
    end.SendRaw(Bytes("10000000 04000000"));
  });
  const Outcome outcome = RunVkmaster(LaunchArguments(daemon.port(), {"time"}));
  EXPECT_EQ(outcome.status, 5);
  EXPECT_THAT(outcome.err, HasSubstr("in the middle of an answer"));
}

TEST(ProgramLink, BadAnswerIsNamedAndTheRunShutDown) {
  std::vector<std::string> left;
  FakeDaemon daemon([&](DaemonEnd& end) {
    FakeDaemon::Handshake(end);
    end.Send("OK|node17");
    FakeRun run;
    run.Answer(end, 1, *end.Receive());
    end.Receive();
    end.Send(Bytes("05000000 00000000"));
    run.Serve(end);
  });
  const Outcome outcome = RunVkmaster(LaunchArguments(daemon.port(), {"time"}));
  EXPECT_EQ(outcome.status, 6);
  EXPECT_THAT(outcome.err, HasSubstr("Bad answer to request 4 (GetTimeDays): it carries the code "
                                     "5 instead of 4"));
  EXPECT_THAT(daemon.Requests(), ElementsAre(kConnect, kTime, kShutdown));
}

TEST(ProgramUsage, HelpListsCommandsAndExitStatusesWithoutADaemon) {
  const Outcome outcome = RunVkmaster({"--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, HasSubstr("  until TARGET [step STEP] [rates]"));
  EXPECT_THAT(outcome.out, HasSubstr("  4  a request failed"));
  EXPECT_THAT(outcome.out, HasSubstr("--connect-wait INT:NONNEGATIVE=10\n"));
  EXPECT_THAT(outcome.out, HasSubstr("--launch-wait INT:NONNEGATIVE=0\n"));
  EXPECT_THAT(outcome.out, HasSubstr("--shutdown-wait INT:NONNEGATIVE=30\n"));
  EXPECT_THAT(RunVkmaster({"help", "until"}).out, HasSubstr("run to day 3650"));
}

TEST(ProgramUsage, WhatTheLaunchLacksIsNamed) {
  const auto complaint = [](const std::vector<std::string>& arguments) {
    return RunVkmaster(arguments).err;
  };
  EXPECT_EQ(complaint({"--path", "/data", "--root", "CASE", "time"}),
            "vkmaster: The daemon's port is missing: --port\n");
  EXPECT_EQ(complaint({"--port", "5000", "--root", "CASE", "time"}),
            "vkmaster: The run's data directory is missing: --path\n");
  EXPECT_EQ(complaint({"--port", "5000", "--path", "/data", "time"}),
            "vkmaster: The model's name is missing: --root\n");
  std::vector<std::string> gate = {"--path", "/data", "--root", "CASE", "--gate", "127.0.0.1:1"};
  for (const char* option : {"--certificate", "--key", "--authority"}) {
    gate.emplace_back("time");
    EXPECT_EQ(complaint(gate),
              "vkmaster: For --gate there has to be " + std::string(option) + "\n");
    gate.back() = option;
    gate.emplace_back("/no/such/file");
  }
}

TEST(ProgramUsage, CommandThatOnlyBeginsLikeRunIsNoPlan) {
  const Outcome outcome = RunVkmaster(LaunchArguments(5000, {"runs", "plan.toml"}));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("No such command: runs"));
}

TEST(ProgramUsage, SlipsEndWithTwoBeforeAnythingIsLaunched) {
  const std::vector<std::vector<std::string>> slips{
      {},
      {"time"},
      {"--port", "5000", "--root", "CASE", "time"},
      {"--port", "5000", "--path", "/data", "time"},
      {"--port", "70000", "--path", "/data", "--root", "CASE", "time"},
      {"--no-such-option"},
      {"--port", "5000", "--path", "/data", "--root", "CASE", "tiem"},
      {"--port", "5000", "--path", "/data", "--root", "CASE", "until", "yesterday"},
      {"--port", "5000", "--path", "/data", "--root", "CASE", "--step", "often", "time"},
      {"--port", "5000", "--path", "/data", "--root", "CASE", "--file", "/no/such/file"},
  };
  for (const auto& slip : slips) {
    const Outcome outcome = RunVkmaster(slip);
    EXPECT_EQ(outcome.status, 2) << testing::PrintToString(slip);
    EXPECT_NE(outcome.err + outcome.out, "") << testing::PrintToString(slip);
  }
}

}  // namespace
