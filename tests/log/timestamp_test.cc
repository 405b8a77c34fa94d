#include "log/timestamp.h"

#include <time.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

TEST(TimestampTest, IsTheAsctimeFormWithOneNewlineAtTheEnd) {
  EXPECT_THAT(timestamp(),
              testing::MatchesRegex(
                  "[A-Z][a-z][a-z] [A-Z][a-z][a-z] [ 0-9][0-9] ..:..:.. [0-9][0-9][0-9][0-9]\n"));
}

TEST(TimestampTest, IsThePresentLocalTime) {
  const time_t before = time(nullptr);
  tm parsed{};
  ASSERT_NE(strptime(timestamp().c_str(), "%a %b %d %H:%M:%S %Y", &parsed), nullptr);
  parsed.tm_isdst = -1;
  const time_t stamped = mktime(&parsed);
  EXPECT_GE(stamped, before);
  EXPECT_LE(stamped, time(nullptr));
}
