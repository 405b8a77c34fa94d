#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/wire_bytes.h"
#include "tests/vk_ec/client_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::ThrowsMessage;
using wire::Cstr;
using wire::Doub;
using wire::Inte;
using wire::Mess;
using Strings = std::vector<std::string>;

const std::string kReady = Mess("READY") + Mess("END");

std::string Reply(const std::string& data) {
  return Mess("REPLY") + data + Mess("END");
}

// A simulator that answers every query with one reply and READY.
template <typename Version>
class ClientQueriesTest : public ClientTest<Version> {
 protected:
  void AnswerWith(const std::string& data) { this->simulator_.AnswerNext({Reply(data), kReady}); }

  std::string OnlyRequest() const {
    const auto requests = this->Requests();
    EXPECT_THAT(requests, SizeIs(1));
    return requests.empty() ? "" : requests.front();
  }

  template <typename Query>
  void ExpectRefused(const std::string& data, Query query, const std::string& text) {
    AnswerWith(data);
    EXPECT_THAT(query, ThrowsMessage<std::length_error>(text));
    EXPECT_THROW(this->client_.do_continue(), std::logic_error);
  }
};

TYPED_TEST_SUITE(ClientQueriesTest, BothVersions, VersionNames);

TYPED_TEST(ClientQueriesTest, WellPropertiesAreAskedByItemsThenWells) {
  this->simulator_.AnswerNext(
      {Bytes("05 'REPLY'     00 00 00 00 00 00 00 00  'MESS'"
             "06 'QITEMS'    02 00 00 00 00 00 00 00  'CSTR'"
             "               03 00 00 00 00 00 00 00  'QOP'"
             "               03 00 00 00 00 00 00 00  'BHP'"
             "08 'WELLNAME'  01 00 00 00 00 00 00 00  'CSTR'"
             "               02 00 00 00 00 00 00 00  'P1'"
             "06 'VALUES'    02 00 00 00 00 00 00 00  'DOUB'"
             "               00 00 00 00 00 00 59 40   00 00 00 00 00 00 69 40"
             "08 'WELLNAME'  01 00 00 00 00 00 00 00  'CSTR'"
             "               02 00 00 00 00 00 00 00  'P2'"
             "06 'VALUES'    02 00 00 00 00 00 00 00  'DOUB'"
             "               00 00 00 00 00 00 00 00   00 00 00 00 00 00 e0 3f"
             "03 'END'       00 00 00 00 00 00 00 00  'MESS'"),
       Bytes("05 'READY'     00 00 00 00 00 00 00 00  'MESS'"
             "03 'END'       00 00 00 00 00 00 00 00  'MESS'")});
  const auto results =
      this->client_.template get_properties_for_wells<double>({"P1", "P2"}, {"QOP", "BHP"});
  EXPECT_EQ(this->OnlyRequest(), Bytes("05 'QUERY'     00 00 00 00 00 00 00 00  'MESS'"
                                       "06 'QWELLS'    00 00 00 00 00 00 00 00  'MESS'"
                                       "06 'QITEMS'    02 00 00 00 00 00 00 00  'CSTR'"
                                       "               03 00 00 00 00 00 00 00  'QOP'"
                                       "               03 00 00 00 00 00 00 00  'BHP'"
                                       "08 'WELNAMES'  02 00 00 00 00 00 00 00  'CSTR'"
                                       "               02 00 00 00 00 00 00 00  'P1'"
                                       "               02 00 00 00 00 00 00 00  'P2'"
                                       "03 'END'       00 00 00 00 00 00 00 00  'MESS'"));
  EXPECT_THAT(results.wells, ElementsAre("P1", "P2"));
  EXPECT_THAT(results.items, ElementsAre("QOP", "BHP"));
  EXPECT_THAT(results.values, ElementsAre(ElementsAre(100, 200), ElementsAre(0, 0.5)));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, TextPropertiesOfWellsHaveTheirOwnKind) {
  this->AnswerWith(Cstr("QITEMS", {"TYPE"}) + Cstr("WELLNAME", {"P1"}) +
                   Cstr("VALUES", {"PRODUCER"}));
  const auto results =
      this->client_.template get_properties_for_wells<std::string>({"P1"}, {"TYPE"});
  EXPECT_EQ(this->OnlyRequest(), Bytes("05 'QUERY'       00 00 00 00 00 00 00 00  'MESS'"
                                       "0a 'QWELLS_STR'  00 00 00 00 00 00 00 00  'MESS'"
                                       "06 'QITEMS'      01 00 00 00 00 00 00 00  'CSTR'"
                                       "                 04 00 00 00 00 00 00 00  'TYPE'"
                                       "08 'WELNAMES'    01 00 00 00 00 00 00 00  'CSTR'"
                                       "                 02 00 00 00 00 00 00 00  'P1'"
                                       "03 'END'         00 00 00 00 00 00 00 00  'MESS'"));
  EXPECT_THAT(results.values, ElementsAre(ElementsAre("PRODUCER")));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, RowsAreAppendedOneByOneAndCountedAhead) {
  this->AnswerWith(Cstr("QITEMS", {"A", "B"}) + Cstr("WELLNAME", {"P1"}) + Doub("VALUES", {1, 2}) +
                   Cstr("WELLNAME", {"P2"}) + Doub("VALUES", {3, 4}) + Cstr("WELLNAME", {"P3"}) +
                   Doub("VALUES", {5, 6}));
  auto rows = this->client_.template query_wells<double>({"*"}, {"A", "B"});
  EXPECT_THAT(rows.items(), ElementsAre("A", "B"));
  std::vector<double> values = {0};
  std::vector<std::string> wells;
  while (rows.next(values)) {
    wells.push_back(rows.well());
    EXPECT_EQ(rows.estimated_count(), 3U);  // rows of 53 bytes, then the end of 16
  }
  EXPECT_THAT(wells, ElementsAre("P1", "P2", "P3"));
  EXPECT_THAT(values, ElementsAre(0, 1, 2, 3, 4, 5, 6));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, NoRowComesAfterTheLast) {
  const std::string row = Cstr("WELLNAME", {"P1"}) + Doub("VALUES", {1});
  for (const std::string& answer :
       {Cstr("QITEMS", {"A"}) + row, Cstr("QITEMS", {"A"}), std::string()}) {
    this->AnswerWith(answer);
    auto rows = this->client_.template query_wells<double>({"*"}, {"A"});
    std::vector<double> values;
    while (rows.next(values)) {
    }
    const std::vector<double> before = values;
    for (int again = 0; again < 2; ++again) {
      EXPECT_THAT([&] { rows.next(values); },
                  ThrowsMessage<std::length_error>("Not enough data read from network"));
    }
    EXPECT_EQ(values, before);
    this->ExpectUsable();
  }
}

TYPED_TEST(ClientQueriesTest, RowsDroppedHalfWayRefuseEveryLaterMessage) {
  const std::string row = Cstr("WELLNAME", {"P1"}) + Doub("VALUES", {1});
  this->AnswerWith(Cstr("QITEMS", {"A"}) + row + row);
  {
    auto rows = this->client_.template query_wells<double>({"*"}, {"A"});
    std::vector<double> values;
    ASSERT_TRUE(rows.next(values));
  }
  this->ExpectUnusable();
  this->ExpectUnusable();
}

TYPED_TEST(ClientQueriesTest, WellNameOfAnotherTypeIsRefused) {
  this->AnswerWith(Cstr("QITEMS", {"QOP"}) + Doub("WELLNAME", {1}) + Doub("VALUES", {1}));
  EXPECT_THAT(
      [&] { this->client_.template get_properties_for_wells<double>({"P1"}, {"QOP"}); },
      ThrowsMessage<std::invalid_argument>("Incorrect header (received: DOUB vs expected: CSTR )"));
}

TYPED_TEST(ClientQueriesTest, WellPropertiesAreThoseOfTheAnswerRatherThanThoseAskedFor) {
  this->AnswerWith(Cstr("QITEMS", {"B", "A", "C"}) + Cstr("WELLNAME", {"X"}) +
                   Doub("VALUES", {1, 2, 3}));
  const auto results = this->client_.template get_properties_for_wells<double>({"Y", "Z"}, {"A"});
  EXPECT_THAT(results.wells, ElementsAre("X"));
  EXPECT_THAT(results.items, ElementsAre("B", "A", "C"));
  EXPECT_THAT(results.values, ElementsAre(ElementsAre(1, 2, 3)));
}

TYPED_TEST(ClientQueriesTest, WellPropertiesEndedAtOnceAreEmptyAndReadyIsStillRead) {
  this->AnswerWith("");
  const auto results = this->client_.template get_properties_for_wells<double>({"P1"}, {"QOP"});
  EXPECT_THAT(results.wells, IsEmpty());
  EXPECT_THAT(results.items, IsEmpty());
  EXPECT_THAT(results.values, IsEmpty());
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, EmptyListsAreAskedForAsTheyAre) {
  this->AnswerWith(Cstr("QITEMS", {}));
  const auto results = this->client_.template get_properties_for_wells<double>({}, {});
  EXPECT_EQ(this->OnlyRequest(), Mess("QUERY") + Mess("QWELLS") + Cstr("QITEMS", {}) +
                                     Cstr("WELNAMES", {}) + Mess("END"));
  EXPECT_THAT(results.items, IsEmpty());
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, ShortRowOfWellValuesIsRefused) {
  this->ExpectRefused(
      Cstr("QITEMS", {"QOP", "BHP"}) + Cstr("WELLNAME", {"P1"}) + Doub("VALUES", {1}),
      [&] {
        this->client_.template get_properties_for_wells<double>({"P1"}, {"QOP", "BHP"});
      },
      "Incorrect header (received: VALUES-1-DOUB vs expected: VALUES-2-DOUB)");
}

TYPED_TEST(ClientQueriesTest, WellValuesOfTheOtherTypeAreRefused) {
  this->ExpectRefused(
      Cstr("QITEMS", {"QOP"}) + Cstr("WELLNAME", {"P1"}) + Cstr("VALUES", {"1"}),
      [&] { this->client_.template get_properties_for_wells<double>({"P1"}, {"QOP"}); },
      "Incorrect header (received: VALUES-1-CSTR vs expected: VALUES-1-DOUB)");
}

TYPED_TEST(ClientQueriesTest, WellAnswerMustBeginWithItsItems) {
  this->ExpectRefused(
      Cstr("WELLNAME", {"P1"}),
      [&] { this->client_.template get_properties_for_wells<double>({"P1"}, {"QOP"}); },
      "Incorrect header (received: WELLNAME-1-CSTR vs expected: QITEMS-1-...)");
}

TYPED_TEST(ClientQueriesTest, TwoNamesOfOneWellAreRefused) {
  this->ExpectRefused(
      Cstr("QITEMS", {"QOP"}) + Cstr("WELLNAME", {"P1", "P2"}),
      [&] { this->client_.template get_properties_for_wells<double>({"P1"}, {"QOP"}); },
      "Incorrect header (received: WELLNAME-2-CSTR vs expected: WELLNAME-1-...)");
}

TYPED_TEST(ClientQueriesTest, WellNameThatIsNotTextIsATypeError) {
  this->AnswerWith(Cstr("QITEMS", {"QOP"}) + Doub("WELLNAME", {1}));
  EXPECT_THAT(
      [&] { this->client_.template get_properties_for_wells<double>({"P1"}, {"QOP"}); },
      ThrowsMessage<std::invalid_argument>("Incorrect header (received: DOUB vs expected: CSTR )"));
}

// Only a message header named END ends an answer.
TYPED_TEST(ClientQueriesTest, EndOfAnotherTypeDoesNotEndAnAnswer) {
  this->ExpectRefused(
      Cstr("END", {}), [&] { this->client_.get_constraints_for_wells({"P1"}); },
      "Incorrect header (received: END-0-CSTR vs expected: WELLNAME-1-...)");
}

TYPED_TEST(ClientQueriesTest, DataNamedEndDoNotEndAnAnswer) {
  this->ExpectRefused(
      Cstr("END", {"P1"}), [&] { this->client_.get_constraints_for_wells({"P1"}); },
      "Incorrect header (received: END-1-CSTR vs expected: WELLNAME-1-...)");
}

TYPED_TEST(ClientQueriesTest, AnswerThatIsNoReplyIsRefused) {
  this->simulator_.AnswerNext({kReady});
  EXPECT_THAT([&] { this->client_.get_reservoir_fluid_model_description(); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: READY-0-MESS vs expected: REPLY-0-MESS)"));
}

TYPED_TEST(ClientQueriesTest, AnswerWithoutItsEndIsTooShort) {
  this->simulator_.AnswerNext({Mess("REPLY") + Cstr("QITEM", {"A"}) + Inte("VALUES", {1})});
  EXPECT_THAT([&] { this->client_.template get_reservoir_properties<int>({"A"}); },
              ThrowsMessage<std::length_error>("Not enough data read from network"));
}

TYPED_TEST(ClientQueriesTest, BytesAfterAReplyAreCounted) {
  this->simulator_.AnswerNext({Reply("") + "xy", kReady});
  EXPECT_THAT([&] { this->client_.template get_reservoir_properties<int>({"A"}); },
              ThrowsMessage<std::length_error>(
                  "Received message is longer than expected (received: 36 vs expected: 34)"));
}

TYPED_TEST(ClientQueriesTest, ReservoirNumbersAreRowsOfAnyLength) {
  this->simulator_.AnswerNext({Bytes("05 'REPLY'   00 00 00 00 00 00 00 00  'MESS'"
                                     "05 'QITEM'   01 00 00 00 00 00 00 00  'CSTR'"
                                     "             0a 00 00 00 00 00 00 00  'START_DATE'"
                                     "06 'VALUES'  03 00 00 00 00 00 00 00  'INTE'"
                                     "             e8 07 00 00  01 00 00 00  1f 00 00 00"
                                     "05 'QITEM'   01 00 00 00 00 00 00 00  'CSTR'"
                                     "             04 00 00 00 00 00 00 00  'NONE'"
                                     "06 'VALUES'  00 00 00 00 00 00 00 00  'INTE'"
                                     "03 'END'     00 00 00 00 00 00 00 00  'MESS'"),
                               kReady});
  const auto results = this->client_.template get_reservoir_properties<int>({"START_DATE"});
  EXPECT_EQ(this->OnlyRequest(), Bytes("05 'QUERY'   00 00 00 00 00 00 00 00  'MESS'"
                                       "06 'QRESVR'  00 00 00 00 00 00 00 00  'MESS'"
                                       "06 'QITEMS'  01 00 00 00 00 00 00 00  'CSTR'"
                                       "             0a 00 00 00 00 00 00 00  'START_DATE'"
                                       "03 'END'     00 00 00 00 00 00 00 00  'MESS'"));
  EXPECT_THAT(results.items, ElementsAre("START_DATE", "NONE"));
  EXPECT_THAT(results.values, ElementsAre(ElementsAre(2024, 1, 31), IsEmpty()));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, ReservoirTextsHaveTheirOwnKind) {
  this->AnswerWith(Cstr("QITEM", {"VK_VERSION"}) + Cstr("VALUES", {"2017.2", "beta"}));
  const auto results = this->client_.template get_reservoir_properties<std::string>({"VK_VERSION"});
  EXPECT_EQ(this->OnlyRequest(), Bytes("05 'QUERY'       00 00 00 00 00 00 00 00  'MESS'"
                                       "0a 'QRESVR_STR'  00 00 00 00 00 00 00 00  'MESS'"
                                       "06 'QITEMS'      01 00 00 00 00 00 00 00  'CSTR'"
                                       "                 0a 00 00 00 00 00 00 00  'VK_VERSION'"
                                       "03 'END'         00 00 00 00 00 00 00 00  'MESS'"));
  EXPECT_THAT(results.items, ElementsAre("VK_VERSION"));
  EXPECT_THAT(results.values, ElementsAre(ElementsAre("2017.2", "beta")));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, ReservoirValuesOfTheOtherTypeAreRefused) {
  this->ExpectRefused(
      Cstr("QITEM", {"A"}) + Cstr("VALUES", {"1"}),
      [&] { this->client_.template get_reservoir_properties<int>({"A"}); },
      "Incorrect header (received: VALUES-1-CSTR vs expected: VALUES-1-INTE)");
}

TYPED_TEST(ClientQueriesTest, ConstraintsAreListedPerWell) {
  this->simulator_.AnswerNext({Bytes("05 'REPLY'     00 00 00 00 00 00 00 00  'MESS'"
                                     "08 'WELLNAME'  01 00 00 00 00 00 00 00  'CSTR'"
                                     "               02 00 00 00 00 00 00 00  'P1'"
                                     "05 'ITEMS'     01 00 00 00 00 00 00 00  'CSTR'"
                                     "               03 00 00 00 00 00 00 00  'QOP'"
                                     "06 'VALUES'    01 00 00 00 00 00 00 00  'DOUB'"
                                     "               00 00 00 00 00 00 59 40"
                                     "07 'SETTERS'   01 00 00 00 00 00 00 00  'CSTR'"
                                     "               04 00 00 00 00 00 00 00  'USER'"
                                     "03 'END'       00 00 00 00 00 00 00 00  'MESS'"),
                               kReady});
  const auto results = this->client_.get_constraints_for_wells({"P1"});
  EXPECT_EQ(this->OnlyRequest(), Bytes("05 'QUERY'          00 00 00 00 00 00 00 00  'MESS'"
                                       "0d 'QWCONSTRAINTS'  00 00 00 00 00 00 00 00  'MESS'"
                                       "08 'WELNAMES'       01 00 00 00 00 00 00 00  'CSTR'"
                                       "                    02 00 00 00 00 00 00 00  'P1'"
                                       "03 'END'            00 00 00 00 00 00 00 00  'MESS'"));
  EXPECT_THAT(results.wells, ElementsAre("P1"));
  EXPECT_THAT(results.items, ElementsAre(ElementsAre("QOP")));
  EXPECT_THAT(results.values, ElementsAre(ElementsAre(100)));
  EXPECT_THAT(results.setters, ElementsAre(ElementsAre("USER")));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, WellsMayHaveDifferentNumbersOfConstraints) {
  this->AnswerWith(Cstr("WELLNAME", {"P1"}) + Cstr("ITEMS", {}) + Doub("VALUES", {}) +
                   Cstr("SETTERS", {}) + Cstr("WELLNAME", {"P2"}) + Cstr("ITEMS", {"A", "B"}) +
                   Doub("VALUES", {1, 2}) + Cstr("SETTERS", {"USER", "FM"}));
  const auto results = this->client_.get_constraints_for_wells({"P1", "P2"});
  EXPECT_THAT(results.wells, ElementsAre("P1", "P2"));
  EXPECT_THAT(results.items, ElementsAre(IsEmpty(), ElementsAre("A", "B")));
  EXPECT_THAT(results.values, ElementsAre(IsEmpty(), ElementsAre(1, 2)));
  EXPECT_THAT(results.setters, ElementsAre(IsEmpty(), ElementsAre("USER", "FM")));
}

TYPED_TEST(ClientQueriesTest, ConstraintValuesMustBeAsManyAsTheirItems) {
  this->ExpectRefused(
      Cstr("WELLNAME", {"P1"}) + Cstr("ITEMS", {"A", "B"}) + Doub("VALUES", {1}),
      [&] { this->client_.get_constraints_for_wells({"P1"}); },
      "Incorrect header (received: VALUES-1-DOUB vs expected: VALUES-2-DOUB)");
}

TYPED_TEST(ClientQueriesTest, ConstraintSettersMustBeAsManyAsTheirItems) {
  this->ExpectRefused(
      Cstr("WELLNAME", {"P1"}) + Cstr("ITEMS", {"A"}) + Doub("VALUES", {1}) + Cstr("SETTERS", {}),
      [&] { this->client_.get_constraints_for_wells({"P1"}); },
      "Incorrect header (received: SETTERS-0-CSTR vs expected: SETTERS-1-CSTR)");
}

TYPED_TEST(ClientQueriesTest, InflowCurvesAreAskedWithPointsAndSkewness) {
  this->simulator_.AnswerNext(
      {Bytes("05 'REPLY'     00 00 00 00 00 00 00 00  'MESS'"
             "08 'WELLNAME'  01 00 00 00 00 00 00 00  'CSTR'"
             "               02 00 00 00 00 00 00 00  'P1'"
             "07 'NPOINTS'   01 00 00 00 00 00 00 00  'INTE'  02 00 00 00"
             "04 'ITEM'      01 00 00 00 00 00 00 00  'CSTR'"
             "               03 00 00 00 00 00 00 00  'BHP'"
             "06 'VALUES'    02 00 00 00 00 00 00 00  'DOUB'"
             "               00 00 00 00 00 00 59 40   00 00 00 00 00 00 69 40"
             "04 'ITEM'      01 00 00 00 00 00 00 00  'CSTR'"
             "               03 00 00 00 00 00 00 00  'QOP'"
             "06 'VALUES'    02 00 00 00 00 00 00 00  'DOUB'"
             "               00 00 00 00 00 00 f0 3f   00 00 00 00 00 00 00 00"
             "03 'END'       00 00 00 00 00 00 00 00  'MESS'"),
       kReady});
  const auto results = this->client_.get_ipr_data_for_wells({"P1"}, {"BHP"}, 10, 0.5);
  EXPECT_EQ(this->OnlyRequest(), Bytes("05 'QUERY'          00 00 00 00 00 00 00 00  'MESS'"
                                       "08 'QIPRDATA'       00 00 00 00 00 00 00 00  'MESS'"
                                       "08 'WELNAMES'       01 00 00 00 00 00 00 00  'CSTR'"
                                       "                    02 00 00 00 00 00 00 00  'P1'"
                                       "0d 'PRESSURETYPES'  01 00 00 00 00 00 00 00  'CSTR'"
                                       "                    03 00 00 00 00 00 00 00  'BHP'"
                                       "07 'NPOINTS'        01 00 00 00 00 00 00 00  'INTE'"
                                       "                    0a 00 00 00"
                                       "08 'SKEWNESS'       01 00 00 00 00 00 00 00  'DOUB'"
                                       "                    00 00 00 00 00 00 e0 3f"
                                       "03 'END'            00 00 00 00 00 00 00 00  'MESS'"));
  EXPECT_THAT(results.wells, ElementsAre("P1"));
  EXPECT_THAT(results.items, ElementsAre(ElementsAre("BHP", "QOP")));
  EXPECT_THAT(results.values, ElementsAre(ElementsAre(ElementsAre(100, 200), ElementsAre(1, 0))));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, WellWithoutCurvesHasEmptyLists) {
  this->AnswerWith(Cstr("WELLNAME", {"P1"}) + Inte("NPOINTS", {3}) + Cstr("WELLNAME", {"P2"}) +
                   Inte("NPOINTS", {1}) + Cstr("ITEM", {"BHP"}) + Doub("VALUES", {7}));
  const auto results = this->client_.get_ipr_data_for_wells({"P1", "P2"}, {"BHP", "BHP"}, 3, 1);
  EXPECT_THAT(results.wells, ElementsAre("P1", "P2"));
  EXPECT_THAT(results.items, ElementsAre(IsEmpty(), ElementsAre("BHP")));
  EXPECT_THAT(results.values, ElementsAre(IsEmpty(), ElementsAre(ElementsAre(7))));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, CurveMustHaveTheAnnouncedNumberOfPoints) {
  this->ExpectRefused(
      Cstr("WELLNAME", {"P1"}) + Inte("NPOINTS", {3}) + Cstr("ITEM", {"BHP"}) + Doub("VALUES", {1}),
      [&] { this->client_.get_ipr_data_for_wells({"P1"}, {"BHP"}, 3, 1); },
      "Incorrect header (received: VALUES-1-DOUB vs expected: VALUES-3-DOUB)");
}

TYPED_TEST(ClientQueriesTest, NegativeNumberOfPointsFitsNoCurve) {
  this->ExpectRefused(
      Cstr("WELLNAME", {"P1"}) + Inte("NPOINTS", {-1}) + Cstr("ITEM", {"BHP"}) +
          Doub("VALUES", {1}),
      [&] { this->client_.get_ipr_data_for_wells({"P1"}, {"BHP"}, 3, 1); },
      "Incorrect header (received: VALUES-1-DOUB vs expected: VALUES-18446744073709551615-DOUB)");
}

TYPED_TEST(ClientQueriesTest, TwoNamesOfOneCurveAreRefused) {
  this->ExpectRefused(
      Cstr("WELLNAME", {"P1"}) + Inte("NPOINTS", {1}) + Cstr("ITEM", {"BHP", "QOP"}),
      [&] { this->client_.get_ipr_data_for_wells({"P1"}, {"BHP"}, 3, 1); },
      "Incorrect header (received: ITEM-2-CSTR vs expected: ITEM-1-...)");
}

TYPED_TEST(ClientQueriesTest, PressureTypesThatAreNotAsManyAsTheWellsFailBeforeSending) {
  EXPECT_THAT(
      [&] {
        this->client_.get_ipr_data_for_wells({"A", "B", "C"}, {"BHP", "BHP"}, 10, 1);
      },
      ThrowsMessage<std::invalid_argument>("VarnokClient::get_ipr_data_for_wells: inconsistent "
                                           "size of arguments 1 and 2 (3 vs 2)"));
  // Also where there is nothing to ask for.
  EXPECT_THROW(this->client_.get_ipr_data_for_wells({}, {"BHP"}, 0, 1), std::invalid_argument);
  EXPECT_THAT(this->Requests(), IsEmpty());
  this->ExpectUsable();
}

// The simulator reads the number as it travels, in 32 bits.
TYPED_TEST(ClientQueriesTest, MorePointsThanAPositiveNumberHasTravelAsTheyAre) {
  this->AnswerWith("");
  this->client_.get_ipr_data_for_wells({"P1"}, {"BHP"}, 0x80000001, 1);
  EXPECT_EQ(this->OnlyRequest(),
            Mess("QUERY") + Mess("QIPRDATA") + Cstr("WELNAMES", {"P1"}) +
                Cstr("PRESSURETYPES", {"BHP"}) +
                Bytes("07 'NPOINTS'  01 00 00 00 00 00 00 00  'INTE'  01 00 00 80") +
                Doub("SKEWNESS", {1}) + Mess("END"));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, NoPointsOrNoWellsSendNothing) {
  for (const auto& results : {this->client_.get_ipr_data_for_wells({"P1"}, {"BHP"}, 0, 1),
                              this->client_.get_ipr_data_for_wells({}, {}, 10, 1)}) {
    EXPECT_THAT(results.wells, IsEmpty());
    EXPECT_THAT(results.items, IsEmpty());
    EXPECT_THAT(results.values, IsEmpty());
  }
  EXPECT_THAT(this->Requests(), IsEmpty());
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, FieldManagementFluidModelIsItsComponents) {
  this->simulator_.AnswerNext({Bytes("05 'REPLY'   00 00 00 00 00 00 00 00  'MESS'"
                                     "06 'NCOMPS'  02 00 00 00 00 00 00 00  'CSTR'"
                                     "             02 00 00 00 00 00 00 00  'C1'"
                                     "             03 00 00 00 00 00 00 00  'C7+'"
                                     "03 'END'     00 00 00 00 00 00 00 00  'MESS'"),
                               kReady});
  EXPECT_THAT(this->client_.get_field_management_fluid_model_description(),
              ElementsAre("C1", "C7+"));
  EXPECT_EQ(this->OnlyRequest(), Bytes("05 'QUERY'          00 00 00 00 00 00 00 00  'MESS'"
                                       "0d 'QFMFLUIDMODEL'  00 00 00 00 00 00 00 00  'MESS'"
                                       "03 'END'            00 00 00 00 00 00 00 00  'MESS'"));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, NoFieldManagementFluidModelIsEmpty) {
  this->AnswerWith("");
  EXPECT_THAT(this->client_.get_field_management_fluid_model_description(), IsEmpty());
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, ComponentsThatAreNotTextAreATypeError) {
  this->AnswerWith(Inte("NCOMPS", {2}));
  EXPECT_THAT(
      [&] { this->client_.get_field_management_fluid_model_description(); },
      ThrowsMessage<std::invalid_argument>("Incorrect header (received: INTE vs expected: CSTR )"));
}

TYPED_TEST(ClientQueriesTest, SecondComponentListIsRefused) {
  this->ExpectRefused(
      Cstr("NCOMPS", {"C1"}) + Cstr("NCOMPS", {"C1"}),
      [&] { this->client_.get_field_management_fluid_model_description(); },
      "Incorrect header (received: NCOMPS-1-CSTR vs expected: END-0-MESS)");
}

using ClientQueries2016Test = ClientQueriesTest<v2016_2::vk_ec::VarnokClient>;
using ClientQueries2017Test = ClientQueriesTest<v2017_2::vk_ec::VarnokClient>;

TEST_F(ClientQueries2016Test, ComponentListMayHaveAnyName) {
  AnswerWith(Cstr("COMPONENTS", {"C1"}));
  EXPECT_THAT(client_.get_field_management_fluid_model_description(), ElementsAre("C1"));
  ExpectUsable();
}

TEST_F(ClientQueries2017Test, ComponentListMustBeNamed) {
  ExpectRefused(
      Cstr("COMPONENTS", {"C1"}), [&] { client_.get_field_management_fluid_model_description(); },
      "Incorrect header (received: COMPONENTS-1-CSTR vs expected: NCOMPS-1-...)");
}

TYPED_TEST(ClientQueriesTest, ReservoirFluidModelIsDescribedInFull) {
  this->simulator_.AnswerNext(
      {Bytes("05 'REPLY'            00 00 00 00 00 00 00 00  'MESS'"
             "0f 'FLUIDMODELDNAME'  01 00 00 00 00 00 00 00  'CSTR'"
             "                      03 00 00 00 00 00 00 00  'OIL'"
             "07 'EOSNAME'          01 00 00 00 00 00 00 00  'CSTR'"
             "                      02 00 00 00 00 00 00 00  'PR'"
             "06 'NCOMPS'           02 00 00 00 00 00 00 00  'CSTR'"
             "                      02 00 00 00 00 00 00 00  'C1'"
             "                      03 00 00 00 00 00 00 00  'C7+'"
             "03 'BIC'              01 00 00 00 00 00 00 00  'DOUB'  00 00 00 00 00 00 a0 3f"
             "0b 'EOSPROPNAME'      01 00 00 00 00 00 00 00  'CSTR'"
             "                      02 00 00 00 00 00 00 00  'MW'"
             "06 'VALUES'           02 00 00 00 00 00 00 00  'DOUB'"
             "                      00 00 00 00 00 00 30 40   00 00 00 00 00 00 69 40"
             "03 'END'              00 00 00 00 00 00 00 00  'MESS'"),
       kReady});
  const auto models = this->client_.get_reservoir_fluid_model_description();
  EXPECT_EQ(this->OnlyRequest(), Bytes("05 'QUERY'         00 00 00 00 00 00 00 00  'MESS'"
                                       "0c 'QRFLUIDMODEL'  00 00 00 00 00 00 00 00  'MESS'"
                                       "03 'END'           00 00 00 00 00 00 00 00  'MESS'"));
  ASSERT_THAT(models, SizeIs(1));
  EXPECT_EQ(models[0].fluid_model_name, "OIL");
  EXPECT_EQ(models[0].eos_name, "PR");
  EXPECT_THAT(models[0].component_names, ElementsAre("C1", "C7+"));
  EXPECT_THAT(models[0].bic, ElementsAre(0.03125));
  EXPECT_THAT(models[0].eos_property_names, ElementsAre("MW"));
  EXPECT_THAT(models[0].eos_property_values, ElementsAre(ElementsAre(16, 200)));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, TwoFluidModelsAreTwoDescriptionsInOrder) {
  this->AnswerWith(Cstr("FLUIDMODELDNAME", {"A"}) + Cstr("EOSNAME", {"PR"}) + Cstr("NCOMPS", {}) +
                   Doub("BIC", {}) + Cstr("FLUIDMODELDNAME", {"B"}) + Cstr("EOSNAME", {"SRK"}) +
                   Cstr("NCOMPS", {"C1"}) + Doub("BIC", {}) + Cstr("EOSPROPNAME", {"TC"}) +
                   Doub("VALUES", {190.5}) + Cstr("EOSPROPNAME", {"PC"}) + Doub("VALUES", {46}));
  const auto models = this->client_.get_reservoir_fluid_model_description();
  ASSERT_THAT(models, SizeIs(2));
  EXPECT_EQ(models[0].fluid_model_name, "A");
  EXPECT_THAT(models[0].component_names, IsEmpty());
  EXPECT_THAT(models[0].eos_property_names, IsEmpty());
  EXPECT_THAT(models[0].eos_property_values, IsEmpty());
  EXPECT_EQ(models[1].fluid_model_name, "B");
  EXPECT_EQ(models[1].eos_name, "SRK");
  EXPECT_THAT(models[1].eos_property_names, ElementsAre("TC", "PC"));
  EXPECT_THAT(models[1].eos_property_values, ElementsAre(ElementsAre(190.5), ElementsAre(46)));
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, NoReservoirFluidModelIsNoDescription) {
  this->AnswerWith("");
  EXPECT_THAT(this->client_.get_reservoir_fluid_model_description(), IsEmpty());
  this->ExpectUsable();
}

TYPED_TEST(ClientQueriesTest, FluidPropertyMustHaveAValuePerComponent) {
  this->ExpectRefused(
      Cstr("FLUIDMODELDNAME", {"A"}) + Cstr("EOSNAME", {"PR"}) + Cstr("NCOMPS", {"C1", "C2"}) +
          Doub("BIC", {}) + Cstr("EOSPROPNAME", {"TC"}) + Doub("VALUES", {1, 2, 3}),
      [&] { this->client_.get_reservoir_fluid_model_description(); },
      "Incorrect header (received: VALUES-3-DOUB vs expected: VALUES-2-DOUB)");
}

// Larger than what the system holds in a socket, so that neither side can be done before the other.
TYPED_TEST(ClientQueriesTest, LongListsTravelInChunks) {
  Strings wells;
  std::string data = Cstr("QITEMS", {"QOP"});
  for (int i = 0; i < 50000; ++i) {
    wells.push_back("WELL_" + std::to_string(i));
    data += Cstr("WELLNAME", {wells.back()}) + Doub("VALUES", {i * 0.5});
  }
  this->AnswerWith(data);
  const auto results = this->client_.template get_properties_for_wells<double>(wells, {"QOP"});
  EXPECT_TRUE(results.wells == wells);
  ASSERT_THAT(results.values, SizeIs(50000));
  EXPECT_THAT(results.values.back(), ElementsAre(24999.5));
  EXPECT_TRUE(this->OnlyRequest() == Mess("QUERY") + Mess("QWELLS") + Cstr("QITEMS", {"QOP"}) +
                                         Cstr("WELNAMES", wells) + Mess("END"));
  this->ExpectUsable();
}

}  // namespace
