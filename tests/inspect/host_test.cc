#include "inspect/host.h"

#include <sys/stat.h>
#include <utime.h>

#include <filesystem>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::Contains;
using testing::Not;

class HostTest : public testing::Test {
 protected:
  void Write(const std::string& name, const std::string& text) {
    chmod(directory_.Write(name, text).c_str(), 0755);
  }

  // What is found with `script` in use, whatever this machine is like.
  std::set<std::string> Found(const std::string& script, const std::string& nodes = "") {
    Site site =
        SiteOf({"-p", "5000", "-s", directory_.File(script)}, directory_.File("vkjobmill.exe"));
    site.environment["PATH"] = directory_.path().string() + ":/usr/bin:/bin";
    site.environment["JOBMILL_NODES"] = nodes;
    std::set<std::string> ids;
    for (const Finding& finding : CheckHost(site)) {
      EXPECT_FALSE(finding.what.empty() || finding.consequence.empty() || finding.remedy.empty());
      ids.insert(finding.id);
    }
    return ids;
  }

  TemporaryDirectory directory_;
};

TEST_F(HostTest, SchedulerThatAnswersIsGood) {
  Write("slurm", "#!/bin/bash\nneeded='squeue'\n");
  Write("squeue", "#!/bin/sh\nexit 0\n");
  const auto found = Found("slurm");
  EXPECT_THAT(found, Not(Contains("host.no-command")));
  EXPECT_THAT(found, Not(Contains("host.scheduler-silent")));
  EXPECT_THAT(found, Not(Contains("host.clock")));
}

TEST_F(HostTest, SchedulerThatFailsIsFound) {
  Write("slurm", "#!/bin/bash\nneeded='squeue'\n");
  Write("squeue", "#!/bin/sh\nexit 1\n");
  EXPECT_THAT(Found("slurm"), Contains("host.scheduler-silent"));
}

TEST_F(HostTest, MissingCommandIsFound) {
  Write("lsf", "#!/bin/bash\nneeded='bsub-that-is-nowhere'\n");
  EXPECT_THAT(Found("lsf"), Contains("host.no-command"));
}

TEST_F(HostTest, NodeWithoutAnAddressIsFound) {
  Write("ssh", "#!/bin/bash\nneeded='true'\n");
  EXPECT_THAT(Found("ssh", "localhost"), Not(Contains("host.no-address")));
  // A label of more than 63 characters is no name that anybody is asked for.
  EXPECT_THAT(Found("ssh", std::string(64, 'x')), Contains("host.no-address"));
}

TEST_F(HostTest, FileFromTheFutureIsFound) {
  Write("script", "#!/bin/sh\n");
  const utimbuf future{time(nullptr) + 3600, time(nullptr) + 3600};
  ASSERT_EQ(utime(directory_.File("script").c_str(), &future), 0);
  EXPECT_THAT(Found("script"), Contains("host.clock"));
}

TEST(GuardsTest, RuleThatNamesThePortOrAPolicyGuards) {
  const std::string begin = "table inet filter {\n chain input {\n";
  const std::string accept = "  type filter hook input priority 0; policy accept;\n";
  EXPECT_FALSE(Guards("", 5000));
  EXPECT_FALSE(Guards(begin + accept + "  tcp dport 22 drop\n", 5000));
  EXPECT_FALSE(Guards(begin + accept + "  tcp dport 15000 drop\n", 5000));
  EXPECT_TRUE(Guards(begin + accept + "  tcp dport { 22, 5000 } drop\n", 5000));
  EXPECT_TRUE(Guards(begin + "  type filter hook input priority 0; policy drop;\n", 5000));
}

}  // namespace
}  // namespace inspect
