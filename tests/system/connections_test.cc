// The daemon and many masters, good and bad.

#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/running_daemon.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using testing::HasSubstr;

RunningDaemon::Options Unprivileged(std::vector<std::string> more = {}) {
  RunningDaemon::Options options;
  options.arguments = std::move(more);
  options.arguments.insert(options.arguments.begin(), "-u");
  options.script = "#!/bin/sh\necho HOST=port-$4\n";
  return options;
}

// What the next master gets for its run request.
std::string ServeOne(const RunningDaemon& daemon) {
  TestMaster master(daemon.port());
  master.RequestRun({});
  const std::string reply = master.Receive();
  return reply.substr(0, reply.find('\0'));  // the byte in the place of the newline
}

TEST(ConnectionsTest, PortsAreHandedOutInTurnAndWrap) {
  const RunningDaemon daemon(Unprivileged({"-o", "9001", "-n", "2"}));
  EXPECT_EQ(ServeOne(daemon), "OK|port-9001");
  EXPECT_EQ(ServeOne(daemon), "OK|port-9002");
  EXPECT_EQ(ServeOne(daemon), "OK|port-9001");
  EXPECT_EQ(ServeOne(daemon), "OK|port-9002");
}

// Another end of it would keep a script from noticing that nobody reads what it prints.
TEST(ConnectionsTest, ControllerHasTheScriptsOutputOnceAsItsStandardInput) {
  const RunningDaemon daemon(Unprivileged());
  TestMaster master(daemon.port());
  master.RequestRun({});
  EXPECT_THAT(master.Receive(), HasSubstr("OK|"));
  const std::vector<pid_t> controller = ChildrenOf(daemon.pid());
  ASSERT_EQ(controller.size(), 1U);
  const fs::path descriptors = "/proc/" + std::to_string(controller[0]) + "/fd";
  const fs::path output = fs::read_symlink(descriptors / "0");
  EXPECT_THAT(output.string(), testing::StartsWith("pipe:"));
  const fs::directory_iterator all(descriptors);
  EXPECT_EQ(std::count_if(begin(all), end(all),
                          [&](const auto& each) { return fs::read_symlink(each) == output; }),
            1);
}

TEST(ConnectionsTest, EveryConnectionIsLogged) {
  const RunningDaemon daemon(Unprivileged());
  ServeOne(daemon);
  EXPECT_THAT(daemon.Logged(), testing::ContainsRegex("\nAccepted incoming connection: ...+\n"));
  EXPECT_THAT(daemon.Logged(), testing::ContainsRegex("\nAnswering call in child process: ...+\n"));
}

TEST(ConnectionsTest, ScriptIsLookedForBesideTheDaemonsWorkingDirectoryByDefault) {
  RunningDaemon::Options options = Unprivileged();
  options.script.clear();
  const RunningDaemon daemon(options);
  EXPECT_EQ(ServeOne(daemon), "No host detected");
  chmod(daemon.directory().Write("vkmpi_dir.sh", "#!/bin/sh\necho HOST=default\n").c_str(), 0755);
  EXPECT_EQ(ServeOne(daemon), "OK|default");
}

TEST(ConnectionsTest, ThreeHundredInTurnLeaveNothingBehind) {
  RunningDaemon daemon(Unprivileged());
  for (int i = 0; i < 20; ++i) ServeOne(daemon);  // what is made once is made now
  ASSERT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); }));
  const std::size_t descriptors = OpenDescriptors(daemon.pid());
  const long memory = StatusValue(daemon.pid(), "VmRSS");
  for (int i = 0; i < 300; ++i) ASSERT_THAT(ServeOne(daemon), HasSubstr("OK|")) << i;
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); }));
  EXPECT_EQ(OpenDescriptors(daemon.pid()), descriptors);
  EXPECT_LT(StatusValue(daemon.pid(), "VmRSS") - memory, 3 * 1024);
}

TEST(ConnectionsTest, HundredAtOnceAreAllServed) {
  const RunningDaemon daemon(Unprivileged());
  std::vector<std::unique_ptr<TestMaster>> masters;
  masters.reserve(100);
  for (int i = 0; i < 100; ++i) masters.push_back(std::make_unique<TestMaster>(daemon.port()));
  for (auto& master : masters) master->RequestRun({});
  for (auto& master : masters) EXPECT_THAT(master->Receive(), HasSubstr("OK|port-"));
  EXPECT_EQ(ChildrenOf(daemon.pid()).size(), 100U);
  for (auto& master : masters) EXPECT_EQ(master->Ask("f0 ff 00 00"), "f0 ff 00 00 00 00 00 00");
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); }));
}

TEST(ConnectionsTest, MasterThatLeavesAtAnyStepOfTheHandshakeIsForgotten) {
  const RunningDaemon daemon(Unprivileged());
  for (int steps = 0; steps <= 8; ++steps) {
    {
      TestMaster master(daemon.port());
      for (int step = 0; step < steps; ++step) master.Send("3");
    }
    EXPECT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); })) << steps;
    EXPECT_THAT(ServeOne(daemon), HasSubstr("OK|")) << steps;
  }
}

TEST(ConnectionsTest, StrangersBytesAreForgotten) {
  const RunningDaemon daemon(Unprivileged());
  for (const std::string& bytes : {std::string("GET / HTTP/1.0\r\n\r\n"), std::string(1000, '\xff'),
                                   std::string(1000, '\0'), std::string("\x16\x03\x01")}) {
    {
      SocketClient stranger("127.0.0.1", daemon.port());
      stranger.SendBytes(bytes);
    }
    EXPECT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); }));
    EXPECT_THAT(ServeOne(daemon), HasSubstr("OK|"));
  }
}

TEST(ConnectionsTest, ScriptThatNeverPrintsAHostHoldsItsOwnMasterOnly) {
  RunningDaemon::Options options = Unprivileged();
  options.script = "#!/bin/sh\n[ \"$3\" = SLOW ] && exec sleep 60\necho HOST=node17\n";
  const RunningDaemon daemon(options);
  TestMaster waiting(daemon.port());
  waiting.RequestRun({"0", "PATH", "SLOW"});
  EXPECT_EQ(ServeOne(daemon), "OK|node17");
  EXPECT_FALSE(waiting.SeesEndWithin(0.2));
}

TEST(ConnectionsTest, DeadDaemonRefusesNewMastersAndItsRunsGoOn) {
  RunningDaemon daemon(Unprivileged());
  TestMaster running(daemon.port());
  running.RequestRun({});
  ASSERT_THAT(running.Receive(), HasSubstr("OK|"));
  daemon.process().Signal(SIGKILL);
  daemon.process().Wait(seconds(5));
  EXPECT_THROW(TestMaster refused(daemon.port()), std::string);
  EXPECT_EQ(running.Ask("f0 ff 00 00"), "f0 ff 00 00 00 00 00 00");
}

TEST(ConnectionsTest, IdleConnectionKeepsThePortOfADeadDaemonFromTheNext) {
  RunningDaemon daemon(Unprivileged());
  TestMaster idle(daemon.port());
  ASSERT_EQ(idle.Receive(), "3");
  daemon.process().Signal(SIGKILL);
  daemon.process().Wait(seconds(5));
  const std::vector<std::string> next = {daemon.directory().File("vkjobmill.exe"), "-u", "-p",
                                         std::to_string(daemon.port())};
  ChildProcess::Options options;
  options.output_file = daemon.directory().File("next");
  EXPECT_EQ(ChildProcess(next, options).Wait(seconds(5)).value_or(-1), 1);
  EXPECT_THAT(daemon.directory().Read("next"), HasSubstr("Error in creating socket"));

  // Left by the master first, it keeps nothing for the minute of late packets.
  idle.Leave();
  EXPECT_TRUE(Eventually([&] {
    const ChildProcess served(next, options);
    return Eventually([&] {
             return !IsRunning(served.pid()) ||
                    daemon.directory().Read("next").find("Executable path") != std::string::npos;
           }) &&
           IsRunning(served.pid());
  }));
}

TEST(ConnectionsTest, NoDescriptorForANewConnectionEndsTheDaemon) {
  RunningDaemon daemon(Unprivileged());
  rlimit limit{};
  ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
  limit.rlim_cur = 3;  // no number above the standard ones
  ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
  const TestMaster master(daemon.port());
  EXPECT_EQ(daemon.process().Wait(seconds(5)).value_or(-1), 1);
  EXPECT_THAT(daemon.Logged(), HasSubstr("Socket failure in accept call - exiting ... \n"));
}

// A daemon whose account may have this many processes and no more. The account is this test's
// alone: the system counts the processes of all that run as one.
RunningDaemon::Options WithProcesses(rlim_t most) {
  RunningDaemon::Options options = Unprivileged({"-o", "9001", "-n", "5"});
  const auto alone = static_cast<uid_t>(40'000 + getpid() % 20'000);
  options.in_child = [most, alone] {
    const rlimit limit{most, most};
    return setgroups(0, nullptr) == 0 && setgid(alone) == 0 && setuid(alone) == 0 &&
                   setrlimit(RLIMIT_NPROC, &limit) == 0
               ? 0
               : 1;
  };
  return options;
}

TEST(ConnectionsTest, FailedForksLeaveTheirMastersWaitingOrEndTheirRun) {
  if (getuid() != 0) GTEST_SKIP() << "needs an account of its own";
  const RunningDaemon daemon(WithProcesses(3));
  {
    // Two children in their handshakes, and the daemon.
    TestMaster first(daemon.port());
    TestMaster second(daemon.port());
    EXPECT_EQ(first.Receive(), "3");
    EXPECT_EQ(second.Receive(), "3");
    const TestMaster unserved(daemon.port());
    EXPECT_TRUE(daemon.WaitForLog("Error occurred forking controlling thread: "));
    EXPECT_FALSE(unserved.SeesEndWithin(0.2));

    // No process for a script either: the child ends without a word.
    first.Send("3");
    for (int field = 0; field < 7; ++field) first.Send("1");
    EXPECT_TRUE(first.SeesEndWithin(5));
    EXPECT_TRUE(daemon.WaitForLog("Error: fork failed\n"));
  }
  ASSERT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); }));
  EXPECT_EQ(ServeOne(daemon), "OK|port-9004");  // the failed fork had taken 9003
}

}  // namespace
