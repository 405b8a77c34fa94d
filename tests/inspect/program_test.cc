#include "inspect/program.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/inspect/findings.h"
#include "tests/inspect/own_view.h"
#include "tests/support/running_daemon.h"

namespace inspect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ProgramTest : public testing::Test {
 protected:
  ProgramTest() { chmod(directory_.path().c_str(), 0755); }

  // The programs of a test belong to its account, so the daemon is one of that account.
  Findings Check() const {
    return CheckProgram(SiteOf({"-p", "5000", geteuid() == 0 ? "-l" : "-u"}, Program()));
  }
  void Write(const std::string& text, mode_t mode = 0755) const {
    chmod(directory_.Write("vkjobmill.exe", text).c_str(), mode);
  }
  std::string Program() const { return directory_.File("vkjobmill.exe"); }

  TemporaryDirectory directory_;
};

TEST_F(ProgramTest, DaemonItselfIsGood) {
  std::filesystem::copy(DaemonExecutable(), Program());
  EXPECT_THAT(Check(), IsEmpty());
  // A library that is to be loaded into every program, and that there is not.
  Write(
      "#!/bin/sh\necho 'ERROR: ld.so: object ... ignored.' >&2\nprintf 'Jobmill.\\nx\\n'\nexit "
      "1\n");
  EXPECT_THAT(Check(), IsEmpty());
}

TEST_F(ProgramTest, ProgramThatIsNotThereIsFound) {
  EXPECT_THAT(Ids(Check()), ElementsAre("error options.no-program"));
}

TEST_F(ProgramTest, ProgramThatNobodyCanExecuteIsFound) {
  Write("#!/bin/sh\n", 0644);
  EXPECT_THAT(Ids(Check()), ElementsAre("error program.not-executable"));
  std::filesystem::remove(Program());
  std::filesystem::create_directory(Program());
  EXPECT_THAT(Ids(Check()), ElementsAre("error program.not-executable"));
}

TEST_F(ProgramTest, ProgramThatDoesNotStartIsFoundWithTheReason) {
  Write("#!/bin/sh\necho 'error while loading shared libraries: libx.so.1' >&2\nexit 127\n");
  const Findings findings = Check();
  ASSERT_THAT(Ids(findings), ElementsAre("error program.does-not-start"));
  EXPECT_THAT(findings[0].what,
              HasSubstr("ends with status 127: error while loading shared libraries: libx.so.1"));
  Write("#!/bin/sh\nkill -SEGV $$\n");
  EXPECT_EQ(Check()[0].what, "does not tell its version, but is ended by a signal");
  // Cut off, as by a full disk in the middle of a copy.
  Write(std::string("\x7f") + "ELF");
  EXPECT_THAT(Ids(Check()), ElementsAre("error program.does-not-start"));
}

TEST_F(ProgramTest, ProgramThatOthersCanChangeIsFoundAndNotStarted) {
  Write("#!/bin/sh\ntouch " + directory_.File("started") + "\n", 0777);
  EXPECT_THAT(Ids(Check()), ElementsAre("error program.writable"));
  EXPECT_FALSE(std::filesystem::exists(directory_.File("started")));
}

TEST_F(ProgramTest, FileSystemWithoutProgramsIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  std::filesystem::copy(DaemonExecutable(), Program());
  const std::string directory = directory_.path();
  const std::string found = WithMounts({{directory, directory}}, [&] {
    if (mount("none", directory.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_NOEXEC, nullptr) != 0) {
      return std::string("no mount");
    }
    const Findings findings = Check();
    return findings.empty() ? std::string() : findings[0].id + ": " + findings[0].what;
  });
  if (found == "no mount") GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(found, "program.not-executable: is on a file system that is mounted noexec");
}

TEST_F(ProgramTest, ProgramThatCannotBeLookedAtIsFound) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Write("#!/bin/sh\n");
  const Site site = SiteOf({"-p", "5000", "-u"}, Program());
  chmod(directory_.path().c_str(), 0700);
  EXPECT_EQ(AsNobody([&] {
              const Findings findings = CheckProgram(site);
              return findings.at(0).id + ": " + findings[0].what;
            }),
            "program.not-executable: cannot be looked at");
}

TEST_F(ProgramTest, ProgramThatCannotBeAskedIsFound) {
  std::filesystem::copy(DaemonExecutable(), Program());
  EXPECT_EQ(WithoutPipes([&] { return Check().at(0).what; }),
            "does not answer within 10 s when it is asked for its version");
}

TEST_F(ProgramTest, FileSystemThatTellsNothingOfItselfIsGood) {
  std::filesystem::copy(DaemonExecutable(), Program());
  EXPECT_EQ(WithAnsweredCall(
                SYS_statfs, []() -> long { return -EIO; }, [&] { return IdsIn(Check()); }),
            "");
}

}  // namespace
}  // namespace inspect
