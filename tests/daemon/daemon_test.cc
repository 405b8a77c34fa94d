#include "daemon/daemon.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/globals.h"
#include "tests/support/answered_call.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/temporary_directory.h"

namespace {

using std::chrono::seconds;

constexpr int kNotPermitted = 77;

// The daemon in a child of the test, in which a system call is answered before it starts.
class DaemonStartTest : public testing::Test {
 protected:
  void Start(int call, CallAnswer answer, int firstArgument = -1) {
    ChildProcess::Options options;
    options.outputFile = directory_.Write("output", "");
    options.errorFile = directory_.Write("errors", "");
    options.inChild = [=, this] {
      GsLogFileDir = directory_.path().string();
      if (!AnswerCall(call, answer, firstArgument)) return kNotPermitted;
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

TEST_F(DaemonStartTest, DirectoryThatCannotBeLearntIsTheWorkingDirectory) {
  // A link that cannot be read, and one that fills the place for it.
  for (const CallAnswer answer :
       {CallAnswer([] { return static_cast<long>(-EACCES); }),
        CallAnswer([] { return static_cast<long>(sizeof(GszExePath)); })}) {
    Start(SYS_readlink, answer);
    const bool logged = Eventually([this] {
      return directory_.Read("output").find("Could not get Exe path - defaulting to '.'\n") !=
             std::string::npos;
    });
    const auto ended = child_->Wait(std::chrono::milliseconds(0));
    if (ended == kNotPermitted) GTEST_SKIP() << "system calls cannot be answered here";
    EXPECT_TRUE(logged) << directory_.Read("output");
    EXPECT_EQ(ended, std::nullopt) << "it serves all the same";
    child_->Signal(SIGKILL);
    child_->Wait(seconds(5));
  }
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
