#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/vkmaster/commands/advance.h"
#include "tools/vkmaster/commands/registry.h"
#include "tools/vkmaster/text/usage_error.h"

namespace {

using testing::HasSubstr;
using vkmaster::SplitWords;
using vkmaster::Step;
using vkmaster::Target;
using vkmaster::UsageError;

std::string Refusal(const std::string& line) {
  try {
    vkmaster::ParseCommands(SplitWords(line));
    return "understood";
  } catch (const UsageError& error) {
    return error.what();
  }
}

TEST(ParseCommand, KnowsEveryCommandOfTheHelp) {
  for (const vkmaster::CommandHelp& help : vkmaster::CommandList()) {
    EXPECT_THAT(vkmaster::HelpText(), HasSubstr("  " + help.name)) << help.name;
    if (help.arguments.empty()) {
      EXPECT_EQ(Refusal(help.name), "understood") << help.name;
    }
  }
}

TEST(ParseCommand, UnknownCommandIsRefusedWithWhatItMayBe) {
  EXPECT_EQ(Refusal("tiem"), "No such command: tiem (time?)");
  EXPECT_EQ(Refusal("xyzzy"), "No such command: xyzzy (the command help lists them)");
  EXPECT_EQ(Refusal("start"), "No such command: start (start-date?)");
  EXPECT_EQ(Refusal("--csv"), "No such option: --csv (vkmaster --help lists them)");
}

TEST(ParseCommand, ArgumentsOfACommandThatTakesNoneAreRefused) {
  EXPECT_EQ(Refusal("time 30"), "time: '30': it takes no arguments");
}

TEST(ParseCommand, EveryCommandWithoutArgumentsRefusesThem) {
  for (const char* command : {"eos", "quit", "status"}) {
    EXPECT_THAT(Refusal(std::string(command) + " 30"), HasSubstr("it takes no arguments"));
  }
}

TEST(ParseCommand, ExitAndCloseAreQuit) {
  for (const char* word : {"exit", "close"}) {
    EXPECT_EQ(vkmaster::ParseCommand({word}).text, "quit");
    EXPECT_EQ(Refusal(std::string(word) + " P1"),
              std::string("No such command: ") + word + " (the command help lists them)");
  }
}

TEST(ParseCommand, SeveralLikelyCommandsAreAllNamed) {
  EXPECT_EQ(Refusal("s"),
            "No such command: s (status, start-date, shut, set-status, source, shutdown?)");
}

TEST(ParseCommand, InflowOptionsNeedTheirValue) {
  EXPECT_EQ(Refusal("ipr P1 skewness"), "understood") << "a well may have that name";
  EXPECT_EQ(Refusal("ipr P1 components"), "understood");
  for (const char* wrong : {"-1", "1e9", "1.5"}) {
    EXPECT_THAT(Refusal(std::string("ipr P1 components ") + wrong),
                HasSubstr("is no number of components"));
  }
  EXPECT_EQ(Refusal("ipr P1 components 3"), "understood");
}

TEST(ParseCommand, MoleFractionOutsideZeroToOneIsRefused) {
  for (const char* wrong : {"-0.1", "1.1"}) {
    EXPECT_THAT(Refusal(std::string("composition S ") + wrong),
                HasSubstr("A mole fraction is 0 to 1"));
  }
}

TEST(ParseCommand, OneWrongCommandOfALineRefusesTheLine) {
  EXPECT_EQ(Refusal("time then tiem"), "No such command: tiem (time?)");
}

TEST(ParseUntil, TargetIsDaysRelativeDaysOrADate) {
  EXPECT_EQ(vkmaster::ParseTarget("3650").kind, Target::Kind::kDays);
  EXPECT_EQ(vkmaster::ParseTarget("3650").days, 3650);
  EXPECT_EQ(vkmaster::ParseTarget("+30").kind, Target::Kind::kRelative);
  EXPECT_EQ(vkmaster::ParseTarget("2030-01-31").kind, Target::Kind::kDate);
  EXPECT_EQ(vkmaster::ParseTarget("2030-01-31").date, (master::Date{31, 1, 2030}));
  for (const char* wrong : {"-5", "+0", "tomorrow", "2030-02-31", "nan"}) {
    EXPECT_THROW(vkmaster::ParseTarget(wrong), UsageError) << wrong;
  }
}

TEST(ParseUntil, StepAndRatesFollowInAnyOrder) {
  const auto request = vkmaster::ParseUntil({"3650", "rates", "step", "monthly"});
  EXPECT_TRUE(request.rates);
  EXPECT_EQ(request.step, (Step{Step::Kind::kMonthly, 0}));
  EXPECT_EQ(vkmaster::ParseUntil({"3650"}).step, std::nullopt);
}

TEST(ParseUntil, EveryHasTheStepFirst) {
  const auto request = vkmaster::ParseEvery({"30", "until", "3650", "rates"});
  EXPECT_TRUE(request.rates);
  EXPECT_EQ(request.step, (Step{Step::Kind::kDays, 30}));
  EXPECT_EQ(request.target.days, 3650);
}

TEST(ParseUntil, LeftoversAreRefused) {
  EXPECT_THAT(Refusal("until"), HasSubstr("Until when?"));
  EXPECT_THAT(Refusal("until 30 step"), HasSubstr("'step' is not understood here"));
  EXPECT_THAT(Refusal("until 30 40"), HasSubstr("'40' is not understood here"));
  EXPECT_THAT(Refusal("every 30"), HasSubstr("every STEP until TARGET"));
  EXPECT_THAT(Refusal("every 30 to 60"), HasSubstr("every STEP until TARGET"));
}

}  // namespace
