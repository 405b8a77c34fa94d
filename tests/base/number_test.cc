#include "base/number.h"

#include <limits.h>

#include <gtest/gtest.h>

namespace {

TEST(NumberTest, DigitsAtTheBeginningCountAndNothingElse) {
  EXPECT_EQ(NumberIn("17"), 17);
  EXPECT_EQ(NumberIn(" \t-4x9"), -4);
  EXPECT_EQ(NumberIn("010"), 10);
  EXPECT_EQ(NumberIn("0x10"), 0);
}

TEST(NumberTest, TextWithoutDigitsIsZero) {
  EXPECT_EQ(NumberIn(""), 0);
  EXPECT_EQ(NumberIn("abc"), 0);
  EXPECT_EQ(NumberIn("-"), 0);
}

TEST(NumberTest, NumberThatDoesNotFitIsTheNearestThatDoes) {
  EXPECT_EQ(NumberIn("9223372036854775808"), LONG_MAX);
  EXPECT_EQ(NumberIn("-99999999999999999999"), LONG_MIN);
}

}  // namespace
