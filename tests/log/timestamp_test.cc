#include "log/timestamp.h"

#include <time.h>

#include <limits>

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

TEST(TimestampTest, TimeWithoutAnAsctimeFormIsTheNewlineAlone) {
  constexpr time_t kYear12000 = 316'523'548'800;
  EXPECT_EQ(timestamp(kYear12000), "\n");
  EXPECT_EQ(timestamp(std::numeric_limits<time_t>::max()), "\n");  // no calendar reaches there
}
