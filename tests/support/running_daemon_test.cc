#include "tests/support/running_daemon.h"

#include <gtest/gtest.h>

namespace {

TEST(HasStartedTest, LastLineOfTheStartCountsWithItsEndOnly) {
  EXPECT_FALSE(HasStarted(""));
  EXPECT_FALSE(HasStarted("Arguments: -p 9000 \n"));
  EXPECT_FALSE(HasStarted("Arguments: -p 9000 \nExecutable path = "));
  EXPECT_FALSE(HasStarted("Arguments: -p 9000 \nExecutable path = /opt"));
  EXPECT_TRUE(HasStarted("Arguments: -p 9000 \nExecutable path = /opt\n"));
}

}  // namespace
