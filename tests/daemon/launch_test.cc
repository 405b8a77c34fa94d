#include "daemon/launch.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/handshake.h"
#include "log/flog.h"
#include "tests/support/answered_call.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace {

class ClusterRunTest : public testing::Test {
 protected:
  // Prepares run `root` of this cluster number in the directory; what was logged.
  std::string Prepare(const std::string& cluster, const std::string& root = "CASE") {
    run_.cluster = cluster;
    run_.path = directory_.path().string();
    run_.root = root;
    root_ = PrepareClusterRun(run_, log_);
    return directory_.Read("log");
  }

  TemporaryDirectory directory_;
  flog log_{directory_.File("log"), true};
  RunRequest run_;
  std::string root_;  // that the run goes on with
};

TEST_F(ClusterRunTest, PositiveNumberCopiesTheInputAndExtendsTheRoot) {
  directory_.Write("CASE.afi", "deck");
  const std::string path = directory_.path().string();
  EXPECT_EQ(Prepare("3"), "Dealing with cluster run now ...\nCopying " + path + "/CASE.afi to " +
                              path + "/CASE_3.afi\nCopy succeeded\n");
  EXPECT_EQ(directory_.Read("CASE_3.afi"), "deck");
  EXPECT_EQ(root_, "CASE_3");
}

TEST_F(ClusterRunTest, OtherTextsAreNoClusterRun) {
  for (const char* cluster : {"0", "", "abc", "-1"}) {
    EXPECT_EQ(Prepare(cluster), "") << cluster;
    EXPECT_EQ(root_, "CASE");
  }
}

TEST_F(ClusterRunTest, FailedCopyIsLoggedAsSucceededAndTheRunGoesOn) {
  EXPECT_NE(Prepare("3", "ABSENT").find("\nCopy succeeded\n"), std::string::npos);
  EXPECT_EQ(root_, "ABSENT_3");
}

TEST_F(ClusterRunTest, CopyWhoseOutcomeCannotBeLearntIsLoggedAsFailed) {
  directory_.Write("CASE.afi", "deck");
  constexpr int kNotPermitted = 77;
  ChildProcess::Options options;
  options.in_child = [this]() -> int {
    if (!AnswerCall(SYS_wait4, [] { return static_cast<long>(-ECHILD); })) return kNotPermitted;
    Prepare("3");
    _exit(0);  // nothing that waits for processes, as a leak check does, can end well here
  };
  ChildProcess child({}, options);
  const int status = child.Wait(std::chrono::seconds(10)).value_or(-1);
  if (status == kNotPermitted) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(status, 0);
  EXPECT_THAT(directory_.Read("log"),
              testing::EndsWith("\nCopy failed - run will probably fail\n"));
}

// Names that a shell would execute, a format would fill in or an option would be made of.
TEST_F(ClusterRunTest, StrangeTextsAreOnlyNames) {
  for (const std::string text : {"a b;touch x", "-rf", "%n%s", "it's $(id)", "`id`", "a\nb", "*"}) {
    SCOPED_TRACE(text);
    directory_.Write(text + ".afi", "deck");
    Prepare("1" + text, text);
    const std::string extended = std::string(text).append("_1").append(text);
    EXPECT_EQ(root_, extended);
    EXPECT_EQ(directory_.Read(extended + ".afi"), "deck");
  }
  EXPECT_FALSE(std::filesystem::exists(directory_.File("x")));
  EXPECT_FALSE(std::filesystem::exists("x.afi"));
}

}  // namespace
