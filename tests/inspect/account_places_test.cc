#include "inspect/account_places.h"

#include <errno.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/probe.h"
#include "tests/inspect/findings.h"
#include "tests/inspect/own_view.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class AccountPlacesTest : public testing::Test {
 protected:
  AccountPlacesTest() {
    chmod(directory_.path().c_str(), 0755);
    directory_.Write(".vk_corvane_users", "x x 0\nalice daemon 1\n");
    directory_.Write(".vk_corvane_env", "TMPDIR " + directory_.File("tmp") + "\n");
    std::filesystem::create_directory(directory_.File("tmp"));
    chmod(directory_.File("tmp").c_str(), 01777);
  }
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
  }
  Site TheSite() const { return SiteOf({"-p", "5000"}, directory_.File("vkjobmill.exe")); }

  // What is found where the account daemon is another one: with such lines in the files of
  // accounts.
  std::string WithAccount(const std::string& passwd, const std::string& shadow) const {
    const std::string accounts = directory_.Write("passwd", "root:x:0:0::/root:/bin/sh\n" + passwd);
    const std::string expiries = directory_.Write("shadow", shadow);
    const std::string services =
        directory_.Write("nsswitch.conf", "passwd: files\nshadow: files\n");
    return Ask(
               [&] {
                 // The mounts are of this process alone.
                 if (unshare(CLONE_NEWNS) != 0 ||
                     mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                     mount(accounts.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0 ||
                     mount(expiries.c_str(), "/etc/shadow", nullptr, MS_BIND, nullptr) != 0 ||
                     mount(services.c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr) !=
                         0) {
                   return std::string("no mount");
                 }
                 std::string found;
                 for (const std::string& id : Ids(CheckAccounts(TheSite()))) found += id + "\n";
                 return found;
               },
               std::chrono::seconds(30))
        .value_or("no answer");
  }

  TemporaryDirectory directory_;
};

TEST_F(AccountPlacesTest, AccountsOfAMachineAreGood) {
  EXPECT_THAT(CheckAccounts(TheSite()), IsEmpty());
  EXPECT_THAT(CheckAccountPlaces(TheSite()), IsEmpty());
}

TEST_F(AccountPlacesTest, ExpiredAccountIsFound) {
  const std::string passwd = "daemon:x:1:1::/usr:/bin/sh\n";
  const std::string good = WithAccount(passwd, "daemon:*:19000:0:99999:7:::\n");
  if (good == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(good, "");
  EXPECT_EQ(WithAccount(passwd, "daemon:*:19000:0:99999:7::99999:\n"), "");
  EXPECT_EQ(WithAccount(passwd, "daemon:*:19000:0:99999:7::19001:\n"), "warning users.expired:2\n");
}

TEST_F(AccountPlacesTest, HomeThatTheAccountCannotEnterIsFound) {
  const std::string shadow = "daemon:*:19000:0:99999:7:::\n";
  const auto with_home = [&](const std::string& home) {
    return WithAccount("daemon:x:1:1::" + home + ":/bin/sh\n", shadow);
  };
  const std::string moved = with_home(directory_.File("moved"));
  if (moved == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(moved, "warning users.no-home:2\n");
  std::filesystem::create_directory(directory_.File("home"));
  chmod(directory_.File("home").c_str(), 0700);
  EXPECT_EQ(with_home(directory_.File("home")), "warning users.no-home:2\n");
  chmod(directory_.File("home").c_str(), 0755);
  EXPECT_EQ(with_home(directory_.File("home")), "");
  EXPECT_EQ(with_home("/nonexistent"), "");
}

TEST_F(AccountPlacesTest, DirectoryForTemporaryFilesThatAnAccountCannotWriteIsFound) {
  chmod(directory_.File("tmp").c_str(), 0755);
  const Findings findings = CheckAccountPlaces(TheSite());
  ASSERT_THAT(Ids(findings), ElementsAre("error host.temporary"));
  EXPECT_EQ(findings[0].file, directory_.File("tmp"));
  EXPECT_THAT(findings[0].what, HasSubstr("of daemon make temporary files, and cannot be written"));
}

TEST_F(AccountPlacesTest, FullDirectoryForTemporaryFilesIsFound) {
  const auto full = Ask([&] {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", directory_.File("tmp").c_str(), "tmpfs", 0, "size=64k,mode=1777") != 0) {
      return std::string("no mount");
    }
    const Findings findings = CheckAccountPlaces(TheSite());
    return findings.empty() ? std::string() : findings[0].what;
  });
  if (full == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(full, "is where runs of daemon make temporary files, and is full");
}

TEST_F(AccountPlacesTest, NullDeviceThatIsNoneIsFound) {
  const std::string file = directory_.Write("null", "");
  const Findings findings = CheckAccountPlaces(TheSite(), file);
  ASSERT_THAT(Ids(findings), ElementsAre("error host.null-device"));
  EXPECT_THAT(findings[0].what, HasSubstr("is no device"));
  std::filesystem::remove(file);
  if (mknod(file.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) return;
  chmod(file.c_str(), 0600);
  EXPECT_THAT(Ids(CheckAccountPlaces(TheSite(), file)), ElementsAre("error host.null-device"));
}

TEST_F(AccountPlacesTest, SitesWithoutOtherAccountsAreNotJudged) {
  chmod(directory_.File("tmp").c_str(), 0755);
  const Site own = SiteOf({"-p", "5000", "-u"}, directory_.File("vkjobmill.exe"));
  EXPECT_THAT(CheckAccounts(own), IsEmpty());
  EXPECT_THAT(CheckAccountPlaces(own), IsEmpty());
  Site unread = TheSite();
  unread.error = EACCES;
  EXPECT_THAT(CheckAccountPlaces(unread), IsEmpty());
  EXPECT_EQ(AsNobody([&] { return IdsIn(CheckAccounts(TheSite())); }), "");
}

TEST_F(AccountPlacesTest, AccountThatHasTheNameOfItsUserAndRootAreJudgedAlike) {
  directory_.Write(".vk_corvane_users", "bob nosuchaccount 1\nroot * 1\ndaemon * 1\n");
  chmod(directory_.File("tmp").c_str(), 0755);
  const Findings findings = CheckAccountPlaces(TheSite());
  ASSERT_THAT(Ids(findings), ElementsAre("error host.temporary"));
  EXPECT_THAT(findings[0].what, HasSubstr("runs of daemon make temporary files"));
  const std::string passwd = "daemon:x:1:1::" + directory_.File("moved") + ":/bin/sh\n";
  const std::string found = WithAccount(passwd, "root:*:19000:0:99999:7:::\n");
  if (found == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(found, "warning users.no-home:3\n");
  EXPECT_EQ(WithAccount("daemon:x:1:1:::/bin/sh\n", "root:*:19000:0:99999:7:::\n"), "");
}

TEST_F(AccountPlacesTest, AccountsThatMeetTheSameAreToldTogether) {
  directory_.Write(".vk_corvane_users", "alice daemon 1\nbob bin 1\n");
  chmod(directory_.File("tmp").c_str(), 0755);
  EXPECT_THAT(CheckAccountPlaces(TheSite()).at(0).what, HasSubstr("runs of bin, daemon make"));
}

TEST_F(AccountPlacesTest, TemporaryFilesAreInTmpWhereNothingElseIsSaid) {
  directory_.Write(".vk_corvane_env", "");
  Site site = TheSite();
  site.environment.erase("TMPDIR");
  EXPECT_THAT(CheckAccountPlaces(site), IsEmpty());
}

TEST_F(AccountPlacesTest, FileSystemWithoutFreeFilesIsFull) {
  const std::string full = WithMounts({}, [&] {
    if (mount("none", directory_.File("tmp").c_str(), "tmpfs", 0, "nr_inodes=2,mode=1777") != 0) {
      return std::string("no mount");
    }
    directory_.Write("tmp/last", "");
    const Findings findings = CheckAccountPlaces(TheSite());
    return findings.empty() ? std::string() : findings[0].what;
  });
  if (full == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(full, "is where runs of daemon make temporary files, and is full");
}

TEST_F(AccountPlacesTest, NullDeviceThatIsNotThereIsFound) {
  const Findings findings = CheckAccountPlaces(TheSite(), directory_.File("null"));
  ASSERT_THAT(Ids(findings), ElementsAre("error host.null-device"));
  EXPECT_THAT(findings[0].what, HasSubstr("No such file or directory"));
}

TEST_F(AccountPlacesTest, FileSystemThatTellsNothingOfItselfIsGood) {
  EXPECT_EQ(WithAnsweredCall(
                SYS_statfs, []() -> long { return -EIO; },
                [&] { return IdsIn(CheckAccountPlaces(TheSite())); }),
            "");
}

}  // namespace
}  // namespace inspect
