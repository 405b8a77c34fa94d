// The program's start: what it prints, logs and returns.

#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"
#include "tests/support/temporary_directory.h"

namespace {

using std::chrono::seconds;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

// An account that owns nothing and runs nothing else.
constexpr uid_t kNobody = 61999;

int BecomeNobody() {
  return setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0 ? 0 : 1;
}

class CommandLineTest : public testing::Test {
 protected:
  // Runs the program to its end, which must come by itself; what it printed on standard output.
  // Standard error has to stay empty.
  std::string Run(std::vector<std::string> arguments, int expected_status,
                  const std::function<int()>& in_child = nullptr) {
    std::filesystem::permissions(directory_.path(), std::filesystem::perms(0777));
    const std::string executable = directory_.File("vkjobmill.exe");
    if (!std::filesystem::exists(executable)) {
      std::filesystem::copy_file(DaemonExecutable(), executable);
    }
    ChildProcess::Options options;
    options.output_file = directory_.Write("output", "");
    options.error_file = directory_.Write("errors", "");
    chmod(options.output_file.c_str(), 0666);
    chmod(options.error_file.c_str(), 0666);
    options.in_child = in_child;
    arguments.insert(arguments.begin(), executable);
    ChildProcess process(arguments, options);
    EXPECT_EQ(process.Wait(seconds(10)).value_or(-1), expected_status);
    EXPECT_EQ(directory_.Read("errors"), "");
    return directory_.Read("output");
  }

  TemporaryDirectory directory_;
};

constexpr const char* kNeedsPort =
    "Jobmill needs to be supplied with a port on which to listen for Corvane requests\n";

TEST_F(CommandLineTest, NoArgumentPrintsTheUsage) {
  EXPECT_THAT(Run({}, 1), StartsWith("Usage: vkjobmill.exe.\n-p <listen_port> - port on which"));
  EXPECT_THAT(Run({}, 1), EndsWith("-v - print version information\n"));
}

TEST_F(CommandLineTest, VersionIsPrintedWithoutListeningWhereverItStands) {
  const std::string port = std::to_string(FreePort());
  const std::string version =
      "Jobmill.\nProtocol version: 3.0.\nZRM compatibility version: ZRM11\n"
      "Varnok API version compatibility: built with API for V2016.2 ->\n";
  EXPECT_EQ(Run({"-p", port, "-v"}, 1), version);
  EXPECT_EQ(Run({"-v", "-p", port}, 1), version);
  EXPECT_EQ(Run({"-V"}, 1), version);
}

TEST_F(CommandLineTest, MissingPortIsAskedFor) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"-u"}, {"-u", "-p"}, {"-u", "-p", "http"}, {"-u", "-p", "0"}}) {
    EXPECT_EQ(Run(arguments, 1), kNeedsPort);
  }
}

TEST_F(CommandLineTest, RootIsNeededUnlessToldOtherwise) {
  if (getuid() != 0) {
    EXPECT_EQ(Run({"-p", std::to_string(FreePort())}, 1), "The jobmill must be run as root !\n");
  } else {
    EXPECT_EQ(Run({"-p", std::to_string(FreePort())}, 1, BecomeNobody),
              "The jobmill must be run as root !\n");
  }
}

// An account that may not start the daemon, and a port that is taken.
TEST_F(CommandLineTest, FirstReasonNotToStartIsTheOneThatIsNamed) {
  const Descriptor taken = BindFreePort(1);
  const std::string port = std::to_string(PortOf(taken.get()));
  const std::function<int()> unprivileged = getuid() == 0 ? BecomeNobody : [] { return 0; };
  EXPECT_THAT(Run({}, 1, unprivileged), StartsWith("Usage: "));
  EXPECT_THAT(Run({"-p", port, "-v"}, 1, unprivileged), StartsWith("Jobmill.\n"));
  EXPECT_EQ(Run({"-p", "0"}, 1, unprivileged), kNeedsPort);
  EXPECT_EQ(Run({"-p", port}, 1, unprivileged), "The jobmill must be run as root !\n");
  EXPECT_EQ(Run({"-p", "70000"}, 1, unprivileged), "The jobmill must be run as root !\n");
}

TEST_F(CommandLineTest, TakenPortIsNamed) {
  const Descriptor taken = BindFreePort(1);
  const std::string port = std::to_string(PortOf(taken.get()));
  EXPECT_EQ(Run({"-u", "-p", port}, 1),
            "Error in creating socket to listen on port " + port +
                ": check netstat to see if the port is already in use\n");
}

TEST_F(CommandLineTest, PortThatDoesNotExistIsNamed) {
  for (const std::string port : {"65536", "70000", "-1"}) {
    EXPECT_EQ(Run({"-u", "-p", port}, 1),
              "Error in creating socket to listen on port " + port +
                  ": check netstat to see if the port is already in use\n");
  }
}

TEST(StartTest, LogSaysHowTheDaemonWasStarted) {
  RunningDaemon::Options options;
  options.arguments = {"-u", "-t", "7"};
  const RunningDaemon daemon(options);
  const std::string log = daemon.Logged();
  EXPECT_THAT(log, MatchesRegex("\nDaemon started: [^\n]*\nVersion information: 3 \\(ZRM11\\)\n"
                                "Arguments: -p [0-9]* -u -t 7 \nExecutable path = [^\n]*\n"));
  EXPECT_THAT(log, HasSubstr("Executable path = " + daemon.directory().path().string() + "\n"));
}

TEST(StartTest, LogFileHoldsWhatIsPrintedAndIsOpenToEverybody) {
  RunningDaemon::Options options;
  options.arguments = {"-u"};
  const RunningDaemon daemon(options);
  std::ifstream file(daemon.LogFile());
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  EXPECT_EQ(text, daemon.Logged());
  struct stat status {};
  ASSERT_EQ(stat(daemon.LogFile().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0666U);
}

TEST(StartTest, LogGoesToTmpWhereVarLogIsNotWritable) {
  RunningDaemon::Options options;
  options.arguments = {"-u"};
  if (getuid() == 0) options.in_child = BecomeNobody;
  if (getuid() != 0 && access("/var/log", W_OK) == 0) GTEST_SKIP() << "/var/log is writable";
  const RunningDaemon daemon(options);
  EXPECT_EQ(daemon.LogFile(), "/tmp/VKJobmill_" + std::to_string(daemon.port()) + ".log");
  EXPECT_TRUE(std::filesystem::exists(daemon.LogFile()));
}

TEST(StartTest, DaemonStaysInTheForegroundAndEndsByTheUsualSignal) {
  RunningDaemon::Options options;
  options.arguments = {"-u"};
  RunningDaemon daemon(options);
  daemon.process().Signal(SIGTERM);
  EXPECT_EQ(daemon.process().Wait(seconds(5)).value_or(-1), 128 + SIGTERM);
}

}  // namespace
