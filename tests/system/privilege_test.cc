// The daemon as root, and the accounts to which it switches its runs.

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/keyctl.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/refused_calls.h"
#include "tests/support/running_daemon.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/traced_process.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
// NOLINTNEXTLINE(misc-unused-using-decls): clang-tidy 14 does not see that literals use it
using std::string_literals::operator""s;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kShutdown = "f0 ff 00 00";
constexpr const char* kShutDown = "f0 ff 00 00 00 00 00 00";
const std::string kHost("OK|node17\0", 10);

// A line of /proc/PID/status.
std::string StatusLine(pid_t pid, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with(name + ":"))
      return line.substr(line.find_first_not_of("\t ", name.size() + 1));
  }
  return "no " + name;
}

// The number of the terminal that controls a process; 0: none.
int TerminalOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text, ')');
  int terminal = -1;
  file >> text >> text >> text >> text >> terminal;  // state, parent, group, session
  return terminal;
}

// "UID:GID MODE" of a file.
std::string Ownership(const std::string& file) {
  struct stat status {};
  if (lstat(file.c_str(), &status) != 0) return "absent";
  std::array<char, 64> text{};
  snprintf(text.data(), text.size(), "%u:%u %03o", status.st_uid, status.st_gid,
           status.st_mode & 0777U);
  return text.data();
}

bool DropFromBoundingSet(const std::function<bool(int)>& drop) {
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
    if (drop(capability) && prctl(PR_CAPBSET_DROP, capability) != 0) return false;
  }
  return true;
}

// Accounts of the test's own: the daemon and its children see a password and a group file that
// exist for them alone.
class PrivilegeTest : public testing::Test {
 protected:
  static constexpr const char* kRunner = "61234\t61234\t61234\t61234";
  static constexpr const char* kRunnersGroup = "61235\t61235\t61235\t61235";

  void SetUp() override {
    if (getuid() != 0) GTEST_SKIP() << "switching accounts needs root";
    ChildProcess::Options options;
    options.in_child = [] { return unshare(CLONE_NEWNS) == 0 ? 0 : 1; };
    if (ChildProcess({}, options).Wait(seconds(10)) != 0) {
      GTEST_SKIP() << "no private mounts on this machine";
    }
    accounts_.Write("passwd", kAccounts);
    accounts_.Write("group", "root:x:0:\nrunner:x:61235:\nother:x:61237:\nteam:x:61240:runner\n");
    fs::permissions(data_.path(), fs::perms(0777));
    options_.arguments = {"-l", "-o", "9005"};
    options_.users = "alice runner 1\nbob other 1\n";
    options_.script =
        "#!/bin/sh\ncd \"$2\"\ngrep -E '^(Uid|Gid|Groups):' /proc/self/status >ids\n"
        "echo HOST=node17\n";
  }

  // Starts the daemon as root, after `prepare`.
  void Start(const std::function<bool()>& prepare = nullptr) {
    options_.in_child = [this, prepare] {
      umask(022);
      return ShowAccounts() && (!prepare || prepare()) ? 0 : 1;
    };
    daemon_ = std::make_unique<RunningDaemon>(options_);
  }

  bool ShowAccounts() const {
    return unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(accounts_.File("passwd").c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0 &&
           mount(accounts_.File("group").c_str(), "/etc/group", nullptr, MS_BIND, nullptr) == 0;
  }

  // What the next master gets, which then stays.
  std::string Outcome(const std::string& user = "alice", const std::string& cluster = "0",
                      const std::string& root = "CASE") {
    master_ = std::make_unique<TestMaster>(daemon_->port());
    master_->RequestRun({cluster, data_.path().string() + "/", root, "1", "20172", user});
    return master_->Receive();
  }

  // The only connection child.
  pid_t Controller() const {
    EXPECT_TRUE(Eventually([this] { return ChildrenOf(daemon_->pid()).size() == 1; }));
    const std::vector<pid_t> children = ChildrenOf(daemon_->pid());
    return children.empty() ? -1 : children[0];
  }

  void ExpectNextMasterServed() {
    EXPECT_EQ(Outcome(), kHost);
    EXPECT_EQ(master_->Ask(kShutdown), kShutDown);
  }

  static constexpr const char* kAccounts =
      "root:x:0:0::/root:/bin/sh\n"
      "runner:x:61234:61235::/:/bin/sh\n"
      "other:x:61236:61237::/:/bin/sh\n";
  TemporaryDirectory accounts_;
  TemporaryDirectory data_;
  RunningDaemon::Options options_;
  std::unique_ptr<RunningDaemon> daemon_;
  std::unique_ptr<TestMaster> master_;
};

TEST_F(PrivilegeTest, ControllerHasTheAccountsIdsAndNoCapabilityAndTheDaemonStaysRoot) {
  Start();
  ASSERT_EQ(Outcome(), kHost);
  const pid_t controller = Controller();
  // Real, effective, saved and file-system id.
  EXPECT_EQ(StatusLine(controller, "Uid"), kRunner);
  EXPECT_EQ(StatusLine(controller, "Gid"), kRunnersGroup);
  for (const char* set : {"CapPrm", "CapEff", "CapAmb", "CapInh"}) {
    EXPECT_EQ(StatusLine(controller, set), "0000000000000000") << set;
  }
  // The account's other processes can neither trace it nor read its memory.
  EXPECT_EQ(Ownership("/proc/" + std::to_string(controller) + "/mem"), "0:0 600");
  EXPECT_EQ(StatusLine(daemon_->pid(), "Uid"), "0\t0\t0\t0");
  EXPECT_EQ(StatusLine(daemon_->pid(), "Gid"), "0\t0\t0\t0");
}

#if defined(__x86_64__)
TEST_F(PrivilegeTest, ControllerCannotBecomeRootAgain) {
  Start();
  ASSERT_EQ(Outcome(), kHost);
  const pid_t controller = Controller();
  const std::string receiving = std::to_string(SYS_recvfrom) + " ";
  ASSERT_TRUE(Eventually([&] {
    std::ifstream file("/proc/" + std::to_string(controller) + "/syscall");
    std::string call;
    return std::getline(file, call) && call.starts_with(receiving);
  }));
  {
    StoppedProcess process(controller);
    if (!process.stopped()) GTEST_SKIP() << "no process may be traced on this machine";
    EXPECT_EQ(process.Call(SYS_getuid, {}), 61234);  // its calls can be made
    const std::vector<std::pair<const char*, long>> attempts = {
        {"setuid", SYS_setuid}, {"setreuid", SYS_setreuid}, {"setresuid", SYS_setresuid},
        {"setgid", SYS_setgid}, {"setregid", SYS_setregid}, {"setresgid", SYS_setresgid}};
    for (const auto& [name, number] : attempts) {
      EXPECT_EQ(process.Call(number, {0, 0, 0}), -EPERM) << name;
    }
    EXPECT_EQ(process.Call(SYS_setresuid, {-1, 0, -1}), -EPERM);  // the effective id alone
    EXPECT_EQ(process.Call(SYS_setgroups, {0, 0, 0}), -EPERM);
    EXPECT_EQ(process.Call(SYS_setfsuid, {0, 0, 0}), 61234);  // what it was, and still is:
    EXPECT_EQ(process.Call(SYS_setfsuid, {0, 0, 0}), 61234);
  }
  EXPECT_EQ(StatusLine(controller, "Uid"), kRunner);
  EXPECT_EQ(StatusLine(controller, "Gid"), kRunnersGroup);
  EXPECT_EQ(master_->Ask(kShutdown), kShutDown);  // it has taken no harm
}
#endif

// A program that tries what the distribution script must not be able to do.
class ClimberTest : public PrivilegeTest {
 protected:
  std::string OutcomeOfClimbing(const std::function<bool()>& prepare = nullptr) {
    fs::permissions(programs_.path(), fs::perms(0755));
    fs::copy_file(ProgramDirectory() + "/climber", programs_.File("climber"));
    options_.script.clear();
    options_.arguments = {"-s", programs_.File("climber")};
    Start(prepare);
    return Outcome();
  }

  TemporaryDirectory programs_;
};

TEST_F(ClimberTest, ScriptCannotBecomeRootAgain) {
  EXPECT_EQ(OutcomeOfClimbing(), kHost);
  EXPECT_THAT(daemon_->Logged(),
              HasSubstr("setuid: refused\nseteuid: refused\nsetreuid: refused\n"
                        "setresuid: refused\nsetgid: refused\nsetegid: refused\n"
                        "setregid: refused\nsetresgid: refused\nsetgroups: refused\n"
                        "shadow: refused\nids: 61234 61234 61235 61235\nHOST=node17\n"));
}

// Puts a key into a session keyring of this process.
bool AddSessionKey() {
  return syscall(SYS_keyctl, KEYCTL_JOIN_SESSION_KEYRING, nullptr) > 0 &&
         syscall(SYS_add_key, "user", "jobmill-test", "secret", 6UL, KEY_SPEC_SESSION_KEYRING) > 0;
}

TEST_F(ClimberTest, ScriptDoesNotGetTheKeysOfTheDaemonsSession) {
  ChildProcess::Options probe;
  probe.in_child = [] { return AddSessionKey() ? 0 : 1; };
  if (ChildProcess({}, probe).Wait(seconds(10)) != 0) {
    GTEST_SKIP() << "no keyrings on this machine";
  }
  EXPECT_EQ(OutcomeOfClimbing(AddSessionKey), kHost);
  EXPECT_THAT(daemon_->Logged(), HasSubstr("key: refused\nown key: DONE\n"));
}

TEST_F(ClimberTest, KernelWithoutKeyringsIsNoReasonToRefuseARun) {
  EXPECT_EQ(OutcomeOfClimbing([] { return RefuseCalls({{SYS_keyctl, ENOSYS}}); }), kHost);
}

// What has a terminal can type at it, and any process of the account can make cp do so.
TEST_F(PrivilegeTest, CopyHasNoTerminal) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) {
    GTEST_SKIP() << "no terminal on this machine";
  }
  const std::string line = ptsname(terminal);
  const TemporaryDirectory programs;
  fs::permissions(programs.path(), fs::perms(0755));
  programs.Write("cp", "#!/bin/sh\n(: </dev/tty) 2>/dev/null && echo terminal || echo none\n");
  fs::permissions(programs.File("cp"), fs::perms(0755));
  options_.environment = "PATH " + programs.path().string();
  data_.Write("CASE.afi", "deck");
  Start([&line] {
    // What leads a group cannot begin a session, so this process leaves its own for another one.
    // The parent may still make it lead one.
    const pid_t other = fork();
    if (other < 0) return false;
    if (other == 0) {
      pause();
      _exit(0);
    }
    setpgid(other, other);
    while (setsid() < 0 && setpgid(0, other) == 0) {
    }
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    return close(open(line.c_str(), O_RDWR)) == 0;
  });
  ASSERT_NE(TerminalOf(daemon_->pid()), 0);
  ASSERT_EQ(Outcome("alice", "3"), kHost);
  EXPECT_EQ(TerminalOf(Controller()), 0);
  EXPECT_THAT(daemon_->Logged(), HasSubstr("\nnone\nCopy succeeded\n"));
  EXPECT_EQ(master_->Ask(kShutdown), kShutDown);
  daemon_.reset();
  close(terminal);
}

TEST_F(PrivilegeTest, WhatTheRunWritesBelongsToTheAccountAndTheDaemonsLogToRoot) {
  data_.Write("CASE.afi", "deck");
  Start();
  ASSERT_EQ(Outcome("alice", "3"), kHost);
  EXPECT_EQ(master_->Ask(kShutdown), kShutDown);
  EXPECT_EQ(Ownership(data_.File("CASE_3.crvnlog")), "61234:61235 666");
  EXPECT_EQ(Ownership(data_.File("CASE_3.afi")), "61234:61235 644");
  EXPECT_EQ(data_.Read("CASE_3.afi"), "deck");
  EXPECT_EQ(Ownership(data_.File("ids")), "61234:61235 644");
  EXPECT_EQ(Ownership(daemon_->LogFile()), "0:0 666");
}

// The data directory is a stranger's, and she names somebody else as the user.
TEST_F(PrivilegeTest, CopyNeitherReadsNorWritesThroughWhatAStrangerHasPlanted) {
  const TemporaryDirectory victims;
  fs::permissions(victims.path(), fs::perms(0755));
  for (const char* name : {"read", "written"}) {
    ASSERT_EQ(chown(victims.Write(name, "precious").c_str(), 61234, 61235), 0);
    fs::permissions(victims.File(name), fs::perms(0600));
  }
  ASSERT_EQ(chown(data_.path().c_str(), 61236, 61237), 0);
  const auto plant = [&](const std::string& name, const std::string& target) {
    fs::create_symlink(target, data_.File(name));
    ASSERT_EQ(lchown(data_.File(name).c_str(), 61236, 61237), 0);
  };
  plant("LEAK.afi", victims.File("read"));
  data_.Write("CASE.afi", "deck");
  plant("CASE_3.afi", victims.File("written"));
  ASSERT_EQ(mkfifo(data_.File("HOLD.afi").c_str(), 0666), 0);
  fs::create_directory(data_.path() / "CASE_1");
  options_.script = "#!/bin/sh\necho HOST=node17\n";
  Start();
  const std::string elsewhere = "1/../../" + victims.path().filename().string() + "/written";
  for (const auto& [root, cluster] :
       {std::pair("LEAK"s, "3"s), {"CASE", "3"}, {"HOLD", "3"}, {"CASE", elsewhere + "\0"s}}) {
    SCOPED_TRACE(testing::Message() << root << " " << cluster);
    ASSERT_EQ(Outcome("alice", cluster, root), kHost);
    EXPECT_EQ(master_->Ask(kShutdown), kShutDown);
  }
  EXPECT_EQ(Ownership(data_.File("LEAK_3.afi")), "absent");
  EXPECT_EQ(Ownership(data_.File("CASE_3.afi")), "61234:61235 644");
  EXPECT_EQ(Ownership(data_.File("HOLD_3.afi")), "absent");
  EXPECT_EQ(victims.Read("written"), "precious");
  EXPECT_TRUE(Eventually([this] { return ChildrenOf(daemon_->pid()).empty(); }));
}

TEST_F(PrivilegeTest, LogDirectoryThatTheAccountCannotEnterStillTakesTheRunsLines) {
  Start([] { return mount("none", "/var/log", "tmpfs", 0, "mode=0750") == 0; });
  ASSERT_EQ(Outcome(), kHost);
  const std::string log = daemon_->TextOfLogFile();
  EXPECT_THAT(log, HasSubstr("\nHost detected: node17"));
  EXPECT_EQ(log, daemon_->Logged());
}

TEST_F(PrivilegeTest, NothingIsWrittenWhereTheAccountMayNotAndTheRunGoesOn) {
  data_.Write("CASE.afi", "deck");
  options_.script = "#!/bin/sh\necho HOST=node17\n";
  Start();
  fs::permissions(data_.path(), fs::perms(0755));
  ASSERT_EQ(Outcome("alice", "3"), kHost);
  EXPECT_EQ(master_->Ask(kShutdown), kShutDown);
  EXPECT_EQ(Ownership(data_.File("CASE_3.crvnlog")), "absent");
  EXPECT_EQ(Ownership(data_.File("CASE_3.afi")), "absent");
}

TEST_F(PrivilegeTest, RunsOfTwoAccountsAreApart) {
  options_.script = "#!/bin/sh\numask 077\necho secret >\"$2$3\"\necho HOST=node17\n";
  Start();
  ASSERT_EQ(Outcome("alice"), kHost);
  const pid_t first = Controller();
  TestMaster second(daemon_->port());
  second.RequestRun({"0", data_.path().string() + "/", "OTHER", "1", "20172", "bob"});
  ASSERT_EQ(second.Receive(), kHost);
  std::vector<std::string> ids;
  for (const pid_t child : ChildrenOf(daemon_->pid())) ids.push_back(StatusLine(child, "Uid"));
  EXPECT_THAT(ids, testing::UnorderedElementsAre(kRunner, "61236\t61236\t61236\t61236"));
  EXPECT_EQ(StatusLine(first, "Uid"), kRunner);
  EXPECT_EQ(Ownership(data_.File("CASE")), "61234:61235 600");
  EXPECT_EQ(Ownership(data_.File("OTHER")), "61236:61237 600");
}

TEST_F(PrivilegeTest, SupplementaryGroupsStayThoseOfTheDaemon) {
  // Although the group file has the account in a group of its own.
  Start([] {
    const std::array<gid_t, 2> groups = {5, 7};
    return setgroups(groups.size(), groups.data()) == 0;
  });
  ASSERT_EQ(Outcome(), kHost);
  EXPECT_EQ(StatusLine(Controller(), "Groups"), "5 7 ");
  EXPECT_THAT(data_.Read("ids"), HasSubstr("Groups:\t5 7 \n"));
}

TEST_F(PrivilegeTest, DaemonWithoutGroupsGivesItsRunsNone) {
  Start([] { return setgroups(0, nullptr) == 0; });
  ASSERT_EQ(Outcome(), kHost);
  EXPECT_THAT(data_.Read("ids"), HasSubstr("Groups:\t \n"));
}

TEST_F(PrivilegeTest, GroupChangeWithoutItsCapabilityIsLoggedAndTheRunGoesOn) {
  Start([] { return prctl(PR_CAPBSET_DROP, CAP_SETGID) == 0; });
  EXPECT_EQ(Outcome(), kHost);
  EXPECT_THAT(daemon_->Logged(),
              HasSubstr("Linux user required: runner\nFailed to set the group ID - 1\n"));
  EXPECT_EQ(StatusLine(Controller(), "Uid"), kRunner);
  EXPECT_EQ(StatusLine(Controller(), "Gid"), "0\t0\t0\t0");
  EXPECT_EQ(master_->Ask(kShutdown), kShutDown);
}

TEST_F(PrivilegeTest, GroupChangeThatFailsOtherwiseIsLoggedWithItsOwnNumber) {
  Start([] { return RefuseCalls({{SYS_setgid, EINVAL}}); });
  EXPECT_EQ(Outcome(), kHost);
  EXPECT_THAT(daemon_->Logged(),
              HasSubstr("Linux user required: runner\nFailed to set the group ID - 2\n"));
  EXPECT_EQ(master_->Ask(kShutdown), kShutDown);
}

// The daemon goes on, and no script has been started for the refused master.
void ExpectRefused(const RunningDaemon& daemon, const TestMaster& master,
                   const TemporaryDirectory& data, const std::string& text) {
  EXPECT_TRUE(master.SeesEndWithin(5));
  EXPECT_THAT(daemon.Logged(), HasSubstr("Linux user required: runner\n" + text + "\n"));
  EXPECT_THAT(daemon.Logged(), Not(HasSubstr("Argument list")));
  EXPECT_EQ(data.Read("ids"), "");
  EXPECT_TRUE(Eventually([&] { return ChildrenOf(daemon.pid()).empty(); }));
  EXPECT_TRUE(IsRunning(daemon.pid()));
}

TEST_F(PrivilegeTest, UserChangeWithoutItsCapabilityEndsTheConnection) {
  Start([] { return prctl(PR_CAPBSET_DROP, CAP_SETUID) == 0; });
  const std::string text = "Failed to set user ID for Tolmen job - error = 1";
  EXPECT_EQ(Outcome(), text);
  ExpectRefused(*daemon_, *master_, data_, text);
}

TEST_F(PrivilegeTest, UserChangeThatFailsOtherwiseEndsTheConnectionWithItsNumber) {
  options_.variables = {kNoLeakCheck};
  Start([] { return RefuseCalls({{SYS_setuid, EAGAIN}}); });
  const ExitStatuses statuses(daemon_->pid());
  const std::string text = "Failed to set user ID for Tolmen job - error = 11";
  EXPECT_EQ(Outcome(), text);
  ExpectRefused(*daemon_, *master_, data_, text);
  if (!statuses.watching()) GTEST_SKIP() << "no process may be traced on this machine";
  EXPECT_EQ(statuses.First(1), "1 ");
}

TEST_F(PrivilegeTest, AccountThatHasGoneSinceTheLastRunIsRefused) {
  Start();
  ExpectNextMasterServed();
  accounts_.Write("passwd", "root:x:0:0::/root:/bin/sh\n");
  EXPECT_EQ(Outcome(), "Failed to get password entry for 'runner'");
  EXPECT_TRUE(master_->SeesEndWithin(5));
  // The end of the former run may come in between.
  EXPECT_THAT(daemon_->Logged(), HasSubstr("\nFailed to get password entry for 'runner'\n"));
  accounts_.Write("passwd", kAccounts);
  ExpectNextMasterServed();
}

TEST_F(PrivilegeTest, TwoCapabilitiesAndAClosedUserFileAreEnough) {
  data_.Write("CASE.afi", "deck");
  Start([] {
    return DropFromBoundingSet([](int capability) {
             return capability != CAP_SETUID && capability != CAP_SETGID;
           }) &&
           prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
  });
  fs::permissions(daemon_->directory().File(".vk_corvane_users"), fs::perms(0600));
  EXPECT_EQ(StatusLine(daemon_->pid(), "CapEff"), "00000000000000c0");
  ASSERT_EQ(Outcome("alice", "3"), kHost);
  EXPECT_EQ(StatusLine(Controller(), "Uid"), kRunner);
  EXPECT_EQ(StatusLine(Controller(), "Gid"), kRunnersGroup);
  EXPECT_EQ(master_->Ask(kShutdown), kShutDown);
  EXPECT_EQ(Ownership(data_.File("CASE_3.crvnlog")), "61234:61235 666");
  EXPECT_EQ(Ownership(data_.File("CASE_3.afi")), "61234:61235 644");
  EXPECT_THAT(daemon_->Logged(), Not(HasSubstr("Failed")));
}

}  // namespace
