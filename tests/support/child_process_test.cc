#include "tests/support/child_process.h"

#include <stdio.h>

#include <chrono>

#include <gtest/gtest.h>

#include "tests/support/temporary_directory.h"

namespace {

TEST(ChildProcessTest, PrintsNothingOfWhatTheTestHasPrintedBefore) {
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.output_file = directory.File("output");
  options.in_child = [] { return 0; };
  printf("Stays in the buffer of the test: ");
  ChildProcess child({}, options);
  EXPECT_EQ(child.Wait(std::chrono::seconds(10)), 0);
  EXPECT_EQ(directory.Read("output"), "");
}

}  // namespace
