#include "inspect/service.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/process.h"
#include "tests/inspect/findings.h"
#include "tests/inspect/own_view.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// A service as systemd shows one that runs as it should, but for the process.
class ServiceTest : public testing::Test {
 protected:
  ServiceTest() : port_(FreePort()) {
    Options("-p " + std::to_string(port_) + " -s /x");
    directory_.Write("vkjobmill.exe", "");
    state_.properties = {
        {"LoadState", "loaded"},
        {"ActiveState", "active"},
        {"SubState", "running"},
        {"Result", "success"},
        {"MainPID", "0"},
        {"UnitFileState", "enabled"},
        {"NeedDaemonReload", "no"},
        {"FragmentPath", SOURCES "/deploy/systemd/jobmill.service.in"},
        {"KillMode", "process"},
        {"ExecStart", "{ path=/usr/bin/env ; argv[]=/usr/bin/env -u OPTIONS " +
                          directory_.File("vkjobmill.exe") + " $OPTIONS ; pid=0 }"}};
  }

  void Options(const std::string& words, const std::string& more = "") {
    directory_.Write("jobmill.conf", "OPTIONS='" + words + "'\n" + more);
  }
  Findings Judge() {
    return JudgeService(SiteOf(directory_.path(), "jobmill", directory_.File("vkjobmill.exe")),
                        state_);
  }
  std::vector<std::string> IdsOf() { return Ids(Judge()); }

  TemporaryDirectory directory_;
  int port_;
  ServiceState state_;
};

TEST_F(ServiceTest, RunningOneIsGood) {
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ServiceTest, PropertiesAreRead) {
  const auto properties = ReadProperties("MainPID=17\nExecStart={ path=a=b }\nResult=\n");
  EXPECT_EQ(properties.at("MainPID"), "17");
  EXPECT_EQ(properties.at("ExecStart"), "{ path=a=b }");
  EXPECT_EQ(properties.at("Result"), "");
}

TEST_F(ServiceTest, OneThatDoesNotRunIsFound) {
  state_.properties["ActiveState"] = "inactive";
  EXPECT_THAT(IdsOf(), ElementsAre("error service.not-running:1"));
}

TEST_F(ServiceTest, OneThatHasFailedIsFoundWithTheReason) {
  state_.properties["ActiveState"] = "failed";
  state_.properties["Result"] = "exit-code";
  state_.properties["ExecMainStatus"] = "203";
  Findings findings = Judge();
  ASSERT_THAT(Ids(findings), ElementsAre("error service.failed:1"));
  EXPECT_EQ(findings[0].what,
            "jobmill.service has failed: status 203 (the program cannot be executed)");
  state_.last_words = "of another time";
  EXPECT_EQ(Judge()[0].what, findings[0].what);
  state_.properties["ActiveState"] = "activating";
  state_.properties["SubState"] = "auto-restart";
  state_.properties["ExecMainStatus"] = "1";
  state_.last_words = "Error in creating socket";
  findings = Judge();
  ASSERT_THAT(Ids(findings), ElementsAre("error service.failed:1"));
  EXPECT_EQ(findings[0].what,
            "jobmill.service is started again and again: status 1, and the last it said is: Error "
            "in creating socket");
}

TEST_F(ServiceTest, UnitThatSystemdDoesNotKnowIsFound) {
  state_.properties = {{"LoadState", "not-found"}};
  EXPECT_THAT(IdsOf(), ElementsAre("error service.not-loaded:1"));
  state_.properties = {{"LoadState", "masked"}};
  EXPECT_THAT(Judge()[0].what, HasSubstr("jobmill.service is masked"));
}

TEST_F(ServiceTest, ServiceThatDoesNotComeWithTheMachineIsFound) {
  state_.properties["UnitFileState"] = "disabled";
  EXPECT_THAT(IdsOf(), ElementsAre("warning service.not-enabled:1"));
  state_.properties["UnitFileState"] = "enabled";
  state_.properties["NeedDaemonReload"] = "yes";
  EXPECT_THAT(IdsOf(), ElementsAre("warning service.needs-reload:1"));
}

TEST_F(ServiceTest, UnitThatStartsAnotherProgramIsFound) {
  state_.properties["ExecStart"] = "{ path=/usr/bin/env ; argv[]=/none/vkjobmill.exe $OPTIONS ; }";
  EXPECT_THAT(IdsOf(), ElementsAre("error service.other-program:1"));
  state_.properties["ExecStart"] = "{ path=/usr/bin/env ; argv[]=/usr/bin/sleep 1 ; }";
  EXPECT_THAT(IdsOf(), ElementsAre("warning service.other-program:1"));
}

TEST_F(ServiceTest, AdditionsAreJudgedButForTheShippedOne) {
  directory_.Write("own.conf", "[Service]\nPrivateTmp=yes\n");
  fs::create_directories(directory_.File("lib/jobmill"));
  fs::create_directories(directory_.File("share/jobmill/systemd"));
  fs::copy(SOURCES "/deploy/systemd/confined.conf",
           directory_.File("share/jobmill/systemd/confined.conf"));
  fs::copy(SOURCES "/deploy/systemd/confined.conf", directory_.File("confined.conf"));
  const std::string program = directory_.Write("lib/jobmill/vkjobmill.exe", "");
  state_.properties["ExecStart"] = "{ argv[]=" + program + " $OPTIONS ; }";
  state_.properties["DropInPaths"] =
      directory_.File("confined.conf") + " " + directory_.File("own.conf");
  EXPECT_THAT(Ids(JudgeService(SiteOf(directory_.path(), "jobmill", program), state_)),
              ElementsAre("warning service.restricted:2"));
}

TEST_F(ServiceTest, KillModeThatNobodyHasSetIsFound) {
  state_.properties["FragmentPath"] = directory_.Write("own.service", "[Service]\nExecStart=/x\n");
  state_.properties["KillMode"] = "control-group";
  EXPECT_THAT(IdsOf(), ElementsAre("warning service.restricted"));
}

// With a daemon.
class ServiceOfDaemonTest : public ServiceTest {
 protected:
  ServiceOfDaemonTest() {
    port_ = daemon_.port();
    state_.properties["MainPID"] = std::to_string(daemon_.pid());
    // As the daemon was started.
    const auto process = Process::Open(daemon_.pid());
    for (const std::string& word : process->Arguments()) {
      words_ += words_.empty() ? " " : word + " ";
    }
    Options(words_);
  }

  static RunningDaemon::Options AsItself() {
    RunningDaemon::Options options;
    options.arguments = {"-u"};
    return options;
  }

  RunningDaemon daemon_{AsItself()};
  std::string words_;
};

TEST_F(ServiceOfDaemonTest, DaemonOfTheUnitIsGood) {
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ServiceOfDaemonTest, OtherOptionsThanThoseOfTheFileAreFound) {
  Options(words_ + " -l");
  const Findings findings = Judge();
  ASSERT_THAT(Ids(findings), ElementsAre("warning service.other-options:1"));
  EXPECT_THAT(findings[0].what, HasSubstr(" runs with other options: "));
  EXPECT_THAT(findings[0].what, HasSubstr("-p " + std::to_string(port_)));
}

TEST_F(ServiceOfDaemonTest, VariableThatWasSetLaterIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Options(words_, "JOBMILL_SIMULATOR=/opt/sim\n");
  EXPECT_THAT(IdsOf(), ElementsAre("warning service.other-options:2"));
}

TEST_F(ServiceOfDaemonTest, DaemonThatIsNotTheUnitsIsFound) {
  state_.properties["MainPID"] = "0";
  state_.properties["ActiveState"] = "inactive";
  const Findings findings = Judge();
  ASSERT_THAT(Ids(findings), ElementsAre("error service.other-daemon:1"));
  EXPECT_THAT(findings[0].what, HasSubstr("process " + std::to_string(daemon_.pid()) + " "));
}

TEST(CheckServiceTest, NothingIsSaidOfOptionsThatAreGiven) {
  EXPECT_THAT(CheckService(SiteOf({"-p", "5000"}, "/none/vkjobmill.exe")), IsEmpty());
}

TEST(CheckServiceTest, WithoutSystemdNothingIsKnown) {
  if (fs::exists("/run/systemd/system")) GTEST_SKIP() << "systemd runs here";
  const TemporaryDirectory directory;
  directory.Write("jobmill.conf", "OPTIONS='-p 5000 -s /x'\n");
  EXPECT_THAT(Ids(CheckService(SiteOf(directory.path(), "jobmill", "/none/vkjobmill.exe"))),
              ElementsAre("unchecked service.unchecked:1"));
}

TEST_F(ServiceTest, ErrorInTheUnitIsFound) {
  for (const char* state : {"bad-setting", "error"}) {
    state_.properties = {{"LoadState", state}, {"LoadError", "no ExecStart"}};
    EXPECT_THAT(Judge()[0].what, HasSubstr("jobmill.service has an error: no ExecStart"));
  }
}

TEST_F(ServiceTest, EachReasonOfAFailureIsTold) {
  state_.properties["ActiveState"] = "failed";
  state_.properties["ExecMainStatus"] = "11";
  const auto failed = [&](const std::string& result, const std::string& words) {
    state_.properties["Result"] = result;
    state_.last_words = words;
    return Judge()[0].what;
  };
  EXPECT_EQ(failed("signal", ""), "jobmill.service has failed: signal 11");
  EXPECT_EQ(failed("core-dump", "x"),
            "jobmill.service has failed: signal 11, and the last it said is: x");
  EXPECT_EQ(failed("resources", ""),
            "jobmill.service has failed: a file that it names, or memory, is missing");
  EXPECT_EQ(failed("timeout", ""), "jobmill.service has failed: timeout");
  EXPECT_EQ(failed("exit-code", ""), "jobmill.service has failed: status 11");
}

TEST_F(ServiceTest, ServiceThatIsEnabledUntilTheNextBootIsFound) {
  state_.properties["UnitFileState"] = "enabled-runtime";
  EXPECT_THAT(IdsOf(), ElementsAre("warning service.not-enabled:1"));
}

TEST_F(ServiceTest, OtherProgramThatIsThereIsNamed) {
  fs::create_directory(directory_.File("other"));
  const std::string other = directory_.Write("other/vkjobmill.exe", "");
  state_.properties["ExecStart"] = "{ argv[]=" + other + " $OPTIONS ; }";
  const Findings findings = Judge();
  ASSERT_THAT(Ids(findings), ElementsAre("warning service.other-program:1"));
  EXPECT_THAT(findings[0].what, HasSubstr("starts " + other + ", and judged is "));
}

// Before it becomes the daemon.
TEST_F(ServiceTest, ProcessThatIsNoDaemonYetIsNotJudged) {
  state_.properties["MainPID"] = std::to_string(getpid());
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ServiceTest, KillModeThatIsSetOrNotKnownIsGood) {
  state_.properties["FragmentPath"] = directory_.Write("own.service", "[Service]\nExecStart=/x\n");
  state_.properties["KillMode"] = "process";
  EXPECT_THAT(IdsOf(), IsEmpty());
  state_.properties["KillMode"] = "";
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ServiceTest, LinesOfOtherFormsAreNoProperties) {
  EXPECT_EQ(ReadProperties("Failed to say\nA=1\n").size(), 1U);
}

TEST_F(ServiceTest, UnitsOfFurtherDaemonsHaveTheirName) {
  directory_.Write("two.conf", "OPTIONS='-p 1'\n");
  EXPECT_EQ(UnitOf(SiteOf(directory_.path(), "two", "/none/vkjobmill.exe")), "jobmill@two.service");
}

TEST_F(ServiceOfDaemonTest, VariableOfTheDaemonIsAsTheFileSays) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const auto path = Process::Open(daemon_.pid())->Variable("PATH");
  ASSERT_TRUE(path);
  Options(words_, "PATH=" + *path + "\n");
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ServiceOfDaemonTest, EnvironmentOfTheDaemonIsRootsToSee) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Options(words_, "JOBMILL_SIMULATOR=/opt/sim\n");
  fs::permissions(directory_.path(), fs::perms(0755));
  EXPECT_EQ(AsNobody([&] { return IdsIn(Judge()); }).find("service.other-options"),
            std::string::npos);
}

// With other programs in the place of systemd's.
class SystemctlTest : public ServiceTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    fs::create_directories(directory_.File("run/systemd/system"));
    fs::create_directory(directory_.File("bin"));
    if (Found() == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  }
  void Say(const std::string& program, const std::string& script) {
    const std::string file = directory_.Write("bin/" + program, "#!/bin/sh\n" + script);
    fs::permissions(file, fs::perms(0755));
  }
  std::string Found() const {
    return WithMounts({{directory_.File("run"), "/run"}}, [&] {
      setenv("PATH", (directory_.File("bin") + ":/usr/bin:/bin").c_str(), 1);
      return What();
    });
  }
  std::string What() const {
    const Findings findings =
        CheckService(SiteOf(directory_.path(), "jobmill", directory_.File("vkjobmill.exe")));
    return findings.empty() ? std::string() : findings[0].id + ": " + findings[0].what;
  }
};

TEST_F(SystemctlTest, SystemctlThatFailsOrIsSilentIsSaid) {
  Say("systemctl", "exit 1\n");
  EXPECT_EQ(Found(),
            "service.unchecked: not checked: the state of jobmill.service: systemctl fails");
  const std::string silent = WithMounts({{directory_.File("run"), "/run"}},
                                        [&] { return WithoutPipes([&] { return What(); }); });
  EXPECT_EQ(silent,
            "service.unchecked: not checked: the state of jobmill.service: systemctl does not "
            "answer within 10 s");
}

TEST_F(SystemctlTest, LastWordsOfAFailedDaemonComeFromTheJournal) {
  Say("systemctl",
      "printf 'LoadState=loaded\\nActiveState=failed\\nResult=exit-code\\nExecMainStatus=1\\n'\n");
  Say("journalctl", "echo 'Error in creating socket'\n");
  EXPECT_EQ(Found(),
            "service.failed: jobmill.service has failed: status 1, and the last it said is: Error "
            "in creating socket");
  Say("journalctl", "exit 1\n");
  EXPECT_EQ(Found(), "service.failed: jobmill.service has failed: status 1");
}

TEST_F(SystemctlTest, RunningServiceIsGood) {
  Say("systemctl", "printf 'LoadState=loaded\\nActiveState=active\\n'\n");
  Say("journalctl", "echo nothing; exit 1\n");
  EXPECT_EQ(Found(), "");
}

}  // namespace
}  // namespace inspect
