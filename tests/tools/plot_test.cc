#include "tools/vkmaster/output/plot.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

using vkmaster::Draw;

TEST(Draw, PointsAreStarsJoinedByDotsBetweenTheAxes) {
  EXPECT_EQ(Draw({"P1", "liquid", "bhp", {0, 5, 10}, {200, 150, 100}}, 11, 5),
            "P1\n"
            "       bhp\n"
            "       200 |*.\n"
            "           |  ..\n"
            "           |    .*.\n"
            "           |       ..\n"
            "       100 |         .*\n"
            "           +-----------\n"
            "            0 liquid 10\n");
}

TEST(Draw, ValuesAllAlikeLieInTheMiddle) {
  EXPECT_EQ(Draw({"P1", "x", "y", {3}, {0}}, 5, 3),
            "P1\n"
            "         y\n"
            "       0.5 |\n"
            "           |  *\n"
            "      -0.5 |\n"
            "           +-----\n"
            "            1.5x4.5\n");
}

TEST(Draw, PointsAllAlikeAreOneStarInTheMiddle) {
  EXPECT_EQ(Draw({"P1", "x", "y", {3, 3, 3}, {0, 0, 0}}, 5, 3),
            Draw({"P1", "x", "y", {3}, {0}}, 5, 3));
}

TEST(Draw, ValuesThatAreNoNumbersAreLeftOut) {
  EXPECT_EQ(Draw({"P1", "x", "y", {0, NAN, 1}, {0, 5, INFINITY}}, 5, 3),
            Draw({"P1", "x", "y", {0}, {0}}, 5, 3));
  EXPECT_EQ(Draw({"P1", "x", "y", {NAN}, {1}}), "");
  EXPECT_EQ(Draw({"P1", "x", "y", {}, {}}), "");
}

}  // namespace
