#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/descriptor.h"
#include "tests/inspect/own_view.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/support/temporary_directory.h"
#include "tools/jobmillctl/user_edit.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kAccount = "daemon";  // one of every machine

// As a package lays it out: the daemon's file is a link.
class UsersTest : public testing::Test {
 protected:
  UsersTest() {
    std::filesystem::create_directory(directory_.File("etc"));
    std::filesystem::create_directory(directory_.File("lib"));
    std::filesystem::create_symlink("../etc/users", directory_.File("lib/.vk_corvane_users"));
    Write("");
  }

  void Write(const std::string& text) { chmod(directory_.Write("etc/users", text).c_str(), 0600); }
  std::string Text() const { return directory_.Read("etc/users"); }
  std::string Place(int line) const {
    return std::filesystem::canonical(directory_.path()).string() +
           "/etc/users:" + std::to_string(line) + ": ";
  }

  std::vector<std::string> Arguments(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(),
                     {"users", "--program", directory_.File("lib/vkjobmill.exe")});
    return arguments;
  }
  Outcome Users(const std::vector<std::string>& arguments) const {
    return Jobmillctl(Arguments(arguments));
  }

  // Nothing is changed, and the reason is on standard error.
  void ExpectRefused(const std::vector<std::string>& arguments, const std::string& reason) const {
    const std::string before = Text();
    const Outcome outcome = Users(arguments);
    EXPECT_EQ(outcome.status, 1) << reason;
    EXPECT_THAT(outcome.err, HasSubstr(reason));
    EXPECT_EQ(Text(), before);
  }

  // No drafts are left over.
  void TearDown() override {
    const std::filesystem::directory_iterator entries(directory_.File("etc"));
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
  }

  TemporaryDirectory directory_;
};

TEST_F(UsersTest, ListIsWhatTheDaemonReads) {
  Write("alice daemon 1\nguest guest 0\nAlice bin 1\n* * 1\n\nbob bob 1\n");
  const Outcome outcome = Users({});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "WINDOWS USER  ALLOWED  LINE    LINUX ACCOUNT\n"
            "alice         yes      1       daemon\n"
            "guest         no       2       guest\n"
            "Alice         yes      3       bin (does not count: line 1 does)\n"
            "*             yes      4       (the name that is sent)\n" +
                Place(5) + "ends the file; neither it nor what follows is read\n");
}

TEST_F(UsersTest, NamesOfAFileCommandNoTerminal) {
  Write("a\x1b[31m daemon 1\n");
  EXPECT_THAT(Users({}).out, HasSubstr("\na\\x1b[31m     yes "));
  EXPECT_THAT(Users({"test", "a\x1b[31m"}).out, StartsWith("a\\x1b[31m: runs as daemon"));
}

TEST_F(UsersTest, TestSaysTheAccountAndTheLine) {
  Write("bob bin 1\nalice daemon 1 x\n");
  const Outcome outcome = Users({"test", "ALICE"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "ALICE: runs as daemon (1:1)\n" + Place(2) + "alice daemon 1 x\n");
}

TEST_F(UsersTest, TestSaysWhatIsRefusedInTheDaemonsWords) {
  Write("guest daemon 0\ncarol no-such-account 1\nDaemon * 1\n\nbob bob 1\n");
  Outcome outcome = Users({"test", "Guest"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(
      outcome.out,
      "Guest: refused with \"Windows user 'Guest' does not have permissions to run Varnok\"\n" +
          Place(1) + "guest daemon 0\n");
  outcome = Users({"test", "carol"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, StartsWith("carol: refused with \"Failed to get password entry for "
                                      "'no-such-account'\"\n"));
  EXPECT_THAT(Users({"test", "DAEMON"}).out,
              HasSubstr("\"Failed to get password entry for 'DAEMON'\"\n"));
  outcome = Users({"test", "bob"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out,
              StartsWith("bob: refused with \"Windows user 'bob' not found in administration "
                         "file\"\n"));
  EXPECT_THAT(outcome.out, HasSubstr(Place(4) + "ends the file"));
}

TEST_F(UsersTest, TestWithoutAFileSaysSo) {
  std::filesystem::remove(directory_.File("lib/.vk_corvane_users"));
  const Outcome outcome = Users({"test", "alice"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, HasSubstr("\"Could not open the user administration file: "));
  const Outcome list = Users({});
  EXPECT_EQ(list.status, 1);
  EXPECT_THAT(list.out, StartsWith("everybody: refused with \"Could not open the user "
                                   "administration file: "));
}

TEST_F(UsersTest, FileThatOnlyRootReadsIsSaidToBe) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Write("alice daemon 1\n");
  chmod(directory_.path().c_str(), 0755);
  const std::string file =
      std::filesystem::canonical(directory_.File("lib/.vk_corvane_users")).string();
  for (const std::vector<std::string>& words : {std::vector<std::string>{}, {"test", "alice"}}) {
    const Outcome outcome = JobmillctlAsNobody(Arguments(words));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "jobmillctl: only root can read " + file + "\n");
    EXPECT_EQ(outcome.out, "");
  }
}

TEST_F(UsersTest, AddedUserRuns) {
  const Outcome outcome = Users({"add", "alice", kAccount});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "From the next connection on:\nalice: runs as daemon (1:1)\n" + Place(1) +
                             "alice daemon 1\n");
  EXPECT_EQ(Text(), "alice daemon 1\n");
  EXPECT_EQ(Users({"add", "bob", kAccount}).status, 0);
  EXPECT_EQ(Text(), "alice daemon 1\nbob daemon 1\n");
}

TEST_F(UsersTest, AddChangesTheRecordThatCounts) {
  Write("alice bin 1\nALICE bin 0\n* bin 0\n* bin 0");
  EXPECT_EQ(Users({"add", "Alice", kAccount}).status, 0);
  EXPECT_EQ(Users({"add", "*", kAccount}).status, 0);
  EXPECT_EQ(Text(), "Alice daemon 1\nALICE bin 0\n* bin 0\n* daemon 1\n");
}

TEST_F(UsersTest, WhatIsThereAlreadyIsNotWrittenAgain) {
  Write("alice daemon 7");
  EXPECT_EQ(Users({"add", "ALICE", kAccount}).status, 0);
  EXPECT_EQ(Text(), "alice daemon 7");
}

TEST_F(UsersTest, RecordIsAddedAboveTheLineThatEndsTheFile) {
  Write("alice daemon 1\n\nbob bob 1\n");
  const Outcome outcome = Users({"add", "carol", kAccount});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(Text(), "alice daemon 1\ncarol daemon 1\n\nbob bob 1\n");
  EXPECT_THAT(outcome.out, HasSubstr(Place(3) + "ends the file"));
}

TEST_F(UsersTest, OtherLinesStayByteForByte) {
  Write(" alice  daemon  1 x\r\n#  daemon 1\nlast\tone\n");
  EXPECT_EQ(Users({"add", "bob", kAccount}).status, 0);
  EXPECT_EQ(Text(), " alice  daemon  1 x\r\n#  daemon 1\nbob daemon 1\nlast\tone\n");
}

TEST_F(UsersTest, DeniedUserIsRefused) {
  Write("alice daemon 1\n* daemon 1\n");
  Outcome outcome = Users({"deny", "alice"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, HasSubstr("does not have permissions"));
  EXPECT_EQ(Users({"deny", "mallory"}).status, 0);
  EXPECT_EQ(Text(), "alice daemon 0\n* daemon 1\nmallory mallory 0\n");
}

TEST_F(UsersTest, RemovedUserHasNoRecordLeft) {
  Write("alice daemon 0\nbob daemon 1\nALICE daemon 1\n* bin 0\n");
  const Outcome outcome = Users({"remove", "alice"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(Text(), "bob daemon 1\n* bin 0\n");
  EXPECT_THAT(outcome.out, HasSubstr(Place(2) + "* bin 0"));
  ExpectRefused({"remove", "alice"}, "has no record of alice");
}

TEST_F(UsersTest, WhatTheDaemonCouldNotReadIsRefused) {
  Write("bob daemon 1\n");
  ExpectRefused({"add", "a b", kAccount}, "the Windows user cannot have ' ' in its name");
  ExpectRefused({"add", "a\tb", kAccount}, "cannot have a tab");
  ExpectRefused({"add", "a\nb", kAccount}, "cannot have a control character");
  ExpectRefused({"add", "CORP\\a", kAccount}, "cannot have '\\'");
  ExpectRefused({"add", "", kAccount}, "has no name");
  ExpectRefused({"add", std::string(256, 'a'), kAccount}, "no name of more than 255 characters");
  ExpectRefused({"add", "alice", "a b"}, "the Linux account cannot have ' ' in its name");
  ExpectRefused({"deny", "a b"}, "cannot have ' '");
}

TEST_F(UsersTest, WhatNobodyShouldHaveIsRefused) {
  ExpectRefused({"add", "alice", "no-such-account"},
                "Failed to get password entry for 'no-such-account'");
  ExpectRefused({"add", "alice", "root"}, "would be root");
  ExpectRefused({"add", "root", "*"}, "would be root");
  ExpectRefused({"add", "*", "*"}, "two stars");
}

TEST_F(UsersTest, NamesOfTheGreatestLengthAreReadBack) {
  const std::string name(255, 'n');
  EXPECT_EQ(Users({"add", name, kAccount}).status, 0);
  EXPECT_EQ(Text(), name + " daemon 1\n");
  EXPECT_EQ(Users({"deny", std::string(255, 'm')}).status, 0);
}

TEST_F(UsersTest, LinkStaysAndModeAndOwnerAreKept) {
  const std::string file = directory_.File("etc/users");
  chmod(file.c_str(), 0640);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(file.c_str(), 61234, 61235), 0);
  }
  struct stat before {};
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  EXPECT_EQ(Users({"add", "alice", kAccount}).status, 0);
  struct stat after {};
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_uid, before.st_uid);
  EXPECT_EQ(after.st_gid, before.st_gid);
  EXPECT_NE(after.st_ino, before.st_ino);  // a reader has the old file or the new one, whole
  EXPECT_TRUE(std::filesystem::is_symlink(directory_.File("lib/.vk_corvane_users")));
}

TEST_F(UsersTest, EditsAtTheSameTimeDoNotLoseOneAnother) {
  std::vector<std::unique_ptr<ChildProcess>> edits;
  for (int i = 0; i < 12; ++i) {
    std::vector<std::string> arguments = Arguments({"add", "user" + std::to_string(i), kAccount});
    arguments.insert(arguments.begin(), ProgramDirectory() + "/jobmillctl");
    edits.push_back(std::make_unique<ChildProcess>(arguments, ChildProcess::Options()));
  }
  for (const auto& edit : edits) EXPECT_EQ(edit->Wait(std::chrono::seconds(30)), 0);
  for (int i = 0; i < 12; ++i) {
    EXPECT_THAT(Text(), HasSubstr("user" + std::to_string(i) + " daemon 1\n"));
  }
}

TEST_F(UsersTest, EditWaitsForAnotherOne) {
  Descriptor held(open(directory_.File("etc").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(held.get(), LOCK_EX), 0);
  std::vector<std::string> arguments = Arguments({"add", "alice", kAccount});
  arguments.insert(arguments.begin(), ProgramDirectory() + "/jobmillctl");
  ChildProcess edit(arguments, ChildProcess::Options());
  EXPECT_EQ(edit.Wait(std::chrono::milliseconds(300)), std::nullopt);
  EXPECT_EQ(Text(), "");
  held.Reset();
  EXPECT_EQ(edit.Wait(std::chrono::seconds(30)), 0);
  EXPECT_EQ(Text(), "alice daemon 1\n");
}

TEST_F(UsersTest, MissingFileIsNotMade) {
  std::filesystem::remove(directory_.File("lib/.vk_corvane_users"));
  const Outcome outcome = Users({"add", "alice", kAccount});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("is not there"));
}

// What an edit says where the system refuses it something, and the file stays as it was.
std::string EditWithout(const std::string& directory, long number, CallAnswer answer) {
  return WithAnsweredCall(static_cast<int>(number), answer, [&]() -> std::string {
    try {
      jobmillctl::EditUserFile(directory, [](const inspect::UserFile&, auto& lines) {
        lines.emplace_back("bob daemon 1");
        return true;
      });
      return "edited";
    } catch (const std::exception& error) {
      return error.what();
    }
  });
}

TEST_F(UsersTest, WhatTheSystemRefusesChangesNothing) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Write("alice daemon 1\n");
  const std::string lib = directory_.File("lib");
  const auto refused = []() -> long { return -EIO; };
  for (const long number :
       {SYS_openat, SYS_flock, SYS_mkdir, SYS_fchown, SYS_fchmod, SYS_fsync, SYS_rename}) {
    const std::string error = EditWithout(lib, number, refused);
    EXPECT_THAT(error, testing::EndsWith(": Input/output error; nothing was changed")) << number;
    EXPECT_EQ(Text(), "alice daemon 1\n") << number;
  }
  // A draft that finds no room.
  const std::string error = InProcess([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit none{0, 0};
    setrlimit(RLIMIT_FSIZE, &none);
    return EditWithout(lib, SYS_sync, refused);
  });
  EXPECT_THAT(error, StartsWith("cannot write in "));
  EXPECT_EQ(Text(), "alice daemon 1\n");
  EXPECT_EQ(EditWithout(lib, SYS_sync, refused), "edited");
  EXPECT_EQ(Text(), "alice daemon 1\nbob daemon 1\n");
}

TEST_F(UsersTest, WhoMayNotReadOrWriteTheFileIsToldSo) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Write("alice daemon 1\n");
  chmod(directory_.path().c_str(), 0755);
  const std::string lib = directory_.File("lib");
  const auto edit = [&](const std::string& line) {
    return AsNobody([&]() -> std::string {
      try {
        jobmillctl::EditUserFile(lib, [&](const inspect::UserFile&, auto& lines) {
          lines.push_back(line);
          return true;
        });
        return "edited";
      } catch (const std::exception& error) {
        return error.what();
      }
    });
  };
  EXPECT_THAT(edit("bob daemon 1"), StartsWith("cannot read "));
  chmod(directory_.File("etc/users").c_str(), 0644);
  EXPECT_THAT(edit("bob daemon 1"), StartsWith("cannot write in "));
}

TEST_F(UsersTest, RecordsThatTheDaemonWouldNotReadAreNotWritten) {
  Write("alice daemon 1\n");
  const auto edit = [&](const auto& change) -> std::string {
    try {
      jobmillctl::EditUserFile(directory_.File("lib"), change);
      return "edited";
    } catch (const std::exception& error) {
      return error.what();
    }
  };
  EXPECT_EQ(edit([](const inspect::UserFile&, std::vector<std::string>& lines) {
              lines.insert(lines.begin(), "no record");
              return true;
            }),
            "the daemon would not read all records; nothing was changed");
  EXPECT_EQ(edit([](const inspect::UserFile&, std::vector<std::string>&) { return false; }),
            "edited");
  EXPECT_THAT(edit([&](const inspect::UserFile&, std::vector<std::string>& lines) {
                Write("mallory daemon 1\n");
                lines.emplace_back("bob daemon 1");
                return true;
              }),
              testing::EndsWith(" was changed by somebody else meanwhile; nothing was changed"));
  EXPECT_EQ(Text(), "mallory daemon 1\n");
}

}  // namespace
