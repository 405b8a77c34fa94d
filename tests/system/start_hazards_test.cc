// The daemon in surroundings that are not as they should be, and with a kernel that refuses.

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/refused_calls.h"
#include "tests/support/running_daemon.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/traced_process.h"
#include "tests/system/serve.h"

namespace {

using std::chrono::seconds;
using testing::EndsWith;
using testing::HasSubstr;

// Notes descriptors and signals as the script finds them.
constexpr const char* kInspectingScript =
    "#!/bin/sh\nls -l /proc/$$/fd >descriptors\ngrep ^Sig /proc/self/status >signals\n"
    "echo HOST=node17\n";

// The noted descriptors below 10, "0 /dev/null\n"; a shell keeps the script that it reads above.
std::string LowDescriptors(const std::string& listing) {
  std::string found;
  std::istringstream lines(listing);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t arrow = line.find(" -> ");
    if (arrow == std::string::npos) continue;
    const std::string number = line.substr(line.rfind(' ', arrow - 1) + 1).substr(0, 2);
    if (number[1] == ' ') found += number + line.substr(arrow + 4) + "\n";
  }
  return found;
}

// A line of the signals' state.
unsigned long long Mask(const std::string& status, const std::string& name) {
  return std::stoull(status.substr(status.find(name) + name.size()), nullptr, 16);
}

TEST(StartHazardTest, NoStandardDescriptorAndStrangeSignalsDoNotReachTheScript) {
  if (KeepsCounters()) GTEST_SKIP() << "the file of the counters would get a number";
  RunningDaemon::Options options = Unprivileged();
  options.script = kInspectingScript;
  options.quiet = true;
  options.in_child = [] {
    for (int descriptor = 0; descriptor <= 2; ++descriptor) close(descriptor);
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int number : {SIGCHLD, SIGUSR1, SIGUSR2}) sigaddset(&blocked, number);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);
    return sigprocmask(SIG_BLOCK, &blocked, nullptr);
  };
  const RunningDaemon daemon(options);
  EXPECT_EQ(ServeRun(daemon), std::string("OK|node17 ") + kShutDown);
  EXPECT_THAT(LowDescriptors(daemon.directory().Read("descriptors")),
              testing::MatchesRegex("0 /dev/null\n1 [^\n]*\n2 /dev/null\n"));
  const std::string signals = daemon.directory().Read("signals");
  EXPECT_EQ(Mask(signals, "SigBlk:"), 0U);
  EXPECT_EQ(Mask(signals, "SigIgn:") & ((1ULL << (SIGPIPE - 1)) | (1ULL << (SIGCHLD - 1))), 0U);
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); }));  // no zombie either
  EXPECT_THAT(daemon.TextOfLogFile(), HasSubstr("Host detected: node17"));
}

// Ways to have no usable standard output.
int OutputToFullDisk() {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  return dup2(full, STDOUT_FILENO) == STDOUT_FILENO ? 0 : 1;
}

int OutputClosed() {
  return close(STDOUT_FILENO);
}

int OutputWithoutReader() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) return 1;
  close(ends[1]);
  return close(ends[0]);
}

int OutputNeverRead() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) return 1;
  close(ends[1]);  // the end to read from stays open in the daemon
  const std::string piece(4096, 'x');
  fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);
  while (write(STDOUT_FILENO, piece.data(), piece.size()) > 0) {
  }
  return fcntl(STDOUT_FILENO, F_SETFL, 0);
}

struct Output {
  const char* name;
  int (*prepare)();
};
void PrintTo(const Output& value, std::ostream* out) {
  *out << value.name;
}

class OutputHazardTest : public testing::TestWithParam<Output> {};

TEST_P(OutputHazardTest, DaemonServesAndItsFileHasEverything) {
  RunningDaemon::Options options = Unprivileged();
  options.quiet = true;
  options.in_child = GetParam().prepare;
  const RunningDaemon daemon(options);
  const auto start = std::chrono::steady_clock::now();
  for (int run = 0; run < 3; ++run) {
    EXPECT_THAT(ServeRun(daemon), EndsWith(kShutDown));
  }
  const std::chrono::duration<double> used = std::chrono::steady_clock::now() - start;
  EXPECT_LT(used.count(), 5);
  const std::string log = daemon.TextOfLogFile();
  std::size_t hosts = 0;
  for (std::size_t at = 0; (at = log.find("Host detected: port-", at)) != std::string::npos; ++at) {
    ++hosts;
  }
  EXPECT_EQ(hosts, 3U);
}

INSTANTIATE_TEST_SUITE_P(All, OutputHazardTest,
                         testing::Values(Output{"FullDisk", OutputToFullDisk},
                                         Output{"Closed", OutputClosed},
                                         Output{"WithoutReader", OutputWithoutReader},
                                         Output{"NeverRead", OutputNeverRead}),
                         [](const auto& output) { return output.param.name; });

// The program run to its end, which must come by itself.
class RefusingKernelTest : public testing::Test {
 protected:
  void TearDown() override {
    std::error_code ignored;
    for (const char* directory : {"/var/log", "/tmp"}) {
      std::filesystem::remove(directory + ("/VKJobmill_" + port_ + ".log"), ignored);
    }
  }

  // What it printed on standard output; on standard error it has to print `errors`.
  std::string Run(int expected_status, const std::vector<RefusedCall>& refused,
                  const std::string& errors = "", const std::vector<std::string>& more = {"-u"}) {
    ChildProcess::Options options;
    options.output_file = directory_.Write("output", "");
    options.error_file = directory_.Write("errors", "");
    options.in_child = [&refused] { return RefuseCalls(refused) ? 0 : 1; };
    std::vector<std::string> words = {DaemonExecutable(), "-p", port_};
    words.insert(words.end(), more.begin(), more.end());
    ChildProcess process(words, options);
    EXPECT_EQ(process.Wait(seconds(10)).value_or(-1), expected_status);
    EXPECT_EQ(directory_.Read("errors"), errors);
    return directory_.Read("output");
  }

  TemporaryDirectory directory_;
  const std::string port_ = std::to_string(FreePort());
};

TEST_F(RefusingKernelTest, RefusedSignalHandlerEndsTheStartWithTheSystemsText) {
  const RefusedCall handler = {SYS_rt_sigaction, EPERM, SIGCHLD};
  EXPECT_EQ(Run(1, {handler}, "Operation not permitted\n"), "");
  // A missing port is named before it, a taken one or missing rights would come after it.
  EXPECT_THAT(Run(1, {handler}, "", {"-p", "0"}), testing::StartsWith("Jobmill needs to be"));
  EXPECT_EQ(Run(1, {handler, {SYS_socket, EMFILE}}, "Operation not permitted\n"), "");
  EXPECT_EQ(Run(1, {handler, {SYS_getuid, EPERM}}, "Operation not permitted\n", {}), "");
}

TEST_F(RefusingKernelTest, NoSocketEndsTheStartAsATakenPortDoes) {
  EXPECT_EQ(Run(1, {{SYS_socket, EMFILE}}),
            "Error in creating socket to listen on port " + port_ +
                ": check netstat to see if the port is already in use\n");
}

TEST_F(RefusingKernelTest, FailedAcceptEndsTheDaemon) {
  for (const int error : {ECONNABORTED, EMFILE, ENOMEM}) {
    EXPECT_THAT(Run(1, {{SYS_accept4, error}, {SYS_accept, error}}),
                EndsWith("Socket failure in accept call - exiting ... \n"))
        << error;
  }
}

RunningDaemon::Options WithRefused(const std::vector<RefusedCall>& calls) {
  RunningDaemon::Options options = Unprivileged();
  options.in_child = [calls] { return RefuseCalls(calls) ? 0 : 1; };
  return options;
}

TEST_F(RefusingKernelTest, FailedForkLeavesTheMasterWaitingAndTheDaemonAccepting) {
  const RunningDaemon daemon(WithRefused(NoChildren(EAGAIN)));
  const TestMaster first(daemon.port());
  const TestMaster second(daemon.port());
  const std::string line = "Error occurred forking controlling thread: ";
  EXPECT_TRUE(Eventually([&] {
    const std::string log = daemon.Logged();
    return log.find(line) != log.rfind(line);
  }));
  EXPECT_FALSE(first.SeesEndWithin(0.2));
  EXPECT_FALSE(second.SeesEndWithin(0));
  EXPECT_TRUE(IsRunning(daemon.pid()));
}

TEST_F(RefusingKernelTest, FailedPipeEndsTheConnectionWithoutAWord) {
  RunningDaemon::Options options = WithRefused({{SYS_pipe2, EMFILE}});
  options.variables = {kNoLeakCheck};
  const RunningDaemon daemon(options);
  const ExitStatuses statuses(daemon.pid());
  TestMaster master(daemon.port());
  master.RequestRun({});
  EXPECT_TRUE(master.SeesEndWithin(5));
  EXPECT_THAT(daemon.Logged(), HasSubstr("Error: pipe failed\n"));
  EXPECT_TRUE(IsRunning(daemon.pid()));
  if (!statuses.watching()) GTEST_SKIP() << "no process may be traced on this machine";
  EXPECT_EQ(statuses.First(1), "1 ");
}

TEST_F(RefusingKernelTest, FailedSystemIsLoggedAsAFailedCopyAndTheRunGoesOn) {
  // The shell's end cannot be waited for; that is a failure of system() itself.
  const RunningDaemon daemon(WithRefused({{SYS_wait4, ECHILD}}));
  daemon.directory().Write("CASE.afi", "deck");
  EXPECT_EQ(
      ServeRun(daemon, {"3", daemon.directory().path().string(), "CASE", "1", "20172", "a", "0"}),
      std::string("OK|port-9001 ") + kShutDown);
  EXPECT_THAT(daemon.Logged(), HasSubstr("\nCopy failed - run will probably fail\n"));
  EXPECT_THAT(daemon.Logged(), HasSubstr("\nArg 4: CASE_3\n"));
}

// Descriptors that the daemon has not opened itself and knows nothing of: the first that there can
// be, one in the midst, the last.
void PlantDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  for (const int number : {3, 7, static_cast<int>(limit.rlim_cur) - 1}) {
    dup2(STDIN_FILENO, number);
  }
}

// What they have open is standard input alone in the end.
constexpr const char* kPlanted = "-> /dev/null\n";
constexpr const char* kThree = "0 [^\n]*\n1 [^\n]*\n2 [^\n]*\n";

TEST(StartHazardTest, InheritedDescriptorsDoNotReachTheScript) {
  RunningDaemon::Options options = Unprivileged();
  options.script = kInspectingScript;
  options.in_child = [] {
    PlantDescriptors();
    return 0;
  };
  const RunningDaemon daemon(options);
  EXPECT_EQ(ServeOne(daemon), "OK|node17");
  const std::string descriptors = daemon.directory().Read("descriptors");
  EXPECT_THAT(LowDescriptors(descriptors), testing::MatchesRegex(kThree));
  EXPECT_EQ(descriptors.rfind(kPlanted), descriptors.find(kPlanted)) << descriptors;
}

TEST_F(RefusingKernelTest, WithoutCloseRangeTheScriptStillHasThreeDescriptors) {
  RunningDaemon::Options options = Unprivileged();
  options.script = kInspectingScript;
  options.in_child = [] {
    PlantDescriptors();
    return RefuseCalls({{SYS_close_range, ENOSYS}}) ? 0 : 1;
  };
  const RunningDaemon daemon(options);
  EXPECT_EQ(ServeOne(daemon), "OK|node17");
  const std::string descriptors = daemon.directory().Read("descriptors");
  EXPECT_THAT(LowDescriptors(descriptors), testing::MatchesRegex(kThree));
  EXPECT_EQ(descriptors.rfind(kPlanted), descriptors.find(kPlanted)) << descriptors;
}

TEST(StartHazardTest, WithoutAnyDirectoryForItsLogTheDaemonServesInSilence) {
  if (getuid() != 0) GTEST_SKIP() << "mounting needs root";
  const TemporaryDirectory directory;
  const std::string script = directory.Write("script", "#!/bin/sh\necho HOST=node17\n");
  chmod(script.c_str(), 0755);
  const int port = FreePort();
  ChildProcess::Options options;
  options.output_file = directory.Write("output", "");
  options.error_file = directory.Write("errors", "");
  options.in_child = [] {
    const bool closed =
        unshare(CLONE_NEWNS) == 0 &&
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("none", "/var/log", "tmpfs", MS_RDONLY, nullptr) == 0 &&
        mount("/tmp", "/tmp", nullptr, MS_BIND, nullptr) == 0 &&
        mount(nullptr, "/tmp", nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    return closed ? 0 : 77;
  };
  ChildProcess daemon({DaemonExecutable(), "-u", "-p", std::to_string(port), "-s", script},
                      options);
  std::unique_ptr<TestMaster> master;
  for (int run = 0; run < 2; ++run) {
    ASSERT_TRUE(Eventually([&] {
      try {
        master = std::make_unique<TestMaster>(port);
      } catch (const std::string&) {
        return !IsRunning(daemon.pid());
      }
      return true;
    }));
    ASSERT_TRUE(IsRunning(daemon.pid()));
    master->RequestRun({});
    EXPECT_EQ(Text(master->Receive()), "OK|node17");
    EXPECT_EQ(master->Ask("f0 ff 00 00"), kShutDown);
  }
  EXPECT_EQ(directory.Read("output"), "");
  EXPECT_EQ(directory.Read("errors"), "");
  const std::string name = "/VKJobmill_" + std::to_string(port) + ".log";
  EXPECT_FALSE(std::filesystem::exists("/tmp" + name) ||
               std::filesystem::exists("/var/log" + name));
}

}  // namespace
