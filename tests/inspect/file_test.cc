#include "inspect/file.h"

#include <errno.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/inspect/own_view.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;

class FileTest : public testing::Test {
 protected:
  TemporaryDirectory directory_;
};

TEST_F(FileTest, ContentIsReadWhole) {
  const std::string text(200'000, 'x');
  EXPECT_EQ(ReadFile(directory_.Write("file", text)), text);
}

TEST_F(FileTest, WhatIsNoRegularFileIsNotOpened) {
  const std::string pipe = directory_.File("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& name : {pipe, directory_.path().string(), std::string("/dev/zero")}) {
    EXPECT_EQ(ReadFile(name), std::nullopt);
    EXPECT_EQ(errno, EINVAL) << name;
  }
  EXPECT_EQ(ReadFile(directory_.File("none")), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileTest, FileWithoutBoundsIsGivenUp) {
  const std::string file = directory_.Write("file", "");
  std::filesystem::resize_file(file, (std::size_t{16} << 20) + 1);
  EXPECT_EQ(ReadFile(file), std::nullopt);
  EXPECT_EQ(errno, EFBIG);
}

TEST_F(FileTest, LastLineNeedsNoEnd) {
  EXPECT_THAT(Lines("a\n\nb"), ElementsAre("a", "", "b"));
  EXPECT_THAT(Lines("a\n"), ElementsAre("a"));
  EXPECT_THAT(Lines(""), ElementsAre());
}

TEST_F(FileTest, WhatCommandsATerminalIsEscaped) {
  EXPECT_EQ(Printable("a b~\x1b[31m\x7f\xc2\x9b\t"), "a b~\\x1b[31m\\x7f\\xc2\\x9b\\x09");
}

TEST_F(FileTest, FileThatOthersCanChangeIsKnown) {
  const std::string file = directory_.Write("file", "");
  chmod(file.c_str(), 0640);
  EXPECT_EQ(WritableBy(file, true), "");
  chmod(file.c_str(), 0620);
  EXPECT_EQ(WritableBy(file, true), "it has the mode 0620");
  chmod(file.c_str(), 0600);
  chmod(directory_.path().c_str(), 0777);
  EXPECT_EQ(WritableBy(file, true),
            "its directory " + directory_.path().string() + " has the mode 0777");
  chmod(directory_.path().c_str(), 01777);
  EXPECT_EQ(WritableBy(file, true), "");
}

TEST_F(FileTest, FileOfAnotherAccountIsKnown) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const std::string file = directory_.Write("file", "");
  ASSERT_EQ(chown(file.c_str(), 61234, 0), 0);
  EXPECT_EQ(WritableBy(file, true), "it belongs to account 61234");
}

TEST_F(FileTest, FileThatCannotBeReadToItsEndIsNone) {
  const std::string file = directory_.Write("file", "text");
  EXPECT_EQ(WithAnsweredCall(
                SYS_read, []() -> long { return -EIO; },
                [&] { return ReadFile(file).value_or("no text"); }),
            "no text");
}

TEST_F(FileTest, OwnFileIsOthersWhereItOughtToBeRoots) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const std::string file = directory_.Write("file", "");
  chmod(file.c_str(), 0600);
  chmod(directory_.path().c_str(), 0755);
  ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0);
  EXPECT_EQ(AsNobody([&] { return WritableBy(file, true); }), "");
  EXPECT_EQ(AsNobody([&] { return WritableBy(file, false); }), "it belongs to account 65534");
}

}  // namespace
}  // namespace inspect
