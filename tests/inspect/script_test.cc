#include "inspect/script.h"

#include <grp.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
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

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

// As a package lays it out. The account daemon is one of every machine.
class ScriptTest : public testing::Test {
 protected:
  ScriptTest() {
    chmod(directory_.path().c_str(), 0755);
    fs::create_directories(directory_.File("lib/jobmill"));
    fs::create_directories(directory_.File("share/jobmill"));
    fs::copy(SOURCES "/deploy/scripts", directory_.File("share/jobmill/scripts"));
    fs::create_directory(directory_.File("bin"));
    Program("bin/vksim");
    Users("alice daemon 1\n");
    Use("share/jobmill/scripts/local");
  }

  void Program(const std::string& name, const std::string& text = "#!/bin/sh\n",
               mode_t mode = 0755) const {
    chmod(directory_.Write(name, text).c_str(), mode);
  }
  void Users(const std::string& text) const {
    directory_.Write("lib/jobmill/.vk_corvane_users", text);
  }
  void Environment(const std::string& text) const {
    directory_.Write("lib/jobmill/.vk_corvane_env", text);
  }
  void Use(const std::string& script) const {
    directory_.Write("jobmill.conf", "OPTIONS='-p 5000 -s " + directory_.File(script) + "'\n");
  }
  // A script of this text.
  void UseText(const std::string& text, mode_t mode = 0755) const {
    chmod(directory_.Write("script", text).c_str(), mode);
    Use("script");
  }

  Findings Check() const {
    Findings findings = CheckScript(
        SiteOf(directory_.path(), "jobmill", directory_.File("lib/jobmill/vkjobmill.exe")));
    // Where another account than root runs the tests, their files are its own, and it cannot ask
    // what others may do.
    if (geteuid() != 0) {
      std::erase_if(findings, [](auto& finding) {
        return finding.id == "script.writable" || finding.id == "script.accounts-unchecked";
      });
    }
    return findings;
  }
  std::vector<std::string> IdsOf() const { return Ids(Check()); }
  std::vector<std::string> IdsOf(const std::string& text) const {
    UseText(text);
    return IdsOf();
  }

  TemporaryDirectory directory_;
};

TEST_F(ScriptTest, NothingIsFoundInTheShippedOnes) {
  for (const char* name : {"local", "slurm", "pbs", "lsf", "gridengine", "htcondor", "ssh"}) {
    Use("share/jobmill/scripts/" + std::string(name));
    EXPECT_THAT(IdsOf(), IsEmpty()) << name;
  }
}

TEST_F(ScriptTest, LinksToTheShippedOnesAreGood) {
  fs::create_symlink("share/jobmill/scripts/slurm", directory_.File("script"));
  Use("script");
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ScriptTest, ScriptThatIsNoneIsFound) {
  Use("nowhere");
  EXPECT_THAT(IdsOf(), ElementsAre("error script.missing"));
  Use("share/jobmill/scripts/local/x");
  EXPECT_THAT(IdsOf(), ElementsAre("error script.missing"));
  Use("share");
  EXPECT_THAT(IdsOf(), ElementsAre("error script.no-file"));
  ASSERT_EQ(mkfifo(directory_.File("pipe").c_str(), 0755), 0);
  Use("pipe");
  EXPECT_THAT(IdsOf(), ElementsAre("error script.no-file"));
}

TEST_F(ScriptTest, NothingIsSaidAboutTheScriptOfUnknownOptions) {
  directory_.Write("jobmill.conf", "");
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ScriptTest, ScriptThatAccountsCannotExecuteIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Users("alice daemon 1\nbob bin 1\nguest nobody 0\nx no-such-account 1\nroot root 1\n");
  UseText("#!/bin/sh\n", 0700);
  const Findings findings = Check();
  ASSERT_THAT(Ids(findings), ElementsAre("error script.not-executable"));
  EXPECT_EQ(findings[0].what, "cannot be executed by bin, daemon");
  Users("alice daemon 1\n");
  UseText("#!/bin/sh\n", 0754);
  EXPECT_THAT(IdsOf(), ElementsAre("error script.not-executable"));
  UseText("#!/bin/sh\n");
  chmod(directory_.path().c_str(), 0700);
  EXPECT_THAT(IdsOf(), ElementsAre("error script.not-executable"));
}

TEST_F(ScriptTest, DirectoryOnTheWayByTheNameInTheOptionsCounts) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  fs::create_directory(directory_.File("etc"));
  fs::create_symlink("../share/jobmill/scripts/local", directory_.File("etc/script"));
  Use("etc/script");
  EXPECT_THAT(IdsOf(), IsEmpty());
  chmod(directory_.File("etc").c_str(), 0700);
  const Findings findings = Check();
  ASSERT_THAT(Ids(findings), ElementsAre("error script.not-executable"));
  EXPECT_EQ(findings[0].what, "cannot be executed by daemon: the directory " +
                                  directory_.File("etc") + " cannot be entered");
}

TEST_F(ScriptTest, ScriptThatItsInterpreterCannotReadIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  UseText("#!/bin/sh\n", 0711);
  EXPECT_THAT(IdsOf(), ElementsAre("error script.not-executable"));
}

TEST_F(ScriptTest, WhatTheScriptOpensHasToBeOpenToTheAccounts) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  fs::copy("/bin/sh", directory_.File("shell"));
  const std::string shell = directory_.File("shell");
  chmod(shell.c_str(), 0700);
  UseText("#!" + shell + "\n");
  const Findings interpreter = Check();
  ASSERT_THAT(Ids(interpreter), ElementsAre("error script.interpreter-missing:1"));
  EXPECT_EQ(interpreter[0].what,
            "needs the interpreter " + shell + ", which cannot be executed by daemon");

  Use("share/jobmill/scripts/slurm");
  chmod(directory_.File("share/jobmill/scripts/common.sh").c_str(), 0600);
  const Findings common = Check();
  ASSERT_THAT(Ids(common), ElementsAre("error script.no-common"));
  EXPECT_EQ(common[0].what, "has a common.sh beside it that cannot be read by daemon");
}

TEST_F(ScriptTest, SimulatorThatAccountsCannotExecuteIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  fs::create_directory(directory_.File("sim"));
  Program("sim/x");
  Environment("JOBMILL_SIMULATOR " + directory_.File("sim/x"));
  EXPECT_THAT(IdsOf(), IsEmpty());
  const std::string what = "has a simulator to start, " + directory_.File("sim/x") +
                           ", that cannot be executed by daemon";
  for (const mode_t mode : {0644U, 0700U}) {
    Program("sim/x", "#!/bin/sh\n", mode);
    const Findings findings = Check();
    ASSERT_THAT(Ids(findings), ElementsAre("error script.no-simulator"));
    EXPECT_EQ(findings[0].what, what);
  }
  Program("sim/x");
  chmod(directory_.File("sim").c_str(), 0700);
  const Findings closed = Check();
  ASSERT_THAT(Ids(closed), ElementsAre("error script.no-simulator"));
  EXPECT_EQ(closed[0].what,
            what + ": the directory " + directory_.File("sim") + " cannot be entered");
}

TEST_F(ScriptTest, SimulatorOnAFileSystemWithoutProgramsIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  fs::create_directory(directory_.File("sim"));
  Environment("JOBMILL_SIMULATOR " + directory_.File("sim/x"));
  const auto what = Ask([this] {
    // The mount is of this process alone.
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", directory_.File("sim").c_str(), "tmpfs", MS_NOEXEC, "mode=0755") != 0) {
      return std::string("no mount");
    }
    Program("sim/x");
    const Findings findings = Check();
    return findings.empty() ? std::string() : findings[0].what;
  });
  if (what == "no mount") GTEST_SKIP() << "no file system can be mounted here";
  EXPECT_EQ(what, "has a simulator to start, " + directory_.File("sim/x") +
                      ", that cannot be executed by daemon: its file system is mounted noexec");
}

TEST_F(ScriptTest, SimulatorWithoutItsLibraryIsFound) {
  // A program of this machine whose library is looked for under another name.
  std::ifstream in("/bin/bash", std::ios::binary);
  std::string text(std::istreambuf_iterator<char>(in), {});
  const std::size_t name = text.find("libtinfo.so");
  if (name == std::string::npos) GTEST_SKIP() << "bash needs no such library here";
  Program("bin/vksim", text);
  EXPECT_THAT(IdsOf(), IsEmpty());
  Program("bin/vksim", text.replace(name, 11, "libtonfi.so"));
  const Findings findings = Check();
  ASSERT_THAT(Ids(findings), ElementsAre("error script.no-library"));
  EXPECT_THAT(findings[0].what, testing::HasSubstr("that does not find libtonfi.so."));
  if (geteuid() != 0) return;
  EXPECT_THAT(AsNobody([this] { return IdsIn(Check()); }), testing::HasSubstr("script.no-library"));
}

TEST_F(ScriptTest, SimulatorThatTheSystemCannotStartIsFound) {
  Environment("JOBMILL_SIMULATOR " + directory_.File("bin/x"));
  for (const char* text : {"", "PK\3\4", "#!/no/such/shell\n", "#!/bin/sh\r\n", "#!\n", "#!",
                           "#!/usr/bin/env no-such-python\n"}) {
    Program("bin/x", text);
    EXPECT_THAT(IdsOf(), ElementsAre("error script.no-simulator")) << text;
  }
  Program("bin/x", "#!/usr/bin/env sh\n");
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ScriptTest, InterpreterIsLookedForInThePathOfTheEnvironmentFile) {
  fs::create_directory(directory_.File("path"));
  Program("path/shell-of-the-site");
  UseText("#!/usr/bin/env shell-of-the-site\n");
  EXPECT_THAT(IdsOf(), ElementsAre("error script.interpreter-missing:1"));
  Environment("PATH " + directory_.File("path"));
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ScriptTest, ScriptThatTheDaemonsOwnAccountCannotExecuteIsFound) {
  UseText("#!/bin/sh\n", 0644);
  directory_.Write("jobmill.conf", "OPTIONS='-u -p 5000 -s " + directory_.File("script") + "'\n");
  EXPECT_THAT(IdsOf(), ElementsAre("error script.not-executable"));
}

TEST_F(ScriptTest, WhatOnlyRootFindsOutIsNotCalledGood) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const auto ids = Ask([this] {
    if (setgroups(0, nullptr) != 0 || setuid(61234) != 0) return std::string();
    return Ids(CheckScript(SiteOf(directory_.path(), "jobmill",
                                  directory_.File("lib/jobmill/vkjobmill.exe"))))
        .at(0);
  });
  EXPECT_EQ(ids, "unchecked script.accounts-unchecked");
  UseText("#!/bin/sh\n", 0700);
  const auto unreadable =
      Ask([this] { return setgroups(0, nullptr) == 0 && setuid(61234) == 0 ? IdsOf().at(0) : ""; });
  EXPECT_EQ(unreadable, "unchecked script.unchecked");
}

TEST_F(ScriptTest, ScriptThatOthersCanWriteIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  UseText("#!/bin/sh\n", 0775);
  EXPECT_THAT(IdsOf(), ElementsAre("error script.writable"));
}

TEST_F(ScriptTest, InterpreterThatIsMissingIsFound) {
  EXPECT_THAT(IdsOf("#!/bin/sh\n"), IsEmpty());
  EXPECT_THAT(IdsOf("#! /bin/sh -e\n"), IsEmpty());
  EXPECT_THAT(IdsOf("#!/no/such/shell\n"), ElementsAre("error script.interpreter-missing:1"));
  EXPECT_THAT(IdsOf("#!bash\n"), ElementsAre("error script.interpreter-missing:1"));
  EXPECT_THAT(IdsOf("#!\n"), ElementsAre("error script.interpreter-missing:1"));
  EXPECT_THAT(IdsOf("#!/usr/bin/env sh\n"), IsEmpty());
  EXPECT_THAT(IdsOf("#!/usr/bin/env no-such-shell\n"),
              ElementsAre("error script.interpreter-missing:1"));
}

TEST_F(ScriptTest, TextThatTheSystemCannotExecuteIsFound) {
  EXPECT_THAT(IdsOf("echo HOST=x\n"), ElementsAre("error script.no-interpreter:1"));
  EXPECT_THAT(IdsOf(""), ElementsAre("error script.no-interpreter:1"));
  EXPECT_THAT(IdsOf("\x7f"
                    "ELF"),
              IsEmpty());
}

TEST_F(ScriptTest, CarriageReturnsAreFound) {
  EXPECT_THAT(IdsOf("#!/bin/sh\r\necho\r\n"), ElementsAre("error script.carriage-return:1"));
  EXPECT_THAT(IdsOf("#!/bin/sh\necho\r\n"), ElementsAre("error script.carriage-return:2"));
}

TEST_F(ScriptTest, SyntaxErrorIsFoundWithItsLineAndNothingIsExecuted) {
  const std::string made = directory_.File("made");
  for (const char* first : {"#!/bin/bash\n", "#!/usr/bin/env bash\n", "#!/bin/sh\n"}) {
    EXPECT_THAT(IdsOf(first + ("touch " + made + "\n") + "if true; then\n  echo )\nfi\n"),
                ElementsAre("error script.syntax:4"))
        << first;
    EXPECT_THAT(IdsOf(first + ("touch " + made + "\n")), IsEmpty()) << first;
  }
  EXPECT_FALSE(fs::exists(made));
  EXPECT_THAT(IdsOf("#!/bin/bash\nshopt -s extglob\n[[ $1 == @(a|b) ]]\necho ${1##+(x)}\n"
                    "case $1 in !(a|b)) ;; esac\n"),
              IsEmpty());
  EXPECT_THAT(IdsOf("#!/usr/bin/env -S bash\nif\n"), IsEmpty());
  EXPECT_THAT(IdsOf("#!/bin/cat\nif\n"), IsEmpty());
}

TEST_F(ScriptTest, CopyWithoutItsCommonFileIsFound) {
  UseText(directory_.Read("share/jobmill/scripts/slurm"));
  EXPECT_THAT(IdsOf(), ElementsAre("error script.no-common"));
  directory_.Write("common.sh", "of another version");
  EXPECT_THAT(IdsOf(), ElementsAre("warning script.other-common"));
  directory_.Write("common.sh", directory_.Read("share/jobmill/scripts/common.sh"));
  EXPECT_THAT(IdsOf(), IsEmpty());
  directory_.Write("common.sh", "set -u\r\n");
  const Findings findings = Check();
  EXPECT_THAT(Ids(findings),
              ElementsAre("error script.carriage-return:1", "warning script.other-common"));
  EXPECT_EQ(findings[0].file, fs::canonical(directory_.File("common.sh")));
}

TEST_F(ScriptTest, SimulatorThatIsNoneIsFound) {
  Environment("JOBMILL_SIMULATOR /bin/true\n");
  EXPECT_THAT(IdsOf(), IsEmpty());
  for (const char* simulator : {"/no/such/program", "/etc/passwd", "/etc", "bin/x",
                                "/bin/true JOBMILL_SIMULATOR /bin/true"}) {
    Environment(std::string("JOBMILL_SIMULATOR ") + simulator);
    EXPECT_THAT(IdsOf(), ElementsAre("error script.no-simulator")) << simulator;
  }
  Environment("JOBMILL_SIMULATOR sh\n");
  EXPECT_THAT(IdsOf(), IsEmpty());
  Environment("JOBMILL_SIMULATOR not-in-path\n");
  EXPECT_THAT(IdsOf(), ElementsAre("error script.no-simulator"));
  Environment("JOBMILL_SIMULATOR /on/the/nodes\n");
  Use("share/jobmill/scripts/slurm");
  EXPECT_THAT(IdsOf(), IsEmpty());
}

TEST_F(ScriptTest, StandInSimulatorIsLookedForAsTheScriptDoes) {
  fs::remove(directory_.File("bin/vksim"));
  fs::create_directory(directory_.File("path"));
  Program("path/bash");
  const std::string options = directory_.Read("jobmill.conf");
  directory_.Write("jobmill.conf", options + "PATH=" + directory_.File("path") + "\n");
  EXPECT_THAT(IdsOf(), ElementsAre("error script.no-simulator"));
  for (const char* place : {"path/vksim", "share/jobmill/scripts/vksim", "bin/vksim"}) {
    Program(place);
    EXPECT_THAT(IdsOf(), IsEmpty()) << place;
    fs::remove(directory_.File(place));
  }
}

TEST_F(ScriptTest, EnvironmentOfARunIsTheDaemonsWithTheFileApplied) {
  Environment("PATH /sim/bin A 1\n");
  const auto answer = Ask([this] {
    TakeEnvironment(SiteOf(directory_.path(), "jobmill", directory_.File("lib/jobmill/x")));
    return std::string(getenv("PATH")) + " " + getenv("A") + (getenv("HOME") != nullptr ? "!" : "");
  });
  EXPECT_EQ(answer, "/sim/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin 1");
}

TEST_F(ScriptTest, EnvWithoutAWordOrWithoutPathIsNotLookedInto) {
  UseText("#!/usr/bin/env\n");
  EXPECT_THAT(IdsOf(), IsEmpty());
  UseText("#!/usr/bin/env no-such-interpreter\n");
  EXPECT_THAT(IdsOf(), testing::Not(IsEmpty()));
  Site site = SiteOf(directory_.path(), "jobmill", directory_.File("lib/jobmill/vkjobmill.exe"));
  site.environment.erase("PATH");
  EXPECT_THAT(IdsIn(CheckScript(site)), testing::Not(testing::HasSubstr("interpreter-missing")));
}

TEST_F(ScriptTest, ShellThatIsNotThereSaysNothingOfTheSyntax) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  UseText("#!/bin/bash\nif\n");
  EXPECT_THAT(IdsOf(), ElementsAre("error script.syntax:3"));
  Program("shell", "#!/bin/sh\necho 'x: line 3: y'\nexit 127\n");
  const std::string found =
      WithMounts({{directory_.File("shell"), "/usr/bin/bash"}}, [&] { return IdsIn(Check()); });
  if (found == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(found, "");
}

TEST_F(ScriptTest, AllLibrariesThatAreMissingAreNamed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Program("ldd", "#!/bin/sh\nprintf '\\tliba.so => not found\\n\\tlibb.so => not found\\n'\n");
  fs::copy_file("/bin/true", directory_.File("bin/vksim"), fs::copy_options::overwrite_existing);
  const auto found = [&](const std::vector<std::string>& words) {
    return WithMounts({{directory_.File("ldd"), "/usr/bin/ldd"}}, [&] {
      const Findings findings =
          CheckScript(SiteOf(words, directory_.File("lib/jobmill/vkjobmill.exe")));
      return findings.empty() ? std::string() : findings.back().what;
    });
  };
  const std::string local = directory_.File("share/jobmill/scripts/local");
  const std::string mapped = found({"-p", "5000", "-s", local});
  if (mapped == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_THAT(mapped, testing::EndsWith(", that does not find liba.so, libb.so"));
  EXPECT_THAT(found({"-p", "5000", "-u", "-s", local}), testing::EndsWith("liba.so, libb.so"));
}

TEST_F(ScriptTest, WhatCannotBeAskedIsNoFindingButTheSimulators) {
  Site site = SiteOf(directory_.path(), "jobmill", directory_.File("lib/jobmill/vkjobmill.exe"));
  EXPECT_THAT(WithoutPipes([&] { return IdsIn(CheckScript(site)); }),
              testing::HasSubstr("script.no-simulator;"));
}

TEST_F(ScriptTest, PackagedScriptsThatAreNowhereAreNotCompared) {
  fs::create_directory(directory_.File("else"));
  fs::copy(directory_.File("share/jobmill/scripts/local"), directory_.File("else/local"));
  directory_.Write("else/common.sh", "# another one\n");
  const auto ids = [&](const std::string& program) {
    return IdsIn(CheckScript(
        SiteOf({"-p", "5000", "-s", directory_.File("else/local")}, directory_.File(program))));
  };
  EXPECT_THAT(ids("lib/jobmill/vkjobmill.exe"), testing::HasSubstr("script.other-common;"));
  EXPECT_THAT(ids("nowhere/at/all/vkjobmill.exe"),
              testing::Not(testing::HasSubstr("script.other-common;")));
}

}  // namespace
}  // namespace inspect
