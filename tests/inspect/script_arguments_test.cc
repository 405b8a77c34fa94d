#include "inspect/script_arguments.h"

#include <gtest/gtest.h>

namespace inspect {
namespace {

TEST(ScriptArgumentsTest, AreThoseAfterTheScript) {
  const auto arguments = ReadScript(
      {"/bin/bash", "-e", "/opt/script", "4", "/data/", "CASE", "9001", "0"}, "/opt/script");
  ASSERT_TRUE(arguments);
  EXPECT_EQ(arguments->processes, 4);
  EXPECT_EQ(arguments->path, "/data/");
  EXPECT_EQ(arguments->root, "CASE");
  EXPECT_EQ(arguments->port, 9001);
}

// A child of a run's controller may have become another program.
TEST(ScriptArgumentsTest, OtherCommandLinesHaveNone) {
  EXPECT_FALSE(ReadScript({}, "/opt/script"));
  EXPECT_FALSE(ReadScript({"/opt/script", "4", "/data/", "CASE", "9001"}, "/opt/script"));
  EXPECT_FALSE(ReadScript({"/opt/other", "4", "/data/", "CASE", "9001", "0"}, "/opt/script"));
  EXPECT_FALSE(
      ReadScript({"/opt/script", "4", "/data/", "CASE", "9001", "0", "more"}, "/opt/script"));
}

}  // namespace
}  // namespace inspect
