#include "log/file_place.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/answered_call.h"
#include "tests/support/child_process.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"

namespace {

namespace fs = std::filesystem;

class FilePlaceTest : public testing::Test {
 protected:
  // "OPENED", or the error's text.
  std::string OpenSole(const std::string& name) const {
    struct stat status {};
    const Descriptor opened = FilePlace(directory_.File(name)).OpenSole(0, 0, status);
    return opened ? "OPENED" : strerror(errno);
  }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory_.path())) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  TemporaryDirectory directory_;
};

TEST_F(FilePlaceTest, FreshFileTakesTheNameAndLeavesWhatHadItAsItWas) {
  directory_.Write("a", "old");
  const Descriptor old(open(directory_.File("a").c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor fresh = FilePlace(directory_.File("a")).CreateFresh(0, 0644);
  ASSERT_EQ(write(fresh.get(), "new", 3), 3);
  EXPECT_EQ(directory_.Read("a"), "new");
  std::string text(10, '\0');
  EXPECT_EQ(read(old.get(), text.data(), text.size()), 3);
  EXPECT_THAT(Names(), testing::ElementsAre("a"));
}

TEST_F(FilePlaceTest, FreshFileHasTheModeThatTheUmaskLeavesAndIsClosedOnExec) {
  const mode_t old = umask(0027);
  const Descriptor fresh = FilePlace(directory_.File("a")).CreateFresh(O_APPEND, 0646);
  umask(old);
  struct stat status {};
  ASSERT_EQ(fstat(fresh.get(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(fcntl(fresh.get(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(fresh.get(), F_GETFL) & (O_ACCMODE | O_APPEND), O_WRONLY | O_APPEND);
}

TEST_F(FilePlaceTest, FreshFileNeedsNoRandomNumber) {
  ChildProcess::Options options;
  options.in_child = [this] {
    if (!AnswerCall(SYS_getrandom, [] { return static_cast<long>(-ENOSYS); })) return 77;
    return FilePlace(directory_.File("a")).CreateFresh(0, 0644) ? 0 : 1;
  };
  const int result = ChildProcess({}, options).Wait(std::chrono::seconds(10)).value_or(-1);
  if (result == 77) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(result, 0);
  EXPECT_THAT(Names(), testing::ElementsAre("a"));
}

// Somebody has guessed it. Without random numbers it is known.
TEST_F(FilePlaceTest, LinkUnderTheTemporaryNameIsNotFollowed) {
  const std::string victim = directory_.Write("victim", "precious");
  ChildProcess::Options options;
  options.in_child = [&] {
    fs::create_symlink(victim, directory_.File(".jobmill-" + std::to_string(getpid())));
    if (!AnswerCall(SYS_getrandom, [] { return static_cast<long>(-ENOSYS); })) return 77;
    const Descriptor fresh = FilePlace(directory_.File("a")).CreateFresh(0, 0644);
    return !fresh && errno == EEXIST ? 0 : 1;
  };
  const int result = ChildProcess({}, options).Wait(std::chrono::seconds(10)).value_or(-1);
  if (result == 77) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(fs::exists(fs::symlink_status(directory_.path() / "a")));
}

TEST_F(FilePlaceTest, DirectoryInTheWayIsAnErrorThatLeavesNothingBehind) {
  fs::create_directory(directory_.path() / "a");
  EXPECT_FALSE(FilePlace(directory_.File("a")).CreateFresh(0, 0644));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_THAT(Names(), testing::ElementsAre("a"));
}

TEST_F(FilePlaceTest, DirectoryThatThereIsNotIsAnError) {
  struct stat status {};
  const FilePlace place(directory_.File("absent/a"));
  EXPECT_FALSE(place.CreateFresh(0, 0644));
  EXPECT_FALSE(place.OpenSole(O_CREAT, 0644, status));
  EXPECT_FALSE(place.Look());
  EXPECT_FALSE(place.Remove(0));
  EXPECT_TRUE(place.IsOpenToOthers());
}

TEST_F(FilePlaceTest, DirectoryThatIsExchangedStaysTheOneThatWasFound) {
  fs::create_directory(directory_.path() / "here");
  const FilePlace place(directory_.File("here/a"));
  fs::rename(directory_.path() / "here", directory_.path() / "moved");
  fs::create_directory(directory_.path() / "here");
  const Descriptor fresh = place.CreateFresh(0, 0644);
  EXPECT_TRUE(fs::exists(directory_.path() / "moved" / "a"));
  EXPECT_FALSE(fs::exists(directory_.path() / "here" / "a"));
}

TEST_F(FilePlaceTest, NameWithoutADirectoryBeginsInTheWorkingDirectoryOrBesideTheOther) {
  directory_.Write("a", "");
  const FilePlace other(directory_.File("other"));
  EXPECT_TRUE(FilePlace("a", other).Look());
  EXPECT_TRUE(FilePlace("./a", other).Look());
  EXPECT_TRUE(FilePlace(directory_.File("a"), other).Look());
  ChildProcess::Options options;
  options.directory = directory_.path().string();
  options.in_child = [] { return FilePlace("a").Look() ? 0 : 1; };
  EXPECT_EQ(ChildProcess({}, options).Wait(std::chrono::seconds(10)), 0);
}

TEST_F(FilePlaceTest, OnlyARegularFileOfOneNameIsOpened) {
  directory_.Write("file", "");
  EXPECT_EQ(OpenSole("file"), "OPENED");
  fs::create_hard_link(directory_.File("file"), directory_.File("second"));
  EXPECT_EQ(OpenSole("file"), strerror(EPERM));
  EXPECT_EQ(OpenSole("second"), strerror(EPERM));
  fs::create_symlink(directory_.Write("target", ""), directory_.File("link"));
  EXPECT_EQ(OpenSole("link"), strerror(ELOOP));
  EXPECT_EQ(OpenSole("absent"), strerror(ENOENT));
  fs::create_directory(directory_.path() / "directory");
  EXPECT_EQ(OpenSole("directory"), strerror(EISDIR));
}

TEST_F(FilePlaceTest, PipeIsNotOpenedWhetherOrNotSomebodyReadsFromIt) {
  ASSERT_EQ(mkfifo(directory_.File("pipe").c_str(), 0666), 0);
  EXPECT_EQ(OpenSole("pipe"), strerror(ENXIO));
  const Descriptor reader(open(directory_.File("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  EXPECT_EQ(OpenSole("pipe"), strerror(EPERM));
}

TEST_F(FilePlaceTest, LookSeesTheLinkAndNotWhatItLeadsTo) {
  fs::create_symlink(directory_.Write("target", ""), directory_.File("link"));
  const Descriptor link = FilePlace(directory_.File("link")).Look();
  struct stat status {};
  ASSERT_EQ(fstat(link.get(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
}

TEST_F(FilePlaceTest, RemovesFilesAndEmptyDirectoriesAsItIsTold) {
  directory_.Write("file", "");
  fs::create_directory(directory_.path() / "directory");
  EXPECT_FALSE(FilePlace(directory_.File("file")).Remove(AT_REMOVEDIR));
  EXPECT_FALSE(FilePlace(directory_.File("directory")).Remove(0));
  EXPECT_TRUE(FilePlace(directory_.File("file")).Remove(0));
  EXPECT_TRUE(FilePlace(directory_.File("directory")).Remove(AT_REMOVEDIR));
  EXPECT_THAT(Names(), testing::IsEmpty());
}

TEST_F(FilePlaceTest, DirectoryIsOpenToItsGroupAndToAllByItsModeOnly) {
  const FilePlace place(directory_.File("a"));
  for (const auto& [mode, open] :
       {std::pair(0700, false), std::pair(0755, false), std::pair(0775, true),
        std::pair(0720, true), std::pair(0702, true), std::pair(01777, true)}) {
    ASSERT_EQ(chmod(directory_.path().c_str(), static_cast<mode_t>(mode)), 0);
    EXPECT_EQ(place.IsOpenToOthers(), open) << std::oct << mode;
  }
}

}  // namespace
