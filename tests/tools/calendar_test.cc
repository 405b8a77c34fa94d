#include "tools/vkmaster/text/calendar.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tools/vkmaster/text/usage_error.h"

namespace {

using master::Date;
using vkmaster::EndOfStep;
using vkmaster::ParseDate;
using vkmaster::ParseStep;
using vkmaster::Step;

TEST(ParseDate, TakesYearMonthDay) {
  EXPECT_EQ(ParseDate("2026-01-31"), (Date{31, 1, 2026}));
  EXPECT_EQ(ParseDate("2024-02-29"), (Date{29, 2, 2024}));
}

TEST(ParseDate, TakesNothingElse) {
  for (const char* wrong :
       {"", "2023-02-29", "2026-13-01", "2026-00-10", "2026-1-31", "31-01-2026", "2026/01/31",
        "2026-01-311", "-026-01-01", "2026-01-3x", "2026-01/31", "2026-x1-31", "2026-01-xx"}) {
    EXPECT_EQ(ParseDate(wrong), std::nullopt) << wrong;
  }
}

TEST(FormatDate, ShowsWhateverTheNumbersAre) {
  EXPECT_EQ(vkmaster::FormatDate({5, 1, 2026}), "2026-01-05");
  EXPECT_EQ(vkmaster::FormatDate({0, 0, 0}), "0000-00-00");
}

TEST(DaysBetween, CountsLeapDays) {
  EXPECT_EQ(vkmaster::DaysBetween({1, 1, 2020}, {1, 1, 2021}), 366);
  EXPECT_EQ(vkmaster::DaysBetween({1, 1, 2021}, {31, 12, 2020}), -1);
}

TEST(ParseStep, TakesWordsAndPositiveDays) {
  EXPECT_EQ(ParseStep("daily"), (Step{Step::Kind::kDays, 1}));
  EXPECT_EQ(ParseStep("weekly"), (Step{Step::Kind::kDays, 7}));
  EXPECT_EQ(ParseStep("30.5"), (Step{Step::Kind::kDays, 30.5}));
  EXPECT_EQ(ParseStep("yearly").kind, Step::Kind::kYearly);
  for (const char* wrong : {"0", "-1", "often", ""}) {
    EXPECT_THROW(ParseStep(wrong), vkmaster::UsageError) << wrong;
  }
}

TEST(ParseTarget, DateWithoutItsDashesIsNoDay) {
  for (const char* word : {"20220101", "19000101", "99991231"}) {
    const std::string digits = word;
    const std::string date =
        digits.substr(0, 4) + "-" + digits.substr(4, 2) + "-" + digits.substr(6);
    try {
      vkmaster::ParseTarget(digits);
      ADD_FAILURE() << digits;
    } catch (const vkmaster::UsageError& error) {
      EXPECT_EQ(error.what(),
                fmt::format("'{}' looks like a date, which is written {}; day {} is written {}.0",
                            digits, date, digits, digits));
    }
  }
  for (const char* word : {"20220101.0", "20221301", "18991231", "2022010", "202201011"}) {
    EXPECT_EQ(vkmaster::ParseTarget(word).kind, vkmaster::Target::Kind::kDays) << word;
  }
}

TEST(RefuseYear, DigitsThatAreAYearOfTheRunAreNoDay) {
  const auto refused = [](const std::string& word) {
    try {
      vkmaster::RefuseYear(vkmaster::ParseTarget(word), {31, 12, 2020});
      return std::string("taken");
    } catch (const vkmaster::UsageError& error) {
      return std::string(error.what());
    }
  };
  EXPECT_EQ(refused("2022"),
            "2022 may be a year or a day: write 2022-01-01 for the year, 2022.0 for the day");
  EXPECT_NE(refused("2020"), "taken");
  EXPECT_NE(refused("2080"), "taken");
  for (const char* word : {"2019", "2081", "2022.0", "2022.5", "+2022", "2022-01-01", "365"}) {
    EXPECT_EQ(refused(word), "taken") << word;
  }
}

TEST(DaysBetween, TargetsThatOnlyTheRunCanCompareHaveNone) {
  const auto between = [](const char* one, const char* other) {
    return vkmaster::DaysBetween(vkmaster::ParseTarget(one), vkmaster::ParseTarget(other));
  };
  EXPECT_EQ(between("30", "40"), 10);
  EXPECT_EQ(between("2030-01-31", "2030-02-01"), 1);
  EXPECT_EQ(between("30", "2030-02-01"), std::nullopt);
  EXPECT_EQ(between("+30", "+40"), std::nullopt);
}

TEST(Format, TargetsAndStepsAreShownAsTheyAreWritten) {
  const auto target = [](const char* word) {
    return vkmaster::FormatTarget(vkmaster::ParseTarget(word));
  };
  EXPECT_EQ(target("2030-01-31"), "2030-01-31");
  EXPECT_EQ(target("30"), "day 30");
  EXPECT_EQ(target("+30"), "+30 days");
  for (const char* word : {"monthly", "quarterly", "yearly"}) {
    EXPECT_EQ(vkmaster::FormatStep(ParseStep(word)), word);
  }
  EXPECT_EQ(vkmaster::FormatStep(ParseStep("30")), "of 30 days");
}

TEST(EndOfStep, DaysAreAdded) {
  EXPECT_EQ(EndOfStep(ParseStep("30"), {15, 1, 2020}, 10.5), 40.5);
}

TEST(EndOfStep, MonthsEndOnTheNextFirst) {
  const Date start{15, 1, 2020};
  EXPECT_EQ(EndOfStep(ParseStep("monthly"), start, 0), 17);
  EXPECT_EQ(EndOfStep(ParseStep("monthly"), start, 16.9), 17);
  EXPECT_EQ(EndOfStep(ParseStep("monthly"), start, 17), 17 + 29) << "February of a leap year";
}

TEST(EndOfStep, QuartersAndYearsEndOnTheirFirsts) {
  const Date start{15, 11, 2020};
  EXPECT_EQ(EndOfStep(ParseStep("quarterly"), start, 0), 47);
  EXPECT_EQ(EndOfStep(ParseStep("quarterly"), start, 47), 47 + 90);
  EXPECT_EQ(EndOfStep(ParseStep("yearly"), start, 0), 47);
  EXPECT_EQ(EndOfStep(ParseStep("yearly"), start, 47), 47 + 365);
}

TEST(ParseStep, WeeksAreCountedToo) {
  EXPECT_EQ(vkmaster::ParseStep("2w"), (vkmaster::Step{vkmaster::Step::Kind::kDays, 14}));
  EXPECT_THROW(vkmaster::ParseStep("0w"), vkmaster::UsageError);
  EXPECT_THROW(vkmaster::ParseStep("w"), vkmaster::UsageError);
}

}  // namespace
