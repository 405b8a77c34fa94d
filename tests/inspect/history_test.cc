#include "inspect/history.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utime.h>
#include <zlib.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/timestamp.h"
#include "tests/inspect/own_view.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

// The pieces of a log as the daemon writes them.
struct Asked {
  std::string path;
  std::string root = "CASE";
  std::string user = "alice";
  std::string cluster = "0";
  std::string debug = "0";
};

class HistoryTest : public testing::Test {
 protected:
  // A start of the daemon, with options after "-p 5000 -s /s".
  static std::string Start(std::time_t time, const std::string& options = "-o 9001 -n 100 -u -l ") {
    return "\nDaemon started: " + timestamp(time) +
           "Version information: 3 (ZRM11)\nArguments: -p 5000 -s /s " + options +
           "\nExecutable path = /opt\n";
  }
  static std::string Accepted(std::time_t time) {
    return "Accepted incoming connection: " + timestamp(time);
  }
  static std::string Answered(std::time_t time) {
    return Accepted(time) + "Answering call in child process: " + timestamp(time) +
           "Sending back version number: 3\n";
  }
  static std::string Request(const Asked& asked) {
    return "Clust: " + asked.cluster + "\nPath: " + asked.path + "\nRoot: " + asked.root +
           "\nProc: 4\nVer: 20172\n"
           "Setting non-existing environment variable SIM_HOME to /opt/sim\n"
           "Setting existing environment variable PATH to /opt/bin:/usr/bin\n"
           "Windows user received: " +
           asked.user + "\nDebug flag received: " + asked.debug + "\n";
  }
  static std::string Users() {
    return "Contents of user administration file:\nUser 1:\nWindows: alice, Linux: root, allow: 1\n"
           "User 2:\nWindows: bob, Linux: root, allow: 0\n";
  }
  static std::string Script(const Asked& asked, int port) {
    const std::string root = asked.cluster == "0" ? asked.root : asked.root + "_" + asked.cluster;
    return "Argument list\nArg 1: /s\nArg 2: 4\nArg 3: " + asked.path + "\nArg 4: " + root +
           "\nArg 5: " + std::to_string(port) + "\nArg 6: " + asked.debug + "\nArg 7: ";
  }
  static std::string Host(const std::string& host = "node7") {
    return "HOST=" + host + "\nHost detected: " + host + std::string(1, '\0') + "\n";
  }
  std::string Launched(const Asked& asked, int port, std::time_t time) {
    return Answered(time) + Request(asked) + Script(asked, port) + Host();
  }

  Asked Model(const std::string& root, const std::string& user = "alice") const {
    return {.path = data_.path().string() + "/", .root = root, .user = user};
  }

  void WriteLog(const std::string& text, const std::string& name = "VKJobmill_5000.log") {
    logs_.Write(name, text);
  }
  // What the controller of a run writes, up to how it ended.
  void WriteComms(const std::string& root, const std::string& end, int port = 9001) {
    data_.Write(root + ".crvnlog", "Received header: 1\nConnect on host: node7" +
                                       std::string(1, '\0') + ", port: " + std::to_string(port) +
                                       ", timeout: 60\nReceived header: 8\nRunning until 30\n" +
                                       end);
  }
  // The run that was asked for, of a connection child that began at now_.
  inspect::Run GoingOn(const Asked& asked, RunState state) const {
    inspect::Run run;
    run.listen_port = 5000;
    run.state = state;
    run.began = static_cast<double>(now_);
    run.path = asked.path;
    run.root = asked.root;
    return run;
  }
  History Read(const Runs& now = {}, double since = 0) const {
    return ReadHistory(now, since, {{logs_.path().string()}});
  }
  // Of a run that is launched and whose comms log ends so.
  End EndWith(const std::string& end) {
    WriteLog(Start(now_) + Launched(Model("CASE"), 9001, now_));
    WriteComms("CASE", end);
    const History history = Read();
    EXPECT_EQ(history.runs.size(), 1U);
    EXPECT_TRUE(history.runs.at(0).told_by_account);
    return history.runs.at(0).end;
  }
  // Of a connection that is the only one.
  EndedRun Only(const std::string& lines) {
    WriteLog(Start(now_, "-o 9001 -n 100 -l ") + lines);
    const History history = Read();
    EXPECT_THAT(history.missing, IsEmpty());
    EXPECT_EQ(history.runs.size(), 1U);
    EXPECT_THAT(history.runs.at(0).doubts, IsEmpty());
    return history.runs.at(0);
  }

  const std::time_t now_ = time(nullptr);
  const TemporaryDirectory logs_;
  const TemporaryDirectory data_;
};

std::string Failed(const std::string& text) {
  const std::string failed = "Failed to handle data packet received from master: " + text;
  return text + "\n" + failed + "\nRequest process loop failed: " + failed + "\n";
}

std::string OfSimulator(const std::string& text) {
  return Failed("Exception returned from VK controller: " + text);
}

TEST_F(HistoryTest, RunThatTheMasterShutDown) {
  WriteLog(Start(now_) + Launched(Model("CASE"), 9001, now_));
  WriteComms("CASE",
             "GetTimeDays: 30\nReceived header: 65520\nShutting down\n"
             "Process loop has exited naturally, going to sleep again ... \n");
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 1U);
  const EndedRun& run = history.runs[0];
  EXPECT_THAT(run.id, StartsWith("5000-20"));
  EXPECT_EQ(run.listen_port, 5000);
  EXPECT_EQ(run.began, static_cast<double>(now_));
  EXPECT_EQ(run.end.ending, Ending::kShutDown);
  EXPECT_EQ(run.end.sentence, "The master shut it down");
  EXPECT_EQ(run.windows_user, "alice");
  EXPECT_FALSE(run.account);
  EXPECT_EQ(run.path, data_.path().string() + "/");
  EXPECT_EQ(run.root, "CASE");
  EXPECT_EQ(run.processes, 4);
  EXPECT_EQ(run.version, "20172");
  EXPECT_EQ(run.comms_port, 9001);
  EXPECT_EQ(run.host, "node7");
  EXPECT_EQ(run.last_request, 65520U);
  EXPECT_EQ(run.requests, 3);
  EXPECT_EQ(run.day, 30);
  EXPECT_EQ(run.until, 30);
  EXPECT_TRUE(run.told_by_account);
  EXPECT_TRUE(run.ended);
  ASSERT_EQ(run.places.size(), 3U);
  EXPECT_EQ(run.places[0].file, data_.File("CASE.crvnlog"));
  EXPECT_EQ(run.places[0].line, 8);
  EXPECT_EQ(run.places[1].file, logs_.File("VKJobmill_5000.log"));
  EXPECT_EQ(run.places[1].line, 26);
  EXPECT_EQ(run.places[2].line, 6);
  EXPECT_THAT(run.doubts, IsEmpty());
  EXPECT_THAT(history.missing, IsEmpty());
}

// What a comms log ends with, and what that means to an engineer.
struct Told {
  std::string end;
  Ending ending;
  const char* reason;
  std::string sentence;
};

class ToldTest : public HistoryTest, public testing::WithParamInterface<Told> {};

TEST_P(ToldTest, IsSaidInASentence) {
  const End end = EndWith(GetParam().end);
  EXPECT_EQ(end.ending, GetParam().ending) << Name(end.ending);
  EXPECT_EQ(end.reason, GetParam().reason);
  EXPECT_EQ(end.sentence, GetParam().sentence);
}

INSTANTIATE_TEST_SUITE_P(
    CommsLogs, ToldTest,
    testing::Values(
        Told{"No or unexpected data received from Corvane\n"
             "Request process loop failed: No or unexpected data received from Corvane\n",
             Ending::kMasterLeft, "",
             "The master left without shutting it down, or the connection to the master broke"},
        Told{OfSimulator("read: End of file"), Ending::kSimulatorEnded, "",
             "The simulator ended, or was ended, during the request 'run until'"},
        Told{OfSimulator("read: Connection reset by peer"), Ending::kSimulatorEnded, "",
             "The simulator ended, or was ended, during the request 'run until'"},
        Told{OfSimulator("write: Broken pipe"), Ending::kSimulatorEnded, "",
             "The simulator ended, or was ended, during the request 'run until'"},
        Told{OfSimulator("read: Connection timed out"), Ending::kSimulatorEnded, "machine-gone",
             "The simulator's machine, 'node7', went away during the request 'run until'"},
        Told{OfSimulator("Connection timed out."), Ending::kNoSimulator, "timed-out",
             "No simulator accepted the connection on host 'node7', port 9001, in time"},
        Told{OfSimulator("resolve: Host not found (authoritative)"), Ending::kNoSimulator,
             "host-unknown",
             "The script named the host 'node7', which the jobmill's machine does not know"},
        Told{OfSimulator("Not connected to the simulator"), Ending::kRequestFailed, "not-connected",
             "The master sent the request 'run until' before it had the simulator connected"},
        Told{OfSimulator("Incorrect algorithmic position after advancing to first timestep"),
             Ending::kRequestFailed, "position",
             "The simulator was not where the request 'run until' needs it, but at its end for "
             "example"},
        Told{OfSimulator("Unexpected answer when querying the well statuses."),
             Ending::kRequestFailed, "answer",
             "The simulator answered the request 'run until' in another shape than expected; it "
             "may speak another version than '20172', which the master named"},
        Told{OfSimulator("Incorrect argument dimensions passed to SetWellConstraints"),
             Ending::kRequestFailed, "data",
             "What the master sent with the request 'run until' contradicts itself"},
        Told{OfSimulator("Inconsistent data sent to SetWellInjectionComposition"),
             Ending::kRequestFailed, "data",
             "What the master sent with the request 'run until' contradicts itself"},
        Told{OfSimulator("something new"), Ending::kRequestFailed, "other",
             "It failed at the request 'run until': something new"},
        Told{Failed("Exception returned from Corvane comms: Unexpected data received from Corvane, "
                    "routine VK_GETWELLDATA_SUB"),
             Ending::kMasterLeft, "in-request",
             "The master left, or sent something else, in the middle of the request 'run until'"},
        Told{
            Failed("Exception returned from Corvane comms: Discrepancy returned in well data from "
                   "Corvane: well count in routine VK_GETWELLDATA"),
            Ending::kRequestFailed, "answer",
            "The simulator told of another number of wells than the request 'run until' was about"},
        Told{Failed("Unknown exception"), Ending::kRequestFailed, "protocol",
             "The simulator refused the request 'run until', or answered what the protocol does "
             "not have"},
        Told{"", Ending::kSilent, "controlling",
             "It ended without a word after the request 'run until': its controller was killed, by "
             "jobmillctl end for example or for want of memory, or the machine went down"}));

TEST_F(HistoryTest, SimulatorsOutputIsNamedWhereItTellsMore) {
  WriteLog(Start(now_) + Launched(Model("CASE"), 9001, now_));
  WriteComms("CASE", OfSimulator("read: End of file"));
  const History history = Read();
  ASSERT_EQ(history.runs.at(0).places.size(), 4U);
  EXPECT_EQ(history.runs[0].places[0].line, 7);
  EXPECT_EQ(history.runs[0].places[1].file, data_.File("CASE.out"));
}

TEST_F(HistoryTest, WhoMayNotRunIsRefused) {
  Asked bob = Model("CASE", "bob");
  EndedRun run = Only(Answered(now_) + Request(bob) + Users() +
                      "Windows user 'bob' does not have permissions to run Varnok\n");
  EXPECT_EQ(run.end.ending, Ending::kRefused);
  EXPECT_EQ(run.end.reason, "user-denied");
  EXPECT_EQ(run.end.sentence,
            "Windows user 'bob' is in the list of users as one who may not run here");
  EXPECT_EQ(run.places.front().line, 23);
  EXPECT_FALSE(run.told_by_account);
  run = Only(Answered(now_) + Request(Model("CASE", "eve")) + Users() +
             "Windows user 'eve' not found in administration file\n");
  EXPECT_EQ(run.end.reason, "user-unknown");
  EXPECT_EQ(run.end.sentence, "Windows user 'eve' is not in the list of those who may run here");
  EXPECT_EQ(run.root, "CASE");
  run = Only(Answered(now_) + Request(Model("CASE", "carl")) + Users() +
             "Linux user required: nosuch\nFailed to get password entry for 'nosuch'\n");
  EXPECT_EQ(run.end.reason, "account-unknown");
  EXPECT_EQ(run.end.sentence,
            "Windows user 'carl' is to run as account 'nosuch', which this machine does not know");
  run = Only(Answered(now_) + Request(Model("CASE")) +
             "Failed to read users administration file - Could not open the user administration "
             "file: /opt/./.vk_corvane_users\n");
  EXPECT_EQ(run.end.reason, "user-file");
  EXPECT_EQ(run.end.ending, Ending::kRefused);
}

TEST_F(HistoryTest, AccountThatCannotBeTaken) {
  const std::string begin =
      Answered(now_) + Request(Model("CASE")) + Users() + "Linux user required: root\n";
  const std::string failed = "Failed to set user ID for Tolmen job - error = ";
  EndedRun run = Only(begin + failed + "11\n");
  EXPECT_EQ(run.end.ending, Ending::kRefused);
  EXPECT_EQ(run.end.sentence,
            "The run could not be given the account 'root': it has as many processes as it may "
            "have");
  run = Only(begin + "Failed to set the group ID - 1\n" + failed + "1\n");
  EXPECT_EQ(run.end.reason, "account-change");
}

TEST_F(HistoryTest, ProbeOfThePortAskedForNoRun) {
  const EndedRun run =
      Only(Answered(now_) + "Incorrect response from Corvane - no controller will be launched\n");
  EXPECT_EQ(run.end.ending, Ending::kNoRequest);
  EXPECT_FALSE(IsFailure(run.end.ending));
}

TEST_F(HistoryTest, MachineWithoutAFreeProcess) {
  EndedRun run =
      Only(Accepted(now_) + "Error occurred forking controlling thread: " + timestamp(now_));
  EXPECT_EQ(run.end.ending, Ending::kNotStarted);
  EXPECT_EQ(run.end.reason, "no-process");
  run = Only(Answered(now_) + Request(Model("CASE")) + Users() +
             "Linux user required: root\nError: fork failed\n");
  EXPECT_EQ(run.end.reason, "no-process");
  run = Only(Answered(now_) + Request(Model("CASE")) + Users() +
             "Linux user required: root\nError: pipe failed\n");
  EXPECT_EQ(run.end.reason, "no-descriptor");
  run = Only(Answered(now_) + Request(Model("CASE")) + Users() +
             "Linux user required: root\nSocket connection failed\n");
  EXPECT_EQ(run.end.reason, "link");
}

TEST_F(HistoryTest, ScriptThatNamesNoHost) {
  const std::string begin = Answered(now_) + Request(Model("CASE")) + Users() +
                            "Linux user required: root\n" + Script(Model("CASE"), 9001);
  EndedRun run = Only(begin +
                      "slurm: the job is refused: no such queue\nNo host detected, "
                      "exiting.\n");
  EXPECT_EQ(run.end.ending, Ending::kNoHost);
  EXPECT_EQ(run.end.sentence,
            "The script ended without naming a host; the last that it said: slurm: the job is "
            "refused: no such queue");
  EXPECT_EQ(run.account, "root");
  run = Only(begin + "No host detected, exiting.\n");
  EXPECT_EQ(run.end.sentence,
            "The script ended without naming a host and without a word; it may be missing, or not "
            "be executable");
  // Of many lines the last is told.
  run = Only(begin + "1\n2\n3\n4\n5\n6\nsorry\nNo host detected, exiting.\n");
  EXPECT_THAT(run.end.sentence, testing::EndsWith("; the last that it said: sorry"));
  // The last line of a script may have no end.
  run = Only(begin + "oopsNo host detected, exiting.\n");
  EXPECT_THAT(run.end.sentence, testing::EndsWith("the last that it said: oops"));
}

TEST_F(HistoryTest, HostLineWithoutAnEnd) {
  const EndedRun run =
      Only(Answered(now_) + Request(Model("CASE")) + Users() + "Linux user required: root\n" +
           Script(Model("CASE"), 9001) + "HOST=node7Host detected: node7\n");
  EXPECT_EQ(run.host, "node7");
  EXPECT_THAT(run.end.sentence, StartsWith("It was started on host 'node7'; how it ended is not "
                                           "known"));
}

TEST_F(HistoryTest, ClusterRunIsKnownByItsExtendedName) {
  Asked asked = Model("CASE");
  asked.cluster = "3";
  WriteLog(Start(now_) + Answered(now_) + Request(asked) +
           "Dealing with cluster run now ...\nCopying " + asked.path + "/CASE.afi to " +
           asked.path + "/CASE_3.afi\nCopy succeeded\n" + Script(asked, 9001) + Host());
  WriteComms("CASE_3", OfSimulator("read: End of file"));
  const History history = Read();
  EXPECT_EQ(history.runs.at(0).root, "CASE_3");
  EXPECT_EQ(history.runs.at(0).end.ending, Ending::kSimulatorEnded);
  EXPECT_THAT(history.runs.at(0).doubts, IsEmpty());
}

TEST_F(HistoryTest, ConnectionThatIsCutOffInItsStart) {
  EndedRun run = Only(Answered(now_) + Request(Model("CASE")));
  EXPECT_EQ(run.end.ending, Ending::kSilent);
  EXPECT_EQ(run.end.reason, "starting");
  run = Only(Answered(now_) + Request(Model("CASE")) + Users() + "Linux user required: root\n" +
             Script(Model("CASE"), 9001) + "slurm: job 12 waits: Priority\n");
  EXPECT_EQ(run.end.ending, Ending::kSilent);
  EXPECT_EQ(run.end.reason, "waiting");
}

TEST_F(HistoryTest, HowARunEndedIsNotKnownWithoutItsCommsLog) {
  const std::string launched = Launched(Model("CASE"), 9001, now_);
  WriteLog(Start(now_, "-o 9001 -n 100 -u ") + launched);
  EXPECT_THAT(Read().runs.at(0).end.sentence, testing::EndsWith("(it has no option -l)"));
  WriteLog(Start(now_) + launched);
  EXPECT_THAT(Read().runs.at(0).end.sentence,
              testing::EndsWith("its comms log cannot be read: No such file or directory"));
  EXPECT_FALSE(Read().runs.at(0).told_by_account);
  ASSERT_EQ(symlink("/etc/passwd", data_.File("CASE.crvnlog").c_str()), 0);
  EXPECT_THAT(Read().runs.at(0).end.sentence, testing::EndsWith(": it is a link"));
  unlink(data_.File("CASE.crvnlog").c_str());
  ASSERT_EQ(mkfifo(data_.File("CASE.crvnlog").c_str(), 0600), 0);
  EXPECT_THAT(Read().runs.at(0).end.sentence, testing::EndsWith(": it is no regular file"));
}

TEST_F(HistoryTest, CommsLogOfAnotherAccountIsNotBelieved) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  WriteLog(Start(now_, "-o 9001 -n 100 -l ") + Answered(now_) + Request(Model("CASE")) + Users() +
           "Linux user required: nobody\n" + Script(Model("CASE"), 9001) + Host());
  WriteComms("CASE", OfSimulator("read: End of file"));
  const EndedRun run = Read().runs.at(0);
  EXPECT_EQ(run.end.ending, Ending::kUnknown);
  EXPECT_THAT(run.end.sentence, testing::EndsWith(": it belongs to another account"));
}

TEST_F(HistoryTest, CommsLogIsThatOfTheLastRunOfTheModel) {
  WriteLog(Start(now_) + Launched(Model("CASE"), 9001, now_) + Launched(Model("CASE"), 9002, now_));
  WriteComms("CASE", OfSimulator("read: End of file"), 9002);
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 2U);
  EXPECT_EQ(history.runs[1].end.ending, Ending::kSimulatorEnded);
  EXPECT_EQ(history.runs[0].end.ending, Ending::kUnknown);
  EXPECT_THAT(history.runs[0].end.sentence,
              testing::EndsWith("it was replaced by that of a later run of the model"));
  EXPECT_NE(history.runs[0].id, history.runs[1].id);
}

TEST_F(HistoryTest, CommsLogOfAnotherPortIsNotOfThisRun) {
  WriteLog(Start(now_) + Launched(Model("CASE"), 9001, now_));
  WriteComms("CASE", OfSimulator("read: End of file"), 9077);
  EXPECT_EQ(Read().runs.at(0).end.ending, Ending::kUnknown);
}

TEST_F(HistoryTest, WhatGoesOnHasNotEnded) {
  const Asked one = Model("ONE");
  const Asked two = Model("TWO");
  WriteLog(Start(now_) + Launched(one, 9001, now_) + Launched(two, 9002, now_) + Answered(now_));
  Runs now;
  inspect::Run run = GoingOn(two, RunState::kMaster);
  *run.began += 0.4;
  run.comms_port = 9002;
  now.runs = {run};
  const auto roots = [&] {
    std::vector<std::string> all;
    for (const EndedRun& ended : Read(now).runs) all.push_back(ended.root.value_or(""));
    return all;
  };
  EXPECT_THAT(roots(), ElementsAre("ONE", ""));
  run.path = run.root = std::nullopt;
  run.comms_port = std::nullopt;
  run.state = RunState::kHandshake;
  now.runs.push_back(run);
  EXPECT_THAT(roots(), ElementsAre("ONE"));
  for (inspect::Run& other : now.runs) other.listen_port = 5001;  // of another daemon
  EXPECT_THAT(roots(), ElementsAre("ONE", "TWO", ""));
}

TEST_F(HistoryTest, RunThatGoesOnIsNotTakenForOneOfTheSameNameElsewhere) {
  const Asked one = Model("CASE");
  Asked other = one;
  other.path += "other/";
  WriteLog(Start(now_) + Launched(one, 9001, now_) + Launched(other, 9002, now_));
  Runs now;
  now.runs = {GoingOn(other, RunState::kMaster)};
  const History history = Read(now);
  ASSERT_EQ(history.runs.size(), 1U);
  EXPECT_EQ(history.runs[0].path, one.path);
}

// The ports are handed out again in turn, so that the later run may have that of the earlier one.
TEST_F(HistoryTest, RunThatWaitsForItsScriptHasNoCommsLogYet) {
  const Asked asked = Model("CASE");
  WriteLog(Start(now_ - 60) + Launched(asked, 9001, now_ - 60) + Answered(now_) + Request(asked) +
           Script(asked, 9001) + "slurm: job 12 waits: Priority\n");
  WriteComms("CASE", "Process loop has exited naturally, going to sleep again ... \n");
  Runs now;
  now.runs = {GoingOn(asked, RunState::kScript)};
  const History history = Read(now);
  ASSERT_EQ(history.runs.size(), 1U);
  EXPECT_EQ(history.runs[0].began, static_cast<double>(now_ - 60));
  EXPECT_EQ(history.runs[0].end.ending, Ending::kShutDown);
}

TEST_F(HistoryTest, WhatHasBegunSinceTheRunsWereLookedAtMayGoOn) {
  const std::time_t before = now_ - 60;
  WriteLog(Start(before, "-o 9001 -n 100 -l ") + Answered(before) + Request(Model("OLD")) +
           Answered(now_) + Request(Model("DENIED", "bob")) + Users() +
           "Windows user 'bob' does not have permissions to run Varnok\n" + Answered(now_) +
           Request(Model("FRESH")));
  const auto roots = [&](std::optional<double> looked) {
    Runs now;
    now.looked = looked;
    std::vector<std::string> all;
    for (const EndedRun& ended : Read(now).runs) all.push_back(ended.root.value_or(""));
    return all;
  };
  EXPECT_THAT(roots(static_cast<double>(now_)), ElementsAre("OLD", "DENIED"));
  EXPECT_THAT(roots(static_cast<double>(now_) + 10), ElementsAre("OLD", "DENIED", "FRESH"));
}

TEST_F(HistoryTest, OnlyWhatBeganSinceThen) {
  WriteLog(Start(now_ - 9000) + Launched(Model("OLD"), 9001, now_ - 8000) +
           Launched(Model("NEW"), 9002, now_));
  const History history = Read({}, static_cast<double>(now_ - 100));
  ASSERT_EQ(history.runs.size(), 1U);
  EXPECT_EQ(history.runs[0].root, "NEW");
}

TEST_F(HistoryTest, JobIsTheOneThatTheScriptHasSubmitted) {
  WriteLog(Start(now_) + Answered(now_) + Request(Model("CASE")) + Script(Model("CASE"), 9001) +
           "slurm: job 12 (vk_CASE_abcde) is submitted\n" + Host());
  const EndedRun run = Read().runs.at(0);
  EXPECT_EQ(run.scheduler, "slurm");
  EXPECT_EQ(run.job, "12");
}

// Logs of several connections at the same time.
class MixedHistoryTest : public HistoryTest {
 protected:
  // Three that wait for their scripts, whose jobs are known.
  std::string ThreeWait() const {
    std::string text = Start(now_);
    for (int i = 1; i <= 3; ++i) {
      const Asked asked = Model("CASE" + std::to_string(i), "user" + std::to_string(i));
      text += Answered(now_) + Request(asked) + Script(asked, 9000 + i);
      if (i < 3)
        text += "slurm: job 4" + std::to_string(i) + " (vk_CASE" + std::to_string(i) +
                "_abcde) is submitted\n";
    }
    return text;
  }
  EndedRun RunOf(const History& history, const std::string& root) const {
    for (const EndedRun& run : history.runs) {
      if (run.root == root) return run;
    }
    ADD_FAILURE() << root << " is missing";
    return {};
  }
};

TEST_F(MixedHistoryTest, LinesThatNameAJobBelongToItsRun) {
  WriteLog(ThreeWait() +
           "slurm: job 41 waits: Priority\nslurm: job 42 is held\nNo host detected, "
           "exiting.\nslurm: job 4 waits: Priority\n");
  const History history = Read();
  EXPECT_EQ(RunOf(history, "CASE2").end.ending, Ending::kNoHost);
  EXPECT_THAT(RunOf(history, "CASE2").end.sentence, testing::EndsWith(": slurm: job 42 is held"));
  EXPECT_EQ(RunOf(history, "CASE2").job, "42");
  EXPECT_EQ(RunOf(history, "CASE1").end.reason, "waiting");
  EXPECT_EQ(RunOf(history, "CASE3").end.reason, "waiting");
}

TEST_F(MixedHistoryTest, AnswerOfAScriptIsNotGuessed) {
  WriteLog(ThreeWait() + "some words\nNo host detected, exiting.\n");
  const History history = Read();
  for (const char* root : {"CASE1", "CASE2", "CASE3"}) {
    EXPECT_EQ(RunOf(history, root).end.ending, Ending::kUnknown);
    EXPECT_EQ(RunOf(history, root).end.reason, "mixed");
    EXPECT_EQ(RunOf(history, root).windows_user, "user" + std::string(1, root[4]));
  }
}

TEST_F(MixedHistoryTest, CommsLogsAndWhatRunsLeaveOnlyOne) {
  WriteLog(ThreeWait() + Host() + "No host detected, exiting.\n");
  WriteComms("CASE3", OfSimulator("read: End of file"), 9003);
  Runs now;
  inspect::Run waiting;
  waiting.id = Process::Open(getpid())->stat().id;
  waiting.listen_port = 5000;
  waiting.state = RunState::kScript;
  waiting.began = static_cast<double>(now_);
  waiting.path = data_.path().string() + "/";
  waiting.root = "CASE1";
  now.runs = {waiting};
  const History history = Read(now);
  EXPECT_EQ(history.runs.size(), 2U);
  EXPECT_EQ(RunOf(history, "CASE3").end.ending, Ending::kSimulatorEnded);
  EXPECT_EQ(RunOf(history, "CASE2").end.ending, Ending::kNoHost);
}

TEST_F(MixedHistoryTest, AllScriptsEndedWithoutAHost) {
  const std::string none = "No host detected, exiting.\n";
  WriteLog(ThreeWait() + none + none + none);
  for (const EndedRun& run : Read().runs) EXPECT_EQ(run.end.ending, Ending::kNoHost);
}

TEST_F(MixedHistoryTest, PortTellsWhichOfTheIdleConnectionsHasAsked) {
  const std::time_t early = now_ - 500;
  const Asked asked = Model("CASE");
  WriteLog(Start(early) + Answered(early) + Answered(early + 100) + Answered(early + 200) +
           Request(asked) + Script(asked, 9002) + Host());
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 3U);
  EXPECT_EQ(history.runs[1].root, "CASE");
  EXPECT_EQ(history.runs[1].began, static_cast<double>(early + 100));
  EXPECT_THAT(history.runs[1].doubts, IsEmpty());
  EXPECT_FALSE(history.runs[2].root);
}

TEST_F(MixedHistoryTest, BeginningOfARefusedOneAmongIdleConnectionsIsUnsure) {
  WriteLog(Start(now_, "-o 9001 -n 100 -l ") + Answered(now_ - 50) + Answered(now_) +
           Request(Model("CASE", "eve")) + Users() +
           "Windows user 'eve' not found in administration file\n");
  EXPECT_THAT(Read().runs.at(1).doubts, ElementsAre(HasSubstr("it may have begun at another")));
}

TEST_F(MixedHistoryTest, StartsWithinOneAnotherAreMarked) {
  const Asked one = Model("ONE", "one");
  const Asked two = Model("TWO", "two");
  const std::string first = Request(one);
  const std::size_t middle = first.find("Root: ");
  WriteLog(Start(now_) + Answered(now_) + Answered(now_) + first.substr(0, middle) + Request(two) +
           Script(two, 9002) + Host() + first.substr(middle) + Script(one, 9001) + Host() +
           Launched(Model("LATER"), 9003, now_));
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 3U);
  EXPECT_THAT(RunOf(history, "ONE").doubts, ElementsAre(HasSubstr("mixed")));
  EXPECT_THAT(RunOf(history, "TWO").doubts, ElementsAre(HasSubstr("mixed")));
  EXPECT_THAT(RunOf(history, "LATER").doubts, IsEmpty());
}

TEST_F(MixedHistoryTest, OneStartsWhileAnotherWaits) {
  const Asked one = Model("ONE", "one");
  WriteLog(Start(now_) + Answered(now_) + Request(one) + Script(one, 9001) +
           Launched(Model("LATER"), 9002, now_) + "No host detected, exiting.\n" +
           Launched(Model("LAST"), 9003, now_));
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 3U);
  for (const EndedRun& run : history.runs) EXPECT_THAT(run.doubts, IsEmpty()) << *run.root;
  EXPECT_EQ(RunOf(history, "ONE").end.reason, "mixed");  // its script may be the one with the host
  EXPECT_EQ(RunOf(history, "LATER").end.reason, "mixed");
  EXPECT_EQ(RunOf(history, "LAST").host, "node7");  // both have been answered for by then
}

// A master that puts into one of its texts what makes its log look like that of another's run.
class HostileHistoryTest : public HistoryTest {
 protected:
  enum Field { kCluster, kPath, kRoot, kProcesses, kVersion, kUser, kDebug };
  static constexpr int kFields = 7;

  // All that the daemon logs for these fields, a script and its host included.
  std::string Logged(const std::array<std::string, kFields>& fields, int port, bool as_root) const {
    const auto cut = [](const std::string& text) { return text.substr(0, text.find('\0')); };
    return Answered(now_) + "Clust: " + fields[kCluster] + "\nPath: " + fields[kPath] +
           "\nRoot: " + fields[kRoot] + "\nProc: " + fields[kProcesses] +
           "\nVer: " + fields[kVersion] + "\nSetting non-existing environment variable A to 1\n" +
           "Windows user received: " + fields[kUser] + "\nDebug flag received: " + fields[kDebug] +
           "\n" + (as_root ? Users() + "Linux user required: root\n" : "") +
           "Argument list\nArg 1: /s\nArg 2: 4\nArg 3: " + cut(fields[kPath]) +
           "\nArg 4: " + cut(fields[kRoot]) + "\nArg 5: " + std::to_string(port) +
           "\nArg 6: " + cut(fields[kDebug]) + "\nArg 7: " + Host();
  }
  std::array<std::string, kFields> Fields(const std::string& root, const std::string& user) const {
    return {"0", data_.path().string() + "/", root, "4", "20172", user, "0"};
  }

  // The run of somebody else that is made up. `port`: the next one.
  std::string MadeUp(int port, bool as_root) const {
    return Logged(Fields("MADEUP", "victim"), port, as_root);
  }

  // Nothing is told of the victim that is not in doubt.
  void ExpectNothingOfTheVictim(const std::string& text, bool as_root, const std::string& what) {
    WriteLog(Start(now_, as_root ? "-o 9001 -n 100 -l " : "-o 9001 -n 100 -u -l ") + text);
    const History history = Read();
    for (const EndedRun& run : history.runs) {
      if (run.windows_user == "victim" || run.root == "MADEUP") {
        EXPECT_FALSE(run.doubts.empty()) << what << ": " << run.end.sentence;
      }
      if (run.root == "BEFORE") {
        EXPECT_EQ(run.windows_user, "honest") << what;
      }
    }
  }
};

TEST_F(HostileHistoryTest, LinesInAFieldAreNobodysRun) {
  for (const bool as_root : {false, true}) {
    const std::string before = Logged(Fields("BEFORE", "honest"), 9001, as_root);
    for (int field = 0; field < kFields; ++field) {
      for (const bool zero : {false, true}) {
        for (const bool completes : {false, true}) {
          for (const int after : {0, 1, 2}) {
            auto fields = Fields("CASE", "mallory");
            // How the log would go on after this field: up to its end, or not at all.
            std::string text = fields[static_cast<std::size_t>(field)];
            if (zero) text += '\0';
            text += "\n";
            const std::string usual = Logged(fields, 9002, as_root);
            const std::array<std::string, kFields> labels = {"Clust: ",
                                                             "Path: ",
                                                             "Root: ",
                                                             "Proc: ",
                                                             "Ver: ",
                                                             "Windows user received: ",
                                                             "Debug flag received: "};
            const std::size_t place = usual.find(labels[static_cast<std::size_t>(field)]);
            const std::string rest = usual.substr(usual.find('\n', place) + 1);
            if (completes) text += rest;
            std::string made_up = MadeUp(9003, as_root);
            // What follows the field in the log goes on with the made up run.
            if (after == 1) {
              const std::size_t same = made_up.find(labels[static_cast<std::size_t>(field)]);
              made_up.resize(made_up.find('\n', same));
            }
            if (after == 2) made_up.resize(made_up.find("Argument list"));
            text += made_up;
            fields[static_cast<std::size_t>(field)] = text;
            const std::string forged = Logged(fields, 9002, as_root);
            const std::string what = labels[static_cast<std::size_t>(field)] +
                                     (zero ? "zero " : "") + (completes ? "completed " : "") +
                                     std::to_string(after) + (as_root ? " as root" : "");
            ExpectNothingOfTheVictim(before + forged, as_root, what);
            ExpectNothingOfTheVictim(
                before + forged + Logged(Fields("AFTER", "honest"), 9003, as_root), as_root,
                what + ", with another run after it");
          }
        }
      }
    }
  }
}

TEST_F(HostileHistoryTest, LinesOfAScriptAreNobodysRun) {
  const std::string waits =
      Answered(now_) + Request(Model("CASE", "mallory")) + Script(Model("CASE"), 9001) + "hello\n";
  const std::string refused = Answered(now_) + Request(Model("MADEUP", "victim")) + Users() +
                              "Windows user 'victim' not found in administration file\n";
  ExpectNothingOfTheVictim(waits + MadeUp(9002, false), false, "a run");
  ExpectNothingOfTheVictim(waits + refused, true, "a refusal");
  ExpectNothingOfTheVictim(
      waits + MadeUp(9002, false) + Host() + Logged(Fields("AFTER", "honest"), 9002, false), false,
      "a run before another");
  ExpectNothingOfTheVictim(waits + refused + Host() + Logged(Fields("AFTER", "honest"), 9002, true),
                           true, "a refusal before another run");
}

TEST_F(HostileHistoryTest, TextsDoNotCastDoubtOnWhatCameBefore) {
  auto fields = Fields("CASE", "mallory");
  fields[kPath] = "/data\nDaemon started: " + timestamp(now_) + MadeUp(9002, false);
  WriteLog(Start(now_) + Logged(Fields("ONE", "honest"), 9001, false) +
           Logged(Fields("TWO", "honest"), 9002, false) + Logged(fields, 9003, false));
  const History history = Read();
  EXPECT_EQ(history.runs.at(0).root, "ONE");
  EXPECT_THAT(history.runs.at(0).doubts, IsEmpty());
}

TEST_F(HostileHistoryTest, ZeroByteInATextCastsDoubt) {
  auto fields = Fields("CASE", "mallory");
  fields[kDebug] += std::string(1, '\0') + "x";
  WriteLog(Start(now_) + Logged(fields, 9001, false));
  EXPECT_THAT(Read().runs.at(0).doubts, ElementsAre(HasSubstr("contradicts itself")));
}

TEST_F(HostileHistoryTest, PortsThatGoOnConfirmWhatBeganWhileAScriptRan) {
  const std::string waits =
      Answered(now_) + Request(Model("CASE", "alice")) + Script(Model("CASE"), 9001) + "hello\n";
  WriteLog(Start(now_) + waits + Logged(Fields("TWO", "bob"), 9002, false) +
           Logged(Fields("THREE", "bob"), 9003, false));
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 3U);
  EXPECT_THAT(history.runs[1].doubts, IsEmpty());
}

// The logs of earlier starts, and those that logrotate has put aside.
class RotatedHistoryTest : public HistoryTest {
 protected:
  void WriteCompressed(const std::string& name, const std::string& text) {
    gzFile file = gzopen(logs_.File(name).c_str(), "wb");
    ASSERT_EQ(gzwrite(file, text.data(), static_cast<unsigned>(text.size())),
              static_cast<int>(text.size()));
    gzclose(file);
  }
  std::vector<std::string> Roots(const History& history) const {
    std::vector<std::string> roots;
    for (const EndedRun& run : history.runs) roots.push_back(run.root.value_or(""));
    return roots;
  }
};

TEST_F(RotatedHistoryTest, AllLogsAreRead) {
  const std::time_t old = now_ - 500000;
  WriteCompressed("VKJobmill_5000.log.3.gz", Start(old) + Launched(Model("A"), 9001, old + 10));
  WriteCompressed("VKJobmill_5000.log.2.gz", Launched(Model("B"), 9002, old + 90000));
  WriteCompressed("VKJobmill_5000.previous.log.1.gz", Launched(Model("C"), 9003, old + 180000));
  WriteCompressed("VKJobmill_5000.log.1.gz",
                  Start(old + 200000) + Launched(Model("D"), 9001, old + 210000));
  WriteLog(Launched(Model("E"), 9002, old + 260000), "VKJobmill_5000.previous.log");
  WriteLog(Start(now_) + Launched(Model("F"), 9001, now_));
  WriteLog(Start(old + 5) + Launched(Model("OTHER"), 9001, old + 20),
           "VKJobmill_5001.log-20261101");
  WriteLog("no log", "VKJobmill_x.log");
  WriteLog("no log", "VKJobmill_5000.log~");
  const History history = Read();
  EXPECT_THAT(Roots(history), ElementsAre("A", "OTHER", "B", "C", "D", "E", "F"));
  EXPECT_EQ(history.runs[0].places.back().file, logs_.File("VKJobmill_5000.log.3.gz"));
  EXPECT_EQ(history.runs[0].places.back().line, 6);
  EXPECT_EQ(history.runs[1].listen_port, 5001);
  EXPECT_THAT(history.missing, IsEmpty());
  for (const EndedRun& run : history.runs) EXPECT_THAT(run.doubts, IsEmpty()) << *run.root;
}

TEST_F(RotatedHistoryTest, ConnectionGoesOnInTheNextFile) {
  const std::string text = Start(now_) + Launched(Model("A"), 9001, now_) + Answered(now_) +
                           Request(Model("CASE")) + Script(Model("CASE"), 9002) +
                           "slurm: job 12 waits: Priority\n" + Host();
  // Wherever the file ends, be it in the middle of a line.
  const std::size_t first = text.find("Accepted", text.find("Host detected"));
  for (std::size_t cut = first; cut < text.size(); ++cut) {
    WriteCompressed("VKJobmill_5000.log.1.gz", text.substr(0, cut));
    WriteLog(text.substr(cut));
    const History history = Read();
    ASSERT_THAT(Roots(history), ElementsAre("A", "CASE")) << cut;
    EXPECT_THAT(history.runs[1].doubts, IsEmpty()) << cut;
    EXPECT_EQ(history.runs[1].host, "node7") << cut;
  }
}

TEST_F(RotatedHistoryTest, WaitOfAnEarlierStartEndsInItsOwnLog) {
  const std::time_t old = now_ - 5000;
  WriteCompressed("VKJobmill_5000.log.1.gz", Start(old) + Answered(old) + Request(Model("LONG")) +
                                                 Script(Model("LONG"), 9001));
  WriteLog("slurm: job 12 waits: Priority\n" + Host("node9"), "VKJobmill_5000.previous.log");
  WriteLog(Start(old + 1000) + Launched(Model("NEW"), 9001, old + 2000));
  const History history = Read();
  ASSERT_THAT(Roots(history), ElementsAre("LONG", "NEW"));
  EXPECT_EQ(history.runs[0].host, "node9");
  EXPECT_THAT(history.runs[0].doubts, IsEmpty());
  EXPECT_THAT(history.runs[1].doubts, IsEmpty());
}

TEST_F(RotatedHistoryTest, LogWithoutItsBeginningIsReadFromTheFirstConnectionOn) {
  WriteLog("Proc: 4\nVer: 20172\nHOST=node1\nHost detected: node1\n" +
           Launched(Model("A"), 9044, now_) + Launched(Model("B"), 9045, now_));
  const History history = Read();
  EXPECT_THAT(Roots(history), ElementsAre("A", "B"));
  for (const EndedRun& run : history.runs) EXPECT_THAT(run.doubts, IsEmpty());
}

TEST_F(RotatedHistoryTest, WhatCannotBeReadIsSaid) {
  std::string text = Start(now_);
  for (int i = 0; i < 2000; ++i)
    text += Launched(Model("A" + std::to_string(i)), 9001 + i % 100, now_);
  WriteCompressed("VKJobmill_5000.log.1.gz", text);
  const std::string whole = logs_.Read("VKJobmill_5000.log.1.gz");
  logs_.Write("VKJobmill_5000.log.1.gz", whole.substr(0, whole.size() / 2));
  WriteLog(std::string("\xfd"
                       "7zXZ\0\0",
                       7) +
               "x",
           "VKJobmill_5000.log.2.xz");
  const History history = Read();
  EXPECT_GT(history.runs.size(), 500U);
  EXPECT_LT(history.runs.size(), 2000U);
  EXPECT_THAT(history.missing, testing::UnorderedElementsAre(
                                   logs_.File("VKJobmill_5000.log.1.gz") + ": it is damaged",
                                   logs_.File("VKJobmill_5000.log.2.xz") +
                                       ": it is compressed by another program than gzip"));
}

TEST_F(RotatedHistoryTest, LinksAndPipesAreNoLogs) {
  ASSERT_EQ(symlink("/etc/passwd", logs_.File("VKJobmill_5000.log").c_str()), 0);
  ASSERT_EQ(mkfifo(logs_.File("VKJobmill_5001.log").c_str(), 0600), 0);
  const History history = Read();
  EXPECT_THAT(history.runs, IsEmpty());
  EXPECT_THAT(history.missing, ElementsAre(HasSubstr("VKJobmill_5000.log: it is a link")));
}

TEST_F(RotatedHistoryTest, LogsOfStrangersInADirectoryForAllAreLeftOut) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  WriteLog(Start(now_) + Launched(Model("A"), 9001, now_));
  chmod(logs_.path().c_str(), 01777);
  ASSERT_EQ(chown(logs_.File("VKJobmill_5000.log").c_str(), 65534, 65534), 0);
  EXPECT_THAT(Read().runs, IsEmpty());
  EXPECT_THAT(Read().missing, ElementsAre(HasSubstr("everybody may put files there; 1 that look")));
  Runs now;
  Daemon daemon;
  daemon.options.listen_port = 5000;
  daemon.user = 65534;
  now.daemons = {daemon};
  EXPECT_EQ(Read(now).runs.size(), 1U);
}

TEST_F(RotatedHistoryTest, OtherCompressionsAreNamed) {
  WriteLog("BZh91AY", "VKJobmill_5000.log.1.bz2");
  WriteLog("\x28\xb5\x2f\xfd", "VKJobmill_5000.log.1.zst");
  EXPECT_THAT(Read().missing, ElementsAre(HasSubstr(".bz2: it is compressed by another program"),
                                          HasSubstr(".zst: it is compressed by another program")));
}

TEST_F(RotatedHistoryTest, OtherNamesAreNoLogs) {
  const std::string text = Start(now_) + Launched(Model("A"), 9001, now_);
  for (const char* name : {"Jobmill_5000.log", "VKJobmill_500000.log", "VKJobmill_5000.txt",
                           "VKJobmill_5000.previous.txt"}) {
    WriteLog(text, name);
  }
  const History history = Read();
  EXPECT_THAT(history.runs, IsEmpty());
  EXPECT_THAT(history.missing, IsEmpty());
}

TEST_F(RotatedHistoryTest, DirectoriesThatAreNoneAreSaid) {
  const std::string file = logs_.Write("file", "");
  const History history = ReadHistory({}, 0, {{file, logs_.File("nowhere")}});
  EXPECT_THAT(history.missing, ElementsAre(file + ": Not a directory"));
}

TEST_F(RotatedHistoryTest, LogOfADaemonElsewhereIsReadOnce) {
  WriteLog(Start(now_) + Launched(Model("A"), 9001, now_));
  Runs now;
  Daemon daemon;
  daemon.options.listen_port = 5000;
  daemon.log = logs_.File("VKJobmill_5000.log");
  now.daemons = {daemon, Daemon()};
  EXPECT_EQ(Read(now).runs.size(), 1U);
  EXPECT_EQ(ReadHistory(now, 0, {{}}).runs.size(), 1U);
  now.daemons[0].log = logs_.File("VKJobmill_5001.log");
  EXPECT_THAT(ReadHistory(now, 0, {{}}).runs, IsEmpty());
}

TEST_F(RotatedHistoryTest, LogsThatWereNotWrittenSinceThenAreLeftOut) {
  WriteLog(Start(now_) + Launched(Model("A"), 9001, now_));
  EXPECT_EQ(Read().runs.size(), 1U);
  EXPECT_THAT(Read({}, static_cast<double>(now_) + 100).runs, IsEmpty());
}

TEST_F(RotatedHistoryTest, LogsOfRootAndOfThisAccountAreTrustedInADirectoryForAll) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  WriteLog(Start(now_) + Launched(Model("A"), 9001, now_));
  WriteLog(Start(now_) + Launched(Model("B"), 9001, now_), "VKJobmill_5001.log");
  WriteLog(Start(now_) + Launched(Model("C"), 9001, now_), "VKJobmill_5002.log");
  chmod(logs_.path().c_str(), 01777);
  ASSERT_EQ(chown(logs_.File("VKJobmill_5001.log").c_str(), 65534, 65534), 0);
  ASSERT_EQ(chown(logs_.File("VKJobmill_5002.log").c_str(), 1, 1), 0);
  Runs now;
  Daemon other;
  other.options.listen_port = 5009;
  other.user = 1;
  Daemon same;
  same.options.listen_port = 5002;
  same.user = 2;
  now.daemons = {other, same};
  EXPECT_THAT(Roots(Read(now)), ElementsAre("A"));
  const std::string roots = AsNobody([&] {
    std::string all;
    for (const std::string& root : Roots(Read(now))) all += root;
    return all;
  });
  EXPECT_EQ(roots, "AB");
}

TEST_F(RotatedHistoryTest, LogOfTheEarlierStartWithoutATimeStandsBeforeTheLaterOne) {
  // Nothing but the rest of a run that was launched before.
  WriteLog("slurm: job 12 waits: Priority\n" + Host("node9"), "VKJobmill_5000.previous.log");
  EXPECT_THAT(Read().runs, IsEmpty());
  WriteLog("Proc: 1\n", "VKJobmill_5000.log");
  EXPECT_THAT(Read().runs, IsEmpty());
  WriteLog(Start(now_) + Launched(Model("A"), 9001, now_));
  EXPECT_THAT(Roots(Read()), ElementsAre("A"));
  // It may have been written to while the later one, whose log has been rotated since, began.
  WriteLog("\nDaemon started: \nProc: 1\n", "VKJobmill_5000.previous.log");
  const utimbuf between{now_ - 45, now_ - 45};
  ASSERT_EQ(utime(logs_.File("VKJobmill_5000.previous.log").c_str(), &between), 0);
  WriteLog(Start(now_ - 60) + Answered(now_ - 60) + Request(Model("A")) + Script(Model("A"), 9001),
           "VKJobmill_5000.log.1");
  WriteLog("\n" + Host("node9") + Launched(Model("B"), 9002, now_ - 30));
  const History history = Read();
  ASSERT_THAT(Roots(history), ElementsAre("A", "B"));
  EXPECT_EQ(history.runs[0].host, "node9");
}

TEST_F(RotatedHistoryTest, LongestLineIsCut) {
  Asked asked = Model("CASE");
  asked.user = std::string(3 << 20, 'x');
  WriteLog(Start(now_) + Launched(asked, 9001, now_));
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 1U);
  EXPECT_LE(history.runs[0].windows_user.value_or("").size(), 2U << 20);
  EXPECT_EQ(history.runs[0].root, "CASE");
}

TEST_F(RotatedHistoryTest, LogThatCannotBeOpenedOnceMoreIsSaid) {
  WriteLog(Start(now_) + Launched(Model("A"), 9001, now_));
  EXPECT_EQ(WithAnsweredCall(
                SYS_dup, []() -> long { return -EMFILE; }, [&] { return Read().missing.at(0); }),
            logs_.File("VKJobmill_5000.log") + ": it cannot be opened once more");
}

TEST_F(HistoryTest, ShortNamesOfJobsAreMadeOfLettersAndDigits) {
  const Asked asked = Model("a-Z_0{bcdefg");
  WriteLog(Start(now_) + Answered(now_) + Request(asked) + Script(asked, 9001) + "hello\n" +
           Answered(now_) + Request(Model("OTHER")) + Script(Model("OTHER"), 9002) +
           "slurm: job 12 (vk_aZ0bcd_xyz) is submitted\n");
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 2U);
  EXPECT_EQ(history.runs[0].job, "12");
  EXPECT_FALSE(history.runs[1].job);
}

TEST_F(HistoryTest, FailuresToAcceptAreNobodys) {
  WriteLog(Start(now_) + "Error occurred accepting connection: " + timestamp(now_) +
           Launched(Model("CASE"), 9001, now_) + "Socket failure in accept call - exiting ... \n");
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 1U);
  EXPECT_THAT(history.runs[0].doubts, IsEmpty());
}

TEST_F(HistoryTest, FailureThatMayBeSeveralConnectionsIsNobodys) {
  WriteLog(Start(now_, "-o 9001 -n 100 -l ") + Answered(now_) + Answered(now_) +
           "Socket connection failed: Bad\n");
  for (const EndedRun& run : Read().runs) {
    EXPECT_EQ(run.end.ending, Ending::kNoRequest);
    EXPECT_EQ(run.end.reason, "");
  }
}

TEST_F(HistoryTest, TimesThatAreNoneBeginNoConnection) {
  WriteLog(Start(now_) + "Accepted incoming connection: soon\n" +
           "Accepted incoming connection: " + timestamp(now_).substr(0, 24) + " and more\n");
  EXPECT_THAT(Read().runs, IsEmpty());
}

TEST_F(HistoryTest, LogThatBeginsWithoutOptionsIsRead) {
  WriteLog("\nDaemon started: " + timestamp(now_) + "Version information: 3 (ZRM11)\nother\n\n" +
           Launched(Model("A"), 9005, now_) + Launched(Model("B"), 9004, now_) +
           Launched(Model("C"), 9099, now_));
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 3U);
  // Without the number of ports a lower one may follow when all are handed out, and no higher one.
  EXPECT_THAT(history.runs[2].doubts, ElementsAre(HasSubstr("contradicts itself")));
}

TEST_F(HistoryTest, EmptyLineOfAScriptIsItsOwn) {
  const EndedRun run =
      Only(Answered(now_) + Request(Model("CASE")) + Users() + "Linux user required: root\n" +
           Script(Model("CASE"), 9001) + "\nNo host detected, exiting.\n");
  EXPECT_EQ(run.end.ending, Ending::kNoHost);
}

TEST_F(HistoryTest, ScriptThatPrintsLinesOfTheDaemonCastsDoubt) {
  for (const char* line : {"Windows user received: victim",
                           "Daemon started: ", "Accepted incoming connection: soon"}) {
    WriteLog(Start(now_) + Answered(now_) + Request(Model("CASE")) + Script(Model("CASE"), 9001) +
             line + "\n");
    EXPECT_THAT(Read().runs.at(0).doubts, ElementsAre(HasSubstr("contradicts itself"))) << line;
  }
  // These begin alike, and are none.
  WriteLog(Start(now_) + Answered(now_) + Request(Model("CASE")) + Script(Model("CASE"), 9001) +
           "Argument list of mine\nFailed to read my file\n");
  EXPECT_THAT(Read().runs.at(0).doubts, IsEmpty());
}

TEST_F(MixedHistoryTest, CopyOfAClusterRunTakesTimeInWhichOthersBegin) {
  Asked asked = Model("CASE");
  asked.cluster = "3";
  WriteLog(Start(now_) + Answered(now_) + Request(asked) + "Dealing with cluster run now ...\n" +
           "Copying a to b\n" + Accepted(now_) + "Copy succeeded\n" + Script(asked, 9001) + Host());
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 2U);
  EXPECT_THAT(history.runs[0].doubts, IsEmpty());
  EXPECT_EQ(history.runs[0].host, "node7");
}

TEST_F(MixedHistoryTest, LastArgumentIsSomebodysWhoHasTheOthers) {
  const Asked one = Model("ONE");
  const Asked two = Model("TWO");
  const std::string first = Script(one, 9001);
  const std::string second = Script(two, 9002);
  const std::size_t last = first.find("Arg 7: ");
  WriteLog(Start(now_) + Answered(now_) + Answered(now_) + Request(one) + Request(two) +
           first.substr(0, last) + second.substr(0, second.find("Arg 7: ")) + Accepted(now_) +
           "Arg 7: \nArg 7: \n");
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 3U);
  EXPECT_THAT(history.runs[0].doubts, testing::Contains(HasSubstr("mixed")));
  EXPECT_THAT(history.runs[1].doubts, testing::Contains(HasSubstr("mixed")));
}

TEST_F(MixedHistoryTest, ChildrenThatAnswerLaterDoSoInTheirOrder) {
  WriteLog(Start(now_) + Accepted(now_) + Accepted(now_) +
           "Error occurred accepting connection: x\n" + "Answering call in child process: " +
           timestamp(now_) + "Answering call in child process: " + timestamp(now_));
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 2U);
  for (const EndedRun& run : history.runs) EXPECT_THAT(run.doubts, IsEmpty());
}

TEST_F(MixedHistoryTest, PortOfNoIdleConnectionChangesNothing) {
  WriteLog(Start(now_) + Answered(now_ - 50) + Answered(now_ - 20) + Request(Model("CASE")) +
           Script(Model("CASE"), 9077) + Host());
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 2U);
  EXPECT_EQ(history.runs[1].root, "CASE");
  EXPECT_THAT(history.runs[1].doubts, testing::Contains(HasSubstr("contradicts itself")));
}

// A busy daemon that many masters have connected to before the first of them asked: whose request
// it was is looked for among all of them.
TEST_F(MixedHistoryTest, ManyIdleConnectionsAreReadInLittleTime) {
  const auto seconds_for = [&](int count) {
    std::string text = Start(now_, "-o 9001 -n 30000 -u -l ");
    for (int i = 0; i < count; ++i) text += Answered(now_);
    for (int i = count - 1; i-- > 0;) {
      const Asked asked = Model("R" + std::to_string(i));
      text += Request(asked) + Script(asked, 9001 + i) + Host();
    }
    WriteLog(text);
    const std::clock_t begin = std::clock();
    EXPECT_EQ(Read().runs.size(), static_cast<std::size_t>(count));
    return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
  };
  const double few = seconds_for(150);
  EXPECT_LT(seconds_for(1500), few * 40);
}

TEST(EndingTest, EachHasAName) {
  EXPECT_STREQ(Name(Ending::kShutDown), "shut down");
  EXPECT_STREQ(Name(Ending::kMasterLeft), "master left");
  EXPECT_STREQ(Name(Ending::kSimulatorEnded), "simulator ended");
  EXPECT_STREQ(Name(Ending::kNoSimulator), "no simulator");
  EXPECT_STREQ(Name(Ending::kRequestFailed), "request failed");
  EXPECT_STREQ(Name(Ending::kNoHost), "no host");
  EXPECT_STREQ(Name(Ending::kRefused), "refused");
  EXPECT_STREQ(Name(Ending::kNotStarted), "not started");
  EXPECT_STREQ(Name(Ending::kNoRequest), "no request");
  EXPECT_STREQ(Name(Ending::kSilent), "without a word");
  EXPECT_STREQ(Name(Ending::kUnknown), "unknown");
}

TEST_F(HistoryTest, SimulatorWhoseMachineCannotBeReachedAnyMore) {
  const End end = EndWith(OfSimulator("read: No route to host"));
  EXPECT_EQ(end.reason, "machine-gone");
}

// A log without requests, and one whose cause is none of the known ones.
TEST_F(HistoryTest, CauseThatIsNotKnownIsQuoted) {
  WriteLog(Start(now_) + Launched(Model("CASE"), 9001, now_));
  data_.Write("CASE.crvnlog", "Request process loop failed: something else\n");
  EXPECT_EQ(Read().runs.at(0).end.sentence, "It failed: something else");
  data_.Write("CASE.crvnlog",
              "Request process loop failed: Failed to handle data packet received from master: "
              "Unknown exception\n");
  EXPECT_THAT(Read().runs.at(0).end.sentence, HasSubstr("The simulator refused a request, or"));
  data_.Write("CASE.crvnlog", "");
  EXPECT_THAT(Read().runs.at(0).end.sentence, StartsWith("It ended without a word: its"));
}

TEST_F(HistoryTest, LongNamesAreCut) {
  const std::string user(300, 'x');
  const EndedRun run = Only(Answered(now_) + Request(Model("CASE", user)) + Users() +
                            "Windows user '" + user + "' not found in administration file\n");
  EXPECT_THAT(run.end.sentence,
              StartsWith("Windows user '" + user.substr(0, 100) + "...' is not in"));
}

TEST_F(HistoryTest, LongCommsLogIsReadFromItsEnd) {
  WriteLog(Start(now_) + Launched(Model("CASE"), 9001, now_));
  std::string many;
  for (int i = 0; i < 200'000; ++i) many += "Received header: 4\n";
  WriteComms("CASE", many + OfSimulator("read: End of file"));
  const EndedRun run = Read().runs.at(0);
  EXPECT_EQ(run.end.ending, Ending::kSimulatorEnded);
  EXPECT_FALSE(run.requests);
  EXPECT_EQ(run.places.at(0).line, 0);
}

TEST_F(HistoryTest, ModelsOfWhichTheDirectoryHasNoSlash) {
  Asked asked = Model("CASE");
  asked.path = data_.path().string();
  const std::string file = asked.path + "CASE.crvnlog";
  WriteLog(Start(now_) + Launched(asked, 9001, now_));
  std::ofstream(file) << "Received header: 8\n" << OfSimulator("read: End of file");
  const EndedRun run = Read().runs.at(0);
  std::filesystem::remove(file);
  EXPECT_EQ(run.end.ending, Ending::kSimulatorEnded);
  EXPECT_EQ(run.places.at(1).file, asked.path + "/CASE.out");
}

// Runs that status has seen, and what has become of them.
TEST_F(HistoryTest, EndOfARunIsFoundByWhatIsKnownOfIt) {
  WriteLog(Start(now_) + Launched(Model("ONE"), 9001, now_) + Launched(Model("TWO"), 9002, now_) +
           Launched(Model("OLD"), 9003, now_ - 1000));
  const History history = Read();
  inspect::Run run;
  EXPECT_FALSE(FindEnd(history, run));
  run.began = static_cast<double>(now_) + 0.5;
  EXPECT_FALSE(FindEnd(history, run));  // it may be ONE or TWO
  run.root = "TWO";
  ASSERT_TRUE(FindEnd(history, run));
  EXPECT_EQ(FindEnd(history, run)->root, "TWO");
  run.path = "/other/";
  EXPECT_FALSE(FindEnd(history, run));
  run.path = data_.path().string() + "/";
  run.comms_port = 9001;
  EXPECT_FALSE(FindEnd(history, run));
  run.comms_port = 9002;
  run.listen_port = 5001;
  EXPECT_FALSE(FindEnd(history, run));
  run.listen_port = 5000;
  EXPECT_TRUE(FindEnd(history, run));
  // What asked for nothing has neither model nor port that could be another.
  WriteLog(Start(now_) + Answered(now_));
  EXPECT_TRUE(FindEnd(Read(), run));
}

TEST_F(HistoryTest, LinesOfARunAreItsOwn) {
  WriteLog(Start(now_) + Answered(now_) + Request(Model("CASE")) + Users() +
           "Linux user required: root\n" + Script(Model("CASE"), 9001) + "hello\n" + Host());
  const History history = ReadHistoryWithLines({}, 0, {{logs_.path().string()}});
  ASSERT_EQ(history.runs.size(), 1U);
  EXPECT_THAT(history.runs[0].lines, testing::Contains("Windows user received: alice"));
  EXPECT_THAT(history.runs[0].lines, testing::Contains("hello"));
  EXPECT_THAT(history.runs[0].lines, Not(testing::Contains(HasSubstr("bob"))));
  EXPECT_THAT(history.runs[0].lines,
              testing::Contains("Setting existing environment variable PATH to (left out)"));
  EXPECT_THAT(history.runs[0].environment,
              ElementsAre("/opt/sim", "/opt/sim", "/opt/bin:/usr/bin", "/opt/bin"));
}

TEST_F(MixedHistoryTest, LinesOfAnIdleConnectionGoWithTheRequest) {
  const std::time_t early = now_ - 500;
  const Asked asked = Model("CASE");
  WriteLog(Start(early) + Answered(early) + Answered(early + 100) + Answered(early + 200) +
           Request(asked) + Script(asked, 9002) + Host());
  const History history = ReadHistoryWithLines({}, 0, {{logs_.path().string()}});
  ASSERT_EQ(history.runs.size(), 3U);
  EXPECT_EQ(history.runs[1].lines.at(0) + "\n", Accepted(early + 100));
  EXPECT_EQ(history.runs[2].lines.at(0) + "\n", Accepted(early + 200));
}

TEST_F(HistoryTest, ScriptThatCannotBeHeardAmongOthers) {
  const std::string none = "No host detected, exiting.\n";
  WriteLog(Start(now_) + Answered(now_) + Request(Model("ONE")) + Script(Model("ONE"), 9001) +
           Answered(now_) + Request(Model("TWO")) + Script(Model("TWO"), 9002) + "words\n" + none +
           none);
  for (const EndedRun& run : Read().runs) {
    EXPECT_EQ(
        run.end.sentence,
        "The script ended without naming a host; what it said cannot be told from what others "
        "said at that time");
  }
}

TEST_F(HistoryTest, AccountChangeThatFailsOtherwiseIsToldInTheSystemsWords) {
  const EndedRun run = Only(Answered(now_) + Request(Model("CASE")) + Users() +
                            "Linux user required: root\nFailed to set user ID for Tolmen job - "
                            "error = 22\n");
  EXPECT_THAT(run.end.sentence, testing::EndsWith(": Invalid argument"));
}

TEST_F(HistoryTest, WithoutNameServicesCommsLogsCannotBeRead) {
  WriteLog(Start(now_, "-o 9001 -n 100 -l ") + Answered(now_) + Request(Model("CASE")) + Users() +
           "Linux user required: root\n" + Script(Model("CASE"), 9001) + Host() + Answered(now_) +
           Request(Model("NEXT")) + Users() + "Linux user required: nosuch\n" +
           Script(Model("NEXT"), 9002) + Host());
  WriteComms("CASE", OfSimulator("read: End of file"));
  EXPECT_THAT(Read().runs.at(1).end.sentence,
              testing::EndsWith("its account is not known here any more"));
  EXPECT_EQ(WithoutPipes([&] { return Read().missing.at(0); }),
            "comms logs: the name services do not answer");
}

TEST_F(MixedHistoryTest, LongerNumberIsAnotherJob) {
  WriteLog(ThreeWait() + "slurm: job 4\nslurm: job 411 waits: Priority\nslurm: job 41a\n" +
           "slurm: job 41 and job 42\nslurm: job 41/2\n" + "job 7 is submitted\n" +
           ") is submitted\n (vk_x: job ) is submitted\nNo host detected, exiting.\n");
  const History history = Read();
  EXPECT_EQ(RunOf(history, "CASE1").job, "41");
  EXPECT_FALSE(RunOf(history, "CASE3").job);
  EXPECT_EQ(RunOf(history, "CASE3").end.reason, "mixed");
}

TEST_F(MixedHistoryTest, WhatScriptsSaidBeforeTheirEndsIsNoSignOfThem) {
  // The script that printed last has named its host already.
  WriteLog(Start(now_) + Answered(now_) + Request(Model("ONE")) + Script(Model("ONE"), 9001) +
           "hello\n" + Host() + Answered(now_) + Request(Model("TWO")) +
           Script(Model("TWO"), 9002) + Answered(now_) + Request(Model("THREE")) +
           Script(Model("THREE"), 9003) + "No host detected, exiting.\n");
  const History history = Read();
  EXPECT_EQ(RunOf(history, "ONE").host, "node7");
  EXPECT_EQ(RunOf(history, "TWO").end.reason, "mixed");
  EXPECT_EQ(RunOf(history, "THREE").end.reason, "mixed");
}

TEST_F(MixedHistoryTest, HostsOfRunsWithCommsLogsAreTheirs) {
  // ONE has connected to node7, as its comms log says: the other answer is that of TWO or THREE.
  WriteLog(ThreeWait() + Host("node7") + Host("node8"));
  WriteComms("CASE1", OfSimulator("read: End of file"));
  const History history = Read();
  EXPECT_EQ(RunOf(history, "CASE1").host, "node7");
  EXPECT_EQ(RunOf(history, "CASE2").end.reason, "mixed");
}

TEST_F(MixedHistoryTest, AnswersOfSeveralOnTheSameHostStayOpen) {
  WriteLog(ThreeWait() + Host("node7") + Host("node7"));
  WriteComms("CASE1", OfSimulator("read: End of file"));
  EXPECT_EQ(RunOf(Read(), "CASE1").end.ending, Ending::kSimulatorEnded);
}

TEST_F(MixedHistoryTest, AsManyAnswersAsScriptsLeaveNoneWaiting) {
  WriteLog(ThreeWait() + Host("node7") + Host("node8") + Host("node9") +
           Launched(Model("LAST"), 9004, now_));
  const History history = Read();
  EXPECT_EQ(
      RunOf(history, "CASE2").end.sentence,
      "How it ended is not known: several runs waited for their scripts, and the log does not "
      "tell whose answers came");
  EXPECT_EQ(RunOf(history, "LAST").host, "node7");
}

TEST_F(HistoryTest, FailureOfAStartIsQuoted) {
  const EndedRun run = Only(Answered(now_) + Request(Model("CASE")) + Users() +
                            "Linux user required: root\nSocket connection failed: no memory\n");
  EXPECT_THAT(run.end.sentence, testing::EndsWith("by its connection: no memory"));
}

TEST_F(RotatedHistoryTest, LinesBeforeTheFirstStartMayBeAnybodys) {
  WriteLog(Launched(Model("A"), 9044, now_) + "HOST=node1\nProc: 4\n" +
           Launched(Model("B"), 9045, now_));
  for (const EndedRun& run : Read().runs) EXPECT_THAT(run.doubts, IsEmpty()) << *run.root;
}

TEST_F(HistoryTest, CommsLogOfAPathThatIsNotAbsoluteIsNotLookedFor) {
  Asked asked = Model("CASE");
  asked.path = "data/";
  WriteLog(Start(now_) + Launched(asked, 9001, now_));
  EXPECT_THAT(Read().runs.at(0).end.sentence, testing::EndsWith("because it has no comms log"));
}

TEST_F(HistoryTest, CommsLogFromBeforeTheRunIsOfAnother) {
  WriteComms("CASE", OfSimulator("read: End of file"));
  const std::time_t later = now_ + 100;
  WriteLog(Start(later) + Launched(Model("CASE"), 9001, later));
  EXPECT_THAT(Read().runs.at(0).end.sentence,
              testing::EndsWith("the one that is there is not of this run"));
}

// What status has seen of runs whose models it could not learn.
TEST_F(HistoryTest, RunsWithoutAModelAreFoundByTheirPortAndTime) {
  WriteLog(Start(now_) + Launched(Model("ONE"), 9001, now_ - 1) +
           Launched(Model("TWO"), 9002, now_) + Answered(now_ + 1));
  const auto left = [&](std::optional<int> port, double began) {
    Runs now;
    inspect::Run run;
    run.listen_port = 5000;
    run.state = RunState::kMaster;
    run.began = began;
    run.comms_port = port;
    now.runs = {run, inspect::Run()};
    now.runs.push_back(run);
    now.runs.back().state = RunState::kEnded;
    std::vector<std::string> roots;
    for (const EndedRun& ended : Read(now).runs) roots.push_back(ended.root.value_or(""));
    return roots;
  };
  const auto now = static_cast<double>(now_);
  EXPECT_THAT(left(9001, now), ElementsAre("TWO", ""));
  EXPECT_THAT(left(9002, now), ElementsAre("ONE", ""));
  EXPECT_THAT(left(std::nullopt, now), ElementsAre("ONE", ""));
  EXPECT_THAT(left(std::nullopt, now - 1), ElementsAre("TWO", ""));
  EXPECT_THAT(left(std::nullopt, now - 500), ElementsAre("ONE", "TWO", ""));
}

TEST_F(HistoryTest, RunThatGoesOnHasItsCommsLogOnceItsHostIsNamed) {
  WriteLog(Start(now_) + Launched(Model("CASE"), 9001, now_));
  WriteComms("CASE", "");
  Runs now;
  inspect::Run run;
  run.listen_port = 5000;
  run.state = RunState::kScript;
  run.began = static_cast<double>(now_);
  now.runs = {run};
  const auto lines = [&] {
    return ReadHistoryWithLines(now, 0, {{logs_.path().string()}}).runs.at(0);
  };
  now.runs[0].state = RunState::kMaster;
  EXPECT_TRUE(lines().goes_on);
  EXPECT_TRUE(lines().told_by_account);
}

TEST_F(HistoryTest, LogOfWhichTheBeginningIsDamagedIsSaid) {
  const std::string file = logs_.Write("VKJobmill_5000.log.1.gz", "\x1f\x8b\x08 nonsense");
  EXPECT_THAT(Read().missing, ElementsAre(file + ": it is damaged"));
}

TEST_F(MixedHistoryTest, LinesOfScriptsStandBetweenThoseWhoHaveNotAsked) {
  WriteLog(Start(now_) + Answered(now_) + Request(Model("ONE")) + Script(Model("ONE"), 9001) +
           Accepted(now_) + Accepted(now_) + "hello\n" + "Answering call in child process: " +
           timestamp(now_) + "hello\n" + "Answering call in child process: " + timestamp(now_));
  const History history = Read();
  ASSERT_EQ(history.runs.size(), 3U);
  EXPECT_THAT(history.runs[0].doubts, IsEmpty());
}

TEST_F(MixedHistoryTest, SecondEndInARowIsAnothersScripts) {
  WriteLog(ThreeWait() + "slurm: job 41 oopsNo host detected, exiting.\n" +
           "No host detected, exiting.\n");
  const History history = Read();
  EXPECT_EQ(RunOf(history, "CASE1").end.ending, Ending::kNoHost);
  EXPECT_EQ(RunOf(history, "CASE2").end.reason, "mixed");
  EXPECT_EQ(RunOf(history, "CASE3").end.reason, "mixed");
}

TEST_F(MixedHistoryTest, RunThatGoesOnHasOneOfTheHosts) {
  WriteLog(ThreeWait() + Host("node7") + "No host detected, exiting.\n" +
           "No host detected, exiting.\n");
  Runs now;
  inspect::Run run = GoingOn(Model("CASE2"), RunState::kMaster);
  run.id = Process::Open(getpid())->stat().id;
  now.runs = {run};
  const History history = Read(now);
  ASSERT_EQ(history.runs.size(), 2U);
  for (const EndedRun& ended : history.runs) EXPECT_EQ(ended.end.ending, Ending::kNoHost);
}

TEST_F(RotatedHistoryTest, BeginningOfADamagedLogIsRead) {
  std::string text = Start(now_);
  for (int i = 0; i < 100; ++i) text += Launched(Model("A" + std::to_string(i)), 9001 + i, now_);
  WriteCompressed("VKJobmill_5000.log.1.gz", text);
  const std::string whole = logs_.Read("VKJobmill_5000.log.1.gz");
  const std::string file =
      logs_.Write("VKJobmill_5000.log.1.gz", whole.substr(0, whole.size() * 9 / 10));
  const History history = Read();
  EXPECT_GT(history.runs.size(), 10U);
  EXPECT_THAT(history.missing, ElementsAre(file + ": it is damaged"));
}

}  // namespace
}  // namespace inspect
