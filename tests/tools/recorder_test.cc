#include "tools/vkmaster/output/recorder.h"

#include <errno.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/answered_call.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/text_of_child.h"
#include "tests/tools/memory_stream.h"

namespace {

using vkmaster::Recorder;
using vkmaster::Result;

Result Rate(double value) {
  Result result{.command = "data"};
  result.tables.push_back({"wells", "", {{"oil_rate", "oil", "sm3/d"}}, {{value}}});
  return result;
}

TEST(RecorderTest, FullFileSystemCostsNoRow) {
  const TemporaryDirectory directory;
  const std::string path = directory.path().string();
  // In a namespace of this process, so that nobody else sees it.
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", path.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "mounting needs root";
  }
  directory.Write("other", std::string(56 << 10, 'x'));
  std::string expected = "time_days,date,oil_rate [sm3/d]\n";
  const MemoryStream notes;
  int waits = 0;
  {
    Recorder recorder(directory.File("results"), notes.get(), [&] {
      // No half of a row stands in the file while there is no room for the other.
      EXPECT_EQ(directory.Read("results/data.csv"), expected);
      if (++waits == 2) std::filesystem::remove(directory.File("other"));
    });
    for (int day = 1; day <= 500; ++day) {
      recorder.SetTime(day, "2020-01-02");
      recorder.Write(Rate(day + 0.5));
      expected += std::to_string(day) + ",2020-01-02," + std::to_string(day) + ".5\n";
    }
  }
  EXPECT_EQ(waits, 2);
  EXPECT_EQ(directory.Read("results/data.csv"), expected);
  EXPECT_EQ(notes.Text(), "note: Cannot write '" + directory.File("results/data.csv") +
                              "': No space left on device; the run waits until there is room\n");
  umount2(path.c_str(), MNT_DETACH);
}

// What is told when the writes to the results are answered: the notes, and what has ended them.
std::optional<std::string> ToldWhenWritesAre(CallAnswer answer) {
  return TextOfChild([answer]() -> std::optional<std::string> {
    const TemporaryDirectory directory;
    std::filesystem::current_path(directory.path());
    const MemoryStream notes;
    // Gives up at once, as a signal would.
    Recorder recorder("results", notes.get(), [] { throw std::runtime_error("given up"); });
    // The number that the file is going to have.
    const int next = dup(STDOUT_FILENO);
    close(next);
    if (!AnswerCall(SYS_write, answer, next)) return std::nullopt;
    try {
      recorder.Write(Rate(1));
    } catch (const std::exception& error) {
      return notes.Text() + error.what();
    }
    return "written";
  });
}

TEST(RecorderTest, QuotaThatIsUsedUpIsNamedAndWaitedOut) {
  const auto told = ToldWhenWritesAre([] { return static_cast<long>(-EDQUOT); });
  if (!told) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*told,
            "note: Cannot write 'results/data.csv': Disk quota exceeded; the run waits until "
            "there is room\ngiven up");
}

TEST(RecorderTest, FailureThatNoRoomWouldMendIsNotWaitedOut) {
  const auto told = ToldWhenWritesAre([] { return static_cast<long>(-EIO); });
  if (!told) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*told, "Cannot write 'results/data.csv': Input/output error");
}

}  // namespace
