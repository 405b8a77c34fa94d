#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/answer.h"
#include "daemon/daemon.h"
#include "daemon/globals.h"
#include "daemon/manager_information.h"
#include "daemon/process.h"
#include "log/flog.h"
#include "net/socket.h"
#include "tests/allocation/failing_allocations.h"
#include "tests/allocation/frames.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"

namespace {

using std::chrono::seconds;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;
using Strings = std::vector<std::string>;

constexpr long kUndisturbed = 1'000'000'000;

// One connection from the first byte to the last, in a process of its own. The master has said all
// that it has to say beforehand.
class AnswerSweep : public testing::Test {
 protected:
  struct Outcome {
    int status = -1;
    Strings frames;
    std::string log;
    std::string comms_log;
  };

  void SetUp() override {
    std::filesystem::permissions(directory_.path(), std::filesystem::perms(0777));
    script_ = directory_.Write("a-script-with-a-long-name", "#!/bin/sh\necho \"HOST=$JM_HOST\"\n");
    chmod(script_.c_str(), 0755);
    unsetenv("JM_HOST");
    directory_.Write(".vk_corvane_env", "JM_HOST the-host-where-the-simulator-runs\n");
  }

  Outcome Answer(long failing, Failing mode) {
    SocketPair pair;
    for (const std::string& line :
         {std::string("3"), std::string("3"), PathPrefix(), std::string("CASE-WITH-A-LONG-NAME"),
          std::string("4"), std::string("20172"), user_, std::string("0")}) {
      WriteAll(pair.peer.get(), Frame(line));
    }
    WriteAll(pair.peer.get(), Frame(Bytes("f0 ff 00 00")));  // shutdown of the run
    shutdown(pair.peer.get(), SHUT_WR);
    std::filesystem::remove(directory_.File("CASE-WITH-A-LONG-NAME_3.crvnlog"));

    const FailingAllocations none(kUndisturbed, mode);  // clears what was reached
    ChildProcess::Options options;
    options.directory = directory_.path().string();
    options.output_file = directory_.File("output");
    options.in_child = [&] {
      pair.peer.Reset();
      strcpy(GszExePath, directory_.path().c_str());
      if (!PrepareProcess()) return 124;
      flog log(directory_.File("log"), true);
      auto* info = new CManagerInformation(script_, run_as_root_, 5, 9005, true, &log,
                                           new Socket(pair.ours.Release()));
      const FailingAllocations failures(failing, mode);
      return ::Answer(info);
    };
    ChildProcess child({}, options);
    pair.ours.Reset();
    Outcome outcome;
    outcome.frames = FramesOf(ReadExactly(pair.peer.get(), 1 << 16));
    outcome.status = child.Wait(seconds(20)).value_or(-1);
    outcome.log = directory_.Read("log");
    outcome.comms_log = directory_.Read("CASE-WITH-A-LONG-NAME_3.crvnlog");
    return outcome;
  }

  // The data path: the comms log's name is put together from it and the root name.
  std::string PathPrefix() const { return directory_.path().string() + "/"; }

  template <class Check>
  void Sweep(const Check& check) {
    for (const Failing mode : {Failing::kOnce, Failing::kForGood}) {
      for (long failing = 1; !HasFailure(); ++failing) {
        const Outcome outcome = Answer(failing, mode);
        if (!FailingAllocations::Reached()) {
          EXPECT_GT(failing, 20);
          break;
        }
        SCOPED_TRACE(testing::Message()
                     << "allocation " << failing << " fails " << mode << "\nlogged:\n"
                     << outcome.log << "\ncomms log:\n"
                     << outcome.comms_log << "\noutput:\n"
                     << directory_.Read("output"));
        check(outcome, mode);
      }
    }
  }

  TemporaryDirectory directory_;
  std::string script_;
  std::string user_ = "a-user-with-a-long-name";
  bool run_as_root_ = false;
};

TEST_F(AnswerSweep, FailedAllocationEndsTheConnectionWithALineOrIsServed) {
  const Outcome undisturbed = Answer(kUndisturbed, Failing::kOnce);
  ASSERT_EQ(undisturbed.status, 0) << undisturbed.log;
  ASSERT_EQ(undisturbed.frames,
            (Strings{"3", "OK|the-host-where-the-simulator-runs" + std::string(1, '\0'),
                     Bytes("f0 ff 00 00 00 00 00 00")}));
  Sweep([&](const Outcome& outcome, Failing) {
    if (outcome.status == 1) {
      EXPECT_THAT(outcome.log, HasSubstr("Socket connection failed\n"));
      EXPECT_TRUE(IsBeginningOf(outcome.frames, undisturbed.frames));
      EXPECT_LT(outcome.frames.size(), undisturbed.frames.size());
      return;
    }
    // The controller was reached: it ended as it should, or by the failure, and says so unless it
    // could not open its own log.
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.log, HasSubstr("Host detected: the-host-where-the-simulator-runs"));
    EXPECT_TRUE(IsBeginningOf(outcome.frames, undisturbed.frames));
    EXPECT_GE(outcome.frames.size(), 2U);
    EXPECT_THAT(outcome.comms_log,
                AnyOf("", HasSubstr("Process loop has exited naturally"),
                      HasSubstr("Request process loop failed: Failed to handle data packet "
                                "received from master: Unknown exception\n")));
  });
}

TEST_F(AnswerSweep, FailedAllocationNeverLetsARefusedUserIn) {
  run_as_root_ = true;
  directory_.Write(".vk_corvane_users", "* root 1\n" + user_ + " root 0\n");
  const std::string refusal =
      "Windows user '" + user_ + "' does not have permissions to run Varnok";
  const Outcome undisturbed = Answer(kUndisturbed, Failing::kOnce);
  ASSERT_EQ(undisturbed.status, 1);
  ASSERT_EQ(undisturbed.frames, (Strings{"3", refusal}));
  Sweep([&](const Outcome& outcome, Failing) {
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.log,
                AnyOf(HasSubstr("Socket connection failed\n"), HasSubstr("\n" + refusal + "\n")));
    EXPECT_TRUE(IsBeginningOf(outcome.frames, undisturbed.frames));
  });
}

// The daemon in a child of the test, with its start and its accept loop.
class DaemonSweep : public testing::Test {
 protected:
  // A connection may end before the master has said its word.
  void SetUp() override { signal(SIGPIPE, SIG_IGN); }

  void StartDaemon(long failing, Failing mode) {
    port_ = FreePort();
    const FailingAllocations none(kUndisturbed, mode);
    ChildProcess::Options options;
    options.output_file = directory_.File("output");
    std::filesystem::remove(options.output_file);
    options.in_child = [&] {
      GsLogFileDir = directory_.path().string();
      Strings arguments = {"vkjobmill.exe",       "-u", "-p",
                           std::to_string(port_), "-s", "/a/distribution/script/with/a/long/name"};
      std::vector<char*> argv;
      for (std::string& argument : arguments) argv.push_back(argument.data());
      const FailingAllocations failures(failing, mode);
      return RunDaemon(static_cast<int>(argv.size()), argv.data());
    };
    daemon_ = std::make_unique<ChildProcess>(Strings(), options);
  }

  // The first frame that a master gets; nothing when the connection ends without one.
  std::optional<std::string> FirstFrame() const {
    try {
      TestMaster master(port_);
      const std::string frame = master.Receive();
      master.Send("0");  // ends the connection child
      if (frame.empty()) return std::nullopt;
      return frame;
    } catch (const std::string&) {
      return std::nullopt;
    }
  }

  bool Listening() const {
    try {
      TestMaster probe(port_);
      return true;
    } catch (const std::string&) {
      return false;
    }
  }

  TemporaryDirectory directory_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> daemon_;
};

TEST_F(DaemonSweep, FailedAllocationEndsTheStartWithStatusOneOrCostsAConnectionAtMost) {
  long ended = 0;
  long dropped = 0;
  for (const Failing mode : {Failing::kOnce, Failing::kForGood}) {
    for (long failing = 1; !HasFailure(); ++failing) {
      StartDaemon(failing, mode);
      SCOPED_TRACE(testing::Message() << "allocation " << failing << " fails " << mode);
      ASSERT_TRUE(Eventually([&] { return Listening() || !IsRunning(daemon_->pid()); }));

      // One failure costs a connection in the daemon and one in each child that had it before it.
      long served = 0;
      for (int connection = 0; connection < 8; ++connection) {
        const auto frame = FirstFrame();
        if (frame) {
          EXPECT_EQ(*frame, "3");
        }
        served += frame ? 1 : 0;
      }
      dropped += 8 - served;
      // It may have begun to listen, and say that it ends a moment before it does.
      const bool ending =
          directory_.Read("output").find("The jobmill has no memory") != std::string::npos;
      if (const auto status = daemon_->Wait(std::chrono::milliseconds(ending ? 10'000 : 0))) {
        ++ended;
        EXPECT_EQ(*status, 1);
        EXPECT_THAT(directory_.Read("output"), Not(HasSubstr("Accepted incoming connection")));
        continue;
      }
      bool served_again = mode == Failing::kForGood;
      for (int connection = 0; connection < 8 && !served_again; ++connection) {
        served_again = FirstFrame().has_value();
      }
      EXPECT_TRUE(served_again) << directory_.Read("output");
      if (!FailingAllocations::Reached()) {
        EXPECT_EQ(served, 8);
        break;
      }
    }
  }
  EXPECT_GT(ended, 0);
  EXPECT_GT(dropped, 0);
}

}  // namespace
