#include "log/standard_output.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/answered_call.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/socket_pair.h"

namespace {

using std::chrono::seconds;

constexpr int kNotPermitted = 77;

// Runs `body` in a child, whose standard output it may replace and whose system calls it may
// answer. Its result is `expected`; -1 when it does not come back.
void ExpectInChild(int expected, const std::function<int()>& body) {
  ChildProcess::Options options;
  options.in_child = body;
  const int result = ChildProcess({}, options).Wait(seconds(10)).value_or(-1);
  if (result == kNotPermitted) GTEST_SKIP() << "not permitted on this system";
  EXPECT_EQ(result, expected);
}

// A pipe that is this process's standard output; the end to read from.
int PipeForOutput() {
  std::array<int, 2> pipe{};
  if (pipe2(pipe.data(), O_CLOEXEC) != 0) return -1;
  dup2(pipe[1], STDOUT_FILENO);
  close(pipe[1]);
  return pipe[0];
}

// The number that the next descriptor will get.
int NextDescriptor() {
  const int next = dup(STDOUT_FILENO);
  close(next);
  return next;
}

// Fills standard output, of whatever kind, without waiting.
void Fill() {
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  fcntl(STDOUT_FILENO, F_SETFL, flags | O_NONBLOCK);
  const std::string some(64, 'x');
  while (write(STDOUT_FILENO, some.data(), some.size()) > 0) {
  }
  while (write(STDOUT_FILENO, "x", 1) > 0) {
  }
  fcntl(STDOUT_FILENO, F_SETFL, flags);
}

// The seconds that `body` takes.
double Time(const std::function<void()>& body) {
  const auto start = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(StandardOutputTest, EverythingComesOutOfAPipeInOrder) {
  ExpectInChild(0, [] {
    const int reader = PipeForOutput();
    StandardOutput output;
    output.Inspect();
    output.Print("one ");
    output.Print("two");
    return ReadExactly(reader, 7) == "one two" ? 0 : 1;
  });
}

TEST(StandardOutputTest, ItIsOpenedAgainOnce) {
  ExpectInChild(0, [] {
    PipeForOutput();
    StandardOutput output;
    output.Inspect();
    const auto open = OpenDescriptors(getpid());
    for (int i = 0; i < 3; ++i) output.Inspect();
    if (OpenDescriptors(getpid()) != open) return 1;
    const int reader = PipeForOutput();  // open in this test and nowhere else
    output.Inspect();
    output.Print("to the new one");
    if (ReadExactly(reader, 14) != "to the new one") return 2;
    return OpenDescriptors(getpid()) == open + 1 ? 0 : 3;
  });
}

// A terminal announces room as soon as there is some for a single byte, and a line end takes two.
TEST(StandardOutputTest, TerminalThatNobodyEmptiesHoldsForASecondWhateverItsRoom) {
  for (const std::size_t room : std::array<std::size_t, 5>{0, 1, 2, 20, 350}) {
    SCOPED_TRACE(room);
    ExpectInChild(0, [room] {
      const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
      if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) {
        return kNotPermitted;
      }
      const int line = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
      if (line < 0) return kNotPermitted;
      dup2(line, STDOUT_FILENO);
      Fill();
      if (room > 0) ReadExactly(terminal, room);
      StandardOutput output;
      output.Inspect();
      const double held = Time([&output] {
        for (int i = 0; i < 20; ++i) output.Print(std::string(100, '.') + "\n");
      });
      return held < 3 ? 0 : 1;
    });
  }
}

// A page that becomes free is announced to all of them.
TEST(StandardOutputTest, ProcessesThatShareAPipeAreNotHeldByOneAnother) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
  const Descriptor reader(pipe[0]);
  const Descriptor writer(pipe[1]);
  ChildProcess::Options options;
  options.in_child = [&pipe] {
    dup2(pipe[1], STDOUT_FILENO);
    StandardOutput output;
    output.Inspect();
    for (int i = 0; i < 4; ++i) output.Print(std::string(20'000, '.') + "\n");
    return 0;
  };
  std::list<ChildProcess> children;
  for (int i = 0; i < 10; ++i) children.emplace_back(std::vector<std::string>(), options);
  // They wait until a reader takes a little at a time, and then no more.
  for (int i = 0; i < 6; ++i) ReadExactly(reader.get(), 4096);
  for (ChildProcess& child : children) EXPECT_EQ(child.Wait(seconds(10)), 0);
}

// Takes all that stands in a pipe.
void Drain(int reader) {
  fcntl(reader, F_SETFL, O_NONBLOCK);
  std::string some(1 << 16, '\0');
  while (read(reader, some.data(), some.size()) > 0) {
  }
  fcntl(reader, F_SETFL, 0);
}

TEST(StandardOutputTest, ReaderThatStopsTwiceHoldsForASecondTwice) {
  ExpectInChild(0, [] {
    const int reader = PipeForOutput();
    StandardOutput output;
    output.Inspect();
    for (int stop = 0; stop < 2; ++stop) {
      Fill();
      const double held = Time([&output] { output.Print("lost"); });
      if (held < 0.9 || held > 3) return 1;
      const double held_again = Time([&output] {
        for (int i = 0; i < 20; ++i) output.Print("lost");
      });
      if (held_again > 0.5) return 2;
      Drain(reader);
      output.Print("read again");
      if (ReadExactly(reader, 10) != "read again") return 3;
      // From now on a reader that is slow is waited for.
      output.Print("next");
      if (ReadExactly(reader, 4) != "next") return 4;
    }
    return 0;
  });
}

TEST(StandardOutputTest, ReaderThatHasStoppedHoldsNoChildOfTheProcess) {
  ExpectInChild(0, [] {
    PipeForOutput();
    StandardOutput output;
    output.Inspect();
    Fill();
    output.Print("lost");
    const pid_t child = fork();
    if (child == 0) _exit(Time([&output] { output.Print("lost"); }) < 0.5 ? 0 : 1);
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status);
  });
}

TEST(StandardOutputTest, SocketThatNobodyReadsHoldsForASecondOnce) {
  ExpectInChild(0, [] {
    SocketPair pair;
    dup2(pair.ours.get(), STDOUT_FILENO);
    StandardOutput output;
    output.Inspect();
    output.Print("first");
    if (ReadExactly(pair.peer.get(), 5) != "first") return 1;
    Fill();
    const double held = Time([&output] {
      for (int i = 0; i < 20; ++i) output.Print(std::string(10'000, '.'));
    });
    return held > 0.9 && held < 3 ? 0 : 2;
  });
}

TEST(StandardOutputTest, SocketWhoseReaderHasGoneRaisesNoSignal) {
  ExpectInChild(0, [] {
    SocketPair pair;
    dup2(pair.ours.get(), STDOUT_FILENO);
    pair.peer.Reset();
    signal(SIGPIPE, SIG_DFL);
    StandardOutput output;
    output.Inspect();
    output.Print("lost");
    return 0;
  });
}

TEST(StandardOutputTest, SlowReaderGetsEverything) {
  constexpr int kSize = 300'000;
  std::array<int, 2> pipe{};
  ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
  const Descriptor reader(pipe[0]);
  Descriptor writer(pipe[1]);
  ChildProcess::Options options;
  options.in_child = [&pipe] {
    dup2(pipe[1], STDOUT_FILENO);
    StandardOutput output;
    output.Inspect();
    output.Print(std::string(kSize, '.'));
    return 0;
  };
  ChildProcess child({}, options);
  writer.Reset();
  std::size_t got = 0;
  // Longer in all than nothing at all is waited for.
  for (int pause = 0; pause < 6; ++pause) {
    poll(nullptr, 0, 300);
    got += ReadExactly(reader.get(), kSize / 6).size();
  }
  EXPECT_EQ(got, kSize);
  EXPECT_EQ(child.Wait(seconds(10)), 0);
}

TEST(StandardOutputTest, RoomThatIsAnnouncedAndNeverThereHoldsForASecondOnce) {
  ExpectInChild(0, [] {
    PipeForOutput();
    Fill();
    StandardOutput output;
    output.Inspect();
    if (!AnswerCall(SYS_poll, [] { return 1L; })) return kNotPermitted;
    const double held = Time([&output] {
      for (int i = 0; i < 20; ++i) output.Print("item");
    });
    return held > 0.9 && held < 3 ? 0 : 1;
  });
}

TEST(StandardOutputTest, InterruptedWriteGoesOn) {
  ExpectInChild(13, [] {
    const int reader = PipeForOutput();
    const int own = NextDescriptor();  // of the log's
    StandardOutput output;
    output.Inspect();
    static int writes = 0;
    const auto answer = [] {
      if (++writes < 3) return static_cast<long>(-EINTR);
      const iovec text{const_cast<char*>("item"), 4};
      return static_cast<long>(writev(STDOUT_FILENO, &text, 1));
    };
    if (!AnswerCall(SYS_write, answer, own)) return kNotPermitted;
    output.Print("item");
    return ReadExactly(reader, 4) == "item" ? 10 + writes : 1;
  });
}

TEST(StandardOutputTest, FailedWriteLosesTheItemOnly) {
  ExpectInChild(0, [] {
    const int reader = PipeForOutput();
    const int own = NextDescriptor();  // of the log's
    StandardOutput output;
    output.Inspect();
    static int writes = 0;
    const auto fail = [] {
      ++writes;
      return static_cast<long>(-EIO);
    };
    if (!AnswerCall(SYS_write, fail, own)) return kNotPermitted;
    output.Print("item");
    fcntl(reader, F_SETFL, O_NONBLOCK);
    char byte = 0;
    if (read(reader, &byte, 1) != -1 || errno != EAGAIN) return 1;
    return writes == 1 ? 0 : 2;  // more: it was waited for, as if there were no room
  });
}

TEST(StandardOutputTest, WriteThatTakesNothingEndsTheItem) {
  ExpectInChild(0, [] {
    PipeForOutput();
    const int own = NextDescriptor();  // of the log's
    StandardOutput output;
    output.Inspect();
    if (!AnswerCall(
            SYS_write, [] { return 0L; }, own))
      return kNotPermitted;
    output.Print("item");
    return 0;
  });
}

// As for a daemon without root's rights on somebody else's terminal.
bool ForbidOpening() {
  return AnswerCall(SYS_openat, [] { return static_cast<long>(-EACCES); });
}

TEST(StandardOutputTest, OutputThatMayNotBeOpenedAgainIsWrittenToAsItHasRoom) {
  ExpectInChild(0, [] {
    const int reader = PipeForOutput();
    StandardOutput output;
    if (!ForbidOpening()) return kNotPermitted;
    output.Inspect();
    const std::string text(10'000, '.');
    output.Print(text);
    if (ReadExactly(reader, text.size()) != text) return 1;
    Fill();
    const double held = Time([&output] {
      for (int i = 0; i < 20; ++i) output.Print(std::string(10'000, '.'));
    });
    return held > 0.9 && held < 3 ? 0 : 2;
  });
}

TEST(StandardOutputTest, OutputWhoseKindCannotBeLearntIsWrittenToAsItHasRoom) {
  ExpectInChild(0, [] {
    PipeForOutput();
    Fill();
    if (!AnswerCall(
            SYS_newfstatat, [] { return static_cast<long>(-EIO); }, STDOUT_FILENO)) {
      return kNotPermitted;
    }
    StandardOutput output;
    output.Inspect();
    const double held = Time([&output] { output.Print("item"); });
    return held > 0.9 && held < 3 ? 0 : 1;
  });
}

TEST(StandardOutputTest, SilencedOutputStaysSilent) {
  ExpectInChild(0, [] {
    const int reader = PipeForOutput();
    StandardOutput output;
    output.Inspect();
    output.Silence();
    output.Print("lost");
    output.Inspect();
    output.Print("lost");
    fcntl(reader, F_SETFL, O_NONBLOCK);
    char byte = 0;
    return read(reader, &byte, 1) == -1 && errno == EAGAIN ? 0 : 1;
  });
}

}  // namespace
