#include "inspect/site.h"

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/inspect/own_view.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;

std::string ValueOf(const std::string& text) {
  const auto assignments = ReadAssignments(text);
  const auto found = assignments.find("A");
  return found == assignments.end() ? "none" : found->second.value;
}

TEST(ReadAssignmentsTest, ValuesEndWithTheirLineAndBlanksAtTheirEndsDoNotCount) {
  EXPECT_EQ(ValueOf("A=one\n"), "one");
  EXPECT_EQ(ValueOf("A=one"), "one");
  EXPECT_EQ(ValueOf("  A  = one two \t\r\n"), "one two");
  EXPECT_EQ(ValueOf("A=\nB=x\n"), "");
}

TEST(ReadAssignmentsTest, QuotesAreTakenOff) {
  EXPECT_EQ(ValueOf("A=\" one two \"\n"), " one two ");
  EXPECT_EQ(ValueOf("A=' one'\" two\"  three \n"), " one twothree");
  EXPECT_EQ(ValueOf("A=one\"two\"\n"), "one\"two\"");
  EXPECT_EQ(ValueOf("A='one\ntwo'\n"), "one\ntwo");
  EXPECT_EQ(ValueOf("A=\"one\n"), "one\n");
}

TEST(ReadAssignmentsTest, BackslashesEscape) {
  EXPECT_EQ(ValueOf("A=one\\\ntwo\n"), "onetwo");
  EXPECT_EQ(ValueOf("A=one\\ \n"), "one ");
  EXPECT_EQ(ValueOf("A=\"\\\"\\n\\\none\"\n"), "\"\\none");
  EXPECT_EQ(ValueOf("A='\\n'\n"), "\\n");
  EXPECT_EQ(ValueOf("A=one\\"), "one");
}

TEST(ReadAssignmentsTest, CommentsAndLinesWithoutEqualsSignAreNone) {
  EXPECT_EQ(ValueOf("#A=1\n  ;A=2\n"), "none");
  EXPECT_EQ(ValueOf("# goes on\\\nA=1\n"), "none");
  EXPECT_EQ(ValueOf("A\nA\n"), "none");
  EXPECT_EQ(ValueOf("=x\nA=1\n"), "1");
}

TEST(ReadAssignmentsTest, LastOneCountsAndItsLineIsKnown) {
  const auto assignments = ReadAssignments("# x\n\nA=1\nB='\n'\nA=2\n");
  EXPECT_EQ(assignments.at("A").value, "2");
  EXPECT_EQ(assignments.at("A").line, 6);
  EXPECT_EQ(assignments.at("B").line, 4);
}

TEST(SplitWordsTest, BlanksSeparateAndQuotesKeepThem) {
  EXPECT_THAT(SplitWords("  -p 5000\t-s\n/x "), ElementsAre("-p", "5000", "-s", "/x"));
  EXPECT_THAT(SplitWords("'a b' \"c d\"e f' 'g"), ElementsAre("a b", "c de", "f g"));
  EXPECT_THAT(SplitWords("'' \"it's\" a\\ b \\'"), ElementsAre("", "it's", "a b", "'"));
  EXPECT_THAT(SplitWords("'not closed"), ElementsAre("not closed"));
  EXPECT_THAT(SplitWords("one\\"), ElementsAre("one"));
  EXPECT_THAT(SplitWords(" "), ElementsAre());
}

TEST(SiteTest, OptionsAreReadFromTheConfigurationFile) {
  const TemporaryDirectory directory;
  directory.Write("two.conf", "# x\nOPTIONS=\"-p 5001 -s /x/script -l\"\nJOBMILL_SIMULATOR=/sim\n");
  const Site site = SiteOf(directory.path(), "two", "/usr/lib/jobmill/vkjobmill.exe");
  EXPECT_EQ(site.error, 0);
  EXPECT_EQ(site.name, "two");
  EXPECT_EQ(site.configuration, directory.File("two.conf"));
  EXPECT_EQ(site.line, 2);
  EXPECT_THAT(site.words, ElementsAre("-p", "5001", "-s", "/x/script", "-l"));
  EXPECT_EQ(site.options.listen_port, 5001);
  EXPECT_TRUE(site.options.comms_log);
  EXPECT_EQ(site.ScriptFile(), "/x/script");
  EXPECT_EQ(site.directory, "/");
  EXPECT_EQ(site.environment.at("JOBMILL_SIMULATOR"), "/sim");
  EXPECT_EQ(site.environment.at("PATH"), "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin");
  EXPECT_FALSE(site.environment.contains("OPTIONS"));
  EXPECT_EQ(site.BesideProgram(".vk_corvane_users"), "/usr/lib/jobmill/.vk_corvane_users");
}

TEST(SiteTest, EnvironmentIsThatOfTheDaemonWhereOneRuns) {
  const TemporaryDirectory directory;
  const std::string program = directory.File("vkjobmill.exe");
  std::filesystem::copy("/bin/sleep", program);
  directory.Write("jobmill.conf", "OPTIONS='1000 0'\nA=1\n");
  ChildProcess::Options options;
  options.environment = {"JOBMILL_SITE_TEST=of the daemon"};
  const ChildProcess daemon({program, "1000", "0"}, options);
  const auto environment = [&] { return SiteOf(directory.path(), "jobmill", program).environment; };
  ASSERT_TRUE(Eventually([&] { return !environment().contains("A"); }));
  EXPECT_EQ(environment().at("JOBMILL_SITE_TEST"), "of the daemon");
  std::filesystem::remove(program);  // as an upgrade does
  std::filesystem::copy("/bin/sleep", program);
  EXPECT_FALSE(environment().contains("A"));
  directory.Write("jobmill.conf", "OPTIONS='1000'\nA=1\n");
  EXPECT_TRUE(environment().contains("A"));
}

TEST(SiteTest, MissingConfigurationFileIsAnError) {
  const TemporaryDirectory directory;
  const Site site = SiteOf(directory.path(), "jobmill", directory.File("vkjobmill.exe"));
  EXPECT_EQ(site.error, ENOENT);
  EXPECT_TRUE(site.words.empty());
}

TEST(SiteTest, UnitOfAnInstallationFromTheSourcesHasOptionsOfItsOwn) {
  const TemporaryDirectory directory;
  const std::string script = directory.Write("vkmpi_dir.sh", "");
  const Site site = SiteOf(directory.path(), "jobmill", directory.Write("vkjobmill.exe", ""));
  EXPECT_EQ(site.error, 0);
  EXPECT_THAT(site.words, ElementsAre("-p", "5000", "-s", script));
  EXPECT_EQ(SiteOf(directory.path(), "next", directory.File("vkjobmill.exe")).error, ENOENT);
}

TEST(SiteTest, LinksToTheProgramAreFollowed) {
  const TemporaryDirectory directory;
  std::filesystem::create_directory(directory.path() / "lib");
  directory.Write("lib/vkjobmill.exe", "");
  std::filesystem::create_symlink("lib/vkjobmill.exe", directory.path() / "link");
  EXPECT_EQ(SiteOf({"-p", "1"}, directory.File("link")).BesideProgram("x"),
            std::filesystem::canonical(directory.path() / "lib") / "x");
}

TEST(SiteTest, DaemonByHandHasThisEnvironmentAndDirectory) {
  setenv("JOBMILL_SITE_TEST", "a=b", 1);
  const Site site = SiteOf({"-p", "5000"}, "/x/vkjobmill.exe");
  EXPECT_EQ(site.environment.at("JOBMILL_SITE_TEST"), "a=b");
  EXPECT_EQ(site.directory, std::filesystem::current_path());
  EXPECT_EQ(site.script, "./vkmpi_dir.sh");
  EXPECT_EQ(site.ScriptFile(), std::filesystem::current_path() / "vkmpi_dir.sh");
  EXPECT_EQ(site.configuration, "");
}

TEST(ReadAssignmentsTest, TextsMayEndAnywhere) {
  EXPECT_EQ(ValueOf("# no end"), "none");
  EXPECT_EQ(ValueOf("# no end\\"), "none");
  EXPECT_EQ(ValueOf("A=\"one\\"), "one\\");
  EXPECT_EQ(ValueOf("A"), "none");
}

TEST(SiteTest, EnvironmentMayBeEmptyOrHoldOddTexts) {
  const auto variables = [] {
    const std::vector<std::string> words = {"-p", "5000"};
    std::string all;
    for (const auto& [name, value] : SiteOf(words, "/none/vkjobmill.exe").environment) {
      all.append(name).append("=").append(value).append(";");
    }
    return all;
  };
  EXPECT_EQ(InProcess([&] {
              clearenv();
              return variables();
            }),
            "");
  EXPECT_EQ(InProcess([&] {
              std::string odd = "ODD";
              std::string usual = "A=1=2";
              std::array<char*, 3> all = {odd.data(), usual.data(), nullptr};
              environ = all.data();
              return variables();
            }),
            "A=1=2;");
}

}  // namespace
}  // namespace inspect
