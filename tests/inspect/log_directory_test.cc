#include "inspect/log_directory.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/descriptor.h"
#include "inspect/probe.h"
#include "tests/inspect/findings.h"
#include "tests/inspect/own_view.h"
#include "tests/support/running_daemon.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class LogDirectoryTest : public testing::Test {
 protected:
  LogDirectoryTest() {
    directory_.Write("jobmill.conf", "OPTIONS='-p 5000 -s /x'\n");
    fs::create_directory(Log());
  }

  // Where the unit's log is.
  std::string Log() const { return directory_.File("log"); }
  Findings Check() const {
    return CheckLogDirectory(SiteOf(directory_.path(), "jobmill", "/none/vkjobmill.exe"), Log());
  }

  TemporaryDirectory directory_;
};

TEST_F(LogDirectoryTest, DirectoryWithRoomIsGood) {
  EXPECT_THAT(Check(), IsEmpty());
}

TEST_F(LogDirectoryTest, UnitMakesItsDirectory) {
  fs::remove(Log());
  EXPECT_THAT(Check(), IsEmpty());
}

TEST_F(LogDirectoryTest, WhatIsNoDirectoryIsFound) {
  fs::remove(Log());
  directory_.Write("log", "");
  const Findings findings = Check();
  ASSERT_THAT(Ids(findings), ElementsAre("error host.no-log-directory"));
  EXPECT_EQ(findings[0].what, "is no directory");
  fs::remove(Log());
  fs::create_symlink("nowhere", Log());
  EXPECT_THAT(Ids(Check()), ElementsAre("error host.no-log-directory"));
}

TEST_F(LogDirectoryTest, ReadOnlyAndFullFileSystemsAreFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const auto on = [this](unsigned long flags, const char* options) {
    return Ask([&] {
             // The mount is of this process alone.
             if (unshare(CLONE_NEWNS) != 0 ||
                 mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                 mount("none", Log().c_str(), "tmpfs", flags, options) != 0) {
               return std::string("no mount");
             }
             std::string found;
             for (const std::string& id : Ids(Check())) found += id;
             return found;
           })
        .value_or("no answer");
  };
  const std::string read_only = on(MS_RDONLY, "size=200m");
  if (read_only == "no mount") GTEST_SKIP() << "no file system can be mounted here";
  EXPECT_EQ(read_only, "error host.no-log-directory");
  EXPECT_EQ(on(0, "size=1m"), "warning host.log-room");
  EXPECT_EQ(on(0, "size=200m"), "");
}

TEST_F(LogDirectoryTest, DirectoryInThePlaceOfTheLogIsFound) {
  fs::create_directory(Log() + "/VKJobmill_5000.log");
  EXPECT_THAT(Check(), IsEmpty());
  fs::create_directory(Log() + "/VKJobmill_5000.log/x");
  EXPECT_THAT(Ids(Check()), ElementsAre("warning host.log-not-replaced"));
}

TEST_F(LogDirectoryTest, ImmutableLogIsFound) {
  const std::string file = directory_.Write("log/VKJobmill_5000.log", "");
  const Descriptor log(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  int flags = FS_IMMUTABLE_FL;
  if (ioctl(log.get(), FS_IOC_SETFLAGS, &flags) != 0) GTEST_SKIP() << "no such attributes here";
  const auto ids = Ids(Check());
  flags = 0;
  ioctl(log.get(), FS_IOC_SETFLAGS, &flags);
  EXPECT_THAT(ids, ElementsAre("warning host.log-not-replaced"));
}

TEST(LogOfDaemonTest, LogThatWasRemovedIsFound) {
  RunningDaemon::Options options;
  options.arguments = {"-u"};
  const RunningDaemon daemon(options);
  const Site site = SiteOf({"-p", std::to_string(daemon.port()), "-u"}, "/none/vkjobmill.exe");
  EXPECT_THAT(Ids(CheckLogDirectory(site)),
              testing::Not(testing::Contains("warning host.log-elsewhere")));
  fs::remove(daemon.LogFile());
  const Findings findings = CheckLogDirectory(site);
  EXPECT_THAT(Ids(findings), testing::Contains("warning host.log-elsewhere"));
  EXPECT_THAT(findings.back().what, HasSubstr(" to a file that was removed or replaced"));
}

TEST(LogOfDaemonTest, LogInTheDirectoryForTemporaryFilesIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  RunningDaemon::Options options;
  options.arguments = {"-u"};
  options.users = options.environment = "-";
  // As an account that cannot write where logs are.
  options.in_child = [] { return setgroups(0, nullptr) + setgid(65534) + setuid(65534); };
  const RunningDaemon daemon(options);
  const Findings findings =
      CheckLogDirectory(SiteOf({"-p", std::to_string(daemon.port()), "-u"}, "/none/vkjobmill.exe"));
  ASSERT_THAT(Ids(findings), testing::Contains("warning host.log-elsewhere"));
  EXPECT_EQ(findings.back().what, "process " + std::to_string(daemon.pid()) +
                                      " (vkjobmill.exe) writes its log to /tmp/VKJobmill_" +
                                      std::to_string(daemon.port()) + ".log");
}

TEST_F(LogDirectoryTest, ImmutableAndAppendOnlyDirectoriesAreFound) {
  const auto with = [this](int flag) {
    const Descriptor directory(open(Log().c_str(), O_RDONLY | O_CLOEXEC));
    int flags = 0;
    if (ioctl(directory.get(), FS_IOC_GETFLAGS, &flags) != 0) return std::string("no flags");
    const int changed = flags | flag;
    if (ioctl(directory.get(), FS_IOC_SETFLAGS, &changed) != 0) return std::string("no flags");
    const Findings findings = Check();
    ioctl(directory.get(), FS_IOC_SETFLAGS, &flags);
    return findings.empty() ? std::string() : findings[0].what;
  };
  const std::string immutable = with(FS_IMMUTABLE_FL);
  if (immutable == "no flags") GTEST_SKIP() << "no such attributes here";
  EXPECT_EQ(immutable, "is immutable (chattr -i)");
  EXPECT_EQ(with(FS_APPEND_FL), "is append-only (chattr -a)");
}

TEST_F(LogDirectoryTest, DirectoryThatTheDaemonsAccountCannotWriteIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  fs::permissions(directory_.path(), fs::perms(0755));
  const auto found = [&](const std::vector<std::string>& words) {
    return AsNobody([&] {
      const Findings findings = CheckLogDirectory(SiteOf(words, "/none/vkjobmill.exe"), Log());
      return findings.empty() ? std::string()
                              : std::string(Name(findings[0].severity)) + ": " + findings[0].what +
                                    ": " + findings[0].consequence;
    });
  };
  EXPECT_EQ(found({"-p", "5000", "-u"}),
            "warning: cannot be written: Permission denied: the log goes to /tmp");
  // Whether root can write it is not for this account to say.
  EXPECT_EQ(found({"-p", "5000", "-s", "/x"}), "");
}

TEST_F(LogDirectoryTest, FileSystemWithoutFreeFilesHasNoRoom) {
  const std::string found = WithMounts({}, [&] {
    if (mount("none", Log().c_str(), "tmpfs", 0, "nr_inodes=2") != 0)
      return std::string("no mount");
    directory_.Write("log/last", "");
    const Findings findings = Check();
    return findings.empty() ? std::string() : findings[0].what;
  });
  if (found == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(found, "only 0 MiB are free");
}

TEST_F(LogDirectoryTest, SystemsDirectoriesAreJudgedWithoutAnother) {
  EXPECT_THAT(CheckLogDirectory(SiteOf({"-p", "5000", "-s", "/x"}, "/none/vkjobmill.exe")),
              testing::Each(testing::Field(&Finding::file, testing::StartsWith("/var/log"))));
}

TEST_F(LogDirectoryTest, FileSystemThatTellsNothingOfItselfIsFound) {
  EXPECT_EQ(WithAnsweredCall(
                SYS_statfs, []() -> long { return -EIO; }, [&] { return Check().at(0).what; }),
            "Input/output error");
}

}  // namespace
}  // namespace inspect
