#include <fcntl.h>
#include <grp.h>
#include <pty.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/descriptor.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/writing_process.h"

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// Programs and scripts lie where every account reaches them. As root the script is started as
// daemon, an account of every machine, otherwise as this one.
class DryRunTest : public testing::Test {
 protected:
  DryRunTest() {
    chmod(directory_.path().c_str(), 0755);
    for (const char* program : {"jobmillctl", "vksim"}) {
      fs::copy(ProgramDirectory() + "/" + program, directory_.File(program));
    }
    fs::copy(SOURCES "/deploy/scripts", directory_.File("scripts"));
    fs::create_directory(directory_.File("data"));
    chmod(directory_.File("data").c_str(), 01777);
    directory_.Write(".vk_corvane_env", "FROM_FILE yes\nPATH /from/file\n");
    const passwd* entry = geteuid() == 0 ? getpwnam("daemon") : getpwuid(geteuid());
    account_ = entry->pw_name;
    user_ = std::to_string(entry->pw_uid);
  }

  // Nothing is left of the data.
  void TearDown() override { EXPECT_TRUE(fs::is_empty(directory_.File("data"))); }

  std::vector<std::string> Arguments(const std::string& script, const std::string& wait = "30") {
    return {directory_.File("jobmillctl"),
            "check",
            "--dry-run",
            account_,
            "--in",
            directory_.File("data"),
            "--wait",
            wait,
            "--",
            "-p",
            "5000",
            "-s",
            script};
  }

  Outcome Run(const std::vector<std::string>& arguments) {
    ChildProcess::Options options;
    options.output_file = directory_.File("out");
    options.error_file = directory_.File("err");
    options.directory = directory_.File("scripts");
    ChildProcess process(arguments, options);
    const int status = process.Wait(std::chrono::seconds(50)).value_or(-1);
    return {.status = status, .out = directory_.Read("out"), .err = directory_.Read("err")};
  }

  std::string Script(const std::string& lines) {
    std::string file = directory_.Write("script", "#!/bin/bash\n" + lines);
    chmod(file.c_str(), 0755);
    return file;
  }
  Outcome RunScript(const std::string& lines, const std::string& wait = "30") {
    return Run(Arguments(Script(lines), wait));
  }

  // The number after "pid " in what the script printed.
  static pid_t PidIn(const std::string& text) {
    return std::stoi(text.substr(text.find("pid ") + 4));
  }

  TemporaryDirectory directory_;
  std::string account_;
  std::string user_;
};

TEST_F(DryRunTest, ShippedScriptBringsTheSimulatorUpAndAllIsEnded) {
  const Outcome outcome = Run(Arguments(directory_.File("scripts/local")));
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_THAT(outcome.out, StartsWith("as " + account_ + " (" + user_ + ":"));
  EXPECT_THAT(outcome.out, EndsWith("| HOST=localhost\nthe host is 'localhost', 127.0.0.1\n"));
}

TEST_F(DryRunTest, ScriptHasWhatTheDaemonWouldGiveIt) {
  const Outcome outcome = RunScript(
      "echo \"$(id -u) $(id -G | wc -w) $FROM_FILE ${PATH%%:*} ${JOBMILL_SIMULATOR##*/} $PWD\"\n"
      "echo \"$1 $3 $5 $#\"; stat -c '%u %a' \"$2\"; ls \"$2\"; (exec 2>&- 3<&0); read -r && echo "
      "fed\n"
      "ps -o sid= $$ | grep -qw $$ && echo session\n"
      "echo HOST=127.0.0.1\n");
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("| " + user_ + " " + (geteuid() == 0 ? "1" : "")));
  EXPECT_THAT(outcome.out, HasSubstr(" yes /from/file vksim " +
                                     fs::canonical(directory_.File("scripts")).string() + "\n"));
  EXPECT_THAT(outcome.out, HasSubstr("\n| 1 DRYRUN 0 5\n| " + user_ + " 700\n| DRYRUN.afi\n"));
  EXPECT_THAT(outcome.out, Not(HasSubstr("fed")));
  EXPECT_THAT(outcome.out, HasSubstr("| session\n| HOST=127.0.0.1\n"));
}

TEST_F(DryRunTest, NothingAfterTheHostLineIsShown) {
  const Outcome outcome = RunScript("echo one; echo HOST=127.0.0.1; echo two\n");
  EXPECT_THAT(outcome.out,
              EndsWith("\n| one\n| HOST=127.0.0.1\nthe host is '127.0.0.1', 127.0.0.1\n"));
}

// Who reads the first lines alone leaves nothing behind: TearDown looks at the data.
TEST_F(DryRunTest, OutputThatNobodyReadsToItsEndEndsAll) {
  const std::string pid = directory_.Write("pid", "");
  chmod(pid.c_str(), 0666);
  std::string command;
  for (const std::string& word :
       Arguments(Script("echo $$ >" + pid + "; echo one; exec sleep 100\n"), "40")) {
    command += "'" + word + "' ";
  }
  for (const char* lines : {"1", "2"}) {
    const auto begin = std::chrono::steady_clock::now();
    // bash waits for both.
    const Outcome outcome = Run({"/bin/bash", "-c", command + "| head -n " + lines});
    EXPECT_THAT(outcome.out, StartsWith("as " + account_));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  }
  EXPECT_FALSE(IsRunning(std::stoi(directory_.Read("pid"))));
}

TEST_F(DryRunTest, ScriptWithoutHostIsRefusedAsTheDaemonDoes) {
  for (const char* lines :
       {"echo sorry\n", "printf sorry\n", "echo HOST=\n", "echo 'HOST=  '\n", "echo ' HOST=a'\n"}) {
    const Outcome outcome = RunScript(lines);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, EndsWith("\nno host: masters are told \"No host detected\"\n"));
  }
}

TEST_F(DryRunTest, LongLinesAreTakenInPieces) {
  const Outcome outcome = RunScript("printf '%01023dHOST=127.0.0.1\\n' 7\n");
  EXPECT_EQ(outcome.status, 0) << outcome.out;
  EXPECT_THAT(outcome.out, HasSubstr("007\n| HOST=127.0.0.1\n"));
}

TEST_F(DryRunTest, LastLineNeedsNoEnd) {
  EXPECT_THAT(RunScript("printf HOST=127.0.0.1\n").out, EndsWith("'127.0.0.1', 127.0.0.1\n"));
}

TEST_F(DryRunTest, HostThatIsUnknownHereIsFound) {
  const Outcome outcome = RunScript("echo 'HOST=no host'\n");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, HasSubstr("the host is 'no host', which has no IPv4 address here: "));
}

TEST_F(DryRunTest, ScriptThatTakesTooLongIsEnded) {
  const Outcome outcome = RunScript("echo \"pid $$\"; sleep 1000\n", "1");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, EndsWith("\nno host line within 1 s; a daemon would wait on\n"));
  EXPECT_FALSE(IsRunning(PidIn(outcome.out)));
}

// However much it prints meanwhile.
TEST_F(DryRunTest, ScriptThatDoesNotStopPrintingIsEndedInTime) {
  const Outcome outcome = RunScript("echo \"pid $$\"; while :; do echo x; done\n", "1");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, EndsWith("\nno host line within 1 s; a daemon would wait on\n"));
  EXPECT_FALSE(IsRunning(PidIn(outcome.out)));
}

TEST_F(DryRunTest, WhatAScriptLeavesBehindIsEnded) {
  for (const char* left : {"sleep 1000", "env -i setsid sleep 1000",
                           "bash -c 'trap \"\" TERM; while :; do sleep 1; done'"}) {
    const Outcome outcome = RunScript("(exec >/dev/null; exec " + std::string(left) +
                                      ") &\necho \"pid $!\"; sleep 0.2; echo HOST=127.0.0.1\n");
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    EXPECT_FALSE(IsRunning(PidIn(outcome.out))) << left;
  }
}

TEST_F(DryRunTest, SignalEndsAll) {
  ChildProcess::Options options;
  options.output_file = directory_.File("out");
  ChildProcess process(Arguments(Script("echo \"pid $$\"; sleep 1000\n")), options);
  ASSERT_TRUE(
      Eventually([this] { return directory_.Read("out").find("pid ") != std::string::npos; }));
  process.Signal(SIGINT);
  EXPECT_EQ(process.Wait(std::chrono::seconds(50)), 1);
  EXPECT_THAT(directory_.Read("out"), EndsWith("\ninterrupted\n"));
  EXPECT_FALSE(IsRunning(PidIn(directory_.Read("out"))));
}

// Its lines come without a pause, so that there is no wait which the signal could end.
TEST_F(DryRunTest, SignalEndsAScriptThatDoesNotStopPrinting) {
  ChildProcess::Options options;
  options.output_file = directory_.File("out");
  ChildProcess process(Arguments(Script("echo \"pid $$\"; exec yes\n"), "100"), options);
  ASSERT_TRUE(
      Eventually([this] { return directory_.Read("out").find("\n| y\n") != std::string::npos; }));
  process.Signal(SIGTERM);
  EXPECT_EQ(process.Wait(std::chrono::seconds(30)), 1);
  EXPECT_THAT(directory_.Read("out"), EndsWith("\ninterrupted\n"));
  EXPECT_FALSE(IsRunning(PidIn(directory_.Read("out"))));
}

TEST_F(DryRunTest, WhatTheScriptPrintsCommandsNoTerminal) {
  const Outcome outcome = RunScript("printf '\\033[31m\\r\\nHOST=127.0.0.1\\n'\n");
  EXPECT_THAT(outcome.out, HasSubstr("\n| \\x1b[31m\\x0d\n"));
}

TEST_F(DryRunTest, ScriptThatCannotBeExecutedSaysWhy) {
  const Outcome outcome = Run(Arguments("/no/such/script"));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "jobmillctl: the script cannot be executed: No such file or directory\n");
}

TEST_F(DryRunTest, AccountHasToBeOneThatCanRun) {
  account_ = "no-such-account";
  EXPECT_THAT(RunScript("").err, HasSubstr("Failed to get password entry for 'no-such-account'"));
  account_ = "root";
  EXPECT_THAT(RunScript("").err, HasSubstr("nothing is started as root"));
}

TEST_F(DryRunTest, NobodyButRootStartsItAsAnotherAccount) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const auto run_as = [this](const char* name) {
    const unsigned id = getpwnam(name)->pw_uid;
    ChildProcess::Options options;
    options.directory = directory_.File("scripts");
    options.in_child = [id] { return setgroups(0, nullptr) + setgid(id) + setuid(id); };
    return OutcomeOf(Arguments(Script("echo HOST=127.0.0.1\n")), options);
  };
  const Outcome other = run_as("nobody");
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.err, "jobmillctl: only root can start it as " + account_ + "\n");
  EXPECT_EQ(other.out, "");
  const Outcome own = run_as(account_.c_str());
  EXPECT_EQ(own.status, 0) << own.err;
  EXPECT_THAT(own.out, EndsWith("the host is '127.0.0.1', 127.0.0.1\n"));
}

TEST_F(DryRunTest, WhereTheAccountMayNotWriteNothingIsStarted) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  chmod(directory_.File("data").c_str(), 0755);
  const Outcome outcome = RunScript("echo HOST=127.0.0.1\n");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "jobmillctl: the account cannot make a directory in " + directory_.File("data") + "\n");
  EXPECT_EQ(outcome.out, "");
}

TEST_F(DryRunTest, ConfigurationThatCannotBeReadIsNamed) {
  const Outcome outcome =
      Run({directory_.File("jobmillctl"), "check", "--dry-run", account_, "--in",
           directory_.File("data"), "--configuration", directory_.path().string(), "nix"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "jobmillctl: cannot read " + directory_.File("nix.conf") + "\n");
}

// A terminal takes no more than it has room for, and then it goes. A line that does not fit into
// the buffer is what the system refuses to write. Nothing is left behind: TearDown looks at the
// data.
TEST_F(DryRunTest, TerminalThatGoesWhileItIsFullEndsAll) {
  int master = -1;
  int slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  Descriptor terminal(master);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  const std::string pid = directory_.Write("pid", "");
  chmod(pid.c_str(), 0666);
  ChildProcess::Options options;
  options.in_child = [slave] {
    dup2(slave, STDOUT_FILENO);
    close(slave);
    return 0;
  };
  ChildProcess process(
      Arguments(Script("echo $$ >" + pid +
                       "; for i in {1..1000}; do printf '%01022d\\n' $i; done; exec sleep 100\n"),
                "40"),
      options);
  close(slave);
  EXPECT_TRUE(Eventually([&] { return IsWriting(process.pid(), STDOUT_FILENO); }));
  terminal.Reset();
  EXPECT_EQ(process.Wait(std::chrono::seconds(20)), 1);
  EXPECT_FALSE(IsRunning(std::stoi(directory_.Read("pid"))));
}

TEST_F(DryRunTest, SimulatorThatIsMissingIsNamed) {
  fs::remove(directory_.File("vksim"));
  const Outcome outcome = RunScript("echo HOST=127.0.0.1\n");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("install jobmill-simulator"));
}

TEST_F(DryRunTest, OneDaemonAndNoJson) {
  EXPECT_EQ(Run({directory_.File("jobmillctl"), "check", "--dry-run", "daemon", "a", "b"}).status,
            2);
  EXPECT_EQ(Run({directory_.File("jobmillctl"), "check", "--dry-run", "daemon", "--json"}).status,
            2);
}

}  // namespace
