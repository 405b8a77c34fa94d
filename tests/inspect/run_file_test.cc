#include "inspect/run_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

TEST(RunFileTest, PipeAndLinkAreNotReadAndNotWaitedFor) {
  const TemporaryDirectory directory;
  const std::string pipe = directory.File("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(RunFile(pipe).error(), "it is no regular file");
  directory.Write("file", "text");
  ASSERT_EQ(symlink(directory.File("file").c_str(), directory.File("link").c_str()), 0);
  EXPECT_EQ(RunFile(directory.File("link")).error(), "it is a link");
  EXPECT_EQ(RunFile(directory.File("link")).Tail(10), "");
  EXPECT_EQ(RunFile(directory.File("none")).error(), "No such file or directory");
}

TEST(RunFileTest, FileOfAnotherAccountIsRefused) {
  const TemporaryDirectory directory;
  const std::string file = directory.Write("file", "text");
  EXPECT_EQ(RunFile(file, getuid()).error(), "");
  EXPECT_EQ(RunFile(file, getuid() + 1).error(), "it belongs to another account");
  EXPECT_EQ(RunFile(file, getuid() + 1).Read(0, 10), "");
}

TEST(RunFileTest, TailBeginsWithAWholeLine) {
  const TemporaryDirectory directory;
  const RunFile file(directory.Write("file", "one\ntwo\nthree\n"));
  EXPECT_EQ(file.Tail(100), "one\ntwo\nthree\n");
  EXPECT_EQ(file.Tail(8), "three\n");
  EXPECT_EQ(file.Tail(10), "three\n");
  EXPECT_EQ(file.Read(4, 3), "two");
  EXPECT_EQ(file.size(), 14);
}

}  // namespace
}  // namespace inspect
