#include "tools/vkmaster/text/words.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/vkmaster/text/sha256.h"
#include "tools/vkmaster/text/usage_error.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vkmaster::Matches;
using vkmaster::ParseNumber;
using vkmaster::SplitCommands;
using vkmaster::SplitWords;
using vkmaster::UsageError;

TEST(SplitWords, BlanksAndTabsSeparate) {
  EXPECT_THAT(SplitWords("  until\t30  step  10 \r"), ElementsAre("until", "30", "step", "10"));
  EXPECT_THAT(SplitWords(""), IsEmpty());
}

TEST(SplitWords, QuotesKeepBlanksHashesAndEmptyWords) {
  EXPECT_THAT(SplitWords(R"(open 'A 1' "B # 2" '' x'y z'w)"),
              ElementsAre("open", "A 1", "B # 2", "", "xy zw"));
}

TEST(SplitWords, BackslashKeepsTheNextCharacter) {
  EXPECT_THAT(SplitWords(R"(A\ 1 "a\"b" 'c\d' \#5)"), ElementsAre("A 1", "a\"b", "c\\d", "#5"));
}

TEST(SplitWords, BackslashAtTheEndStandsForItself) {
  EXPECT_THAT(SplitWords("A\\"), ElementsAre("A\\"));
  EXPECT_THROW(SplitWords("\"A\\"), UsageError);
}

TEST(SplitWords, ByteOrderMarkInFrontIsNoPartOfTheWord) {
  EXPECT_THAT(SplitWords("\xEF\xBB\xBFuntil 30"), ElementsAre("until", "30"));
}

TEST(SplitWords, LineEndsSeparateToo) {
  EXPECT_THAT(SplitWords("A\nB"), ElementsAre("A", "B"));
}

TEST(SplitWords, HashBeginsACommentOnlyAtAWordsBeginning) {
  EXPECT_THAT(SplitWords("open P#1 # the first"), ElementsAre("open", "P#1"));
  EXPECT_THAT(SplitWords("# nothing"), IsEmpty());
}

TEST(SplitWords, SemicolonIsAWordOfItsOwn) {
  EXPECT_THAT(SplitWords("time;units ';'x"), ElementsAre("time", ";", "units", ";x"));
}

TEST(SplitWords, OpenQuoteIsRefused) {
  EXPECT_THROW(SplitWords("open 'P1"), UsageError);
  EXPECT_THROW(SplitWords("open \"P1\\\""), UsageError);
}

TEST(SplitCommands, ThenCommaAndSemicolonSeparate) {
  EXPECT_THAT(SplitCommands({"time", "then", "open", "P1,P2", ",", "date", ";", "units"}),
              ElementsAre(ElementsAre("time"), ElementsAre("open", "P1,P2"), ElementsAre("date"),
                          ElementsAre("units")));
}

TEST(SplitCommands, EmptyCommandsAreLeftOut) {
  EXPECT_THAT(SplitCommands({"then", "time", ";", ";"}), ElementsAre(ElementsAre("time")));
  EXPECT_THAT(SplitCommands({}), IsEmpty());
}

TEST(Matches, StarIsAnyNumberOfCharactersAndQuestionMarkOne) {
  EXPECT_TRUE(Matches("P*", "P"));
  EXPECT_TRUE(Matches("P*", "P12"));
  EXPECT_TRUE(Matches("*-?1", "NORTH-A1"));
  EXPECT_TRUE(Matches("*a*b", "xaxbxb"));
  EXPECT_TRUE(Matches("**", ""));
  EXPECT_TRUE(Matches("P1", "P1"));
  EXPECT_FALSE(Matches("P?", "P"));
  EXPECT_FALSE(Matches("P?", "P12"));
  EXPECT_FALSE(Matches("p*", "P1"));
  EXPECT_FALSE(Matches("*a*b", "xaxbxc"));
  EXPECT_FALSE(Matches("", "P"));
}

TEST(ParseNumber, TakesWholeFiniteNumbersOnly) {
  EXPECT_EQ(ParseNumber("365.25", "Days"), 365.25);
  EXPECT_EQ(ParseNumber("+30", "Days"), 30);
  EXPECT_EQ(ParseNumber("-1e3", "Days"), -1000);
  for (const char* wrong : {"", "+", "30d", "1 2", "nan", "inf", "0x10", "1e999", "++1"}) {
    EXPECT_THROW(ParseNumber(wrong, "Days"), UsageError) << wrong;
  }
}

TEST(MaybeMeant, OfManyLikelyNamesTheFirstAreNamed) {
  std::vector<std::string> wells;
  for (int i = 1; i <= 8; ++i) wells.push_back("P" + std::to_string(i));
  EXPECT_EQ(vkmaster::MaybeMeant("P", wells), " (P1, P2, P3, P4, P5, P6, P7, P8?)");
  wells.emplace_back("P9");
  EXPECT_EQ(vkmaster::MaybeMeant("P", wells), " (P1, P2, P3, P4, P5, P6, P7, P8, ...?)");
}

TEST(Printable, ControlCharactersBecomeQuestionMarks) {
  EXPECT_EQ(vkmaster::Printable("a\033[2J\n\tb\x7f"), "a?[2J??b?");
  EXPECT_EQ(vkmaster::Printable("\xC2\x9B"
                                "2J \xC3\xA9\xC2\xA0\xC2"),
            "?2J \xC3\xA9\xC2\xA0\xC2");
  EXPECT_EQ(vkmaster::Printable("\xC2"
                                "B"),
            "\xC2"
            "B")
      << "Latin-1 itself";
}

TEST(Sha256, IsWhatTheStandardSays) {
  EXPECT_EQ(vkmaster::Sha256("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(vkmaster::Sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(vkmaster::Sha256(""),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(vkmaster::Sha256(std::string(1000000, 'a')),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

}  // namespace
