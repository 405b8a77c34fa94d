#include "config/user_collection.h"

#include <errno.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log/flog.h"
#include "tests/support/answered_call.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace {

class UserCollectionTest : public testing::Test {
 protected:
  int Read(const std::string& text) {
    directory_.Write(".vk_corvane_users", text);
    return ReadDirectory(directory_.path().string());
  }
  int ReadDirectory(const std::string& directory) {
    return users_.ReadUserFile(directory.c_str(), &log_, error_);
  }

  // "linux/allow" of the record that the look-up finds.
  std::string Find(const char* windows_user) {
    const CVKUser* user = users_.GetUser(windows_user);
    return user == nullptr ? "none" : user->linux_name + ("/" + std::to_string(user->allow));
  }

  std::string Listing() {
    users_.LogOut(&log_);
    return directory_.Read("log");
  }

  TemporaryDirectory directory_;
  flog log_{directory_.File("log"), true};
  CVKUserCollection users_;
  char error_[CVKUserCollection::kErrorSize] = "untouched";
};

TEST_F(UserCollectionTest, ErrorsHave2048Characters) {
  EXPECT_EQ(CVKUserCollection::kErrorSize, 2048);
}

TEST_F(UserCollectionTest, NobodyIsAllowedWhoIsNotSaidToBe) {
  EXPECT_EQ(CVKUser().allow, 0);
}

TEST_F(UserCollectionTest, MissingFileReturnsOneWithItsPath) {
  EXPECT_EQ(ReadDirectory("/nowhere"), 1);
  EXPECT_STREQ(error_, "Could not open the user administration file: /nowhere/./.vk_corvane_users");
}

TEST_F(UserCollectionTest, WhatIsNoRegularFileCannotBeOpenedAndIsNotWaitedFor) {
  const std::string file = directory_.File(".vk_corvane_users");
  const std::vector<std::function<void()>> places = {
      [&] { ASSERT_EQ(mkfifo(file.c_str(), 0644), 0); },
      [&] { std::filesystem::create_directory(file); },
      [&] { std::filesystem::create_symlink("/dev/zero", file); },
      [&] { std::filesystem::create_symlink("/dev/null", file); }};
  for (const auto& place : places) {
    Read("alice alice 1\n");
    std::filesystem::remove(file);
    place();
    EXPECT_EQ(ReadDirectory(directory_.path().string()), 1);
    EXPECT_EQ(std::string(error_), "Could not open the user administration file: " +
                                       directory_.File("./.vk_corvane_users"));
    EXPECT_EQ(Find("alice"), "none");
    std::filesystem::remove(file);
  }
}

TEST_F(UserCollectionTest, EmptyFileIsAnEmptyList) {
  EXPECT_EQ(Read(""), 0);
  EXPECT_EQ(Find("alice"), "none");
  EXPECT_STREQ(error_, "untouched");
}

TEST_F(UserCollectionTest, FieldsOfEveryLineAreFound) {
  EXPECT_EQ(Read("alice alice 1\nbob runner 1\nguest guest 0\n* * 1\n"), 0);
  EXPECT_EQ(Find("alice"), "alice/1");
  EXPECT_EQ(Find("bob"), "runner/1");
  EXPECT_EQ(Find("guest"), "guest/0");
  EXPECT_EQ(Find("else"), "*/1");
}

TEST_F(UserCollectionTest, LookUpIgnoresLetterCase) {
  Read("alice alice 1\n");
  EXPECT_EQ(Find("ALICE"), "alice/1");
}

TEST_F(UserCollectionTest, ExactMatchWinsOverTheCatchAllWhereverItStands) {
  Read("* nobody 0\nalice alice 1\n");
  EXPECT_EQ(Find("alice"), "alice/1");
  EXPECT_EQ(Find("bob"), "nobody/0");
}

TEST_F(UserCollectionTest, LastCatchAllCounts) {
  Read("* a 1\n* b 1\n");
  EXPECT_EQ(Find("anybody"), "b/1");
}

TEST_F(UserCollectionTest, FirstOfEqualNamesCounts) {
  Read("alice first 1\nAlice second 1\n");
  EXPECT_EQ(Find("alice"), "first/1");
}

TEST_F(UserCollectionTest, EmptyLineEndsTheFile) {
  EXPECT_EQ(Read("alice alice 1\n\nbob bob 1\n"), 0);
  EXPECT_EQ(Find("alice"), "alice/1");
  EXPECT_EQ(Find("bob"), "none");
}

TEST_F(UserCollectionTest, LineOfTwoFieldsEndsTheFile) {
  EXPECT_EQ(Read("alice alice 1\ncarol carol\nbob bob 1\n"), 0);
  EXPECT_EQ(Find("alice"), "alice/1");
  EXPECT_EQ(Find("carol"), "none");
  EXPECT_EQ(Find("bob"), "none");
}

TEST_F(UserCollectionTest, AllowIsTheLeadingNumberOfTheRest) {
  Read("dave dave 1 extra words\nerin erin yes\nfrank frank    7x\ngrace grace -1\n");
  EXPECT_EQ(Find("dave"), "dave/1");
  EXPECT_EQ(Find("erin"), "erin/0");
  EXPECT_EQ(Find("frank"), "frank/7");
  EXPECT_EQ(Find("grace"), "grace/-1");
}

TEST_F(UserCollectionTest, RecordsAreReachedInTheOrderOfTheirLines) {
  EXPECT_EQ(users_.first(), nullptr);
  Read("bob runner 1\nalice alice 0\n\ncarol carol 1\n");
  ASSERT_NE(users_.first(), nullptr);
  EXPECT_STREQ(users_.first()->windows_name, "bob");
  ASSERT_NE(users_.first()->next, nullptr);
  EXPECT_STREQ(users_.first()->next->windows_name, "alice");
  EXPECT_EQ(users_.first()->next->next, nullptr);
}

TEST_F(UserCollectionTest, LastLineNeedsNoNewline) {
  Read("alice alice 1\nbob bob 1");
  EXPECT_EQ(Find("bob"), "bob/1");
}

TEST_F(UserCollectionTest, RunsOfBlanksSeparateAndTabsBelongToNames) {
  Read("  alice   runner   1\nbob\tx runner 1\n");
  EXPECT_EQ(Find("alice"), "runner/1");
  EXPECT_EQ(Find("bob\tx"), "runner/1");
}

TEST_F(UserCollectionTest, LineThatBeginsWithHashIsARecord) {
  Read("# comment 1\nalice alice 1\n");
  EXPECT_EQ(Find("#"), "comment/1");
  EXPECT_EQ(Find("alice"), "alice/1");
}

TEST_F(UserCollectionTest, NamesOf255CharactersFit) {
  const std::string name(255, 'n');
  Read(name + " " + name + " 1\n");
  EXPECT_EQ(Find(name.c_str()), name + "/1");
}

TEST_F(UserCollectionTest, LongerNameEndsTheFileClosed) {
  const std::string name(256, 'n');
  EXPECT_EQ(Read("alice alice 1\n" + name + " root 1\n* root 1\n"), 0);
  EXPECT_EQ(Find("alice"), "alice/1");
  EXPECT_EQ(Find("mallory"), "none");
  EXPECT_EQ(Read("alice " + name + " 1\n* root 1\n"), 0);
  EXPECT_EQ(Find("alice"), "none");
}

TEST_F(UserCollectionTest, LineAboveTheLimitEndsTheFileAndItsTailIsNoRecord) {
  const std::string fits = "alice alice 1" + std::string(1010, ' ');
  ASSERT_EQ(fits.size(), 1023U);
  const std::string poisoned = "guest guest 0" + std::string(1010, ' ') + "* root 1";
  EXPECT_EQ(Read(fits + "\n" + poisoned + "\nbob bob 1\n"), 0);
  EXPECT_EQ(Find("alice"), "alice/1");
  EXPECT_EQ(Find("guest"), "none");
  EXPECT_EQ(Find("mallory"), "none");
  EXPECT_EQ(Find("bob"), "none");
}

TEST_F(UserCollectionTest, LineOneCharacterAboveTheLimitEndsTheFile) {
  EXPECT_EQ(Read("bob bob 1\nalice alice 1" + std::string(1011, ' ') + "\n* root 1\n"), 0);
  EXPECT_EQ(Find("bob"), "bob/1");
  EXPECT_EQ(Find("alice"), "none");
  EXPECT_EQ(Find("mallory"), "none");
}

TEST_F(UserCollectionTest, ReadingReplacesTheFormerRecords) {
  Read("alice alice 1\n");
  Read("bob bob 1\n");
  EXPECT_EQ(Find("alice"), "none");
  EXPECT_EQ(Find("bob"), "bob/1");
}

TEST_F(UserCollectionTest, FailedReadingLeavesNoFormerRecords) {
  Read("alice alice 1\n");
  ReadDirectory("/nowhere");
  EXPECT_EQ(Find("alice"), "none");
}

TEST_F(UserCollectionTest, ListingNumbersTheRecordsFromOne) {
  Read("alice runner 1\n* * 0\n");
  EXPECT_EQ(Listing(),
            "Contents of user administration file:\n"
            "User 1:\n"
            "Windows: alice, Linux: runner, allow: 1\n"
            "User 2:\n"
            "Windows: *, Linux: *, allow: 0\n");
}

TEST_F(UserCollectionTest, ReadingWritesNothingToTheLog) {
  Read("alice runner 1\nbroken\n");
  EXPECT_EQ(directory_.Read("log"), "");
}

// The descriptor of the user file in the test below, and the reads of it.
int user_file = 0;
int reads = 0;

// The denial comes after what the first read brings.
TEST_F(UserCollectionTest, ReadThatFailsLetsNobodyIn) {
  std::string text = "* nobody 1\nalice alice 1\n";
  while (text.size() < 100'000) text += "filler filler 1\n";
  directory_.Write(".vk_corvane_users", text + "mallory mallory 0\n");
  ChildProcess::Options options;
  options.in_child = [this]() -> int {
    user_file = dup(STDOUT_FILENO);  // the number that the file's descriptor will get
    close(user_file);
    const auto answer = [] {
      if (++reads > 1) return static_cast<long>(-EIO);
      const iovec room{AnsweredBuffer(), 4096};
      return static_cast<long>(readv(user_file, &room, 1));
    };
    if (!AnswerCall(SYS_read, answer, user_file)) return 77;
    int status = 1;
    if (ReadDirectory(directory_.path().string()) == 0 && reads == 2) {
      status = Find("mallory") == "none" && Find("alice") == "none" ? 0 : 2;
    }
    // Without what a sanitizer does at the end: its reads would be answered here, too.
    _exit(status);
  };
  const auto result = ChildProcess({}, options).Wait(std::chrono::seconds(10));
  if (result == 77) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(result, 0);
}

}  // namespace
