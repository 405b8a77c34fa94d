#include "gate/link_table.h"

#include <optional>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using gate::Identity;
using gate::LinkId;
using gate::LinkTable;
using gate::Reason;
using gate::Time;
using std::chrono::hours;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class LinkTableTest : public testing::Test {
 protected:
  LinkTable Table(const LinkTable::Options& options = {}) {
    return LinkTable(options, [this] { return LinkId{{next_id_++}}; });
  }
  static LinkId Added(LinkTable& table, const Identity& who) {
    return std::get<LinkId>(table.Add(who));
  }

  unsigned char next_id_ = 1;
  const Identity alice_{.authority = "A", .names = {"alice@site", "mail:alice@site"}};
  const Identity bob_{.authority = "A", .names = {"bob@site"}};
};

TEST_F(LinkTableTest, ItsOwnerResumesALink) {
  LinkTable table = Table();
  const LinkId id = Added(table, alice_);
  table.Broken(id, seconds(5));
  EXPECT_EQ(table.links().at(id).broken_since, seconds(5));
  EXPECT_EQ(table.Refuses(id, alice_, 1), std::nullopt);
  table.Resumed(id, 1);
  EXPECT_EQ(table.links().at(id).broken_since, std::nullopt);
  EXPECT_EQ(table.links().at(id).resumptions, 1U);
}

TEST_F(LinkTableTest, NobodyElseLearnsThatThereIsOne) {
  LinkTable table = Table();
  const LinkId id = Added(table, alice_);
  Identity other_authority = alice_;
  other_authority.authority = "B";
  Identity fewer_names = alice_;
  fewer_names.names.pop_back();
  Identity more_names = alice_;
  more_names.names.emplace_back("root@site");
  for (const Identity& who : {bob_, other_authority, fewer_names, more_names, Identity{}}) {
    EXPECT_EQ(table.Refuses(id, who, 1), Reason::kUnknown);
    EXPECT_EQ(table.Refuses(LinkId{{99}}, who, 1), Reason::kUnknown);
  }
  table.Ended(id, Reason::kFinished);
  EXPECT_EQ(table.Refuses(id, bob_, 1), Reason::kUnknown);
}

TEST_F(LinkTableTest, EpochHasToGrow) {
  LinkTable table = Table();
  const LinkId id = Added(table, alice_);
  EXPECT_EQ(table.Refuses(id, alice_, 0), Reason::kOldEpoch);
  table.Resumed(id, 7);
  for (const std::uint64_t old : {0UL, 1UL, 6UL, 7UL}) {
    EXPECT_EQ(table.Refuses(id, alice_, old), Reason::kOldEpoch) << old;
  }
  EXPECT_EQ(table.Refuses(id, alice_, 8), std::nullopt);
}

TEST_F(LinkTableTest, NothingIsResumedWhereNothingIsHeld) {
  LinkTable table = Table({.hold = Time(0)});
  const LinkId id = Added(table, alice_);
  EXPECT_EQ(table.Refuses(id, alice_, 1), Reason::kHeldTooLong);
  EXPECT_EQ(table.Refuses(id, bob_, 1), Reason::kUnknown);
}

TEST_F(LinkTableTest, RefusalDoesNotTouchTheLink) {
  LinkTable table = Table();
  const LinkId id = Added(table, alice_);
  table.Refuses(id, alice_, 9);
  table.Refuses(id, bob_, 9);
  EXPECT_EQ(table.links().at(id).epoch, 0U);
  EXPECT_EQ(table.links().at(id).resumptions, 0U);
}

TEST_F(LinkTableTest, LateComerHearsWhyTheLinkHasEnded) {
  LinkTable table = Table();
  for (const Reason reason : {Reason::kFinished, Reason::kHeldTooLong, Reason::kEnded}) {
    const LinkId id = Added(table, alice_);
    table.Ended(id, reason);
    EXPECT_EQ(table.Refuses(id, alice_, 1), reason);
    table.Resumed(id, 1);
    EXPECT_THAT(table.links(), IsEmpty());
  }
}

TEST_F(LinkTableTest, OnlySoManyEndedLinksAreRemembered) {
  LinkTable table = Table({.remembered = 2});
  const LinkId first = Added(table, alice_);
  const LinkId second = Added(table, alice_);
  const LinkId third = Added(table, alice_);
  for (const LinkId& id : {first, second, third}) table.Ended(id, Reason::kFinished);
  EXPECT_EQ(table.Refuses(first, alice_, 1), Reason::kUnknown);
  EXPECT_EQ(table.Refuses(second, alice_, 1), Reason::kFinished);
  EXPECT_EQ(table.Refuses(third, alice_, 1), Reason::kFinished);
}

TEST_F(LinkTableTest, BrokenLinksAreOverdueWhenTheyWereHeld) {
  LinkTable table = Table({.hold = hours(12)});
  const LinkId first = Added(table, alice_);
  const LinkId second = Added(table, alice_);
  Added(table, alice_);
  table.Broken(second, seconds(20));
  table.Broken(first, seconds(10));
  table.Broken(first, seconds(30));  // It has been since 10.
  EXPECT_THAT(table.Overdue(seconds(9) + hours(12)), IsEmpty());
  EXPECT_THAT(table.Overdue(seconds(10) + hours(12)), ElementsAre(first));
  table.Ended(first, Reason::kHeldTooLong);
  EXPECT_THAT(table.Overdue(seconds(20) + hours(12)), ElementsAre(second));
  table.Resumed(second, 1);
  EXPECT_THAT(table.Overdue(hours(100)), IsEmpty());
}

TEST_F(LinkTableTest, LinksOfOneAndOfAllAreLimited) {
  LinkTable table = Table({.most = 3, .most_of_one = 2});
  const LinkId first = Added(table, alice_);
  Added(table, alice_);
  EXPECT_EQ(std::get<Reason>(table.Add(alice_)), Reason::kTooMany);
  EXPECT_EQ(table.CountOf(alice_), 2U);
  Added(table, bob_);
  EXPECT_EQ(std::get<Reason>(table.Add(bob_)), Reason::kTooMany);
  table.Broken(first, seconds(1));
  EXPECT_EQ(std::get<Reason>(table.Add(bob_)), Reason::kTooMany);
  table.Ended(first, Reason::kEnded);
  table.Ended(first, Reason::kEnded);
  EXPECT_EQ(table.CountOf(alice_), 1U);
  Added(table, bob_);
}

TEST_F(LinkTableTest, IdIsNeverUsedTwice) {
  std::vector<unsigned char> draws = {0, 1, 1, 0, 2};
  std::size_t next = 0;
  LinkTable table({}, [&] { return LinkId{{draws.at(next++)}}; });
  EXPECT_EQ(Added(table, alice_), LinkId{{1}});
  EXPECT_EQ(Added(table, alice_), LinkId{{2}});
  // Neither is that of a link that has ended: somebody may still ask for it.
  table.Ended(LinkId{{1}}, Reason::kFinished);
  draws.insert(draws.end(), {1, 3});
  EXPECT_EQ(Added(table, alice_), LinkId{{3}});
  EXPECT_EQ(table.Refuses(LinkId{{1}}, alice_, 1), Reason::kFinished);
}

}  // namespace
