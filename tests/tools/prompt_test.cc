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

std::vector<std::string> Wells() {
  return {"P1", "P2", "I1"};
}

TEST(Completions, CommandsOnWellsAreFollowedByWells) {
  for (const char* command :
       {"wells ", "data ", "open P1 ", "shut ", "uptime ", "ipr ", "source "}) {
    EXPECT_THAT(Completions(command, "P", Wells), ElementsAre("P1", "P2")) << command;
  }
}

TEST(Completions, ConstraintNamesComeWithTheirEqualsSign) {
  EXPECT_THAT(Completions("constrain P1 ", "b", Wells), ElementsAre("bhp="));
  EXPECT_THAT(Completions("vars P1 ", "b", Wells), ElementsAre("bhp"));
  EXPECT_THAT(Completions("ipr P1 ", "sk", Wells), ElementsAre("skewness"));
}

TEST(Completions, EveryIsFollowedByStepsAndTheWordsOfUntil) {
  EXPECT_THAT(Completions("every ", "m", NoWells), ElementsAre("monthly"));
  EXPECT_THAT(Completions("every monthly ", "u", NoWells), ElementsAre("until"));
}

TEST(Completions, CommaEndsACommandOnlyWhereItStandsAlone) {
  EXPECT_THAT(Completions("time , ", "un", NoWells), ElementsAre("units", "until"));
  EXPECT_THAT(Completions("data P1,P2 ", "P", Wells), ElementsAre("P1", "P2"));
}

TEST(Completions, UnknownCommandIsFollowedByNothing) {
  EXPECT_THAT(Completions("tiem ", "", NoWells), IsEmpty());
}

TEST(Completions, OpenQuoteCompletesNothingWrong) {
  EXPECT_THAT(Completions("help 'x", "zzz", NoWells), IsEmpty());
}

}  // namespace
