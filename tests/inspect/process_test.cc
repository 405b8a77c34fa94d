#include "inspect/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::Contains;
using testing::Field;

// A process that does what `inChild` says.
class Child {
 public:
  explicit Child(std::function<int()> in_child) : process_({}, OptionsFor(std::move(in_child))) {}
  pid_t pid() const { return process_.pid(); }
  void End() {
    process_.Signal(SIGKILL);
    process_.Wait(std::chrono::seconds(10));
  }

 private:
  static ChildProcess::Options OptionsFor(std::function<int()> in_child) {
    ChildProcess::Options options;
    options.in_child = std::move(in_child);
    return options;
  }

  ChildProcess process_;
};

TEST(ParseStatTest, NameEndsAtTheLastBracket) {
  const auto stat =
      ParseStat("7 (a) S 1 (b) R 5 6 4 0 -1 4194304 0 0 0 0 30 12 0 0 20 0 1 0 987 0 0 0 0 0 0\n");
  ASSERT_TRUE(stat);
  EXPECT_EQ(stat->name, "a) S 1 (b");
  EXPECT_EQ(stat->state, 'R');
  EXPECT_EQ(stat->id, (ProcessId{7, 987}));
  EXPECT_EQ(stat->parent, 5);
  EXPECT_EQ(stat->group, 6);
  EXPECT_EQ(stat->session, 4);
  EXPECT_EQ(stat->ticks, 42U);
}

TEST(ParseStatTest, CutTextIsNone) {
  EXPECT_FALSE(ParseStat(""));
  EXPECT_FALSE(ParseStat("7 (a"));
  EXPECT_FALSE(ParseStat(")("));
  EXPECT_FALSE(ParseStat("7 (a) S 1 1 1 0 -1 4194304 0 0"));
}

TEST(ProcessTest, HostileNameAndArgumentsComeAsTheyAre) {
  const ChildProcess child({"/bin/sh", "-c", "sleep 60", "a\nb", ""}, {});
  EXPECT_TRUE(Eventually([&] {
    return Process::Open(child.pid())->Arguments() ==
           std::vector<std::string>{"/bin/sh", "-c", "sleep 60", "a\nb", ""};
  }));
  Child named([] {
    prctl(PR_SET_NAME, ") R 1 (\n");
    return pause();
  });
  EXPECT_TRUE(Eventually([&] { return Process::Open(named.pid())->stat().name == ") R 1 (\n"; }));
  EXPECT_EQ(Process::Open(named.pid())->stat().parent, getpid());
}

// Where a limit was raised, command lines may have more than the usual two megabytes.
TEST(ProcessTest, LongestCommandLineIsCut) {
  constexpr std::size_t kLongest = 4 << 20;
  const std::string word(100'000, 'x');
  std::vector<std::string> words = {"/bin/sh", "-c", "sleep 60"};
  words.resize(50, word);
  ChildProcess::Options options;
  options.in_child = [] {
    const rlimit stack{64 << 20, RLIM_INFINITY};
    return setrlimit(RLIMIT_STACK, &stack);
  };
  ChildProcess child(words, options);
  const auto size = [&] {
    std::size_t all = 0;
    for (const std::string& argument : Process::Open(child.pid())->Arguments()) {
      all += argument.size() + 1;
    }
    return all;
  };
  if (child.Wait(std::chrono::milliseconds(100))) GTEST_SKIP() << "no such command lines here";
  EXPECT_TRUE(Eventually([&] { return size() >= kLongest; }));
  EXPECT_LT(size(), kLongest + 20'000);
}

TEST(ProcessTest, EndedProcessIsGoneAndNothingOfItIsRead) {
  Child child([] { return pause(); });
  const auto process = Process::Open(child.pid());
  ASSERT_TRUE(process);
  EXPECT_TRUE(process->IsAlive());
  EXPECT_TRUE(process->Files());
  const ProcessId id = process->stat().id;
  child.End();
  EXPECT_FALSE(process->IsAlive());
  EXPECT_FALSE(process->User());
  EXPECT_FALSE(process->Files());
  EXPECT_FALSE(process->Link("exe"));
  EXPECT_FALSE(process->WaitsIn());
  EXPECT_FALSE(process->Variable("PATH"));
  EXPECT_TRUE(process->Arguments().empty());
  EXPECT_FALSE(Process::Open(id));
}

TEST(ProcessTest, ProcessThatNobodyHasWaitedForCountsAsEnded) {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  EXPECT_TRUE(Eventually([&] { return !Process::Open(pid)->IsAlive(); }));
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST(ProcessTest, NumberWithAnotherStartIsAnotherProcess) {
  ProcessId id = Process::Open(getpid())->stat().id;
  EXPECT_TRUE(Process::Open(id));
  ++id.start;
  EXPECT_FALSE(Process::Open(id));
}

// A pipe that nobody reads would hold whoever opened it.
TEST(ProcessTest, OpenFilesAreNamedWithoutBeingOpened) {
  const TemporaryDirectory directory;
  const std::string fifo = directory.File("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  Child child([&] {
    dup2(open(fifo.c_str(), O_RDWR), 77);
    return pause();
  });
  ASSERT_TRUE(Eventually([&] { return Process::Open(child.pid())->Link("fd/77").has_value(); }));
  const auto files = Process::Open(child.pid())->Files();
  ASSERT_TRUE(files);
  EXPECT_THAT(*files, Contains(testing::AllOf(Field(&Process::OpenFile::number, 77),
                                              Field(&Process::OpenFile::target, fifo))));
}

TEST(ProcessTest, WaitingProcessTellsForWhichDescriptor) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  Child child([&] {
    char byte = 0;
    return static_cast<int>(recv(ends[1], &byte, 1, 0));
  });
  EXPECT_TRUE(Eventually([&] {
    const auto call = Process::Open(child.pid())->WaitsIn();
    return call && call->number == SYS_recvfrom && call->descriptor == ends[1];
  }));
  close(ends[0]);
  close(ends[1]);
}

TEST(ProcessTest, VariableIsTheOneOfThatName) {
  ChildProcess::Options options;
  options.environment = {"MARKER=2", "MARK=one=two", "MAR=3"};
  const ChildProcess child({"/bin/sleep", "60"}, options);
  EXPECT_TRUE(
      Eventually([&] { return Process::Open(child.pid())->Variable("MARK") == "one=two"; }));
  EXPECT_FALSE(Process::Open(child.pid())->Variable("ARK"));
}

TEST(ProcessTest, StartIsInTheTimeOfTheDay) {
  const double before = static_cast<double>(time(nullptr));
  Child child([] { return pause(); });
  const double started = StartTime(Process::Open(child.pid())->stat().id.start);
  EXPECT_GE(started, before - 1);
  EXPECT_LE(started, static_cast<double>(time(nullptr)) + 1);
}

TEST(ProcessTest, AllProcessesIncludeThisOne) {
  EXPECT_THAT(AllProcesses(),
              Contains(Field(&ProcessStat::id, Process::Open(getpid())->stat().id)));
}

TEST(InodeInTest, OnlyTextsOfTheKind) {
  EXPECT_EQ(InodeIn("socket:[12]", "socket"), 12U);
  EXPECT_FALSE(InodeIn("pipe:[12]", "socket"));
  EXPECT_FALSE(InodeIn("socket:[12] (deleted)", "socket"));
  EXPECT_FALSE(InodeIn("socket:[]", "socket"));
  EXPECT_FALSE(InodeIn("/tmp/socket:[12]", "socket"));
}

TEST(InodeInTest, NumbersAreWhole) {
  EXPECT_FALSE(InodeIn("socket:[12x]", "socket"));
}

TEST(ProcessIdTest, BothPartsCount) {
  EXPECT_EQ((ProcessId{1, 2}), (ProcessId{1, 2}));
  EXPECT_NE((ProcessId{1, 2}), (ProcessId{1, 3}));
  EXPECT_NE((ProcessId{1, 2}), (ProcessId{2, 2}));
}

}  // namespace
}  // namespace inspect
