#include "tools/vkmaster/output/progress.h"

#include <gtest/gtest.h>

#include "tests/tools/memory_stream.h"

namespace {

using std::chrono::seconds;
using vkmaster::Progress;

class ProgressTest : public testing::Test {
 protected:
  std::string Written() const { return stream_.Text(); }

  MemoryStream stream_;
  std::FILE* terminal_ = stream_.get();
};

TEST_F(ProgressTest, BarShowsTheDaysReached) {
  Progress progress(true, terminal_);
  progress.BeginAdvance(100, 200);
  EXPECT_EQ(progress.Line(seconds(0)), "[..............................] day 100 of 200 (0:00:00)");
  progress.Reached(150);
  EXPECT_EQ(progress.Line(seconds(3723)),
            "[###############...............] day 150 of 200 (1:02:03)");
  progress.Reached(200);
  EXPECT_EQ(progress.Line(seconds(59)),
            "[##############################] day 200 of 200 (0:00:59)");
}

TEST_F(ProgressTest, AdvanceOverNoTimeIsDoneAtOnce) {
  Progress progress(true, terminal_);
  progress.BeginAdvance(100, 100);
  EXPECT_EQ(progress.Line(seconds(0)), "[##############################] day 100 of 100 (0:00:00)");
}

TEST_F(ProgressTest, OtherWorkShowsTheTimeSpent) {
  Progress progress(true, terminal_);
  progress.Begin("shutting down");
  EXPECT_EQ(progress.Line(seconds(61)), "shutting down (0:01:01)");
  EXPECT_EQ(progress.Line(seconds(3600)), "shutting down (1:00:00)");
}

TEST_F(ProgressTest, LineIsOverwrittenAndRemoved) {
  Progress progress(true, terminal_);
  progress.Begin("x");
  progress.Tick();
  progress.Hide();
  progress.Hide();
  EXPECT_EQ(Written(), "\r\033[Kx (0:00:00)\r\033[K");
  progress.End();
  progress.Tick();
  EXPECT_EQ(Written(), "\r\033[Kx (0:00:00)\r\033[K") << "ended, there is nothing to draw";
}

TEST_F(ProgressTest, DisabledWritesNothing) {
  Progress progress(false, terminal_);
  progress.BeginAdvance(0, 1);
  progress.Tick();
  progress.Reached(1);
  progress.End();
  EXPECT_EQ(Written(), "");
}

}  // namespace
