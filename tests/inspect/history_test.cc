#include "inspect/history.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/timestamp.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
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
  // A start of the daemon, with options behind "-p 5000 -s /s".
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

TEST_F(HistoryTest, RunWhoseMasterLeft) {
  const End end = EndWith(
      "No or unexpected data received from Corvane\n"
      "Request process loop failed: No or unexpected data received from Corvane\n");
  EXPECT_EQ(end.ending, Ending::kMasterLeft);
  EXPECT_EQ(end.sentence,
            "The master left without shutting it down, or the connection to the master broke");
}

TEST_F(HistoryTest, RunWhoseSimulatorEnded) {
  for (const char* text :
       {"read: End of file", "read: Connection reset by peer", "write: Broken pipe"}) {
    const End end = EndWith(OfSimulator(text));
    EXPECT_EQ(end.ending, Ending::kSimulatorEnded) << text;
    EXPECT_EQ(end.sentence, "The simulator ended, or was ended, during the request 'run until'");
  }
}

}  // namespace
}  // namespace inspect
