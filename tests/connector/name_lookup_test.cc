#include "connector/name_lookup.h"

#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using connector::NameLookup;
using Names = std::vector<std::string>;
using Positions = std::vector<std::size_t>;

Positions Find(const Names& asked, const Names& answered) {
  const NameLookup lookup(asked);
  NameLookup::Answer answer(lookup);
  for (std::string name : answered) answer.Add(std::move(name));
  Positions one_by_one = answer.Positions();
  if (one_by_one.empty()) {
    one_by_one.resize(asked.size());
    std::iota(one_by_one.begin(), one_by_one.end(), 0);
  }
  EXPECT_EQ(lookup.PositionsIn(answered), one_by_one);
  return one_by_one;
}

TEST(NameLookupTest, AnswerAsAskedHasNoList) {
  const Names asked = {"B", "A"};
  const NameLookup lookup(asked);
  NameLookup::Answer answer(lookup);
  for (std::string name : asked) answer.Add(std::move(name));
  EXPECT_EQ(answer.Positions(), Positions{});
}

TEST(NameLookupTest, SameNamesInTheSameOrder) {
  EXPECT_EQ(Find({"A", "B", "C"}, {"A", "B", "C"}), (Positions{0, 1, 2}));
}

TEST(NameLookupTest, OtherOrder) {
  EXPECT_EQ(Find({"A", "B", "C"}, {"C", "A", "B"}), (Positions{1, 2, 0}));
}

TEST(NameLookupTest, MissingAndExtraNames) {
  EXPECT_EQ(Find({"A", "B"}, {"X", "B", "Y"}), (Positions{NameLookup::npos, 1}));
}

TEST(NameLookupTest, FirstOfEqualNamesCountsAlsoWhenTheListsAreTheSame) {
  EXPECT_EQ(Find({"A", "B", "A"}, {"A", "B", "A"}), (Positions{0, 1, 0}));
  EXPECT_EQ(Find({"A", "B"}, {"B", "A", "A", "B"}), (Positions{1, 0}));
}

TEST(NameLookupTest, AnswerThatEndsEarlyLacksTheRest) {
  EXPECT_EQ(Find({"A", "B", "A"}, {"A"}), (Positions{0, NameLookup::npos, 0}));
}

TEST(NameLookupTest, NamesAfterTheAskedOnesChangeNothing) {
  EXPECT_EQ(Find({"A", "B"}, {"A", "B", "A", "C"}), (Positions{0, 1}));
}

TEST(NameLookupTest, NamesThatDescendAreFoundInTheirOwnOrder) {
  EXPECT_EQ(Find({"C", "B", "A"}, {"C", "B", "A"}), (Positions{0, 1, 2}));
}

TEST(NameLookupTest, EmptyLists) {
  EXPECT_EQ(Find({}, {}), Positions{});
  EXPECT_EQ(Find({}, {"A"}), Positions{});
  EXPECT_EQ(Find({"A"}, {}), Positions{NameLookup::npos});
}

TEST(NameLookupTest, NamesThatDifferInCaseOrLengthAreOthers) {
  EXPECT_EQ(Find({"A1"}, {"a1", "A", "A10"}), Positions{NameLookup::npos});
}

}  // namespace
