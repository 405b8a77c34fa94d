#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/jobmillctl/jobmillctl.h"
#include "tests/support/temporary_directory.h"

namespace {

using nlohmann::json;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// A good site, for the account daemon, which every machine has.
class CheckTest : public testing::Test {
 protected:
  CheckTest() {
    chmod(directory_.path().c_str(), 0755);
    chmod(directory_.Write("script", "#!/bin/sh\n").c_str(), 0755);
    directory_.Write("jobmill.conf", "OPTIONS='-p 5000 -l -s " + Script() + "'\n");
    chmod(directory_.Write("vkjobmill.exe", "#!/bin/sh\necho Jobmill.\n").c_str(), 0755);
    directory_.Write(".vk_corvane_users", "alice daemon 1\n");
    directory_.Write(".vk_corvane_env", "SIM_HOME /opt/sim\n");
  }

  std::string Script() const { return directory_.File("script"); }

  // All areas look for owners, and some need root's rights to look at all.
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
  }

  Outcome Check(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(),
                     {"check", "--files", "--configuration", directory_.path().string(),
                      "--program", directory_.File("vkjobmill.exe")});
    return Jobmillctl(arguments);
  }

  TemporaryDirectory directory_;
};

TEST_F(CheckTest, GoodSiteIsOneLine) {
  const Outcome outcome = Check({});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "nothing found in " + directory_.File("jobmill.conf") +
                             " (port 5000, script " + Script() +
                             ", comms ports 9001 to 9100, 60 s to start, comms logs)\n");
  EXPECT_EQ(outcome.err, "");
}

// Who has the ends of children ignored hands that on to what is started.
TEST_F(CheckTest, CommandsAreUnderstoodWhereTheEndsOfChildrenWereIgnored) {
  chmod(directory_.Write("script", "#!/bin/sh\nif\n").c_str(), 0755);
  ChildProcess::Options options;
  options.in_child = [] { return signal(SIGCHLD, SIG_IGN) == SIG_ERR ? 1 : 0; };
  const Outcome outcome =
      OutcomeOf({ProgramDirectory() + "/jobmillctl", "check", "--files", "--configuration",
                 directory_.path().string(), "--program", directory_.File("vkjobmill.exe")},
                options);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, HasSubstr("yntax error"));
}

TEST_F(CheckTest, OptionsAreJudgedAsTheyAreGiven) {
  const Outcome good = Check({"--", "-p", "5001", "-s", Script(), "-o", "9101"});
  EXPECT_EQ(good.status, 0);
  EXPECT_THAT(good.out, StartsWith("nothing found in the given options (port 5001, "));
  const Outcome bad = Check({"--", "-s", Script(), "-o", "9101"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_THAT(bad.out, StartsWith("error: there is no port to listen on; "));
}

TEST_F(CheckTest, ErrorIsOneLineAndGivesOne) {
  const Outcome outcome = Check({"nix"});
  const std::string file = directory_.File("nix.conf");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "error: " + file +
                             ": cannot be read: No such file or directory; its service does not "
                             "start; write OPTIONS=\"-p PORT -s SCRIPT\" into it "
                             "[options.unreadable]\n1 error in " +
                             file + "\n");
  EXPECT_EQ(outcome.err, "");
}

// Neither its files nor what it would find on the machine are known then.
TEST_F(CheckTest, ConfigurationThatCannotBeReadIsAllThatIsJudged) {
  const Outcome outcome =
      Jobmillctl({"check", "--json", "--configuration", directory_.path().string(), "--program",
                  directory_.File("vkjobmill.exe"), "nix"});
  EXPECT_EQ(outcome.status, 1);
  const json document = json::parse(outcome.out);
  EXPECT_EQ(document.at("sites"), json::parse(R"([{"name": "nix", "configuration": ")" +
                                              directory_.File("nix.conf") + R"("}])"));
  for (const json& finding : document.at("findings")) {
    EXPECT_THAT(finding.at("id").get<std::string>(),
                testing::AnyOf("options.unreadable", StartsWith("service.")));
  }
}

TEST_F(CheckTest, DaemonThatChangesNoAccountIsSaidTo) {
  EXPECT_THAT(Check({"--", "-p", "5001", "-u", "-s", Script(), "-o", "9101"}).out,
              EndsWith(", 60 s to start, runs under the daemon's account)\n"));
}

TEST_F(CheckTest, WarningGivesNoError) {
  directory_.Write(".vk_corvane_users", "alice daemon 1 x\n");
  const Outcome outcome = Check({});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, StartsWith("warning: " + directory_.File(".vk_corvane_users") + ":1: "));
  EXPECT_THAT(outcome.out, HasSubstr("\n1 warning in "));
}

TEST_F(CheckTest, WorstIsFirstAndWhatSitesShareIsToldOnce) {
  directory_.Write("next.conf", "OPTIONS='-p 5001 -s " + Script() + " -o 9101 x'\n");
  directory_.Write(".vk_corvane_users", "alice daemon 1 x\nbob root 1\n");
  const json document = json::parse(Check({"--json", "next", "jobmill"}).out);
  std::vector<std::string> ids;
  for (const json& finding : document.at("findings")) ids.push_back(finding.at("id"));
  EXPECT_THAT(ids, ElementsAre("users.root", "users.ignored-text", "options.ignored"));
  EXPECT_EQ(document.at("counts"),
            json::parse(R"({"error": 1, "warning": 2, "unchecked": 0, "accepted": 0})"));
}

TEST_F(CheckTest, JsonIsOneDocument) {
  directory_.Write(".vk_corvane_users", "alice daemon 1\nbob root 1\n");
  const Outcome outcome = Check({"--json"});
  EXPECT_EQ(outcome.status, 1);
  const json document = json::parse(outcome.out);
  EXPECT_EQ(document.at("schema"), 1);
  EXPECT_THAT(document.at("version").get<std::string>(), ContainsRegex("^[0-9]+[.]"));
  EXPECT_EQ(document.at("sites"), json::parse(R"([{
    "name": "jobmill", "configuration": ")" + directory_.File("jobmill.conf") +
                                              R"(",
    "words": ["-p", "5000", "-l", "-s", ")" + Script() +
                                              R"("],
    "port": 5000, "script": ")" + Script() + R"(", "comms_base_port": 9001, "comms_ports": 100,
    "start_timeout": 60, "comms_log": true, "maps_users": true}])"));
  ASSERT_EQ(document.at("findings").size(), 1U);
  const json& finding = document.at("findings").at(0);
  EXPECT_EQ(finding.at("id"), "users.root");
  EXPECT_EQ(finding.at("severity"), "error");
  EXPECT_EQ(finding.at("file"), directory_.File(".vk_corvane_users"));
  EXPECT_EQ(finding.at("line"), 2);
  for (const char* text : {"what", "consequence", "remedy"}) EXPECT_NE(finding.at(text), "");
}

TEST_F(CheckTest, AcceptedFindingsAreCountedAndNotPrinted) {
  directory_.Write(".vk_corvane_users", "alice daemon 1 x\nbob root 1\n");
  directory_.Write("check.accepted",
                   "# by the site\nusers.ignored-text:" + directory_.File(".vk_corvane_users") +
                       "  a remark\n\nusers.root  agreed\n");
  const Outcome outcome = Check({});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, StartsWith("nothing found, 2 accepted in "));
  const json document = json::parse(Check({"--json"}).out);
  EXPECT_EQ(document.at("findings").size(), 0U);
  EXPECT_EQ(document.at("counts").at("accepted"), 2);
  EXPECT_EQ(document.at("accepted").at(0).at("id"), "users.root");
  EXPECT_EQ(document.at("accepted").at(0).at("reason"), "agreed");
}

TEST_F(CheckTest, EntryThatAcceptsNothingIsFound) {
  directory_.Write("check.accepted", "users.root  agreed\n");
  EXPECT_THAT(Check({}).out, HasSubstr("[accepted.unused]\n1 warning in "));
  // It may be for a daemon that is not judged, or for what is not.
  directory_.Write("next.conf", "OPTIONS='-p 5001 -s " + Script() + " -o 9101'\n");
  EXPECT_THAT(Check({}).out, StartsWith("nothing found in "));
  std::filesystem::remove(directory_.File("next.conf"));
  directory_.Write("check.accepted", "host.open  there is another filter\n");
  EXPECT_THAT(Check({}).out, StartsWith("nothing found in "));
  // An account without rights does not see all that could be accepted.
  directory_.Write("check.accepted", "users.root  agreed\n");
  const Outcome nobodys =
      JobmillctlAsNobody({"check", "--files", "--configuration", directory_.path().string(),
                          "--program", directory_.File("vkjobmill.exe")});
  EXPECT_THAT(nobodys.out, HasSubstr(" in " + directory_.File("jobmill.conf")));
  EXPECT_THAT(nobodys.out, Not(HasSubstr("accepted.unused")));
  // Without options most is not judged.
  directory_.Write("check.accepted", "users.root  agreed\n");
  directory_.Write("jobmill.conf", "");
  EXPECT_THAT(Check({}).out, Not(HasSubstr("accepted.unused")));
}

TEST_F(CheckTest, NothingOfAFileCommandsATerminal) {
  directory_.Write(".vk_corvane_users", "a\x1b[31m\xff root 1\n");
  const Outcome lines = Check({});
  EXPECT_THAT(lines.out, HasSubstr("'a\\x1b[31m\\xff'"));
  const Outcome document = Check({"--json"});
  for (const std::string& out : {lines.out, document.out}) {
    EXPECT_EQ(std::ranges::count_if(out, [](char c) { return c != '\n' && (c < ' ' || c > '~'); }),
              0);
  }
  EXPECT_EQ(json::parse(document.out).at("findings").at(0).at("line"), 1);
}

TEST_F(CheckTest, NothingIsChanged) {
  std::filesystem::remove(directory_.File(".vk_corvane_users"));
  const auto names = [this] {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      found.insert(entry.path());
    }
    return found;
  };
  const auto before = names();
  EXPECT_EQ(Check({}).status, 1);
  EXPECT_EQ(names(), before);
}

TEST_F(CheckTest, CommandLineWithoutMeaningGivesTwo) {
  EXPECT_EQ(Check({"a/b"}).status, 2);
  EXPECT_EQ(Check({""}).status, 2);
  EXPECT_EQ(Check({"a", "--", "-p", "5000"}).status, 2);
  EXPECT_THAT(Check({"--", "a", "-p", "5000"}).err,
              StartsWith("-p: options come after \"--\", without names\n"));
  EXPECT_EQ(Check({"--nonsense"}).status, 2);
  EXPECT_EQ(Jobmillctl({}).status, 2);
}

TEST(CommandTest, WrongCommandIsRepeatedWithTheOneThatIsMeant) {
  const std::string more = "\nRun with --help for more information.\n";
  for (const char* word : {"chek", "chekc", "checks", "ceck"}) {
    const Outcome outcome = Jobmillctl({word});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "'" + std::string(word) + "' is no command; is 'check' meant?" + more);
  }
  EXPECT_EQ(Jobmillctl({"\x1b[m"}).err, "'\\x1b[m' is no command" + more);
  EXPECT_EQ(Jobmillctl({"nonsense"}).err, "'nonsense' is no command" + more);
}

TEST(CommandTest, VersionAndHelpAreNoFailures) {
  const Outcome version = Jobmillctl({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.out, ContainsRegex("^jobmillctl [0-9]+[.][0-9.]+\n$"));
  const Outcome help = Jobmillctl({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("Say what runs, for whom, and what it waits for"));
}

TEST(CommandTest, ShellIsToldWhatMayStandNext) {
  const Outcome command = Jobmillctl({"--complete", "stat"});
  EXPECT_EQ(command.status, 0);
  EXPECT_EQ(command.out, "status\tSay what runs, for whom, and what it waits for\n");
  EXPECT_EQ(Jobmillctl({"--complete", "collect", "--gates", ""}).out, ":directories\n");
}

}  // namespace
