#include "tools/vkmaster/prompt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using vkmaster::Completions;

std::vector<std::string> NoWells() {
  ADD_FAILURE() << "wells were asked for";
  return {};
}

TEST(Completions, CommandsComeAtTheBeginningOfACommand) {
  EXPECT_THAT(Completions("", "sta", NoWells), ElementsAre("status", "start-date"));
  EXPECT_THAT(Completions("time then ", "un", NoWells), ElementsAre("units", "until"));
  EXPECT_THAT(Completions("time; ", "un", NoWells), ElementsAre("units", "until"));
}

TEST(Completions, HelpIsFollowedByCommands) {
  EXPECT_THAT(Completions("help ", "shut", NoWells), Contains("shutdown"));
}

TEST(Completions, UntilIsFollowedByItsWords) {
  EXPECT_THAT(Completions("until 30 ", "st", NoWells), ElementsAre("step"));
}

TEST(Completions, OpenQuoteCompletesNothingWrong) {
  EXPECT_THAT(Completions("help 'x", "zzz", NoWells), IsEmpty());
}

}  // namespace
