#include "gate/backoff.h"

#include <optional>
#include <vector>

#include <gtest/gtest.h>

namespace {

using gate::Backoff;
using gate::Time;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(BackoffTest, PausesGrowToTheLongest) {
  Backoff backoff({.first = milliseconds(200), .longest = seconds(1)});
  std::vector<Time> pauses;
  pauses.reserve(5);
  for (int i = 0; i < 5; ++i) pauses.push_back(*backoff.Pause(Time(0), 0.5));
  EXPECT_EQ(pauses, (std::vector<Time>{milliseconds(200), milliseconds(400), milliseconds(800),
                                       seconds(1), seconds(1)}));
}

TEST(BackoffTest, EveryPauseIsSpreadTheFirstToo) {
  Backoff early({.first = milliseconds(200)});
  Backoff late({.first = milliseconds(200)});
  EXPECT_EQ(early.Pause(Time(0), 0), milliseconds(100));
  EXPECT_EQ(late.Pause(Time(0), 1), milliseconds(300));
  EXPECT_EQ(early.Pause(Time(0), 0), milliseconds(200));
  EXPECT_EQ(late.Pause(Time(0), 1), milliseconds(600));
}

TEST(BackoffTest, ConnectionThatLastedBeginsAnew) {
  Backoff backoff({.first = milliseconds(200)});
  for (int i = 0; i < 4; ++i) backoff.Pause(Time(0), 0.5);
  backoff.Attached(seconds(10));
  EXPECT_EQ(backoff.Pause(seconds(20), 0.5), milliseconds(200));
}

TEST(BackoffTest, ConnectionThatBreaksAtOnceDoesNot) {
  Backoff backoff({.first = milliseconds(200)});
  for (int i = 0; i < 4; ++i) backoff.Pause(Time(0), 0.5);
  backoff.Attached(seconds(10));
  EXPECT_EQ(backoff.Pause(seconds(11), 0.5), milliseconds(3200));
}

TEST(BackoffTest, LinkThatIsBrokenTooLongIsGivenUp) {
  Backoff backoff({.hold = hours(12)});
  EXPECT_TRUE(backoff.Pause(seconds(5), 0.5));
  EXPECT_TRUE(backoff.Pause(seconds(4) + hours(12), 0.5));
  EXPECT_EQ(backoff.Pause(seconds(5) + hours(12), 0.5), std::nullopt);
  backoff.Attached(seconds(6) + hours(12));
  EXPECT_TRUE(backoff.Pause(hours(13), 0.5));
}

TEST(BackoffTest, WithoutHoldABrokenLinkIsNotResumed) {
  Backoff backoff({.hold = Time(0)});
  EXPECT_EQ(backoff.Pause(seconds(5), 0.5), std::nullopt);
}

}  // namespace
