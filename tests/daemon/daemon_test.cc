#include "daemon/daemon.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/globals.h"
#include "tests/support/answered_call.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"
#include "tests/support/temporary_directory.h"

namespace {

using std::chrono::seconds;

constexpr int kNotPermitted = 77;

// The daemon in a child of the test, in which a system call is answered before it starts.
class DaemonStartTest : public testing::Test {
 protected:
  void Start(int call, CallAnswer answer, int first_argument = -1) {
    ChildProcess::Options options;
    options.output_file = directory_.Write("output", "");
    options.error_file = directory_.Write("errors", "");
    options.in_child = [=, this] {
      GsLogFileDir = directory_.path().string();
      if (!AnswerCall(call, answer, first_argument)) return kNotPermitted;
      // Without -u where the tests run as root, as sites start it.
      std::vector<std::string> words = {"vkjobmill.exe", "-p", std::to_string(port_)};
      if (getuid() != 0) words.emplace_back("-u");
      std::vector<char*> arguments;
      arguments.reserve(words.size() + 1);
      for (std::string& word : words) arguments.push_back(word.data());
      arguments.push_back(nullptr);
      return RunDaemon(static_cast<int>(words.size()), arguments.data());
    };
    child_ = std::make_unique<ChildProcess>(std::vector<std::string>(), options);
  }

  int port_ = FreePort();
  TemporaryDirectory directory_;
  std::unique_ptr<ChildProcess> child_;
};

// The path of the executable, as the system gives it: without an end mark.
long Link(const std::string& path) {
  memcpy(AnsweredBuffer(), path.data(), path.size());
  return static_cast<long>(path.size());
}
std::string LongDirectory() {
  return "/" + std::string(sizeof(GszExePath) - 1 - strlen("//exe"), 'd');
}

struct ExecutablePath {
  const char* name;
  CallAnswer answer;
  std::string logged;
};
void PrintTo(const ExecutablePath& value, std::ostream* out) {
  *out << value.name;
}

class ExecutablePathTest : public DaemonStartTest,
                           public testing::WithParamInterface<ExecutablePath> {};

TEST_P(ExecutablePathTest, GivesTheDirectoryAndTheDaemonServesInAnyCase) {
  Start(SYS_readlink, GetParam().answer);
  const bool logged = Eventually([this] {
    return directory_.Read("output").ends_with(GetParam().logged + "\n") ||
           !IsRunning(child_->pid());
  });
  const auto ended = child_->Wait(std::chrono::milliseconds(0));
  if (ended == kNotPermitted) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_TRUE(logged) << directory_.Read("output");
  ASSERT_EQ(ended, std::nullopt);
  EXPECT_EQ(TestMaster(port_).Receive(), "3");
}

INSTANTIATE_TEST_SUITE_P(
    All, ExecutablePathTest,
    testing::Values(ExecutablePath{"Unknown", [] { return static_cast<long>(-EACCES); },
                                   "Could not get Exe path - defaulting to '.'"},
                    ExecutablePath{"ThatFillsItsPlace",
                                   [] { return static_cast<long>(sizeof(GszExePath)); },
                                   "Could not get Exe path - defaulting to '.'"},
                    ExecutablePath{"ThatJustFits", [] { return Link(LongDirectory() + "/exe"); },
                                   "Executable path = " + LongDirectory()},
                    ExecutablePath{"InTheRootDirectory", [] { return Link("/vkjobmill.exe"); },
                                   "Executable path = "},
                    ExecutablePath{"WithoutADirectory", [] { return Link("vkjobmill.exe"); },
                                   "Executable path = vkjobmill.exe"}),
    [](const auto& path) { return path.param.name; });

TEST_F(DaemonStartTest, ExecutableInTheRootDirectoryHasItsFilesThere) {
  if (getuid() != 0) GTEST_SKIP() << "users are looked up by a daemon of root's";
  Start(SYS_readlink, [] { return Link("/vkjobmill.exe"); });
  ASSERT_TRUE(Eventually([this] {
    return directory_.Read("output").ends_with("Executable path = \n") || !IsRunning(child_->pid());
  }));
  if (child_->Wait(std::chrono::milliseconds(0)) == kNotPermitted) {
    GTEST_SKIP() << "system calls cannot be answered here";
  }
  TestMaster master(port_);
  master.RequestRun({});
  EXPECT_EQ(master.Receive(), "Could not open the user administration file: /./.vk_corvane_users");
}

TEST_F(DaemonStartTest, DaemonThatCouldNotReapItsChildrenDoesNotStart) {
  Start(
      SYS_rt_sigaction, [] { return static_cast<long>(-EINVAL); }, SIGCHLD);
  const int status = child_->Wait(seconds(10)).value_or(-1);
  if (status == kNotPermitted) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(status, 1);
  EXPECT_EQ(directory_.Read("errors"), "Invalid argument\n");
  EXPECT_EQ(directory_.Read("output"), "");
}

}  // namespace
