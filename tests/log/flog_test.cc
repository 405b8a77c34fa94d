#include "log/flog.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iostream>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "log/timestamp.h"
#include "tests/support/answered_call.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"

namespace {

namespace fs = std::filesystem;

constexpr int kNotPermitted = 77;

// Runs `body` in a child, in which system calls can be answered. Its result; 77 from where that is
// not permitted. What it prints goes to `output`, when that is given.
int InChild(const std::function<int()>& body, const std::string& output = {}) {
  ChildProcess::Options options;
  if (!output.empty()) options.output_file = output;
  options.in_child = body;
  ChildProcess child({}, options);
  return child.Wait(std::chrono::seconds(10)).value_or(-1);
}

// The number that the next log's descriptor will get; the one before it is its directory's.
int DescriptorOfNextLog() {
  const Descriptor directory(dup(STDOUT_FILENO));
  return Descriptor(dup(STDOUT_FILENO)).get();
}

class FlogTest : public testing::Test {
 protected:
  unsigned Mode(const std::string& file) const {
    struct stat status {};
    EXPECT_EQ(lstat(directory_.File(file).c_str(), &status), 0);
    return status.st_mode & 07777U;
  }

  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override {
    if (taken_) return;
    const std::string printed = testing::internal::GetCapturedStdout();
    if (HasFailure()) std::cout << printed;  // among it why
  }

  // What went to standard output since the test began.
  std::string TakePrinted() {
    taken_ = true;
    return testing::internal::GetCapturedStdout();
  }

  // What `body`, run in a process of its own, leaves in two files and on standard output.
  template <class Body>
  void ExpectOfChild(const Body& body, const std::string& a, const std::string& b,
                     const std::string& printed) const {
    EXPECT_EQ(InChild(body, directory_.File("printed")), 0);
    EXPECT_EQ(directory_.Read("a.log"), a);
    EXPECT_EQ(directory_.Read("b.log"), b);
    EXPECT_EQ(directory_.Read("printed"), printed);
  }

  TemporaryDirectory directory_;
  bool taken_ = false;
};

TEST_F(FlogTest, EmptyNameDisablesTheLogAndItsStandardOutput) {
  flog log("", true);
  log << "lost";
  EXPECT_EQ(log.status(), 1);
  EXPECT_EQ(TakePrinted(), "");
}

TEST_F(FlogTest, UnopenableFileDisablesTheLogAndItsStandardOutput) {
  flog log(directory_.File("absent/run.log"), true);
  log << "lost";
  EXPECT_EQ(log.status(), 1);
  EXPECT_EQ(TakePrinted(), "");
}

TEST_F(FlogTest, EveryItemIsInFileAndStandardOutputBeforeTheNext) {
  flog log(directory_.File("a.log"), true);
  log << "one";
  EXPECT_EQ(directory_.Read("a.log"), "one");
  log << std::string(" two");
  EXPECT_EQ(directory_.Read("a.log"), "one two");
  EXPECT_EQ(TakePrinted(), "one two");
}

TEST_F(FlogTest, ItemsFollowEachOtherWithoutSeparator) {
  flog log(directory_.File("a.log"), true);
  log << 1.5 << 7;
  EXPECT_EQ(directory_.Read("a.log"), "1.57");
}

TEST_F(FlogTest, NumbersHaveTheStreamsDefaultForm) {
  flog log(directory_.File("a.log"), true);
  log << 365.25 << " " << 1.0 / 3.0 << " " << 65520UL << " " << -3;
  EXPECT_EQ(directory_.Read("a.log"), "365.25 0.333333 65520 -3");
}

TEST_F(FlogTest, RemoveOldStartsAFreshFile) {
  directory_.Write("a.log", "yesterday\n");
  flog log(directory_.File("a.log"), true);
  log << "today\n";
  EXPECT_EQ(directory_.Read("a.log"), "today\n");
}

TEST_F(FlogTest, WithoutRemoveOldAppends) {
  directory_.Write("a.log", "yesterday\n");
  flog log(directory_.File("a.log"), false);
  log << "today\n";
  EXPECT_EQ(directory_.Read("a.log"), "yesterday\ntoday\n");
}

TEST_F(FlogTest, FileIsOpenToEverybodyWhateverTheUmask) {
  const mode_t old = umask(0077);
  flog fresh(directory_.File("fresh.log"), true);
  flog appended(directory_.File("appended.log"), false);
  umask(old);
  EXPECT_EQ(Mode("fresh.log"), 0666U);
  EXPECT_EQ(Mode("appended.log"), 0666U);
}

TEST_F(FlogTest, SetFileMakesADisabledLogUsableAgain) {
  flog log(directory_.File("absent/a.log"), true);
  ASSERT_EQ(log.status(), 1);
  log.SetFile(directory_.File("a.log"), true);
  log << "here";
  EXPECT_EQ(log.status(), 0);
  EXPECT_EQ(directory_.Read("a.log"), "here");
}

TEST_F(FlogTest, SetFileAndTheEndCloseTheFileBefore) {
  const auto before = OpenDescriptors(getpid());
  {
    flog log(directory_.File("a.log"), true);
    const auto open = OpenDescriptors(getpid());
    log.SetFile(directory_.File("b.log"), true);
    EXPECT_EQ(OpenDescriptors(getpid()), open);
    log.SetFile("", true);
    EXPECT_EQ(OpenDescriptors(getpid()), open - 1);
    log.SetFile(directory_.File("b.log"), true);
  }
  // Standard output may have been opened again, for all logs and once.
  EXPECT_LE(OpenDescriptors(getpid()), before + 1);
}

TEST_F(FlogTest, SetFileToNothingDisablesAUsableLog) {
  flog log(directory_.File("a.log"), true);
  log.SetFile("", true);
  log << "lost";
  EXPECT_EQ(directory_.Read("a.log"), "");
  EXPECT_EQ(TakePrinted(), "");
}

TEST_F(FlogTest, TimestampEndsTheLine) {
  flog log(directory_.File("a.log"), true);
  log << "Daemon started: " << timestamp() << "next";
  const std::string text = directory_.Read("a.log");
  ASSERT_EQ(text.size(), 16U + 25U + 4U);
  EXPECT_EQ(text.substr(40), "\nnext");
}

TEST_F(FlogTest, NullTextSilencesFileAndStandardOutputOfEveryLog) {
  // For the rest of the process, so in one that ends here.
  const auto body = [this] {
    flog log(directory_.File("a.log"), true);
    flog other(directory_.File("b.log"), true);
    const char* end = nullptr;
    log << "Arg 7: " << end << "\n" << 3;
    other << "to its file alone";
    return log.status();
  };
  ExpectOfChild(body, "Arg 7: ", "to its file alone", "Arg 7: ");
}

TEST_F(FlogTest, SilencedLogWritesToItsNextFileAndToStandardOutputNoMore) {
  const auto body = [this] {
    flog log(directory_.File("a.log"), true);
    const char* end = nullptr;
    for (int i = 0; i < 2; ++i) {
      log << end << "lost";
      log.SetFile(directory_.File("b.log"), true);
      log << "to the file alone";
    }
    return log.status();
  };
  ExpectOfChild(body, "", "to the file alone", "");
}

TEST_F(FlogTest, NullTextToADisabledLogSilencesNobody) {
  const auto body = [this] {
    flog disabled("", true);
    const char* end = nullptr;
    disabled << end;
    flog log(directory_.File("a.log"), true);
    log << "to both";
    return 0;
  };
  ExpectOfChild(body, "to both", "", "to both");
}

TEST_F(FlogTest, FailedWriteLosesThatItemOnly) {
  // Standard output on a full disk for two items.
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  const int saved = dup(STDOUT_FILENO);
  flog log(directory_.File("a.log"), true);
  dup2(full, STDOUT_FILENO);
  log << "to the file alone, "
      << "twice\n";
  dup2(saved, STDOUT_FILENO);
  close(saved);
  close(full);
  log << "to both\n";
  EXPECT_EQ(directory_.Read("a.log"), "to the file alone, twice\nto both\n");
  const std::string printed = TakePrinted();
  EXPECT_EQ(printed.substr(printed.size() - 8), "to both\n");
}

TEST_F(FlogTest, StandardOutputThatNobodyReadsHoldsTheLogForASecondAndOnceOnly) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
  const Descriptor reader(pipe[0]);
  const Descriptor saved(dup(STDOUT_FILENO));
  dup2(pipe[1], STDOUT_FILENO);
  close(pipe[1]);
  flog log(directory_.File("a.log"), true);
  std::string expected;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i) {
    // Lines that are longer than what a pipe takes at once, too.
    const std::string line = std::to_string(i) + std::string(i % 2 == 0 ? 100 : 9000, '.') + "\n";
    expected += line;
    log << line;
  }
  const std::chrono::duration<double> held = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(directory_.Read("a.log"), expected);
  EXPECT_GE(held.count(), 0.9);
  EXPECT_LT(held.count(), 3);

  // Once it is read again, new items come.
  std::string printed(1 << 20, '\0');
  printed.resize(static_cast<std::size_t>(read(reader.get(), printed.data(), printed.size())));
  EXPECT_EQ(printed, expected.substr(0, printed.size()));
  EXPECT_GT(printed.size(), 40'000U);
  log << "read again\n";
  EXPECT_EQ(ReadExactly(reader.get(), 11), "read again\n");
  dup2(saved.get(), STDOUT_FILENO);
}

TEST_F(FlogTest, WhatAFullDiskRefusedIsNotWrittenLater) {
  // A file that may not grow beyond twelve bytes, until it may.
  ChildProcess::Options options;
  options.in_child = [this] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit small{12, limit.rlim_max};
    flog log(directory_.File("a.log"), true);
    log << "1234567890";
    setrlimit(RLIMIT_FSIZE, &small);
    log << "abcd"
        << "LOST";
    setrlimit(RLIMIT_FSIZE, &limit);
    log << "after" << 7;
    return 0;
  };
  ChildProcess child({}, options);
  EXPECT_EQ(child.Wait(std::chrono::seconds(10)).value_or(-1), 0);
  EXPECT_EQ(directory_.Read("a.log"), "1234567890abafter7");
}

TEST_F(FlogTest, LongestNameIsPossible) {
  const std::string name(255, 'n');
  flog log(directory_.File(name), true);
  log << "x";
  EXPECT_EQ(directory_.Read(name), "x");
}

// The status of a log on `file`, opened by somebody who may not write to its directory.
int StatusInClosedDirectory(const TemporaryDirectory& directory, const std::string& file) {
  fs::permissions(directory.path(), fs::perms(0555));
  ChildProcess::Options options;
  options.in_child = [&] {
    if (getuid() == 0 && setuid(61997) != 0) return 9;
    flog log(directory.File(file), true);
    log << "appended";
    return static_cast<int>(log.status());
  };
  ChildProcess child({}, options);
  const int status = child.Wait(std::chrono::seconds(10)).value_or(-1);
  fs::permissions(directory.path(), fs::perms(0755));
  return status;
}

TEST_F(FlogTest, DirectoryThatRefusesANewFileLeavesTheOldOneToAppendTo) {
  directory_.Write("a.log", "old ");
  fs::permissions(directory_.File("a.log"), fs::perms(0666));
  EXPECT_EQ(StatusInClosedDirectory(directory_, "a.log"), 0);
  EXPECT_EQ(directory_.Read("a.log"), "old appended");
}

// A file that stands where the log shall be, and cannot be replaced.
struct Standing {
  const char* name;
  uid_t directory_owner;
  mode_t directory_mode;
  uid_t file_owner;
  bool written;
};
void PrintTo(const Standing& value, std::ostream* out) {
  *out << value.name;
}

constexpr uid_t kUs = 61997;
constexpr uid_t kStranger = 61996;

class StandingFileTest : public testing::TestWithParam<Standing> {};

TEST_P(StandingFileTest, IsWrittenToWhereNobodyElseCanHavePutIt) {
  if (getuid() != 0) GTEST_SKIP() << "giving files away needs root";
  const TemporaryDirectory directory;
  const std::string file = directory.Write("a.log", "old ");
  fs::permissions(file, fs::perms(0666));
  ASSERT_EQ(chown(file.c_str(), GetParam().file_owner, 0), 0);
  ASSERT_EQ(chmod(directory.path().c_str(), GetParam().directory_mode), 0);
  ASSERT_EQ(chown(directory.path().c_str(), GetParam().directory_owner, 0), 0);
  for (const bool remove_old : {true, false}) {
    SCOPED_TRACE(remove_old);
    directory.Write("a.log", "old ");
    const int status = InChild([&] {
      if (setgid(kUs) != 0 || setuid(kUs) != 0) return 9;
      flog log(file, remove_old);
      log << "new";
      return static_cast<int>(log.status());
    });
    EXPECT_EQ(status, GetParam().written ? 0 : 1);
    EXPECT_EQ(directory.Read("a.log"), GetParam().written ? "old new" : "old ");
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, StandingFileTest,
    testing::Values(Standing{"OfAStrangerInATemporaryDirectory", 0, 01777, kStranger, false},
                    Standing{"OfAStrangerInHisOwnDirectory", kStranger, 0755, kStranger, false},
                    Standing{"OfRootInAStrangersDirectory", kStranger, 0755, 0, false},
                    Standing{"OfAStrangerInADirectoryOfAGroup", 0, 0775, kStranger, false},
                    Standing{"OfAStrangerInADirectoryOfAll", 0, 01757, kStranger, false},
                    Standing{"OfAStrangerInADirectoryOfRoot", 0, 0755, kStranger, true},
                    Standing{"OfAStrangerInOurClosedDirectory", kUs, 0555, kStranger, true},
                    Standing{"OfUsInAStrangersDirectory", kStranger, 0755, kUs, true}),
    [](const auto& standing) { return standing.param.name; });

// Whoever owns the directory can move a file of ours there that only we may read.
TEST_F(FlogTest, OwnFileMovedThereByAStrangerIsNotOpenedToAll) {
  if (getuid() != 0) GTEST_SKIP() << "giving files away needs root";
  for (const auto& [owner, mode] : {std::pair(kStranger, 0600), std::pair(kUs, 0666)}) {
    const TemporaryDirectory directory;
    const std::string file = directory.Write("a.log", "secret ");
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    ASSERT_EQ(chown(file.c_str(), kUs, 0), 0);
    ASSERT_EQ(chmod(directory.path().c_str(), 0555), 0);
    ASSERT_EQ(chown(directory.path().c_str(), owner, 0), 0);
    for (const bool remove_old : {true, false}) {
      ASSERT_EQ(chmod(file.c_str(), 0600), 0);
      EXPECT_EQ(InChild([&] {
                  if (setgid(kUs) != 0 || setuid(kUs) != 0) return 9;
                  return static_cast<int>(flog(file, remove_old).status());
                }),
                0);
      EXPECT_EQ(static_cast<int>(fs::status(file).permissions()), mode);
    }
  }
}

TEST_F(FlogTest, FileOfTwoNamesInADirectoryThatRefusesANewFileIsNotAppendedTo) {
  directory_.Write("victim", "precious");
  fs::permissions(directory_.File("victim"), fs::perms(0666));
  fs::create_hard_link(directory_.File("victim"), directory_.File("a.log"));
  EXPECT_EQ(StatusInClosedDirectory(directory_, "a.log"), 1);
  EXPECT_EQ(directory_.Read("victim"), "precious");
}

TEST_F(FlogTest, PipeInADirectoryThatRefusesANewFileIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(directory_.File("a.log").c_str(), 0666), 0);
  fs::permissions(directory_.File("a.log"), fs::perms(0666));
  EXPECT_EQ(StatusInClosedDirectory(directory_, "a.log"), 1);
}

// What became of a log "a.log" on a disk with room for so many files, on which `files` makes them:
// the text of file `shown`, or why there is none.
std::string OnADiskWithRoomFor(int room, const TemporaryDirectory& directory,
                               const std::function<void()>& files, const std::string& shown) {
  const TemporaryDirectory answers;
  const int result = InChild([&] {
    const std::string options = "nr_inodes=" + std::to_string(room + 1);  // and the directory
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", directory.path().c_str(), "tmpfs", 0, options.c_str()) != 0) {
      return kNotPermitted;
    }
    files();
    flog log(directory.File("a.log"), true);
    log << "new";
    answers.Write("answer", directory.Read(shown));
    return 0;
  });
  return result == kNotPermitted ? "not permitted" : answers.Read("answer");
}

TEST_F(FlogTest, OldFileMakesRoomForTheFreshOne) {
  const auto files = [this] { directory_.Write("a.log", "old "); };
  const std::string text = OnADiskWithRoomFor(1, directory_, files, "a.log");
  if (text == "not permitted") GTEST_SKIP() << "a mount is not permitted here";
  EXPECT_EQ(text, "new");
}

TEST_F(FlogTest, FileLinkedInItsPlaceIsNotTouchedWhereThereIsNoRoom) {
  const auto files = [this] {
    directory_.Write("victim", "precious");
    fs::create_hard_link(directory_.File("victim"), directory_.File("a.log"));
  };
  const std::string text = OnADiskWithRoomFor(2, directory_, files, "victim");
  if (text == "not permitted") GTEST_SKIP() << "a mount is not permitted here";
  EXPECT_EQ(text, "precious");
}

TEST_F(FlogTest, NameEndsAtItsZeroByte) {
  directory_.Write("a.log", "old ");
  using std::string_literals::operator""s;
  flog log(directory_.File("a.log") + "\0/b"s, true);
  log << "new";
  EXPECT_EQ(directory_.Read("a.log"), "new");
}

TEST_F(FlogTest, LinkInADirectoryThatRefusesANewFileIsNotFollowed) {
  directory_.Write("victim", "precious");
  fs::permissions(directory_.File("victim"), fs::perms(0666));
  fs::create_symlink(directory_.File("victim"), directory_.File("a.log"));
  EXPECT_EQ(StatusInClosedDirectory(directory_, "a.log"), 1);
  EXPECT_EQ(directory_.Read("victim"), "precious");
}

TEST_F(FlogTest, PlantedLinkIsReplacedAndItsTargetUntouched) {
  directory_.Write("victim", "precious");
  fs::create_symlink(directory_.File("victim"), directory_.File("a.log"));
  flog log(directory_.File("a.log"), true);
  log << "x";
  EXPECT_EQ(directory_.Read("victim"), "precious");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(directory_.File("a.log"))));
  EXPECT_EQ(directory_.Read("a.log"), "x");
}

TEST_F(FlogTest, LinkIsNotFollowedWhenAppendingEither) {
  directory_.Write("victim", "precious");
  fs::create_symlink(directory_.File("victim"), directory_.File("a.log"));
  flog log(directory_.File("a.log"), false);
  log << "x";
  EXPECT_EQ(log.status(), 1);
  EXPECT_EQ(directory_.Read("victim"), "precious");
}

TEST_F(FlogTest, PlantedPipeIsReplaced) {
  ASSERT_EQ(mkfifo(directory_.File("a.log").c_str(), 0666), 0);
  flog log(directory_.File("a.log"), true);
  log << "x";
  EXPECT_EQ(directory_.Read("a.log"), "x");
}

TEST_F(FlogTest, EmptyDirectoryInTheWayIsRemoved) {
  fs::create_directory(directory_.File("a.log"));
  flog log(directory_.File("a.log"), true);
  EXPECT_EQ(log.status(), 0);
  EXPECT_TRUE(fs::is_regular_file(directory_.File("a.log")));
}

TEST_F(FlogTest, FullDirectoryInTheWayDisablesTheLogAndLeavesNothingBehind) {
  fs::create_directory(directory_.File("a.log"));
  directory_.Write("a.log/kept", "");
  flog log(directory_.File("a.log"), true);
  EXPECT_EQ(log.status(), 1);
  EXPECT_TRUE(fs::exists(directory_.File("a.log/kept")));
  EXPECT_EQ(std::distance(fs::directory_iterator(directory_.path()), fs::directory_iterator()), 1);
}

TEST_F(FlogTest, PipeIsNotAppendedTo) {
  ASSERT_EQ(mkfifo(directory_.File("a.log").c_str(), 0666), 0);
  const int reader = open(directory_.File("a.log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  flog log(directory_.File("a.log"), false);
  log << "x";
  EXPECT_EQ(log.status(), 1);
  char byte = 0;
  EXPECT_EQ(read(reader, &byte, 1), 0);  // nobody writes, and nobody holds the other end
  close(reader);
}

TEST_F(FlogTest, NameThatIsTooLongDisablesTheLogAndLeavesNothingBehind) {
  flog log(directory_.File(std::string(256, 'n')), true);
  EXPECT_EQ(log.status(), 1);
  EXPECT_TRUE(fs::is_empty(directory_.path()));
}

TEST_F(FlogTest, InterruptedWriteIsRepeated) {
  const int result = InChild([this] {
    const int next = DescriptorOfNextLog();
    flog log(directory_.File("a.log"), true);
    static int interruptions = 0;
    static int descriptor = 0;
    descriptor = next;
    const auto answer = [] {
      if (++interruptions <= 2) return static_cast<long>(-EINTR);
      const iovec text{const_cast<char*>("item"), 4};
      return static_cast<long>(writev(descriptor, &text, 1));
    };
    if (!AnswerCall(SYS_write, answer, next)) return kNotPermitted;
    log << "item";
    return interruptions;
  });
  if (result == kNotPermitted) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(result, 3);
  EXPECT_EQ(directory_.Read("a.log"), "item");
}

TEST_F(FlogTest, StandardOutputThatCannotHoldTheLogIsNotAsked) {
  const auto body = [this] {
    flog log(directory_.File("a.log"), true);
    // The answer says that nobody reads.
    if (!AnswerCall(SYS_poll, [] { return 0L; })) return kNotPermitted;
    log << "to a file";
    return 0;
  };
  if (InChild(body, directory_.File("printed")) == kNotPermitted) {
    GTEST_SKIP() << "system calls cannot be answered here";
  }
  EXPECT_EQ(directory_.Read("printed"), "to a file");
}

TEST_F(FlogTest, DirectoryThatKeepsComingBackDisablesTheLog) {
  fs::create_directory(directory_.File("a.log"));
  const int result = InChild([this] {
    if (!AnswerCall(SYS_renameat, [] { return static_cast<long>(-EISDIR); })) return kNotPermitted;
    const flog log(directory_.File("a.log"), true);
    return 10 + log.status();
  });
  if (result == kNotPermitted) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(result, 11);
  EXPECT_TRUE(fs::is_empty(directory_.path()));
}

TEST_F(FlogTest, FileWhoseKindCannotBeLearntDisablesTheLogAndIsClosed) {
  directory_.Write("a.log", "kept");
  const int result = InChild([this] {
    const int next = DescriptorOfNextLog();
    if (!AnswerCall(
            SYS_newfstatat, [] { return static_cast<long>(-EIO); }, next)) {
      return kNotPermitted;
    }
    const flog log(directory_.File("a.log"), false);
    return 10 + log.status() + (fcntl(next, F_GETFD) == -1 ? 0 : 100);
  });
  if (result == kNotPermitted) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(result, 11);
}

TEST_F(FlogTest, DescriptorIsClosedOnExec) {
  const int next = DescriptorOfNextLog();
  flog log(directory_.File("a.log"), true);
  EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
}

}  // namespace
