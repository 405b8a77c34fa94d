#include "inspect/user_file.h"

#include <errno.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/probe.h"
#include "inspect/user_file_check.h"
#include "tests/inspect/findings.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

// The accounts daemon and root are those of every machine.
class UserFileTest : public testing::Test {
 protected:
  Findings Check() {
    Findings findings = CheckUserFile(site_);
    // Where another account than root runs the tests, their files are its own.
    if (geteuid() != 0) std::erase_if(findings, [](auto& f) { return f.id == "users.writable"; });
    return findings;
  }
  Findings Check(const std::string& text) {
    directory_.Write(".vk_corvane_users", text);
    return Check();
  }
  std::vector<std::string> IdsOf(const std::string& text) { return Ids(Check(text)); }

  TemporaryDirectory directory_;
  Site site_ = SiteOf({"-p", "5000"}, directory_.File("vkjobmill.exe"));
};

TEST_F(UserFileTest, NothingIsFoundInAGoodOne) {
  EXPECT_THAT(IdsOf("alice daemon 1\nbob  daemon  1\nguest guest 0"), IsEmpty());
}

TEST_F(UserFileTest, FindingSaysWhereAndWhatFollowsAndWhatToDo) {
  const Findings findings = Check("alice daemon 1\n\nbob daemon 1\n");
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].file, std::filesystem::canonical(directory_.File(".vk_corvane_users")));
  EXPECT_EQ(findings[0].line, 2);
  EXPECT_EQ(findings[0].what, "is empty");
  EXPECT_EQ(findings[0].consequence, "it ends the file: 1 line after it is never read");
  EXPECT_EQ(findings[0].remedy, "remove the line");
}

TEST_F(UserFileTest, MissingFileIsFoundWithWhatMastersAreTold) {
  const Findings findings = Check();
  EXPECT_THAT(Ids(findings), ElementsAre("error users.missing"));
  EXPECT_EQ(findings[0].consequence,
            "every master is told 'Could not open the user administration file: " +
                std::filesystem::canonical(directory_.path()).string() + "/./.vk_corvane_users'");
}

TEST_F(UserFileTest, LinkToNothingIsAMissingFile) {
  std::filesystem::create_symlink("nothing", directory_.File(".vk_corvane_users"));
  EXPECT_THAT(Ids(Check()), ElementsAre("error users.missing"));
}

TEST_F(UserFileTest, WhatIsNoRegularFileIsFoundWithoutWaiting) {
  ASSERT_EQ(mkfifo(directory_.File(".vk_corvane_users").c_str(), 0600), 0);
  const Findings fifo = Check();
  ASSERT_THAT(Ids(fifo), ElementsAre("error users.unreadable"));
  EXPECT_EQ(fifo[0].what, "is no regular file");
  std::filesystem::remove(directory_.File(".vk_corvane_users"));
  std::filesystem::create_symlink(".vk_corvane_users", directory_.File(".vk_corvane_users"));
  const Findings link_to_itself = Check();
  ASSERT_THAT(Ids(link_to_itself), ElementsAre("error users.unreadable"));
  EXPECT_EQ(link_to_itself[0].what, "cannot be read: Too many levels of symbolic links");
}

TEST_F(UserFileTest, FileThatOnlyRootCanReadIsNotCalledGood) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  chmod(directory_.path().c_str(), 0755);
  chmod(directory_.Write(".vk_corvane_users", "alice daemon 1\n").c_str(), 0600);
  const auto ids = Ask([this] {
    return setgroups(0, nullptr) == 0 && setuid(61234) == 0 ? Ids(CheckUserFile(site_)).at(0) : "";
  });
  EXPECT_EQ(ids, "unchecked users.unchecked");
}

TEST_F(UserFileTest, FileThatOthersCanWriteIsFound) {
  const std::string file = directory_.Write(".vk_corvane_users", "alice daemon 1\n");
  chmod(file.c_str(), 0660);
  const Findings findings = CheckUserFile(site_);
  ASSERT_THAT(Ids(findings), ElementsAre("error users.writable"));
  if (geteuid() == 0) {
    EXPECT_THAT(findings[0].what, EndsWith("it has the mode 0660"));
  }
}

TEST_F(UserFileTest, DirectoryOfTheRealFileIsLookedAt) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  std::filesystem::create_directory(directory_.File("etc"));
  directory_.Write("etc/users", "alice daemon 1\n");
  std::filesystem::create_symlink("etc/users", directory_.File(".vk_corvane_users"));
  EXPECT_THAT(Ids(CheckUserFile(site_)), IsEmpty());
  chmod(directory_.File("etc").c_str(), 0777);
  EXPECT_THAT(Ids(CheckUserFile(site_)), ElementsAre("error users.writable"));
}

TEST_F(UserFileTest, FileThatIsNotTheOneOfTheConfigurationIsFound) {
  std::filesystem::create_directory(directory_.File("etc"));
  directory_.Write("etc/jobmill.conf", "OPTIONS='-p 5000'\n");
  directory_.Write(".vk_corvane_users", "alice daemon 1\n");
  site_ = SiteOf(directory_.File("etc"), "jobmill", directory_.File("vkjobmill.exe"));
  EXPECT_THAT(Ids(Check()), IsEmpty());
  const std::string users = directory_.Write("etc/users", "bob daemon 1\n");
  const Findings findings = Check();
  ASSERT_THAT(Ids(findings), ElementsAre("warning users.not-linked"));
  EXPECT_EQ(findings[0].what, "is not " + users);
  std::filesystem::remove(directory_.File(".vk_corvane_users"));
  std::filesystem::create_symlink("etc/users", directory_.File(".vk_corvane_users"));
  EXPECT_THAT(Ids(Check()), IsEmpty());
}

TEST_F(UserFileTest, EmptyFileLetsNobodyIn) {
  EXPECT_THAT(IdsOf(""), ElementsAre("warning users.empty"));
}

TEST_F(UserFileTest, FileIsNotLookedAtWhenTheDaemonDoesNotReadIt) {
  site_ = SiteOf({"-p", "5000", "-u"}, directory_.File("vkjobmill.exe"));
  EXPECT_THAT(IdsOf("* * 1\n"), IsEmpty());
}

TEST_F(UserFileTest, LineThatEndsTheFileIsFound) {
  const std::string long_name(256, 'n');
  const std::string good = "alice daemon 1\n";
  EXPECT_THAT(IdsOf(good + "\n" + good), ElementsAre("error users.empty-line:2"));
  EXPECT_THAT(IdsOf(good + " \t\r\n" + good), ElementsAre("error users.empty-line:2"));
  EXPECT_THAT(IdsOf("\nroot root 1\n"), ElementsAre("error users.empty-line:1"));
  EXPECT_THAT(IdsOf(good + "bob daemon\n"), ElementsAre("error users.incomplete-line:2"));
  EXPECT_THAT(IdsOf(good + "bob daemon \n"), ElementsAre("error users.incomplete-line:2"));
  EXPECT_THAT(IdsOf(good + "bob\tdaemon\t1\n"), ElementsAre("error users.incomplete-line:2"));
  EXPECT_THAT(IdsOf(good + "# a\n"), ElementsAre("error users.incomplete-line:2"));
  EXPECT_THAT(IdsOf(good + std::string("bob\0 daemon 1\n", 14)),
              ElementsAre("error users.incomplete-line:2"));
  EXPECT_THAT(IdsOf(good + long_name + " daemon 1\n"), ElementsAre("error users.long-name:2"));
  EXPECT_THAT(IdsOf(good + "bob " + long_name + " 1\n"), ElementsAre("error users.long-name:2"));
  EXPECT_THAT(IdsOf(good + "bob daemon 1" + std::string(1012, ' ') + "\n" + good),
              ElementsAre("error users.long-line:2"));
}

TEST_F(UserFileTest, EmptyLinesAtTheEndHideOnlyWhatWillBeAdded) {
  const Findings findings = Check("alice daemon 1\n\n \n");
  EXPECT_THAT(Ids(findings), ElementsAre("warning users.empty-line:2"));
  EXPECT_EQ(findings[0].consequence,
            "it ends the file: a record that is added after it is never read");
}

TEST_F(UserFileTest, TabInANameIsFound) {
  EXPECT_THAT(IdsOf("bob\tx daemon 1\n"), ElementsAre("error users.tab:1"));
  EXPECT_THAT(IdsOf("bob daemon\tx 1\n"), ElementsAre("error users.tab:1"));
}

TEST_F(UserFileTest, NameThatNoMasterCanSendIsFound) {
  for (const char* name : {"CORP\\alice", "a/b", "a[", "a;", "a|", "a=", "a+", "a,", "a?", "a*",
                           "a<", "a>", "a:", "a\"", "a\x01", "a\x7f"}) {
    EXPECT_THAT(IdsOf(name + std::string(" daemon 1\n")),
                ElementsAre("warning users.unsendable-name:1"))
        << name;
  }
  EXPECT_THAT(IdsOf("a.b-c_d@e'f daemon 1\nm\xc3\xbcller daemon 1\n"), IsEmpty());
}

TEST_F(UserFileTest, ByteOrderMarkIsFound) {
  const std::string mark = "\xef\xbb\xbf";
  const Findings findings = Check(mark + "zoe daemon 1\nbob daemon 1\n");
  ASSERT_THAT(Ids(findings), ElementsAre("error users.byte-order-mark:1"));
  EXPECT_EQ(findings[0].remedy,
            "save it as plain text, or take the mark away with "
            "'sed -i \"1s/^\\xEF\\xBB\\xBF//\" FILE'");
  EXPECT_THAT(IdsOf(mark + "#zoe\tx daemon 1\n"),
              ElementsAre("error users.byte-order-mark:1", "error users.tab:1"));
  EXPECT_THAT(IdsOf(mark),
              ElementsAre("error users.byte-order-mark:1", "error users.incomplete-line:1"));
  EXPECT_THAT(IdsOf("bob daemon 1\n" + mark + "zoe daemon 1\n"),
              ElementsAre("warning users.unsendable-name:2"));
}

TEST_F(UserFileTest, FileInUtf16IsCalledSo) {
  const Findings findings =
      Check(std::string("\xff\xfe"
                        "a\0 \0a\0 \0"
                        "1\0\n\0",
                        14));
  EXPECT_EQ(findings[0].id, "users.byte-order-mark");
  EXPECT_EQ(findings[0].what, "is written in UTF-16, which begins with a byte order mark");
}

TEST_F(UserFileTest, TabsThatLeaveALineWithoutThreeFieldsAreNamed) {
  const Findings tabs = Check("bob\tdaemon\t1\n");
  ASSERT_THAT(Ids(tabs), ElementsAre("error users.incomplete-line:1"));
  EXPECT_EQ(tabs[0].what,
            "has not three fields separated by blanks: a tab does not separate, and it has one");
  EXPECT_EQ(Check("bob daemon\n")[0].what, "has not three fields separated by blanks");
}

TEST_F(UserFileTest, CommentIsARecord) {
  EXPECT_THAT(IdsOf("# alice daemon 1\n"),
              ElementsAre("warning users.comment:1", "error users.no-number:1"));
  EXPECT_THAT(IdsOf("#alice daemon 1\n"), ElementsAre("warning users.comment:1"));
}

TEST_F(UserFileTest, ThirdFieldWithoutNumberDenies) {
  EXPECT_THAT(IdsOf("erin daemon yes\n"), ElementsAre("error users.no-number:1"));
  EXPECT_THAT(IdsOf("erin daemon -\n"), ElementsAre("error users.no-number:1"));
  EXPECT_THAT(IdsOf("erin daemon  \n"),
              ElementsAre("error users.no-number:1", "warning users.blanks:1"));
  EXPECT_THAT(IdsOf("erin daemon -1\n"), IsEmpty());
}

TEST_F(UserFileTest, TextAfterTheNumberIsFound) {
  EXPECT_THAT(IdsOf("dave daemon 1 # temporary\n"), ElementsAre("warning users.ignored-text:1"));
  EXPECT_THAT(IdsOf("dave daemon 1x\n"), ElementsAre("warning users.ignored-text:1"));
}

TEST_F(UserFileTest, StarsAreToldApart) {
  EXPECT_THAT(IdsOf("* * 1\n"), ElementsAre("error users.star-star:1"));
  EXPECT_THAT(IdsOf("* daemon 1\n"), ElementsAre("warning users.star:1"));
  EXPECT_THAT(IdsOf("daemon * 1\n"), ElementsAre("warning users.star-account:1"));
  EXPECT_THAT(IdsOf("* * 0\ndaemon * 0\n"), IsEmpty());
}

TEST_F(UserFileTest, EndsOfLinesAreToldOnceWithTheFirstLine) {
  const Findings blanks = Check("alice daemon 1\n bob daemon 1\ncarol daemon 1 \n");
  EXPECT_THAT(Ids(blanks), ElementsAre("warning users.blanks:2"));
  EXPECT_EQ(blanks[0].what, "has blanks at the ends of lines, 2 lines from this one on");
  EXPECT_THAT(IdsOf("alice daemon 1\r\nbob daemon 1\r\n"),
              ElementsAre("warning users.carriage-return:1"));
}

TEST_F(UserFileTest, AccountsThatDoNotExistAreFound) {
  EXPECT_THAT(IdsOf("alice daemon 1\nbob no-such-account 1\n"),
              ElementsAre("error users.no-account:2"));
  EXPECT_THAT(IdsOf("no-such-account * 1\n"),
              ElementsAre("warning users.star-account:1", "error users.no-account:1"));
  EXPECT_THAT(IdsOf("bob no-such-account 0\n"), IsEmpty());
}

TEST_F(UserFileTest, RootIsFoundUnderAnyName) {
  EXPECT_THAT(IdsOf("alice root 1\n"), ElementsAre("error users.root:1"));
  EXPECT_THAT(IdsOf("root * 1\n"),
              ElementsAre("warning users.star-account:1", "error users.root:1"));
  EXPECT_THAT(IdsOf("alice root 0\n"), IsEmpty());
}

TEST_F(UserFileTest, RecordThatIsNeverLookedAtIsFound) {
  EXPECT_THAT(IdsOf("alice daemon 1\nALICE daemon 1\n"), ElementsAre("warning users.repeated:2"));
  EXPECT_THAT(IdsOf("alice daemon 0\nalice daemon 1\n"), ElementsAre("warning users.repeated:2"));
  EXPECT_THAT(IdsOf("* a 0\n* b 0\n* c 0\n"),
              ElementsAre("warning users.repeated:1", "warning users.repeated:2"));
}

TEST_F(UserFileTest, DenialThatAnotherRecordMakesVoidIsFound) {
  EXPECT_THAT(IdsOf("alice daemon 1\nAlice daemon 0\n"), ElementsAre("error users.void-denial:2"));
  EXPECT_THAT(IdsOf("* x 0\n* daemon 1\n"),
              ElementsAre("warning users.star:2", "error users.void-denial:1"));
}

TEST_F(UserFileTest, DenialThatIsNotReadIsFoundWhereAStarLetsTheUserIn) {
  EXPECT_THAT(
      IdsOf("* daemon 1\n\nguest guest 0\n"),
      ElementsAre("warning users.star:1", "error users.void-denial:3", "error users.empty-line:2"));
  EXPECT_THAT(IdsOf("alice daemon 1\n\nguest guest 0\n"), ElementsAre("error users.empty-line:2"));
}

TEST_F(UserFileTest, DecidingRecordIsTheDaemons) {
  directory_.Write(".vk_corvane_users", "* a 1\nalice b 1\n* c 1\nALICE d 1\n");
  UserFile file(directory_.path());
  EXPECT_EQ(file.Deciding("Alice"), 1U);
  EXPECT_EQ(file.Deciding("bob"), 2U);
  directory_.Write(".vk_corvane_users", "alice b 1\n");
  EXPECT_EQ(UserFile(directory_.path()).Deciding("bob"), std::nullopt);
}

TEST_F(UserFileTest, OtherByteOrderIsFoundToo) {
  EXPECT_THAT(IdsOf("\xfe\xff"
                    "alice daemon 1\n"),
              testing::Contains("error users.byte-order-mark:1"));
}

TEST_F(UserFileTest, DenialThatIsNotReadIsNoneWhereTheUserIsDeniedAnyway) {
  const auto has_void_denial = [&](const std::string& text) {
    return testing::Value(IdsOf(text), testing::Contains(testing::HasSubstr("void-denial")));
  };
  EXPECT_TRUE(has_void_denial("alice daemon 1\nonly\nalice daemon 0\n"));
  EXPECT_FALSE(has_void_denial("alice daemon 0\nonly\nalice daemon 0\n"));
}

}  // namespace
}  // namespace inspect
