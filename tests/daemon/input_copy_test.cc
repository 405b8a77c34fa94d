// The copy of a cluster run's input, in directories that others have filled.

#include "daemon/input_copy.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/handshake.h"
#include "daemon/launch.h"
#include "log/flog.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
// NOLINTNEXTLINE(misc-unused-using-decls): clang-tidy 14 does not see that literals use it
using std::string_literals::operator""s;

constexpr const char* kCopied = "Copy succeeded";
constexpr const char* kRefused = "Copy failed - run will probably fail";

class InputCopyTest : public testing::Test {
 protected:
  static constexpr uid_t kAccount = 61234;  // the run's, where the tests run as root

  static bool BecomeAccount() {
    return setgroups(0, nullptr) == 0 && setgid(kAccount) == 0 && setuid(kAccount) == 0;
  }

  // Prepares a cluster run in a process of its own, between `before` and `after`. The last line of
  // its log.
  std::string Prepare(const std::string& root = "CASE", const std::string& cluster = "1",
                      const std::function<bool()>& before = nullptr,
                      const std::function<void()>& after = nullptr) {
    RunRequest run;
    run.path = data_.path().string();
    run.root = root;
    run.cluster = cluster;
    ChildProcess::Options options;
    options.output_file = other_.File("output");
    options.in_child = [&] {
      flog log(other_.File("log"), true);
      if (before && !before()) return 1;
      PrepareClusterRun(run, log);
      if (after) after();
      return 0;
    };
    ChildProcess child({}, options);
    const auto status = child.Wait(std::chrono::seconds(10));
    if (status != 0) return "ended with " + std::to_string(status.value_or(-1));
    std::string log = other_.Read("log");
    log.resize(log.size() - 1);
    return log.substr(log.rfind('\n') + 1);
  }

  std::string Link(const std::string& name, const std::string& text) const {
    fs::create_symlink(text, data_.File(name));
    return data_.File(name);
  }

  // What is there besides `names`, temporary files for example.
  std::vector<std::string> Others(const std::vector<std::string>& names) const {
    std::vector<std::string> others;
    for (const auto& entry : fs::directory_iterator(data_.path())) {
      const std::string name = entry.path().filename().string();
      if (std::find(names.begin(), names.end(), name) == names.end()) others.push_back(name);
    }
    return others;
  }

  mode_t Mode(const std::string& file) const {
    struct stat status {};
    EXPECT_EQ(lstat(data_.File(file).c_str(), &status), 0) << file;
    return status.st_mode;
  }

  TemporaryDirectory data_;
  TemporaryDirectory other_;  // of the test
};

TEST_F(InputCopyTest, FormerCopyIsReplacedAndNothingElseIsLeft) {
  data_.Write("CASE.afi", "deck");
  data_.Write("CASE_1.afi", "former deck");
  fs::create_hard_link(data_.File("CASE_1.afi"), data_.File("former"));
  EXPECT_EQ(Prepare(), kCopied);
  EXPECT_EQ(data_.Read("CASE_1.afi"), "deck");
  EXPECT_EQ(data_.Read("former"), "former deck");
  EXPECT_THAT(Others({"CASE.afi", "CASE_1.afi", "former"}), testing::IsEmpty());
}

// For an account without root's rights, whose own copy may be closed to it.
TEST_F(InputCopyTest, CopyHasTheModeThatCpGives) {
  const bool root = getuid() == 0;
  chmod(data_.path().c_str(), 0777);
  for (const unsigned mode : {0644U, 0600U, 0444U, 0400U, 0755U, 0666U, 0660U}) {
    for (const unsigned mask : {0022U, 0077U, 0000U, 0222U, 0777U}) {
      SCOPED_TRACE(testing::Message() << std::oct << mode << " under " << mask);
      const std::string source = data_.Write("CASE.afi", "deck");
      chmod(source.c_str(), mode);
      if (root) {
        ASSERT_EQ(chown(source.c_str(), kAccount, kAccount), 0);
      }
      const std::string cp = "cp " + source + " " + data_.File("by_cp");
      EXPECT_EQ(Prepare("CASE", "1",
                        [&] {
                          umask(mask);
                          return (!root || BecomeAccount()) && system(cp.c_str()) == 0;
                        }),
                kCopied);
      EXPECT_EQ(Mode("CASE_1.afi"), Mode("by_cp"));
      EXPECT_EQ(fs::file_size(data_.File("CASE_1.afi")), 4U);
      for (const char* name : {"CASE.afi", "CASE_1.afi", "by_cp"}) fs::remove(data_.File(name));
    }
  }
}

TEST_F(InputCopyTest, MissingOrUnreadableSourceLeavesAFormerCopyAlone) {
  data_.Write("CASE_1.afi", "former deck");
  EXPECT_EQ(Prepare(), kCopied);
  EXPECT_EQ(data_.Read("CASE_1.afi"), "former deck");
  EXPECT_THAT(other_.Read("output"), testing::HasSubstr("CASE.afi: No such file or directory\n"));
  Link("CASE.afi", "absent");
  EXPECT_EQ(Prepare(), kCopied);
  EXPECT_EQ(data_.Read("CASE_1.afi"), "former deck");
  EXPECT_THAT(Others({"CASE.afi", "CASE_1.afi"}), testing::IsEmpty());
}

TEST_F(InputCopyTest, LinkInPlaceOfTheCopyIsReplacedAndItsTargetUntouched) {
  data_.Write("CASE.afi", "deck");
  Link("CASE_1.afi", other_.Write("victim", "precious"));
  EXPECT_EQ(Prepare(), kCopied);
  EXPECT_EQ(other_.Read("victim"), "precious");
  EXPECT_TRUE(S_ISREG(Mode("CASE_1.afi")));
  EXPECT_EQ(data_.Read("CASE_1.afi"), "deck");
}

TEST_F(InputCopyTest, PipeInPlaceOfTheCopyIsReplaced) {
  data_.Write("CASE.afi", "deck");
  ASSERT_EQ(mkfifo(data_.File("CASE_1.afi").c_str(), 0666), 0);
  EXPECT_EQ(Prepare(), kCopied);
  EXPECT_EQ(data_.Read("CASE_1.afi"), "deck");
}

TEST_F(InputCopyTest, DirectoryInPlaceOfTheCopyIsARefusal) {
  data_.Write("CASE.afi", "deck");
  fs::create_directory(data_.path() / "CASE_1.afi");
  EXPECT_EQ(Prepare(), kRefused);
  EXPECT_TRUE(fs::is_empty(data_.path() / "CASE_1.afi"));
  EXPECT_THAT(Others({"CASE.afi", "CASE_1.afi"}), testing::IsEmpty());
}

TEST_F(InputCopyTest, WhatIsNoRegularFileIsRefusedAndHoldsNobody) {
  data_.Write("CASE_1.afi", "former deck");
  ASSERT_EQ(mkfifo(data_.File("CASE.afi").c_str(), 0666), 0);
  EXPECT_EQ(Prepare(), kRefused);
  fs::remove(data_.File("CASE.afi"));
  fs::create_directory(data_.path() / "CASE.afi");
  EXPECT_EQ(Prepare(), kRefused);
  fs::remove(data_.File("CASE.afi"));
  Link("CASE.afi", "/dev/null");
  EXPECT_EQ(Prepare(), kRefused);
  EXPECT_EQ(data_.Read("CASE_1.afi"), "former deck");
  EXPECT_THAT(Others({"CASE.afi", "CASE_1.afi"}), testing::IsEmpty());
}

TEST_F(InputCopyTest, OwnLinksAreFollowedFromWhereTheyAre) {
  fs::create_directory(data_.path() / "decks");
  data_.Write("decks/base.afi", "base deck");
  Link("decks/newest.afi", "base.afi");
  Link("CASE.afi", "decks/newest.afi");
  EXPECT_EQ(Prepare(), kCopied);
  EXPECT_EQ(data_.Read("CASE_1.afi"), "base deck");
  Link("OTHER.afi", data_.File("decks/newest.afi"));
  EXPECT_EQ(Prepare("OTHER"), kCopied);
  EXPECT_EQ(data_.Read("OTHER_1.afi"), "base deck");
}

TEST_F(InputCopyTest, LinksAreFollowedAsOftenAsTheSystemDoes) {
  data_.Write("0", "deck");
  for (int link = 1; link <= 41; ++link) {
    Link(std::to_string(link), std::to_string(link - 1));
  }
  fs::rename(data_.File("40"), data_.File("FORTY.afi"));
  fs::create_symlink("39", data_.File("40"));
  fs::rename(data_.File("41"), data_.File("MORE.afi"));
  EXPECT_EQ(Prepare("FORTY"), kCopied);
  EXPECT_EQ(data_.Read("FORTY_1.afi"), "deck");
  EXPECT_EQ(Prepare("MORE"), kCopied);
  EXPECT_FALSE(fs::exists(data_.File("MORE_1.afi")));
  EXPECT_THAT(other_.Read("output"), testing::HasSubstr(std::string(strerror(ELOOP)) + "\n"));
}

TEST_F(InputCopyTest, NamesEndAtTheirFirstZeroByte) {
  data_.Write("CASE.afi", "deck");
  EXPECT_EQ(Prepare("CASE", "2\0/x"s), kCopied);
  EXPECT_EQ(data_.Read("CASE_2"), "deck");
}

TEST_F(InputCopyTest, FileIsNotCopiedToItself) {
  const std::string precious = data_.Write("precious", "precious");
  chmod(precious.c_str(), 0606);
  // Cut at the zero byte, source and target have one name.
  EXPECT_EQ(Prepare("precious\0"s), kCopied);
  EXPECT_EQ(Prepare("precious\0/x"s), kCopied);
  EXPECT_EQ(Mode("precious"), 0606U | S_IFREG);
  data_.Write("CASE.afi", "deck");
  fs::create_hard_link(data_.File("CASE.afi"), data_.File("CASE_1.afi"));
  EXPECT_EQ(Prepare(), kCopied);
  EXPECT_EQ(data_.Read("CASE_1.afi"), "deck");
  EXPECT_EQ(fs::hard_link_count(data_.File("CASE.afi")), 2U);
  EXPECT_THAT(Others({"precious", "CASE.afi", "CASE_1.afi"}), testing::IsEmpty());
}

TEST_F(InputCopyTest, CopyElsewhereThanBesideItsSourceIsRefused) {
  data_.Write("CASE.afi", "deck of a stranger");
  fs::create_directory(data_.path() / "CASE_1");
  const std::string victim = other_.Write("victim", "precious");
  for (const std::string& end : {""s, "\0"s}) {
    EXPECT_EQ(Prepare("CASE", "1/../../" + other_.path().filename().string() + "/victim" + end),
              kRefused);
  }
  EXPECT_EQ(other_.Read("victim"), "precious");
  EXPECT_FALSE(fs::exists(victim + ".afi"));
}

TEST_F(InputCopyTest, OtherDirectoryWithAsLongANameIsAnotherOne) {
  for (const char* name : {"a", "b"}) fs::create_directory(data_.path() / name);
  data_.Write("a/CASE.afi", "deck");
  EXPECT_FALSE(CopyInput(data_.File("a/CASE.afi"), data_.File("b/CASE.afi")));
  EXPECT_TRUE(fs::is_empty(data_.path() / "b"));
}

// As a file server has one for a machine that has the file open.
TEST_F(InputCopyTest, LeaseOnTheSourceIsWaitedFor) {
  data_.Write("CASE.afi", "deck");
  ChildProcess::Options options;
  options.in_child = [this] {
    sigset_t breaking;
    sigemptyset(&breaking);
    sigaddset(&breaking, SIGIO);
    sigprocmask(SIG_BLOCK, &breaking, nullptr);
    const int file = open(data_.File("CASE.afi").c_str(), O_RDWR | O_CLOEXEC);
    if (fcntl(file, F_SETLEASE, F_WRLCK) != 0) return 77;
    other_.Write("leased", "");
    int number = 0;
    sigwait(&breaking, &number);
    usleep(50'000);
    return fcntl(file, F_SETLEASE, F_UNLCK);
  };
  ChildProcess server({}, options);
  ASSERT_TRUE(
      Eventually([&] { return fs::exists(other_.File("leased")) || !IsRunning(server.pid()); }));
  if (!fs::exists(other_.File("leased"))) GTEST_SKIP() << "no leases on this machine";
  EXPECT_EQ(Prepare(), kCopied);
  EXPECT_EQ(data_.Read("CASE_1.afi"), "deck");
  EXPECT_EQ(server.Wait(std::chrono::seconds(10)), 0);
}

TEST_F(InputCopyTest, RootNameMayLeadIntoADirectory) {
  fs::create_directory(data_.path() / "models");
  data_.Write("models/CASE.afi", "deck");
  EXPECT_EQ(Prepare("models/CASE"), kCopied);
  EXPECT_EQ(data_.Read("models/CASE_1.afi"), "deck");
}

TEST_F(InputCopyTest, CpGetsTwoDescriptorsAndNoOtherOfThisProcess) {
  data_.Write("CASE.afi", "deck");
  // Notes its arguments and its descriptors. The shell has the program itself open at 10 or above.
  const std::string cp = other_.Write("cp",
                                      "#!/bin/sh\ncat \"$1\" >\"$2\"\nset -- \"$@\" /proc/$$/fd/*\n"
                                      "for name; do case $name in */1[0-9]) ;; *) echo "
                                      "\"${name##*/}\" ;; esac; done >${0%/*}/seen\n");
  chmod(cp.c_str(), 0755);
  ChildProcess::Options options;
  options.environment = {"PATH=" + other_.path().string() + ":" + getenv("PATH")};
  options.in_child = [this] {
    // The first one that can be inherited, and one in the midst.
    for (const int inherited : {3, 8}) dup2(STDIN_FILENO, inherited);
    flog log(other_.File("log"), true);
    RunRequest run;
    run.cluster = "1";
    run.path = data_.path().string();
    run.root = "CASE";
    PrepareClusterRun(run, log);
    return 0;
  };
  EXPECT_EQ(ChildProcess({}, options).Wait(std::chrono::seconds(10)), 0);
  EXPECT_EQ(data_.Read("CASE_1.afi"), "deck");
  const std::string seen = other_.Read("seen");
  const std::string given = seen.substr(0, 4);
  EXPECT_THAT(given, testing::MatchesRegex("[4-9]\n[4-9]\n"));
  // The shell itself has the directory open at 3 while it lists it.
  EXPECT_EQ(seen, given + "0\n1\n2\n3\n" + given);
}

TEST_F(InputCopyTest, FullDiskLeavesAPartUnderTheNameAndNothingElse) {
  const auto fill = [this] {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", data_.path().c_str(), "tmpfs", 0, "size=12k") != 0) {
      return false;
    }
    data_.Write("CASE.afi", std::string(8192, 'd'));
    return true;
  };
  const auto note = [this] {
    other_.Write("left", std::to_string(data_.Read("CASE_1.afi").size()) + " bytes and " +
                             std::to_string(Others({"CASE.afi", "CASE_1.afi"}).size()) + " files");
  };
  const std::string result = Prepare("CASE", "1", fill, note);
  if (result == "ended with 1") GTEST_SKIP() << "mounting is not permitted here";
  EXPECT_EQ(result, kCopied);
  EXPECT_EQ(other_.Read("left"), "4096 bytes and 0 files");
  EXPECT_THAT(other_.Read("output"), testing::HasSubstr("No space left on device"));
}

// One account has filled a directory, another one's run works in it.
class StrangersDirectoryTest : public InputCopyTest {
 protected:
  static constexpr uid_t kStranger = 61236;

  void SetUp() override {
    if (getuid() != 0) GTEST_SKIP() << "several accounts need root";
    fs::permissions(other_.path(), fs::perms(0755));
    other_.Write("secret", "secret of the victim");
    Give(other_.File("secret"), kAccount, 0600);
    Give(data_.path().string(), kStranger, 0777);
  }

  static void Give(const std::string& file, uid_t owner, mode_t mode) {
    chmod(file.c_str(), mode);
    EXPECT_EQ(lchown(file.c_str(), owner, owner), 0);
  }
  void Write(const std::string& name, const std::string& text, uid_t owner, mode_t mode) const {
    Give(data_.Write(name, text), owner, mode);
  }
  void GiveLink(const std::string& name, const std::string& text, uid_t owner) const {
    EXPECT_EQ(lchown(Link(name, text).c_str(), owner, owner), 0);
  }

  std::string PrepareAsVictim(const std::string& root = "CASE", const std::string& cluster = "1") {
    return Prepare(root, cluster, BecomeAccount);
  }
  std::string OwnerAndText(const std::string& name) const {
    struct stat status {};
    if (lstat(data_.File(name).c_str(), &status) != 0) return "absent";
    return std::to_string(status.st_uid) + " " + data_.Read(name);
  }
};

TEST_F(StrangersDirectoryTest, RunGetsTheDeckThatTheStrangerWrote) {
  Write("CASE.afi", "deck", kStranger, 0444);
  Write("CASE_1.afi", "former", kStranger, 0666);
  EXPECT_EQ(PrepareAsVictim(), kCopied);
  EXPECT_EQ(OwnerAndText("CASE_1.afi"), "61234 deck");
  EXPECT_EQ(Mode("CASE_1.afi") & 07777U, 0444U);
}

TEST_F(StrangersDirectoryTest, StrangersLinkIsNotReadThrough) {
  GiveLink("LEAK.afi", other_.File("secret"), kStranger);
  EXPECT_EQ(PrepareAsVictim("LEAK"), kRefused);
  EXPECT_EQ(OwnerAndText("LEAK_1.afi"), "absent");
}

TEST_F(StrangersDirectoryTest, StrangersLinkBehindAnOwnOneIsNotReadThroughEither) {
  GiveLink("planted", other_.File("secret"), kStranger);
  GiveLink("LEAK.afi", "planted", kAccount);
  EXPECT_EQ(PrepareAsVictim("LEAK"), kRefused);
  EXPECT_EQ(OwnerAndText("LEAK_1.afi"), "absent");
}

TEST_F(StrangersDirectoryTest, LinksOfTheAccountAndOfRootAreFollowed) {
  Write("deck", "deck", kStranger, 0644);
  GiveLink("OWN.afi", "deck", kAccount);
  EXPECT_EQ(PrepareAsVictim("OWN"), kCopied);
  EXPECT_EQ(OwnerAndText("OWN_1.afi"), "61234 deck");
  GiveLink("ROOT.afi", "deck", 0);
  EXPECT_EQ(PrepareAsVictim("ROOT"), kCopied);
  EXPECT_EQ(OwnerAndText("ROOT_1.afi"), "61234 deck");
}

TEST_F(StrangersDirectoryTest, SecretReachedByASecondNameStaysTheAccounts) {
  fs::create_hard_link(other_.File("secret"), data_.File("LEAK.afi"));
  EXPECT_EQ(PrepareAsVictim("LEAK"), kCopied);
  EXPECT_EQ(OwnerAndText("LEAK_1.afi"), "61234 secret of the victim");
  EXPECT_EQ(Mode("LEAK_1.afi") & 07777U, 0600U);
}

TEST_F(StrangersDirectoryTest, UnreadableDeckLeavesTheFormerCopyAlone) {
  Write("CASE.afi", "deck", kStranger, 0600);
  Write("CASE_1.afi", "former", kAccount, 0666);
  EXPECT_EQ(PrepareAsVictim(), kCopied);
  EXPECT_EQ(OwnerAndText("CASE_1.afi"), "61234 former");
  EXPECT_THAT(other_.Read("output"), testing::HasSubstr("CASE.afi: Permission denied\n"));
}

// The directory takes no new file, so the copy is written to the one that stands there.
class ClosedDirectoryTest : public StrangersDirectoryTest {
 protected:
  void SetUp() override {
    StrangersDirectoryTest::SetUp();
    if (IsSkipped()) return;
    Give(data_.path().string(), kStranger, 0755);
    Write("CASE.afi", "deck", kStranger, 0644);
  }
};

TEST_F(ClosedDirectoryTest, WithoutAFormerCopyThereIsNone) {
  EXPECT_EQ(PrepareAsVictim(), kCopied);
  EXPECT_THAT(Others({"CASE.afi"}), testing::IsEmpty());
  EXPECT_THAT(other_.Read("output"), testing::HasSubstr("CASE_1.afi: "));
}

TEST_F(ClosedDirectoryTest, FormerCopyIsWrittenAnew) {
  Write("CASE_1.afi", "a much longer former deck", kStranger, 0666);
  EXPECT_EQ(PrepareAsVictim(), kCopied);
  EXPECT_EQ(OwnerAndText("CASE_1.afi"), "61236 deck");
  EXPECT_EQ(Mode("CASE_1.afi") & 07777U, 0666U);
  Write("CASE_2.afi", "a much longer former deck", kAccount, 0600);
  EXPECT_EQ(PrepareAsVictim("CASE", "2"), kCopied);
  EXPECT_EQ(OwnerAndText("CASE_2.afi"), "61234 deck");
}

TEST_F(ClosedDirectoryTest, FileThatMayNotBeWrittenToStaysAsItIs) {
  Write("CASE_1.afi", "former", kStranger, 0644);
  EXPECT_EQ(PrepareAsVictim(), kCopied);
  EXPECT_EQ(OwnerAndText("CASE_1.afi"), "61236 former");
}

TEST_F(ClosedDirectoryTest, LinkIsNotWrittenThrough) {
  GiveLink("CASE_1.afi", other_.File("secret"), kStranger);
  EXPECT_EQ(PrepareAsVictim(), kRefused);
  EXPECT_EQ(other_.Read("secret"), "secret of the victim");
}

TEST_F(ClosedDirectoryTest, FileOfTwoNamesIsNotWrittenTo) {
  fs::create_hard_link(other_.File("secret"), data_.File("CASE_1.afi"));
  EXPECT_EQ(PrepareAsVictim(), kRefused);
  EXPECT_EQ(other_.Read("secret"), "secret of the victim");
}

TEST_F(ClosedDirectoryTest, PipeHoldsNobody) {
  ASSERT_EQ(mkfifo(data_.File("CASE_1.afi").c_str(), 0666), 0);
  chmod(data_.File("CASE_1.afi").c_str(), 0666);
  EXPECT_EQ(PrepareAsVictim(), kRefused);
}

TEST_F(ClosedDirectoryTest, StrangersFileDoesNotGetWhatOnlyTheAccountMayRead) {
  fs::create_hard_link(other_.File("secret"), data_.File("LEAK.afi"));
  Write("LEAK_1.afi", "", kStranger, 0666);
  EXPECT_EQ(PrepareAsVictim("LEAK"), kRefused);
  EXPECT_EQ(OwnerAndText("LEAK_1.afi"), "61236 ");
}

// The stranger can have moved both there from a directory where he may write.
TEST_F(ClosedDirectoryTest, OpenFileOfTheAccountDoesNotGetWhatOnlyTheAccountMayRead) {
  Write("LEAK.afi", "secret", kAccount, 0640);
  for (const mode_t mode : {0604U, 0640U}) {
    Write("LEAK_1.afi", "", kAccount, mode);
    EXPECT_EQ(PrepareAsVictim("LEAK"), kRefused);
    EXPECT_EQ(OwnerAndText("LEAK_1.afi"), "61234 ");
  }
  Give(data_.path().string(), kAccount, 0555);
  EXPECT_EQ(PrepareAsVictim("LEAK"), kCopied);
  EXPECT_EQ(OwnerAndText("LEAK_1.afi"), "61234 secret");
}

TEST_F(ClosedDirectoryTest, StrangersFileInATemporaryDirectoryIsWrittenToForHisOwnDeckOnly) {
  Give(data_.path().string(), 0, 01777);
  Write("CASE_1.afi", "former", kStranger, 0666);
  EXPECT_EQ(PrepareAsVictim(), kCopied);
  EXPECT_EQ(OwnerAndText("CASE_1.afi"), "61236 deck");
  Write("OWN.afi", "deck of the victim", kAccount, 0600);
  Write("OWN_1.afi", "", kStranger, 0666);
  EXPECT_EQ(PrepareAsVictim("OWN"), kRefused);
  EXPECT_EQ(OwnerAndText("OWN_1.afi"), "61236 ");
  EXPECT_THAT(Others({"CASE.afi", "CASE_1.afi", "OWN.afi", "OWN_1.afi"}), testing::IsEmpty());
}

}  // namespace
