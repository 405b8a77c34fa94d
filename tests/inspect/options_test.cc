#include "inspect/options.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/probe.h"
#include "tests/inspect/findings.h"
#include "tests/inspect/own_view.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

class OptionsTest : public testing::Test {
 protected:
  OptionsTest() {
    directory_.Write("vkjobmill.exe", "");
    std::filesystem::create_directory(directory_.File("kernel"));
    directory_.Write("kernel/ip_local_port_range", "32768\t60999\n");
    directory_.Write("kernel/ip_local_reserved_ports", "\n");
  }

  // Those of jobmill.conf with this text.
  Findings CheckFile(const std::string& text) {
    directory_.Write("jobmill.conf", text);
    return Check();
  }
  Findings Check() {
    const Site site = SiteOf(directory_.path(), "jobmill", directory_.File("vkjobmill.exe"));
    Findings findings = CheckOptions(site, directory_.File("kernel"));
    // Where another account than root runs the tests, their files are its own.
    if (geteuid() != 0) std::erase_if(findings, [](auto& f) { return f.id == "options.writable"; });
    return findings;
  }
  Findings CheckWords(const std::string& words) {
    return CheckFile("# one line before\nOPTIONS=\"" + words + "\"\n");
  }
  // With good options in front.
  std::vector<std::string> IdsOf(const std::string& words) {
    std::vector<std::string> ids = Ids(CheckWords("-p 5000 -s /x " + words));
    for (std::string& id : ids) {
      EXPECT_THAT(id, EndsWith(":2"));
      id.resize(id.size() - 2);
    }
    return ids;
  }

  TemporaryDirectory directory_;
};

TEST_F(OptionsTest, NothingIsFoundInGoodOnes) {
  EXPECT_THAT(IdsOf("-o 9001 -n 100 -l -t 60"), IsEmpty());
  EXPECT_THAT(Ids(CheckWords("-P 5000 -s /x -O 9001 -N 100 -L -T 60")), IsEmpty());
}

TEST_F(OptionsTest, FileThatCannotBeReadIsFound) {
  EXPECT_THAT(Ids(Check()), ElementsAre("error options.unreadable"));
  ASSERT_EQ(mkfifo(directory_.File("jobmill.conf").c_str(), 0600), 0);
  EXPECT_THAT(Ids(Check()), ElementsAre("error options.unreadable"));
}

TEST_F(OptionsTest, FileThatOnlyRootCanReadIsNotCalledGood) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  chmod(directory_.path().c_str(), 0755);
  chmod(directory_.Write("jobmill.conf", "").c_str(), 0600);
  const auto ids = Ask([this] {
    return setgroups(0, nullptr) == 0 && setuid(61234) == 0 ? Ids(Check()).at(0) : "";
  });
  EXPECT_EQ(ids, "unchecked options.unchecked");
}

TEST_F(OptionsTest, FileThatOthersCanWriteIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  chmod(directory_.Write("jobmill.conf", "OPTIONS='-p 5000 -s /x'\n").c_str(), 0666);
  EXPECT_THAT(Ids(Check()), ElementsAre("error options.writable:1"));
}

TEST_F(OptionsTest, NoOptionsAreFound) {
  EXPECT_THAT(Ids(CheckFile("")), ElementsAre("error options.none"));
  EXPECT_THAT(CheckFile("\xEF\xBB\xBFOPTIONS='-p 5000'\n")[0].what,
              "there are none: line 1 sets '\xEF\xBB\xBFOPTIONS', not OPTIONS");
  EXPECT_THAT(Ids(CheckFile("OPTIONS=\n")), ElementsAre("error options.none:1"));
  EXPECT_THAT(Ids(CheckFile("export OPTIONS='-p 5000'\n")), ElementsAre("error options.none"));
}

TEST_F(OptionsTest, WordsThatTheDaemonIgnoresAreFound) {
  EXPECT_THAT(IdsOf("--comms-log"), ElementsAre("warning options.ignored"));
  EXPECT_THAT(IdsOf("-S /y"), ElementsAre("warning options.ignored"));
  const Findings findings = CheckWords("-p 5000 -s /x y -p5001 -l");
  ASSERT_THAT(Ids(findings), ElementsAre("warning options.ignored:2"));
  EXPECT_EQ(findings[0].what, "are no options: 'y', '-p5001'");
}

TEST_F(OptionsTest, OptionWithoutValueIsFound) {
  EXPECT_THAT(IdsOf("-t"), ElementsAre("error options.no-value"));
  EXPECT_THAT(IdsOf("-o -l"), ElementsAre("error options.no-value"));
  EXPECT_THAT(Ids(CheckWords("-p 5000 -s")),
              ElementsAre("error options.no-value:2", "warning options.relative-script:2"));
}

TEST_F(OptionsTest, ValueThatIsNoNumberIsFoundWithWhatItCountsAs) {
  EXPECT_THAT(IdsOf("-t 60s"), ElementsAre("error options.not-a-number"));
  EXPECT_THAT(IdsOf("-o 4294976297"), ElementsAre("error options.not-a-number"));
  const Findings findings = CheckWords("-p 5000 -s /x -n 5O");
  ASSERT_THAT(Ids(findings), ElementsAre("error options.not-a-number:2"));
  EXPECT_EQ(findings[0].consequence, "the daemon reads it as 5");
}

TEST_F(OptionsTest, ValueBelowItsBoundIsFoundWithWhatIsTaken) {
  EXPECT_THAT(IdsOf("-o 80"), ElementsAre("warning options.raised"));
  EXPECT_THAT(IdsOf("-n 1"), ElementsAre("warning options.raised"));
  const Findings findings = CheckWords("-p 5000 -s /x -t 4");
  ASSERT_THAT(Ids(findings), ElementsAre("warning options.raised:2"));
  EXPECT_EQ(findings[0].consequence, "the daemon takes 5");
  EXPECT_THAT(IdsOf("-t 5 -o 2048 -n 2"), IsEmpty());
}

TEST_F(OptionsTest, OptionGivenTwiceIsFound) {
  EXPECT_THAT(IdsOf("-P 5001"), ElementsAre("warning options.repeated"));
  EXPECT_THAT(IdsOf("-l -L"), ElementsAre("warning options.repeated"));
}

TEST_F(OptionsTest, VersionEndsTheDaemon) {
  EXPECT_THAT(IdsOf("-v --whatever"), ElementsAre("error options.version"));
}

TEST_F(OptionsTest, ServiceThatRunsEverybodyAsRootIsFound) {
  EXPECT_THAT(IdsOf("-u"), ElementsAre("error options.as-root"));
}

TEST_F(OptionsTest, ScriptWithoutAbsolutePathIsFound) {
  EXPECT_THAT(Ids(CheckWords("-p 5000 -s bin/x")),
              ElementsAre("warning options.relative-script:2"));
  EXPECT_THAT(Ids(CheckWords("-p 5000")), ElementsAre("warning options.relative-script:2"));
}

TEST_F(OptionsTest, PortThatIsNoneIsFound) {
  EXPECT_THAT(Ids(CheckWords("-s /x")), ElementsAre("error options.no-port:2"));
  EXPECT_THAT(Ids(CheckWords("-s /x -p 65536")), ElementsAre("error options.no-such-port:2"));
  EXPECT_THAT(Ids(CheckWords("-s /x -p -1")), ElementsAre("error options.no-such-port:2"));
  EXPECT_THAT(Ids(CheckWords("-s /x -p 65535")), IsEmpty());
}

TEST_F(OptionsTest, CommsPortsAboveTheHighestAreFound) {
  EXPECT_THAT(IdsOf("-o 65437"), ElementsAre("error options.comms-too-high"));
  EXPECT_THAT(IdsOf("-o 65436"), IsEmpty());
}

TEST_F(OptionsTest, PortsThatTheKernelHandsOutAreFound) {
  EXPECT_THAT(IdsOf("-o 32700"), ElementsAre("warning options.ephemeral-comms"));
  EXPECT_THAT(IdsOf("-o 32667 -n 101"), IsEmpty());
  EXPECT_THAT(Ids(CheckWords("-s /x -p 60999")), ElementsAre("warning options.ephemeral-port:2"));
  directory_.Write("kernel/ip_local_reserved_ports", "99,32768-32799,60999\n");
  EXPECT_THAT(IdsOf("-o 32700"), IsEmpty());
  EXPECT_THAT(IdsOf("-o 32701"), ElementsAre("warning options.ephemeral-comms"));
  EXPECT_THAT(Ids(CheckWords("-s /x -p 60999")), IsEmpty());
}

TEST_F(OptionsTest, PortAmongItsOwnCommsPortsIsFound) {
  EXPECT_THAT(IdsOf("-o 4901"), ElementsAre("error options.comms-on-port"));
  EXPECT_THAT(IdsOf("-o 4900"), IsEmpty());
}

TEST_F(OptionsTest, PortsOfAnotherDaemonAreFound) {
  directory_.Write("next.conf", "OPTIONS='-p 5000 -s /x -o 9050'\n");
  directory_.Write("next.conf.bak", "OPTIONS='-p 5000 -s /x -o 9050'\n");
  EXPECT_THAT(IdsOf(""), ElementsAre("error options.shared-port", "warning options.shared-comms"));
  directory_.Write("next.conf", "OPTIONS='-p 9100 -s /x -o 9101'\n");
  EXPECT_THAT(IdsOf(""), ElementsAre("warning options.comms-on-other-port"));
  directory_.Write("next.conf", "OPTIONS='-p 9201 -s /x -o 4999 -n 2'\n");
  EXPECT_THAT(IdsOf(""), ElementsAre("warning options.comms-on-other-port"));
  directory_.Write("next.conf", "OPTIONS='-p 5001 -s /x -o 9101'\n");
  EXPECT_THAT(IdsOf(""), IsEmpty());
}

TEST_F(OptionsTest, GivenOptionsAreHeldAgainstTheServices) {
  directory_.Write("jobmill.conf", "OPTIONS='-p 5000 -s /x -o 9101'\n");
  const Site site =
      SiteOf({"-p", "5000", "-s", "/x"}, directory_.File("vkjobmill.exe"), directory_.path());
  const Findings findings = CheckOptions(site, directory_.File("kernel"));
  EXPECT_THAT(Ids(findings), ElementsAre("error options.shared-port"));
  EXPECT_THAT(findings.at(0).what, HasSubstr(directory_.File("jobmill.conf")));
  EXPECT_EQ(findings.at(0).file, "");
}

TEST_F(OptionsTest, DaemonOfAnotherAccountMayHaveNoMapping) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const std::vector<std::string> words = {"-p", "5000", "-u", "-s", "/x"};
  const Site site = SiteOf(words, directory_.File("vkjobmill.exe"), directory_.path());
  const auto ids = [&] { return IdsIn(CheckOptions(site, directory_.File("kernel"))); };
  EXPECT_THAT(ids(), HasSubstr("options.as-root;"));
  EXPECT_THAT(AsNobody(ids), testing::Not(HasSubstr("options.as-root;")));
}

TEST_F(OptionsTest, OtherFilesThatTellNothingAreNotCompared) {
  std::filesystem::create_directory(directory_.File("one.conf"));
  directory_.Write("two.conf", "SIMULATOR=x\n");
  EXPECT_THAT(CheckFile("OPTIONS='-p 5000 -s /x'\n"), IsEmpty());
}

TEST_F(OptionsTest, VariableThatIsNotMeantForOptionsIsNotNamed) {
  const Findings findings = CheckFile("SIMULATOR=x\n");
  ASSERT_FALSE(findings.empty());
  EXPECT_THAT(findings[0].what, testing::Not(HasSubstr("SIMULATOR")));
}

}  // namespace
}  // namespace inspect
