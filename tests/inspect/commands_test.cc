#include "inspect/commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/inspect/findings.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// The account daemon is one of every machine.
class CommandsTest : public testing::Test {
 protected:
  CommandsTest() {
    chmod(directory_.path().c_str(), 0755);
    fs::copy(SOURCES "/deploy/scripts", directory_.File("shipped"));
    fs::create_directory(directory_.File("commands"));
    directory_.Write(".vk_corvane_users", "alice daemon 1\n");
  }

  void Write(const std::string& name, const std::string& text, mode_t mode = 0755) const {
    chmod(directory_.Write(name, text).c_str(), mode);
  }

  Findings Check(const std::string& script, const std::string& path = "/usr/bin:/bin") const {
    Site site =
        SiteOf({"-p", "5000", "-s", directory_.File(script)}, directory_.File("vkjobmill.exe"));
    site.environment["PATH"] = directory_.path().string() + ":" + path;
    return CheckCommands(site);
  }

  // Links in "commands" to what the script for a single machine calls; the directory's name.
  std::string OnlyNeeded() const {
    std::istringstream needed(SystemCommands(true) + " bash");
    for (std::string command; needed >> command;) {
      fs::create_symlink("/usr/bin/" + command, directory_.File("commands/" + command));
    }
    return directory_.File("commands");
  }

  TemporaryDirectory directory_;
};

TEST_F(CommandsTest, SchedulerThatAnswersIsGood) {
  Write("slurm", "#!/bin/bash\nneeded='squeue'\n");
  Write("squeue", "#!/bin/sh\nexit 0\n");
  EXPECT_THAT(Check("slurm"), IsEmpty());
}

TEST_F(CommandsTest, SchedulerThatFailsIsFoundWithWhatItSays) {
  Write("slurm", "#!/bin/bash\nneeded='squeue'\n");
  Write("squeue", "#!/bin/sh\necho 'Unable to contact controller' >&2\nexit 1\n");
  const Findings findings = Check("slurm");
  ASSERT_THAT(Ids(findings), ElementsAre("error host.scheduler-silent"));
  EXPECT_THAT(findings[0].what, HasSubstr("ended with status 1: Unable to contact controller"));
}

TEST_F(CommandsTest, MissingCommandIsFound) {
  Write("lsf", "#!/bin/bash\nneeded='bsub-that-is-nowhere'\n");
  EXPECT_THAT(Ids(Check("lsf")), ElementsAre("error host.no-command"));
}

TEST_F(CommandsTest, VariablesOfTheEnvironmentFileCount) {
  Write("ssh", "#!/bin/bash\nneeded='command-of-the-site'\n");
  Write("commands/command-of-the-site", "#!/bin/sh\n");
  EXPECT_THAT(Ids(Check("ssh")), ElementsAre("error host.no-command"));
  directory_.Write(".vk_corvane_env", "PATH " + directory_.File("commands") + "\n");
  EXPECT_THAT(Check("ssh"), IsEmpty());
}

TEST_F(CommandsTest, CommandThatOnlyRootCanExecuteIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Write("ssh", "#!/bin/bash\nneeded='command-of-the-site'\n");
  Write("command-of-the-site", "#!/bin/sh\n", 0700);
  const Findings findings = Check("ssh");
  ASSERT_THAT(Ids(findings), ElementsAre("error host.no-command"));
  EXPECT_EQ(findings[0].what, "needs the command " + directory_.File("command-of-the-site") +
                                  ", which cannot be executed by daemon");
}

TEST_F(CommandsTest, CommandOfTheSystemThatPathLacksIsFound) {
  const std::string path = OnlyNeeded();
  EXPECT_THAT(Check("shipped/local", path), IsEmpty());
  EXPECT_THAT(Ids(Check("shipped/local", "")), ElementsAre("error host.no-command"));
  fs::remove(directory_.File("commands/setsid"));
  const Findings findings = Check("shipped/local", path);
  ASSERT_THAT(Ids(findings), ElementsAre("error host.no-command"));
  EXPECT_THAT(findings[0].what, testing::EndsWith(": setsid"));
}

// What is judged is all that the script needs: with nothing else it finds its host.
TEST_F(CommandsTest, ScriptForASingleMachineCallsNothingElse) {
  const std::string path = OnlyNeeded();
  fs::create_directory(directory_.File("data"));
  fs::copy(SOURCES "/deploy/examples/TENWELLS.afi", directory_.File("data/CASE.afi"));
  ChildProcess::Options options;
  options.output_file = directory_.File("out");
  options.environment = {"PATH=" + path, "JOBMILL_SIMULATOR=" + ProgramDirectory() + "/vksim"};
  const ChildProcess script({"/bin/bash", directory_.File("shipped/local"), "1",
                             directory_.File("data/"), "CASE", std::to_string(FreePort()), "0"},
                            options);
  EXPECT_TRUE(Eventually([&] { return !directory_.Read("out").empty(); }));
  EXPECT_EQ(directory_.Read("out"), "HOST=localhost\n");
}

TEST_F(CommandsTest, SchedulerThatSaysNothingOrCannotBeAskedIsFound) {
  Write("pbs", "#!/bin/bash\nneeded='qstat'\n");
  Write("qstat", "#!/bin/sh\nexit 3\n");
  const Findings findings = Check("pbs");
  ASSERT_THAT(Ids(findings), ElementsAre("error host.scheduler-silent"));
  EXPECT_EQ(findings[0].what, "'qstat -B' ended with status 3");
}

TEST_F(CommandsTest, WithoutPathTheOneOfAShellIsMeant) {
  Write("ssh", "#!/bin/bash\nneeded='sed'\n");
  Site site = SiteOf({"-p", "5000", "-s", directory_.File("ssh")}, directory_.File("x"));
  site.environment.erase("PATH");
  EXPECT_THAT(CheckCommands(site), IsEmpty());
}

TEST_F(CommandsTest, DirectoriesOfPathThatAreNotAbsoluteDoNotCount) {
  Write("ssh", "#!/bin/bash\nneeded='command-of-the-site'\n");
  Write("commands/command-of-the-site", "#!/bin/sh\n");
  EXPECT_THAT(Check("ssh", directory_.File("commands")), IsEmpty());
  EXPECT_THAT(Ids(Check("ssh", "." + directory_.File("commands"))),
              ElementsAre("error host.no-command"));
}

TEST_F(CommandsTest, ScriptsForClustersNeedOthers) {
  const std::string commands = SystemCommands(false);
  EXPECT_THAT(commands, HasSubstr("mkfifo"));
  EXPECT_THAT(SystemCommands(true), testing::Not(HasSubstr("mkfifo")));
}

}  // namespace
}  // namespace inspect
