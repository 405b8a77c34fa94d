#include "daemon/answer.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/securebits.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/globals.h"
#include "daemon/manager_information.h"
#include "daemon/process.h"
#include "log/flog.h"
#include "net/socket.h"
#include "tests/support/answered_call.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"

namespace {

using std::chrono::seconds;
// NOLINTNEXTLINE(misc-unused-using-decls): clang-tidy 14 does not see that literals use it
using std::string_literals::operator""s;
using testing::HasSubstr;
using testing::Not;

// Prints a host, so that the connection child goes on to its controller.
constexpr const char* kHostScript = "#!/bin/sh\necho HOST=node17\n";

// Answer() in a process of its own, over a socket pair whose other end is the master's.
class AnswerTest : public testing::Test {
 protected:
  AnswerTest() : script_(Script(kHostScript)) {
    std::filesystem::permissions(directory_.path(), std::filesystem::perms(0777));
  }

  std::string Script(const std::string& text) const {
    std::string file = directory_.Write("script", text);
    chmod(file.c_str(), 0755);
    return file;
  }

  void Start() {
    ChildProcess::Options options;
    options.directory = directory_.path().string();
    options.output_file = directory_.File("output");
    options.in_child = [this] {
      if (prepare_child_ && !prepare_child_()) return 125;
      pair_.peer.Reset();
      strcpy(GszExePath, directory_.path().c_str());
      if (!PrepareProcess()) return 124;
      flog log(directory_.File("log"), true);
      return Answer(new CManagerInformation(script_, run_as_root_, start_timeout_, 9005, comms_log_,
                                            &log, new Socket(pair_.ours.Release())));
    };
    child_ = std::make_unique<ChildProcess>(std::vector<std::string>(), options);
    pair_.ours.Reset();
    master_ = std::make_unique<Socket>(pair_.peer.Release());
  }

  std::string Receive() {
    int length = 0;
    return master_->ReceiveLine(length);
  }
  void Send(const std::string& text) { master_->SendLine(text); }

  // The handshake to its end.
  void RequestRun() {
    Start();
    EXPECT_EQ(Receive(), "3");
    Send(answer_);
    for (const std::string& field : {cluster_, path_, root_, processes_, version_, user_, debug_}) {
      Send(field);
    }
  }

  // The line that the master gets for its run request.
  std::string Outcome() {
    RequestRun();
    return Receive();
  }

  // The connection child's exit status once the master has left.
  int Status() {
    if (master_) master_->Close();
    return child_->Wait(seconds(10)).value_or(-1);
  }

  std::string Logged() const { return directory_.Read("log"); }

  TemporaryDirectory directory_;
  SocketPair pair_;
  std::unique_ptr<ChildProcess> child_;
  std::unique_ptr<Socket> master_;
  std::function<bool()> prepare_child_;

  bool run_as_root_ = false;
  bool comms_log_ = false;
  std::int32_t start_timeout_ = 5;
  std::string script_;
  std::string answer_ = "3";
  std::string cluster_ = "0";
  std::string path_ = directory_.path().string() + "/";
  std::string root_ = "CASE";
  std::string processes_ = "4";
  std::string version_ = "20172";
  std::string user_ = "alice";
  std::string debug_ = "0";
};

TEST_F(AnswerTest, ScriptThatGetsNoPipeEndsTheConnectionWithoutAWord) {
  prepare_child_ = [] { return AnswerCall(SYS_pipe2, [] { return static_cast<long>(-EMFILE); }); };
  EXPECT_EQ(Outcome(), "");
  const int status = Status();
  if (status == 125) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(status, 1);
  EXPECT_THAT(Logged(), testing::EndsWith("\nError: pipe failed\n"));
}

TEST_F(AnswerTest, VersionIsSentFirst) {
  Start();
  EXPECT_EQ(Receive(), "3");
  EXPECT_THAT(Logged(), HasSubstr("Sending back version number: 3\n"));
}

TEST_F(AnswerTest, AnswerThatIsNoNumberAboveZeroEndsTheConnectionWithoutAWord) {
  for (const char* answer : {"0", "abc", ""}) {
    SCOPED_TRACE(answer);
    pair_ = SocketPair();
    Start();
    EXPECT_EQ(Receive(), "3");
    Send(answer);
    int length = 99;
    EXPECT_EQ(master_->ReceiveLine(length), "");
    EXPECT_EQ(length, 0);
    EXPECT_EQ(Status(), 1);
    EXPECT_THAT(Logged(), HasSubstr("Incorrect response from Corvane - no controller will be "
                                    "launched\n"));
    EXPECT_THAT(Logged(), Not(HasSubstr("Clust: ")));
  }
}

TEST_F(AnswerTest, MasterThatLeavesAtTheVersionEndsTheConnection) {
  Start();
  EXPECT_EQ(Status(), 1);
  EXPECT_THAT(Logged(), HasSubstr("Incorrect response from Corvane"));
}

TEST_F(AnswerTest, AnyOtherVersionOfTheMasterIsAccepted) {
  for (const char* answer : {"7", "9", "-1", " 3", "3x"}) {
    SCOPED_TRACE(answer);
    pair_ = SocketPair();
    answer_ = answer;
    EXPECT_THAT(Outcome(), HasSubstr("OK|"));
    EXPECT_EQ(Status(), 0);
  }
}

TEST_F(AnswerTest, RunRequestIsLoggedInItsOrder) {
  cluster_ = "0";
  Outcome();
  EXPECT_THAT(Logged(), HasSubstr("Clust: 0\nPath: " + path_ +
                                  "\nRoot: CASE\nProc: 4\nVer: 20172\n"
                                  "Windows user received: alice\nDebug flag received: 0\n"));
}

TEST_F(AnswerTest, EnvironmentIsAppliedBetweenTheRequestAndTheUser) {
  directory_.Write(".vk_corvane_env", "JT_HOME /opt/sim\nPATH /first\n");
  Script("#!/bin/sh\necho \"$JT_HOME $PATH\" >variables\necho HOST=node17\n");
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_THAT(Logged(), HasSubstr("Ver: 20172\n"
                                  "Setting non-existing environment variable JT_HOME to /opt/sim\n"
                                  "Setting existing environment variable PATH to /first:"));
  EXPECT_THAT(directory_.Read("variables"), HasSubstr("/opt/sim /first:"));
}

TEST_F(AnswerTest, WithoutRootModeNoUserIsChecked) {
  directory_.Write(".vk_corvane_users", "alice alice 0\n");
  user_ = "in no file";
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_THAT(Logged(), Not(HasSubstr("Linux user required")));
}

TEST_F(AnswerTest, MissingUserFileIsReportedWithItsPath) {
  run_as_root_ = true;
  const std::string text =
      "Could not open the user administration file: " + directory_.path().string() +
      "/./.vk_corvane_users";
  EXPECT_EQ(Outcome(), text);
  EXPECT_EQ(Status(), 1);
  EXPECT_THAT(Logged(), HasSubstr("Failed to read users administration file - " + text + "\n"));
}

TEST_F(AnswerTest, UnknownUserIsRefusedByName) {
  run_as_root_ = true;
  directory_.Write(".vk_corvane_users", "bob bob 1\n");
  EXPECT_EQ(Outcome(), "Windows user 'alice' not found in administration file");
  EXPECT_EQ(Status(), 1);
  EXPECT_THAT(Logged(), HasSubstr("Contents of user administration file:\nUser 1:\n"));
  EXPECT_THAT(Logged(), HasSubstr("\nWindows user 'alice' not found in administration file\n"));
}

TEST_F(AnswerTest, UserWithoutPermissionIsRefusedAlthoughACatchAllWouldAllow) {
  run_as_root_ = true;
  directory_.Write(".vk_corvane_users", "* * 1\nalice alice 0\n");
  EXPECT_EQ(Outcome(), "Windows user 'alice' does not have permissions to run Varnok");
  EXPECT_EQ(Status(), 1);
}

TEST_F(AnswerTest, AccountThatDoesNotExistIsRefusedByName) {
  run_as_root_ = true;
  directory_.Write(".vk_corvane_users", "alice no_such_account 1\n");
  EXPECT_EQ(Outcome(), "Failed to get password entry for 'no_such_account'");
  EXPECT_EQ(Status(), 1);
  EXPECT_THAT(Logged(), HasSubstr("Linux user required: no_such_account\n"
                                  "Failed to get password entry for 'no_such_account'\n"));
}

TEST_F(AnswerTest, StarAccountIsTheWindowsNameInItsReceivedCase) {
  run_as_root_ = true;
  user_ = "No_Such_Account";
  directory_.Write(".vk_corvane_users", "no_such_account * 1\n");
  EXPECT_EQ(Outcome(), "Failed to get password entry for 'No_Such_Account'");
}

TEST_F(AnswerTest, LongAndStrangeUserNamesAreOnlyText) {
  run_as_root_ = true;
  user_ = std::string(30'000, 'u') + "%n%s";
  directory_.Write(".vk_corvane_users", "bob bob 1\n");
  EXPECT_EQ(Outcome(), "Windows user '" + user_ + "' not found in administration file");
}

TEST_F(AnswerTest, NameInARefusalEndsAtItsZeroByteAsItDoesForTheLookUp) {
  run_as_root_ = true;
  user_ = std::string("ali\0ce", 6);
  directory_.Write(".vk_corvane_users", "bob bob 1\n");
  EXPECT_EQ(Outcome(), "Windows user 'ali' not found in administration file");
}

// Account switching with accounts of the test's own: the child sees a password file that exists
// for it alone.
class AccountTest : public AnswerTest {
 protected:
  static constexpr uid_t kUser = 61234;
  static constexpr gid_t kGroup = 61235;

  void SetUp() override {
    if (getuid() != 0) GTEST_SKIP() << "switching accounts needs root";
    ChildProcess::Options options;
    options.in_child = [] { return unshare(CLONE_NEWNS) == 0 ? 0 : 1; };
    ChildProcess probe({}, options);
    if (probe.Wait(seconds(10)) != 0) GTEST_SKIP() << "no private mounts on this machine";
    run_as_root_ = true;
    directory_.Write("passwd",
                     "root:x:0:0::/root:/bin/sh\n"
                     "runner:x:61234:61235::/:/bin/sh\n"
                     "ownid:x:61234:1::/:/bin/sh\n"
                     "badgroup:x:61234:4294967295::/:/bin/sh\n");
    prepare_child_ = [this] { return HidePasswords(); };
    Script("#!/bin/sh\ngrep -E '^(Uid|Gid|Groups):' /proc/self/status >ids\necho HOST=node17\n");
  }

  bool HidePasswords() const {
    return unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(directory_.File("passwd").c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0;
  }

  // The child is then not root, whatever the daemon's options say.
  void DropRootBefore() {
    prepare_child_ = [this] {
      return HidePasswords() && setgroups(0, nullptr) == 0 && setgid(kGroup) == 0 &&
             setuid(kUser) == 0;
    };
  }
};

TEST_F(AccountTest, RunBelongsToTheMappedAccountForGood) {
  directory_.Write(".vk_corvane_users", "alice runner 1\n");
  user_ = "ALICE";
  EXPECT_EQ(Outcome(), std::string("OK|node17\0", 10));
  EXPECT_THAT(Logged(), HasSubstr("Linux user required: runner\n"));
  // Real, effective, saved and file-system ids alike.
  EXPECT_THAT(directory_.Read("ids"), HasSubstr("Uid:\t61234\t61234\t61234\t61234\n"
                                                "Gid:\t61235\t61235\t61235\t61235\n"));
  EXPECT_EQ(StatusValue(child_->pid(), "Uid"), 61234);
  EXPECT_EQ(StatusValue(child_->pid(), "Gid"), 61235);
}

TEST_F(AccountTest, CatchAllMapsAnyUser) {
  directory_.Write(".vk_corvane_users", "* runner 1\n");
  user_ = "whoever";
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_THAT(directory_.Read("ids"), HasSubstr("Uid:\t61234\t"));
}

TEST_F(AccountTest, CatchAllWithStarMapsToTheSameName) {
  directory_.Write(".vk_corvane_users", "* * 1\n");
  user_ = "runner";
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_THAT(directory_.Read("ids"), HasSubstr("Uid:\t61234\t"));
}

TEST_F(AccountTest, SupplementaryGroupsStayThoseOfTheDaemon) {
  prepare_child_ = [this] {
    const std::array<gid_t, 2> groups = {5, 7};
    return HidePasswords() && setgroups(groups.size(), groups.data()) == 0;
  };
  directory_.Write(".vk_corvane_users", "alice runner 1\n");
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_THAT(directory_.Read("ids"), HasSubstr("Groups:\t5 7"));
}

TEST_F(AccountTest, CommsLogAndClusterCopyBelongToTheAccount) {
  directory_.Write(".vk_corvane_users", "alice runner 1\n");
  directory_.Write("CASE.afi", "deck");
  comms_log_ = true;
  cluster_ = "3";
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_EQ(Status(), 0);
  for (const char* name : {"CASE_3.afi", "CASE_3.crvnlog"}) {
    struct stat status {};
    ASSERT_EQ(stat(directory_.File(name).c_str(), &status), 0) << name;
    EXPECT_EQ(status.st_uid, kUser) << name;
  }
}

TEST_F(AccountTest, RefusedGroupChangeIsLoggedAndTheLaunchGoesOn) {
  DropRootBefore();
  directory_.Write(".vk_corvane_users", "alice ownid 1\n");
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_THAT(Logged(), HasSubstr("Linux user required: ownid\nFailed to set the group ID - 1\n"));
}

TEST_F(AccountTest, ImpossibleGroupIsLoggedAndTheLaunchGoesOn) {
  directory_.Write(".vk_corvane_users", "alice badgroup 1\n");
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_THAT(Logged(), HasSubstr("Failed to set the group ID - 2\n"));
  EXPECT_THAT(directory_.Read("ids"), HasSubstr("Uid:\t61234\t"));
}

TEST_F(AccountTest, RefusedUserChangeIsReportedWithItsNumber) {
  DropRootBefore();
  directory_.Write(".vk_corvane_users", "alice root 1\n");
  EXPECT_EQ(Outcome(), "Failed to set user ID for Tolmen job - error = 1");
  EXPECT_EQ(Status(), 1);
  EXPECT_THAT(Logged(), HasSubstr("\nFailed to set user ID for Tolmen job - error = 1\n"));
}

constexpr const char* kNotSwitched = "Failed to set user ID for Tolmen job - error = 1";

TEST_F(AccountTest, RealIdOfRootThatStaysBehindIsARefusal) {
  prepare_child_ = [this] { return HidePasswords() && setresuid(0, kUser, kUser) == 0; };
  directory_.Write(".vk_corvane_users", "alice runner 1\n");
  EXPECT_EQ(Outcome(), kNotSwitched);
  EXPECT_EQ(Status(), 1);
  EXPECT_EQ(directory_.Read("ids"), "");
}

TEST_F(AccountTest, CapabilitiesThatOutliveTheSwitchAreARefusal) {
  prepare_child_ = [this] {
    return HidePasswords() && prctl(PR_SET_SECUREBITS, SECBIT_NO_SETUID_FIXUP) == 0;
  };
  directory_.Write(".vk_corvane_users", "alice runner 1\n");
  EXPECT_EQ(Outcome(), kNotSwitched);
  EXPECT_EQ(Status(), 1);
  EXPECT_EQ(directory_.Read("ids"), "");
}

TEST_F(AccountTest, AccountOfRootStaysRoot) {
  directory_.Write(".vk_corvane_users", "alice root 1\n");
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_THAT(directory_.Read("ids"), HasSubstr("Uid:\t0\t0\t0\t0\n"));
}

class LaunchByAnswerTest : public AnswerTest {
 protected:
  // The outcome with a script that prints this.
  std::string OutcomeOfPrinting(const std::string& format) {
    Script("#!/bin/sh\nprintf '" + format + "'\n");
    return Outcome();
  }
};

TEST_F(LaunchByAnswerTest, HostIsSentWithAZeroByteInThePlaceOfItsNewline) {
  EXPECT_EQ(OutcomeOfPrinting("starting\\nstill starting\\nHOST=node17\\nlater\\n"),
            std::string("OK|node17\0", 10));
  EXPECT_THAT(Logged(), HasSubstr("starting\nstill starting\nHOST=node17\nHost detected: " +
                                  std::string("node17\0\n", 8)));
  EXPECT_THAT(Logged(), Not(HasSubstr("later")));
}

TEST_F(LaunchByAnswerTest, HostWithoutNewlineIsSentWhole) {
  EXPECT_EQ(OutcomeOfPrinting("HOST=node17"), "OK|node17");
}

// A line is read up to 1,023 bytes; what is after them is the next one.
TEST_F(LaunchByAnswerTest, NewlineOfAHostThatFillsTheLineIsNotItsOwn) {
  const std::string longest(1023 - strlen("HOST=\n"), 'h');
  EXPECT_EQ(OutcomeOfPrinting("HOST=" + longest + "\\n"), "OK|" + longest + '\0');
  pair_ = SocketPair();
  EXPECT_EQ(OutcomeOfPrinting("HOST=" + longest + "x\\n"), "OK|" + longest + "x");
}

// The start time-out is for the simulator; the job may be queued for days before.
TEST_F(LaunchByAnswerTest, StartTimeoutDoesNotBoundTheWaitForTheHost) {
  start_timeout_ = 1;
  Script("#!/bin/sh\nsleep 1.5\necho HOST=node17\n");
  EXPECT_EQ(Outcome(), "OK|node17\0"s);
}

TEST_F(LaunchByAnswerTest, HostLineMustBeginWithItsWord) {
  EXPECT_EQ(OutcomeOfPrinting(" HOST=a\\nhost=b\\nXHOST=c\\nHOST=d\\n"), std::string("OK|d\0", 5));
}

TEST_F(LaunchByAnswerTest, LineOfAnyLengthBeforeTheHostIsLoggedWhole) {
  const std::string line(5000, 'x');
  EXPECT_EQ(OutcomeOfPrinting(line + "\\nHOST=d\\n"), std::string("OK|d\0", 5));
  EXPECT_THAT(Logged(), HasSubstr(line + "\nHOST=d\n"));
}

TEST_F(LaunchByAnswerTest, MissingHostIsReportedAndEndsTheConnection) {
  for (const char* printed :
       {"", "no host here\\n", "HOST=\\n", "HOST=", "HOST=   ", "HOST=   \\n", "HOST"}) {
    SCOPED_TRACE(printed);
    pair_ = SocketPair();
    EXPECT_EQ(OutcomeOfPrinting(printed), "No host detected");
    EXPECT_EQ(Receive(), "");
    EXPECT_EQ(Status(), 1);
    EXPECT_THAT(Logged(), HasSubstr("No host detected, exiting.\n"));
  }
}

TEST_F(LaunchByAnswerTest, ScriptThatCannotBeExecutedHasNoHost) {
  const std::string plain = directory_.Write("plain", "no program\n");
  for (const std::string& script : {directory_.File("absent"), plain, directory_.path().string()}) {
    SCOPED_TRACE(script);
    pair_ = SocketPair();
    script_ = script;
    EXPECT_EQ(Outcome(), "No host detected");
    EXPECT_EQ(Status(), 1);
    EXPECT_THAT(Logged(), Not(HasSubstr("Error from execv")));  // the log is silent by then
  }
}

TEST_F(LaunchByAnswerTest, ScriptGetsTheRunAsItsArguments) {
  Script("#!/bin/sh\nprintf '%s\\n' \"$0\" \"$#\" \"$@\" >arguments\necho HOST=node17\n");
  processes_ = "4x";
  debug_ = "debug flag";
  Outcome();
  EXPECT_EQ(directory_.Read("arguments"),
            script_ + "\n5\n4\n" + path_ + "\nCASE\n9005\ndebug flag\n");
  EXPECT_THAT(Logged(),
              HasSubstr("Argument list\nArg 1: " + script_ + "\nArg 2: 4\nArg 3: " + path_ +
                        "\nArg 4: CASE\nArg 5: 9005\nArg 6: debug flag\n"
                        "Arg 7: "));
}

TEST_F(LaunchByAnswerTest, EmptyProcessCountIsZero) {
  Script("#!/bin/sh\necho \"processes $1\" >arguments\necho HOST=node17\n");
  processes_ = "";
  Outcome();
  EXPECT_EQ(directory_.Read("arguments"), "processes 0\n");
}

TEST_F(LaunchByAnswerTest, ClusterRunHasItsOwnInputAndRoot) {
  directory_.Write("CASE.afi", "deck");
  Script("#!/bin/sh\necho \"root $3\" >arguments\necho HOST=node17\n");
  cluster_ = "3";
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_EQ(directory_.Read("CASE_3.afi"), "deck");
  EXPECT_EQ(directory_.Read("arguments"), "root CASE_3\n");
}

TEST_F(LaunchByAnswerTest, ScriptHasThreeDescriptorsAndFreeSignals) {
  // A shell keeps the script it reads at 10 or above.
  Script(
      "#!/bin/sh\nls /proc/$$/fd >descriptors\ngrep ^Sig /proc/self/status >signals\n"
      "echo HOST=node17\n");
  // As started by something careless: a signal blocked, a descriptor left open.
  prepare_child_ = [] {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    return sigprocmask(SIG_BLOCK, &blocked, nullptr) == 0 && dup2(0, 7) == 7;
  };
  Outcome();
  std::vector<int> low;
  std::istringstream numbers(directory_.Read("descriptors"));
  for (int number = 0; numbers >> number;) {
    if (number < 10) low.push_back(number);
  }
  EXPECT_EQ(low, (std::vector<int>{0, 1, 2}));
  const std::string signals = directory_.Read("signals");
  const auto mask = [&signals](const std::string& name) {
    return std::stoull(signals.substr(signals.find(name) + name.size()), nullptr, 16);
  };
  EXPECT_EQ(mask("SigBlk:"), 0U);
  EXPECT_EQ(mask("SigIgn:") & ((1ULL << (SIGPIPE - 1)) | (1ULL << (SIGCHLD - 1))), 0U);
}

// A shell unblocks by itself.
TEST_F(LaunchByAnswerTest, ProgramInPlaceOfAScriptHasFreeSignals) {
  Script(
      "#!/usr/bin/awk -f\nBEGIN {\n  while ((getline line <\"/proc/self/status\") > 0) "
      "print line >\"signals\"\n  print \"HOST=node17\"\n  exit\n}\n");
  prepare_child_ = [] {
    // Whoever has started the tests, in the background for example, may have had some ignored.
    for (int number = 1; number < SIGRTMIN; ++number) signal(number, SIG_DFL);
    signal(SIGXFSZ, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    return sigprocmask(SIG_BLOCK, &blocked, nullptr) == 0;
  };
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  const std::string signals = directory_.Read("signals");
  EXPECT_THAT(signals, HasSubstr("SigBlk:\t0000000000000000\n"));
  EXPECT_THAT(signals, HasSubstr("SigIgn:\t0000000000000000\n"));
}

TEST_F(LaunchByAnswerTest, ScriptHasThreeDescriptorsOnAKernelThatCannotCloseARange) {
  Script("#!/bin/sh\nls /proc/$$/fd >descriptors\necho HOST=node17\n");
  prepare_child_ = [] {
    return dup2(0, 7) == 7 &&
           AnswerCall(SYS_close_range, [] { return static_cast<long>(-ENOSYS); });
  };
  Outcome();
  if (Status() == 125) GTEST_SKIP() << "system calls cannot be answered here";
  const std::string descriptors = directory_.Read("descriptors");
  EXPECT_THAT(descriptors, testing::StartsWith("0\n1\n"));
  EXPECT_THAT(descriptors, Not(HasSubstr("7\n")));
}

// A process that can open the terminal can type at it in root's name.
TEST_F(LaunchByAnswerTest, ScriptHasASessionOfItsOwnWithoutTheDaemonsTerminal) {
  Script(
      "#!/bin/sh\ncut -d' ' -f1,5,6,7 /proc/$$/stat >session\n"
      "(: </dev/tty) 2>/dev/null && echo terminal >>session\necho HOST=node17\n");
  prepare_child_ = [] {
    const pid_t daemon = fork();  // what leads a group cannot begin a session
    if (daemon > 0) {
      syscall(SYS_close_range, 3, ~0U, 0);  // the master's end, above all
      int status = 0;
      waitpid(daemon, &status, 0);
      _exit(WEXITSTATUS(status));
    }
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    return setsid() > 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0 &&
           open(ptsname(terminal), O_RDWR | O_CLOEXEC) >= 0 &&
           open("/dev/tty", O_RDWR | O_CLOEXEC) >= 0;
  };
  const std::string outcome = Outcome();
  if (Status() == 125) GTEST_SKIP() << "no terminal on this machine";
  EXPECT_EQ(outcome, "OK|node17\0"s);
  std::istringstream session(directory_.Read("session"));
  std::array<int, 3> ids{};
  std::string rest;
  session >> ids[0] >> ids[1] >> ids[2];
  std::getline(session, rest, '\0');
  EXPECT_THAT(ids, testing::Each(ids[0]));
  EXPECT_EQ(rest, " 0\n");  // no terminal, nor one to be opened
}

TEST_F(LaunchByAnswerTest, MasterSeesTheEndOfTheControllerAlthoughTheScriptLivesOn) {
  Script("#!/bin/sh\necho HOST=node17\nexec sleep 60\n");
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  kill(child_->pid(), SIGKILL);
  int length = 99;
  EXPECT_EQ(master_->ReceiveLine(length), "");
  EXPECT_EQ(length, 0);
}

TEST_F(LaunchByAnswerTest, FinishedScriptLeavesNoZombie) {
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_TRUE(Eventually([this] { return ChildrenOf(child_->pid()).empty(); }));
}

TEST_F(LaunchByAnswerTest, ShutdownEndsTheRunNaturally) {
  comms_log_ = true;
  path_ = directory_.path().string() + "/run";
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  Send(Bytes("f0 ff 00 00"));
  EXPECT_EQ(Hex(Receive()), "f0 ff 00 00 00 00 00 00");
  EXPECT_EQ(Status(), 0);
  // Beside the directory: path and root name are joined without a separator.
  EXPECT_EQ(directory_.Read("runCASE.crvnlog"),
            "Received header: 65520\nShutting down\n"
            "Process loop has exited naturally, going to sleep again ... \n");
}

TEST_F(LaunchByAnswerTest, NameWithAZeroByteHasNoCommsLog) {
  comms_log_ = true;
  const std::string victim = directory_.Write("victim", "precious");
  const std::string directory = path_;
  for (const auto& [path, cluster, root] :
       {std::array{directory, "0"s, "victim\0"s}, std::array{victim + "\0/"s, "0"s, "CASE"s},
        std::array{directory, "1\0"s, "victim"s}, std::array{directory, "0"s, "\0CASE"s}}) {
    SCOPED_TRACE(Hex(path + root));
    directory_.Write("victim_1", "precious");
    pair_ = SocketPair();
    path_ = path;
    root_ = root;
    cluster_ = cluster;
    EXPECT_THAT(Outcome(), HasSubstr("OK|"));
    Send(Bytes("f0 ff 00 00"));
    EXPECT_EQ(Hex(Receive()), "f0 ff 00 00 00 00 00 00");
    EXPECT_EQ(Status(), 0);
    EXPECT_EQ(directory_.Read("victim"), "precious");
    EXPECT_EQ(directory_.Read("victim_1"), "precious");
    EXPECT_THAT(Logged(), Not(HasSubstr("Process loop")));
    EXPECT_THAT(directory_.Read("output"), Not(HasSubstr("Process loop")));
  }
}

TEST_F(LaunchByAnswerTest, FailedRequestEndsTheRunWithItsReasonInTheCommsLog) {
  comms_log_ = true;
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  Send(Bytes("11 00 00 00"));
  EXPECT_EQ(Receive(), "");
  EXPECT_EQ(Status(), 0);
  EXPECT_THAT(directory_.Read("CASE.crvnlog"),
              HasSubstr("Request process loop failed: Failed to handle data packet received from "
                        "master: Exception returned from VK controller: Not connected to the "
                        "simulator\n"));
}

TEST_F(LaunchByAnswerTest, ConnectorVersionIsTheNumberThatTheTextBeginsWith) {
  // Nothing is asked of a simulator for it in one version, in the other there is none to ask.
  const std::string set_source = Bytes("12 00 00 00  01 00 00 00 57  01 00 00 00 53");
  for (const auto& [version, is_first] : {std::pair("20162", true),
                                          {" 20162", true},
                                          {"20162x", true},
                                          {"\t+20162.9", true},
                                          {"020162", true},
                                          {"20172", false},
                                          {"", false},
                                          {"x20162", false},
                                          {"2016", false},
                                          {"201620", false},
                                          {"20163", false},
                                          {"-20162", false}}) {
    SCOPED_TRACE(version);
    pair_ = SocketPair();
    version_ = version;
    EXPECT_THAT(Outcome(), HasSubstr("OK|"));
    Send(set_source);
    EXPECT_EQ(Hex(Receive()), is_first ? "12 00 00 00 00 00 00 00 00 00 00 00" : "");
    EXPECT_EQ(Status(), 0);
  }
}

TEST_F(LaunchByAnswerTest, MasterThatLeavesDuringTheRunEndsIt) {
  comms_log_ = true;
  EXPECT_THAT(Outcome(), HasSubstr("OK|"));
  EXPECT_EQ(Status(), 0);
  EXPECT_EQ(directory_.Read("CASE.crvnlog"),
            "No or unexpected data received from Corvane\n"
            "Request process loop failed: No or unexpected data received from Corvane\n");
}

TEST_F(LaunchByAnswerTest, WithoutTheCommsLogTheOutcomeIsWrittenNowhere) {
  for (const bool shutdown : {true, false}) {
    pair_ = SocketPair();
    EXPECT_THAT(Outcome(), HasSubstr("OK|"));
    if (shutdown) {
      Send(Bytes("f0 ff 00 00"));
      EXPECT_EQ(Hex(Receive()), "f0 ff 00 00 00 00 00 00");
    }
    EXPECT_EQ(Status(), 0);
    EXPECT_FALSE(std::filesystem::exists(directory_.File("CASE.crvnlog")));
    for (const std::string& written : {Logged(), directory_.Read("output")}) {
      EXPECT_THAT(written, Not(HasSubstr("Process loop")));
      EXPECT_THAT(written, Not(HasSubstr("process loop")));
      EXPECT_THAT(written, Not(HasSubstr("Received header")));
    }
  }
}

}  // namespace
