// Whole runs against simulators that misbehave.

#include <chrono>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"
#include "tests/support/scripted_simulator.h"
#include "tests/support/wire_bytes.h"

namespace {

using testing::HasSubstr;

class RunTest : public testing::Test {
 protected:
  // A daemon whose first run finds the scripted simulator at its port; the script lives on as a
  // simulator's would.
  void Start(unsigned port) {
    RunningDaemon::Options options;
    options.arguments = {"-u", "-l", "-t", "5", "-o", std::to_string(port)};
    options.script = "#!/bin/sh\necho HOST=127.0.0.1\nexec sleep 60 >/dev/null\n";
    daemon_ = std::make_unique<RunningDaemon>(options);
    master_ = std::make_unique<TestMaster>(daemon_->port());
    master_->RequestRun({"0", daemon_->directory().path().string() + "/", "CASE"});
    EXPECT_THAT(master_->Receive(), HasSubstr("OK|127.0.0.1"));
  }

  void Connect() {
    simulator_.AnswerNext({wire::Mess("STARTED") + wire::Cstr("ERRORS", {}) + wire::Mess("END"),
                           wire::Mess("STEP") + wire::Cstr("POSITION", {"MODEL_DEFINITION"}) +
                               wire::Doub("TIME", {0}) + wire::Inte("DATE", {2026, 1, 1, 0, 0, 0}) +
                               wire::Mess("END")});
    Start(simulator_.Port());
    EXPECT_EQ(master_->Ask("01 00 00 00"), "01 00 00 00 00 00 00 00");
  }

  // The comms log's last line once the master has seen its link end, which takes a second at most.
  std::string OutcomeOfAsking(const std::string& request) {
    EXPECT_EQ(master_->Ask(request), "");
    return Outcome();
  }
  std::string Outcome() {
    std::string log;
    Eventually([&] {
      log = daemon_->directory().Read("CASE.crvnlog");
      return log.find("\nRequest process loop failed: ") != std::string::npos && log.back() == '\n';
    });
    return log.substr(log.rfind('\n', log.size() - 2) + 1);
  }

  void ExpectNextMasterServed() {
    TestMaster next(daemon_->port());
    next.RequestRun({});
    EXPECT_THAT(next.Receive(), HasSubstr("OK|"));
  }

  static std::string Failed(const std::string& reason) {
    return "Request process loop failed: Failed to handle data packet received from master: "
           "Exception returned from VK controller: " +
           reason + "\n";
  }
  static constexpr const char* kUnknown =
      "Request process loop failed: Failed to handle data packet received from master: "
      "Unknown exception\n";

  ScriptedSimulator simulator_{ScriptedSimulator::Link::kLoopback};
  std::unique_ptr<RunningDaemon> daemon_;
  std::unique_ptr<TestMaster> master_;
};

TEST_F(RunTest, SimulatorThatNeverListensEndsTheRunAfterTheStartTimeout) {
  const int port = FreePort();
  Start(static_cast<unsigned>(port));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(OutcomeOfAsking("01 00 00 00"), Failed("Connection timed out."));
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited.count(), 5.5);
  EXPECT_LT(waited.count(), 9);
  ExpectNextMasterServed();
}

TEST_F(RunTest, SimulatorThatDiesInMidMessageEndsTheRun) {
  Connect();
  simulator_.AnswerNextAndHangUp(Bytes("40 00 00 00 00 00 00 00 40 00 00 00"));
  EXPECT_EQ(OutcomeOfAsking("11 00 00 00"), Failed("read: End of file"));
  ExpectNextMasterServed();
}

TEST_F(RunTest, SimulatorThatAnswersNonsenseEndsTheRun) {
  Connect();
  simulator_.AnswerNext({wire::Mess("NONSENSE") + wire::Mess("END")});
  EXPECT_EQ(OutcomeOfAsking("11 00 00 00"), kUnknown);
  ExpectNextMasterServed();
}

TEST_F(RunTest, SimulatorThatAnnouncesTooMuchEndsTheRun) {
  Connect();
  simulator_.AnswerNextAndHangUp(Bytes("0a 00 00 00 00 00 00 00 14 00 00 00 00 00 00 00"));
  EXPECT_EQ(OutcomeOfAsking("07 00 00 00"), kUnknown);
  ExpectNextMasterServed();
}

TEST_F(RunTest, AnswerOfAnotherShapeEndsTheRunWithItsSentence) {
  Connect();
  simulator_.AnswerNext(
      {wire::Mess("REPLY") + wire::Mess("END"), wire::Mess("READY") + wire::Mess("END")});
  EXPECT_EQ(OutcomeOfAsking("03 00 00 00"),
            Failed("Unexpected answer when querying the unit system."));
}

TEST_F(RunTest, MasterSeesTheEndWithinASecondAlthoughScriptAndSimulatorRunOn) {
  Connect();
  simulator_.AnswerNext({wire::Mess("FINISHED") + wire::Mess("END")});
  master_->Send(Bytes("07 00 00 00"));
  EXPECT_TRUE(master_->SeesEndWithin(1.0));
  EXPECT_EQ(Outcome(), Failed("Incorrect algorithmic position after advancing to first timestep"));
}

TEST_F(RunTest, HostThatCannotBeFoundEndsTheRunAtOnce) {
  RunningDaemon::Options options;
  options.arguments = {"-u", "-l"};
  options.script = "#!/bin/sh\necho 'HOST=no such host'\n";
  daemon_ = std::make_unique<RunningDaemon>(options);
  master_ = std::make_unique<TestMaster>(daemon_->port());
  master_->RequestRun({"0", daemon_->directory().path().string() + "/", "CASE"});
  EXPECT_THAT(master_->Receive(), HasSubstr("OK|no such host"));
  EXPECT_THAT(OutcomeOfAsking("01 00 00 00"), HasSubstr("resolve: Host not found"));
}

}  // namespace
