// Scripts that cannot be executed, full disks, planted log files and ports that do not exist.

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/traced_process.h"
#include "tests/system/serve.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

std::string ReadFile(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct Script {
  const char* name;
  const char* text;  // null: there is none
  mode_t mode;
};
void PrintTo(const Script& value, std::ostream* out) {
  *out << value.name;
}

class BadScriptTest : public testing::TestWithParam<Script> {};

TEST_P(BadScriptTest, HasNoHostAndEndsWithStatusZeroItsControllerWithOne) {
  const TemporaryDirectory scripts;
  const std::string script = scripts.File("script");
  if (GetParam().mode == S_IFDIR) {
    fs::create_directory(script);
  } else if (GetParam().text != nullptr) {
    chmod(scripts.Write("script", GetParam().text).c_str(), GetParam().mode);
  }
  RunningDaemon::Options options;
  options.arguments = {"-u", "-s", script};
  options.variables = {kNoLeakCheck};
  const RunningDaemon daemon(options);
  const ExitStatuses statuses(daemon.pid());
  EXPECT_EQ(ServeOne(daemon), "No host detected");
  EXPECT_THAT(daemon.Logged(), HasSubstr("\nArg 1: " + script + "\n"));
  EXPECT_THAT(daemon.Logged(), EndsWith("No host detected, exiting.\n"));
  EXPECT_THAT(daemon.Logged(), Not(HasSubstr("execv")));  // the log is silent by then
  if (statuses.watching()) {
    EXPECT_EQ(statuses.First(2), "0 1 ");
  }
  EXPECT_EQ(ServeOne(daemon), "No host detected");  // and the daemon serves on
  if (!statuses.watching()) GTEST_SKIP() << "no process may be traced on this machine";
  EXPECT_EQ(statuses.First(4), "0 1 0 1 ");
}

INSTANTIATE_TEST_SUITE_P(All, BadScriptTest,
                         testing::Values(Script{"Missing", nullptr, 0},
                                         Script{"NotExecutable", "#!/bin/sh\necho HOST=a\n", 0644},
                                         Script{"Directory", nullptr, S_IFDIR},
                                         Script{"WithoutInterpreterLine", "echo HOST=a\n", 0755},
                                         Script{"WithMissingInterpreter",
                                                "#!/no/such/shell\necho HOST=a\n", 0755},
                                         Script{"Empty", "", 0755}),
                         [](const auto& script) { return script.param.name; });

TEST(LaunchHazardTest, ArgumentListTooLongForTheSystemHasNoHost) {
  // A variable may have 131,072 bytes at most; the environment file makes this one too long.
  RunningDaemon::Options options = Unprivileged();
  options.variables = {"LONG=" + std::string(130'900, 'x'), kNoLeakCheck};
  options.environment = "LONG " + std::string(255, 'y') + "\n";
  const RunningDaemon daemon(options);
  const ExitStatuses statuses(daemon.pid());
  EXPECT_EQ(ServeOne(daemon), "No host detected");
  // The controller may end after its master has been told; the next run's processes end after it.
  if (statuses.watching()) {
    EXPECT_EQ(statuses.First(2), "0 1 ");
  }
  fs::remove(daemon.directory().File(".vk_corvane_env"));
  EXPECT_EQ(ServeOne(daemon), "OK|port-9002");
  if (!statuses.watching()) GTEST_SKIP() << "no process may be traced on this machine";
}

TEST(LaunchHazardTest, CommsPortPastTheLastOneFailsAtTheFirstRequest) {
  RunningDaemon::Options options;
  options.arguments = {"-u", "-l", "-o", "65535", "-n", "2"};
  options.script = "#!/bin/sh\necho \"port $4\"\necho HOST=127.0.0.1\n";
  const RunningDaemon daemon(options);
  EXPECT_EQ(ServeOne(daemon), "OK|127.0.0.1");
  TestMaster master(daemon.port());
  master.RequestRun({"0", daemon.directory().path().string() + "/"});
  EXPECT_EQ(Text(master.Receive()), "OK|127.0.0.1");
  EXPECT_THAT(daemon.Logged(), HasSubstr("port 65536\n"));
  EXPECT_EQ(master.Ask("01 00 00 00"), "");
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); }));
  EXPECT_THAT(daemon.directory().Read("CASE.crvnlog"),
              HasSubstr("Exception returned from VK controller: resolve: Service not found\n"));
  EXPECT_EQ(ServeOne(daemon), "OK|127.0.0.1");
}

// What is put where a log is to be.
struct Planted {
  const char* name;
  bool replaced;  // by the log's file; otherwise there is no log
  void (*plant)(const std::string& name, const std::string& victim);
};
void PrintTo(const Planted& value, std::ostream* out) {
  *out << value.name;
}

void PlantLink(const std::string& name, const std::string& victim) {
  fs::create_symlink(victim, name);
}
void PlantHardLink(const std::string& name, const std::string& victim) {
  fs::create_hard_link(victim, name);
}
void PlantPipe(const std::string& name, const std::string&) {
  mkfifo(name.c_str(), 0666);
}
void PlantDirectory(const std::string& name, const std::string&) {
  fs::create_directory(name);
}
void PlantFullDirectory(const std::string& name, const std::string&) {
  fs::create_directory(name);
  std::ofstream(name + "/kept") << "kept";
}

class PlantedLogTest : public testing::TestWithParam<Planted> {};

TEST_P(PlantedLogTest, CommsLogTouchesNothingElseAndTheRunGoesOn) {
  const RunningDaemon daemon(Unprivileged({"-l"}));
  const TemporaryDirectory& data = daemon.directory();
  const std::string log = data.File("CASE.crvnlog");
  GetParam().plant(log, data.Write("victim", "precious"));
  EXPECT_EQ(ServeRun(daemon, {"0", data.path().string() + "/"}),
            std::string("OK|port-9001 ") + kShutDown);
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); }));
  EXPECT_EQ(data.Read("victim"), "precious");
  EXPECT_EQ(fs::is_regular_file(fs::symlink_status(log)), GetParam().replaced);
  if (GetParam().replaced) {
    EXPECT_THAT(ReadFile(log), EndsWith("exited naturally, going to sleep again ... \n"));
  }
}

// A private /var/log in which something waits under the daemon's name.
TEST_P(PlantedLogTest, DaemonsLogTouchesNothingElseOrGoesToTmp) {
  if (getuid() != 0) GTEST_SKIP() << "mounting needs root";
  const TemporaryDirectory directory;
  const int port = FreePort();
  const std::string name = "/VKJobmill_" + std::to_string(port) + ".log";
  ChildProcess::Options options;
  options.output_file = directory.File("output");
  options.in_child = [&] {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/var/log", "tmpfs", 0, "size=64k") != 0) {
      return 1;
    }
    std::ofstream("/var/log/victim") << "precious";
    GetParam().plant("/var/log" + name, "/var/log/victim");
    return 0;
  };
  ChildProcess daemon({DaemonExecutable(), "-u", "-p", std::to_string(port)}, options);
  const bool started =
      Eventually([&] { return HasStarted(directory.Read("output")) || !IsRunning(daemon.pid()); });
  ASSERT_TRUE(started && IsRunning(daemon.pid())) << directory.Read("output");
  const std::string root = "/proc/" + std::to_string(daemon.pid()) + "/root";
  EXPECT_EQ(ReadFile(root + "/var/log/victim"), "precious");
  const std::string log = root + (GetParam().replaced ? "/var/log" : "/tmp") + name;
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(log)));
  EXPECT_EQ(ReadFile(log), directory.Read("output"));
  std::error_code ignored;
  fs::remove("/tmp" + name, ignored);
}

INSTANTIATE_TEST_SUITE_P(All, PlantedLogTest,
                         testing::Values(Planted{"Link", true, PlantLink},
                                         Planted{"HardLink", true, PlantHardLink},
                                         Planted{"Pipe", true, PlantPipe},
                                         Planted{"EmptyDirectory", true, PlantDirectory},
                                         Planted{"FullDirectory", false, PlantFullDirectory}),
                         [](const auto& planted) { return planted.param.name; });

// A disk of one page over `directory` beside what `filler` takes, for the daemon alone.
bool MountFullDisk(const std::string& directory, const char* size) {
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", directory.c_str(), "tmpfs", 0, size) == 0;
}

void Fill(const std::string& file, std::size_t bytes) {
  std::ofstream(file) << std::string(bytes, 'f');
}

TEST(FullDiskTest, DaemonServesOnAndLogsAgainWhenThereIsRoom) {
  if (getuid() != 0) GTEST_SKIP() << "mounting needs root";
  RunningDaemon::Options options = Unprivileged();
  options.in_child = [] {
    if (!MountFullDisk("/var/log", "size=8k")) return 1;
    Fill("/var/log/filler", 4096);
    return 0;
  };
  const RunningDaemon daemon(options);
  for (int run = 0; run < 15; ++run) ASSERT_THAT(ServeRun(daemon), EndsWith(kShutDown));
  const std::string full = daemon.TextOfLogFile();
  EXPECT_EQ(full.size(), 4096U);
  EXPECT_TRUE(daemon.Logged().starts_with(full));
  EXPECT_THAT(daemon.Logged(), HasSubstr("Host detected: port-9015"));
  fs::remove(daemon.Inside("/var/log/filler"));
  ASSERT_THAT(ServeRun(daemon), EndsWith(kShutDown));
  EXPECT_THAT(daemon.TextOfLogFile(), HasSubstr("Host detected: port-9016"));
  EXPECT_THAT(daemon.TextOfLogFile(), Not(HasSubstr("Host detected: port-9015")));
}

TEST(FullDiskTest, DaemonWhoseLogMayNotGrowServesOn) {
  if (KeepsCounters()) GTEST_SKIP() << "the file of the counters may not grow either";
  RunningDaemon::Options options = Unprivileged();
  options.quiet = true;
  options.in_child = [] {
    const rlimit small{4096, 4096};
    return setrlimit(RLIMIT_FSIZE, &small);
  };
  const RunningDaemon daemon(options);
  for (int run = 0; run < 15; ++run) ASSERT_THAT(ServeRun(daemon), EndsWith(kShutDown));
  EXPECT_EQ(daemon.TextOfLogFile().size(), 4096U);
}

TEST(FullDiskTest, RunGoesOnWithoutItsCopyAndItsCommsLog) {
  if (getuid() != 0) GTEST_SKIP() << "mounting needs root";
  const TemporaryDirectory data;
  const std::string path = data.path().string();
  RunningDaemon::Options options = Unprivileged({"-l"});
  options.in_child = [&path] {
    if (!MountFullDisk(path, "size=4k")) return 1;
    Fill(path + "/CASE.afi", 4096);
    return 0;
  };
  const RunningDaemon daemon(options);
  EXPECT_EQ(ServeRun(daemon, {"3", path + "/"}), std::string("OK|port-9001 ") + kShutDown);
  // Only system() itself is judged.
  EXPECT_THAT(daemon.Errors(), HasSubstr("No space left on device"));
  EXPECT_THAT(daemon.Logged(), HasSubstr("\nCopy succeeded\n"));
  EXPECT_THAT(daemon.Logged(), HasSubstr("\nArg 4: CASE_3\n"));
  EXPECT_EQ(ReadFile(daemon.Inside(path + "/CASE_3.crvnlog")), "");
  EXPECT_EQ(ReadFile(daemon.Inside(path + "/CASE_3.afi")), "");
}

}  // namespace
