#include "inspect/account.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <set>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "inspect/access.h"
#include "inspect/account_places.h"
#include "inspect/commands.h"
#include "inspect/host.h"
#include "inspect/log_directory.h"
#include "inspect/user_file_check.h"
#include "tests/inspect/own_view.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

// Whether an account is taken in a process where the call fails.
std::string TakenWithout(int number, void (*take)(const Account&)) {
  return WithAnsweredCall(
      number, []() -> long { return -EPERM; },
      [take]() -> std::string {
        try {
          take({true, 65534, 65534});
          return "taken";
        } catch (const std::runtime_error& error) {
          return error.what();
        }
      });
}

TEST(AccountTest, AccountIsTakenWholeOrNotAtAll) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  for (const int number : {SYS_setgroups, SYS_setgid, SYS_setuid}) {
    EXPECT_EQ(TakenWithout(number, Become), "cannot become the account") << number;
  }
  for (const int number : {SYS_setgroups, SYS_setresgid, SYS_setresuid}) {
    EXPECT_EQ(TakenWithout(number, ActAs), "cannot become the account") << number;
  }
  EXPECT_EQ(TakenWithout(SYS_sync, Become), "taken");
  EXPECT_EQ(TakenWithout(SYS_sync, ActAs), "taken");
}

TEST(AccountTest, OneAfterTheOtherActs) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const std::string users = InProcess([] {
    std::string all;
    for (const unsigned user : {1U, 65534U}) {
      ActAs({true, user, user});
      all += std::to_string(geteuid()) + ":" + std::to_string(getegid()) + " ";
    }
    return all;
  });
  EXPECT_EQ(users, "1:1 65534:65534 ");
}

TEST(AccountTest, NameServiceThatFailsIsNoWordOnTheName) {
  EXPECT_TRUE(FindAccounts({"root"})->at("root").exists);
  EXPECT_FALSE(FindAccounts({"no such account"})->at("no such account").exists);
  const std::string answer = InProcess([] {
    // Enough descriptors for a question, and none for the file of accounts.
    const int lowest = dup(0);
    close(lowest);
    const rlimit few{static_cast<rlim_t>(lowest) + 2, static_cast<rlim_t>(lowest) + 2};
    setrlimit(RLIMIT_NOFILE, &few);
    return std::string(FindAccounts({"root"}) ? "known" : "not known");
  });
  EXPECT_EQ(answer, "not known");
}

// A site of its own, in good order.
class UnaskedTest : public testing::Test {
 protected:
  UnaskedTest() {
    chmod(directory_.path().c_str(), 0755);
    directory_.Write(".vk_corvane_users", "alice daemon 1\n");
    chmod(directory_.Write("slurm", "#!/bin/bash\nneeded='true'\n").c_str(), 0755);
  }
  Site TheSite() const {
    return SiteOf({"-p", "5000", "-s", directory_.File("slurm")}, directory_.File("vkjobmill.exe"));
  }
  TemporaryDirectory directory_;
};

// Answers, where they come, come from other processes: none is to be had.
TEST_F(UnaskedTest, WhatCannotBeAskedIsNoFindingOfItsOwn) {
  const Site site = TheSite();
  EXPECT_EQ(WithoutPipes([&] { return IdsIn(CheckAccounts(site)); }), "");
  EXPECT_EQ(WithoutPipes([&] { return IdsIn(CheckAccountPlaces(site)); }), "");
  EXPECT_EQ(WithoutPipes([&] {
              return std::to_string(FindExcluded(site, {Need{}}).all_asked) + " " +
                     std::to_string(RegularFiles({"/bin/sh"}).size());
            }),
            "0 0");
}

TEST_F(UnaskedTest, WhatDoesNotAnswerIsSaid) {
  const Site site = TheSite();
  const std::string host = WithoutPipes([&] { return IdsIn(CheckHost(site)); });
  EXPECT_NE(host.find("host.name-silent;"), std::string::npos) << host;
  EXPECT_NE(host.find("host.file-silent;"), std::string::npos) << host;
  EXPECT_EQ(host.find("host.clock;"), std::string::npos) << host;
  EXPECT_EQ(WithoutPipes([&] { return IdsIn(CheckLogDirectory(site, directory_.path())); }),
            "host.no-log-directory;");
  EXPECT_EQ(WithoutPipes([&] { return IdsIn(CheckUserFile(site)); }), "users.accounts-unchecked;");
}

TEST_F(UnaskedTest, FileSystemThatTellsNothingOfItselfKeepsNobodyAway) {
  const std::string file = directory_.Write("script", "");
  chmod(file.c_str(), 0600);
  EXPECT_EQ(WithAnsweredCall(
                SYS_statfs, []() -> long { return -EIO; },
                [&] {
                  const Need need{"script.not-executable", file, 0, "", {file}, X_OK};
                  const Excluded excluded = FindExcluded(TheSite(), {need});
                  return excluded.names.at(0).begin()->first + "none";
                }),
            "none");
}

}  // namespace
}  // namespace inspect
