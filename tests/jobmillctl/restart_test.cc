// Restarting the service at a moment that costs nobody anything.

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/jobmillctl/jobmillctl.h"
#include "tests/jobmillctl/runs_site.h"
#include "tests/support/bytes.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

// A service manager that says which daemon it has, and writes down what it is asked to do.
class RestartTest : public testing::Test {
 protected:
  explicit RestartTest() {
    chmod(programs_
              .Write("systemctl", "#!/bin/sh\necho \"$*\" >>" + programs_.File("asked") +
                                      "\n[ \"$1\" != show ] || echo " +
                                      std::to_string(site_.daemon().pid()) + "\n")
              .c_str(),
          0755);
  }

  std::vector<std::string> Environment() const {
    return {"PATH=" + programs_.path().string() + ":" + getenv("PATH")};
  }
  Outcome Restart(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "restart");
    return Jobmillctl(arguments, Environment());
  }
  std::string Asked() const { return programs_.Read("asked"); }

  RunsSite site_;
  const TemporaryDirectory programs_;
};

TEST_F(RestartTest, IdleServiceIsRestarted) {
  const Outcome outcome = Restart({});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "jobmill.service is restarted\n");
  EXPECT_EQ(Asked(), "show --property MainPID --value jobmill.service\nrestart jobmill.service\n");
}

TEST_F(RestartTest, NameIsThatOfTheTemplate) {
  EXPECT_EQ(Restart({"next"}).status, 0);
  EXPECT_THAT(Asked(), HasSubstr("\nrestart jobmill@next.service\n"));
  EXPECT_EQ(Restart({"a/b"}).status, 2);
}

TEST_F(RestartTest, WhatARestartCostsIsSaidAndItIsNotDone) {
  site_.Request("QUEUED");
  ASSERT_TRUE(site_.WaitForState("QUEUED", "waiting for the script"));
  const Outcome outcome = Restart({});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, StartsWith("Port " + std::to_string(site_.daemon().port()) +
                                      " is held by a connection from 127.0.0.1:"));
  EXPECT_THAT(outcome.out, HasSubstr("/QUEUED), waiting for the script\n"));
  EXPECT_THAT(outcome.err, HasSubstr("--when-idle waits for that moment"));
  EXPECT_EQ(Asked(), "show --property MainPID --value jobmill.service\n");
  EXPECT_EQ(Restart({"--now"}).status, 0);
  EXPECT_THAT(Asked(), HasSubstr("\nrestart jobmill.service\n"));
}

TEST_F(RestartTest, IdleMomentIsWaitedForAndNotTooLong) {
  TestMaster& master = site_.Request("QUEUED");
  ASSERT_TRUE(site_.WaitForState("QUEUED", "waiting for the script"));
  const Outcome late = Restart({"--when-idle", "--timeout", "1"});
  EXPECT_EQ(late.status, 1);
  EXPECT_THAT(late.err, HasSubstr("jobmill.service was not restarted"));

  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.environment = Environment();
  options.output_file = directory.File("out");
  ChildProcess waiting({ProgramDirectory() + "/jobmillctl", "restart", "--when-idle"}, options);
  EXPECT_TRUE(Eventually([&] { return !directory.Read("out").empty(); }));
  EXPECT_THAT(Asked(), testing::Not(HasSubstr("\nrestart ")));
  // The master leaves first, so that the system keeps nothing of the connection on this port.
  master.Leave();
  const auto run = site_.Run("QUEUED");
  EXPECT_EQ(Jobmillctl({"end", "--yes", run.at("id").dump()}).status, 0);
  EXPECT_EQ(waiting.Wait(std::chrono::seconds(20)), 0);
  EXPECT_THAT(Asked(), HasSubstr("\nrestart jobmill.service\n"));
}

TEST_F(RestartTest, WhatHasLostItsControllerHoldsNoPort) {
  TestMaster& master = site_.Connect("STEP");
  master.Send(Bytes("07 00 00 00"));
  ASSERT_TRUE(site_.WaitForState("STEP", "waiting for the simulator"));
  // The master leaves first, so that the system keeps nothing of the connection on this port.
  master.Leave();
  const auto run = site_.Run("STEP");
  EXPECT_EQ(kill(run.at("id").get<pid_t>(), SIGKILL), 0);
  ASSERT_TRUE(site_.WaitForState("STEP", "lost"));
  const Outcome outcome = Restart({});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "jobmill.service is restarted\n");
  EXPECT_EQ(Jobmillctl({"end", "--yes", site_.Run("STEP").at("id").dump()}).status, 0);
}

TEST_F(RestartTest, ServiceManagerThatIsMissingOrFailsIsSaid) {
  const TemporaryDirectory none;
  const auto error = [&](const std::string& script) {
    if (!script.empty()) chmod(none.Write("systemctl", "#!/bin/sh\n" + script).c_str(), 0755);
    const Outcome outcome = Jobmillctl({"restart"}, {"PATH=" + none.path().string()});
    EXPECT_EQ(outcome.status, 1);
    return outcome.err;
  };
  EXPECT_THAT(error(""), HasSubstr("systemctl: No such file or directory"));
  const std::string failed = "systemctl show --property MainPID --value jobmill.service failed";
  EXPECT_THAT(error("exit 1\n"), HasSubstr(failed));
  EXPECT_THAT(error("kill -KILL $$\n"), HasSubstr(failed));
  EXPECT_THAT(error("echo 1\n"),
              HasSubstr("process 1 of jobmill.service does not listen for masters"));
}

TEST_F(RestartTest, ServiceThatDoesNotRunIsStarted) {
  const TemporaryDirectory own;
  chmod(own.Write("systemctl", "#!/bin/sh\necho 0\n").c_str(), 0755);
  const Outcome outcome =
      Jobmillctl({"restart"}, {"PATH=" + own.path().string() + ":/usr/bin:/bin"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "jobmill.service is restarted\n");
}

TEST_F(RestartTest, NamesThatAreNoneAreRefused) {
  EXPECT_EQ(Restart({""}).status, 2);
  EXPECT_EQ(Restart({"--", "-x"}).status, 2);
}

TEST_F(RestartTest, AllButAFewOfManyConnectionsAreCounted) {
  // The side that closes first, the daemon's here, has the port for a minute.
  TestMaster& ended = site_.Request("QUEUED");
  ASSERT_TRUE(site_.WaitForState("QUEUED", "waiting for the script"));
  EXPECT_EQ(Jobmillctl({"end", "--yes", site_.Run("QUEUED").at("id").dump()}).status, 0);
  ended.Receive();  // the refusal
  EXPECT_TRUE(ended.SeesEndWithin(5));
  ended.Leave();
  for (int i = 0; i < 11; ++i) site_.Greet();
  ASSERT_TRUE(Eventually([&] { return site_.Runs().size() == 11; }));
  const Outcome outcome = Restart({});
  EXPECT_EQ(outcome.status, 1);
  const std::string port = "Port " + std::to_string(site_.daemon().port()) + " is held by ";
  EXPECT_THAT(outcome.out, testing::EndsWith(port + "2 connections more\n"));
  EXPECT_THAT(outcome.err, HasSubstr("until the last of these connections has ended"));
}

TEST_F(RestartTest, ConnectionThatHasEndedHoldsThePortForAWhile) {
  TestMaster& ended = site_.Request("QUEUED");
  ASSERT_TRUE(site_.WaitForState("QUEUED", "waiting for the script"));
  EXPECT_EQ(Jobmillctl({"end", "--yes", site_.Run("QUEUED").at("id").dump()}).status, 0);
  ended.Receive();  // the refusal
  EXPECT_TRUE(ended.SeesEndWithin(5));
  const std::string half = Restart({}).out;
  EXPECT_THAT(half, HasSubstr(" is held by a connection from 127.0.0.1:"));
  ended.Leave();
  EXPECT_TRUE(Eventually(
      [&] { return Restart({}).out.find(" that has ended, for another ") != std::string::npos; }));
}

}  // namespace
