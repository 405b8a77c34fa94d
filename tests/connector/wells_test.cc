#include <bit>
#include <cstdint>
#include <limits>

#include <gmock/gmock.h>

#include "tests/connector/connector_fixture.h"

namespace {

using testing::HasSubstr;

template <class Connector>
class WellsTest : public ConnectorTest<Connector> {
 protected:
  using Names = std::vector<std::string>;
  using Numbers = std::vector<double>;

  const Names kAsked = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                        "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "UPTIME_FRACTION",
                        "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};

  // A row of eight different values.
  static std::string Eight(const std::string& well, double first) {
    Numbers values;
    for (int i = 0; i < 8; ++i) values.push_back(first + i);
    return WellsTest::Row(well, values);
  }
  std::string Numeric(const std::string& rows) const { return wire::Cstr("QITEMS", kAsked) + rows; }
  static std::string Statuses(const std::string& rows) {
    return wire::Cstr("QITEMS", {"STATUS"}) + rows;
  }

  // The failure of asking for these wells' operating points.
  std::string Ask(const Names& wells, const std::string& numeric, const std::string& statuses) {
    this->AnswerQuery(numeric);
    this->AnswerQuery(statuses);
    return this->FailureOf([&] { this->connector_.GetWellOpPtData(wells, points_); });
  }

  void ExpectPoint(std::size_t place, double oil_rate, const std::string& status) const {
    ASSERT_LT(place, points_.size());
    EXPECT_EQ(points_[place].oil_rate, oil_rate);
    EXPECT_EQ(points_[place].status, status);
  }

  void SetUp() override { this->Connect(); }

  std::vector<DynWellOpPt> points_;
};
TYPED_TEST_SUITE(WellsTest, ConnectorTypes);

constexpr const char* kBadStatuses = "Unexpected answer when querying the well statuses.";
constexpr const char* kBadData = "Unexpected answer when querying the well data.";

TYPED_TEST(WellsTest, StatusListsAllWellsInTheAnswersOrder) {
  this->AnswerQuery(wire::Cstr("QITEMS", {"TYPE", "STATUS"}) +
                    this->Words("P1", {"PRODUCER", "OPEN"}) +
                    this->Words("I1", {"WATER_INJECTOR", "SHUT"}));
  std::vector<StaticWellDef> wells = {{"before", "", ""}};
  this->connector_.GetWellStatus(wells);
  ASSERT_EQ(wells.size(), 2U);
  EXPECT_EQ(wells[0].name, "P1");
  EXPECT_EQ(wells[0].type, "PRODUCER");
  EXPECT_EQ(wells[0].status, "OPEN");
  EXPECT_EQ(wells[1].name, "I1");
  EXPECT_EQ(wells[1].type, "WATER_INJECTOR");
  EXPECT_EQ(wells[1].status, "SHUT");
  EXPECT_EQ(this->Requests(),
            std::vector<std::string>{this->WellQuery("QWELLS_STR", {"TYPE", "STATUS"}, {"*"})});
}

TYPED_TEST(WellsTest, StatusNamesInAnotherOrderFailAndLeaveTheListEmpty) {
  this->AnswerQuery(wire::Cstr("QITEMS", {"STATUS", "TYPE"}) + this->Words("P1", {"OPEN", "P"}));
  std::vector<StaticWellDef> wells = {{"before", "", ""}};
  EXPECT_EQ(this->FailureOf([&] { this->connector_.GetWellStatus(wells); }), kBadStatuses);
  EXPECT_TRUE(wells.empty());
}

TYPED_TEST(WellsTest, FailedStatusQueryLeavesTheListEmpty) {
  this->simulator_.AnswerNextAndHangUp("");
  std::vector<StaticWellDef> wells = {{"before", "", ""}};
  EXPECT_EQ(this->FailureOf([&] { this->connector_.GetWellStatus(wells); }), "read: End of file");
  EXPECT_TRUE(wells.empty());
}

TYPED_TEST(WellsTest, StatusAnswerThatBreaksOffLeavesTheListEmpty) {
  this->AnswerQuery(wire::Cstr("QITEMS", {"TYPE", "STATUS"}) +
                    this->Words("P1", {"PRODUCER", "OPEN"}) + this->Words("P2", {"PRODUCER"}));
  std::vector<StaticWellDef> wells = {{"before", "", ""}};
  EXPECT_THROW(this->connector_.GetWellStatus(wells), std::length_error);
  EXPECT_TRUE(wells.empty());
}

TYPED_TEST(WellsTest, StatusAnswerWithoutReadyLeavesTheListEmpty) {
  const std::string rows =
      wire::Cstr("QITEMS", {"TYPE", "STATUS"}) + this->Words("P1", {"PRODUCER", "OPEN"});
  this->simulator_.AnswerNextAndHangUp(wire::Framed(wire::Mess("REPLY") + rows + this->End()));
  std::vector<StaticWellDef> wells;
  EXPECT_EQ(this->FailureOf([&] { this->connector_.GetWellStatus(wells); }), "read: End of file");
  EXPECT_TRUE(wells.empty());
}

TYPED_TEST(WellsTest, EmptyStatusAnswerFails) {
  this->AnswerQuery("");
  std::vector<StaticWellDef> wells;
  EXPECT_EQ(this->FailureOf([&] { this->connector_.GetWellStatus(wells); }), kBadStatuses);
}

TYPED_TEST(WellsTest, QueriesWithoutAResultAreMadeForAllWells) {
  this->AnswerQuery(wire::Cstr("QITEMS", {"ANYTHING"}) + this->Words("P1", {"x"}));
  this->connector_.GetWellStatus();
  this->AnswerQuery("");
  this->connector_.GetWellConstraints();
  EXPECT_EQ(this->Requests(),
            (std::vector<std::string>{this->WellQuery("QWELLS_STR", {"STATUS"}, {"*"}),
                                      wire::Mess("QUERY") + wire::Mess("QWCONSTRAINTS") +
                                          wire::Cstr("WELNAMES", {"*"}) + this->End()}));
}

TYPED_TEST(WellsTest, VariablesAreAppendedInTheOrderAsked) {
  this->AnswerQuery(wire::Cstr("QITEMS", {"X", "Y"}) + this->Row("P1", {1, 2}));
  std::vector<double> values = {7};
  this->connector_.GetWellVariables("P1", {"X", "Y"}, values);
  EXPECT_EQ(values, (std::vector<double>{7, 1, 2}));
  EXPECT_EQ(this->Requests(),
            std::vector<std::string>{this->WellQuery("QWELLS", {"X", "Y"}, {"P1"})});
}

TYPED_TEST(WellsTest, VariableThatTheSimulatorDropsIsNamed) {
  this->AnswerQuery(wire::Cstr("QITEMS", {"X"}) + this->Row("P1", {1}));
  std::vector<double> values;
  EXPECT_EQ(this->FailureOf([&] {
    this->connector_.GetWellVariables("P1", {"X", "WATER_CUT"}, values);
  }),
            "Unexpected answer when querying WATER_CUT");
  this->AnswerQuery(wire::Cstr("QITEMS", {"X"}) + this->Row("P1", {1}));
  EXPECT_EQ(this->FailureOf([&] {
    this->connector_.GetWellVariables("P1", {"WATER_CUT", "X"}, values);
  }),
            "Unexpected answer when querying WATER_CUT");
  EXPECT_EQ(values, std::vector<double>{1});  // of the first time
}

TYPED_TEST(WellsTest, ValuesBeforeTheFirstVariableThatIsDroppedStay) {
  this->AnswerQuery(wire::Cstr("QITEMS", {"C", "A", "B"}) + this->Row("P1", {3, 1, 2}));
  std::vector<double> values = {7};
  EXPECT_EQ(this->FailureOf([&] {
    this->connector_.GetWellVariables("P1", {"A", "B", "X", "C", "Y"}, values);
  }),
            "Unexpected answer when querying X");
  EXPECT_EQ(values, (std::vector<double>{7, 1, 2}));
}

TYPED_TEST(WellsTest, VariableAskedTwiceHasItsFirstValueTwice) {
  this->AnswerQuery(wire::Cstr("QITEMS", {"X", "X", "Y"}) + this->Row("P1", {1, 2, 3}));
  std::vector<double> values;
  this->connector_.GetWellVariables("P1", {"X", "X", "Y"}, values);
  EXPECT_EQ(values, (std::vector<double>{1, 1, 3}));
}

TYPED_TEST(WellsTest, VariablesAreThoseOfTheFirstAnsweredWellWhateverItsName) {
  this->AnswerQuery(wire::Cstr("QITEMS", {"X"}) + this->Row("OTHER", {1}) + this->Row("P1", {2}));
  std::vector<double> values;
  this->connector_.GetWellVariables("P1", {"X"}, values);
  EXPECT_EQ(values, std::vector<double>{1});
}

TYPED_TEST(WellsTest, VariablesInAnotherOrderOrBesideOthersFail) {
  for (const std::vector<std::string>& items :
       {std::vector<std::string>{"Y", "X"}, std::vector<std::string>{"X", "Y", "Z"}}) {
    this->AnswerQuery(wire::Cstr("QITEMS", items) +
                      this->Row("P1", std::vector<double>(items.size())));
    std::vector<double> values;
    EXPECT_EQ(this->FailureOf([&] {
      this->connector_.GetWellVariables("P1", {"X", "Y"}, values);
    }),
              kBadData);
    EXPECT_TRUE(values.empty());
  }
}

TYPED_TEST(WellsTest, VariablesWithoutAWellFail) {
  for (const std::string& answer : {wire::Cstr("QITEMS", {"X"}), std::string()}) {
    this->AnswerQuery(answer);
    std::vector<double> values;
    EXPECT_EQ(this->FailureOf([&] { this->connector_.GetWellVariables("P1", {"X"}, values); }),
              kBadData);
  }
}

TYPED_TEST(WellsTest, NoVariablesOfAWellAreNothingButTheWellMustBeThere) {
  this->AnswerQuery(wire::Cstr("QITEMS", {}) + this->Row("P1", {}));
  std::vector<double> values = {7};
  this->connector_.GetWellVariables("P1", {}, values);
  for (const std::string& answer : {std::string(), wire::Cstr("QITEMS", {})}) {
    this->AnswerQuery(answer);
    EXPECT_EQ(this->FailureOf([&] { this->connector_.GetWellVariables("P1", {}, values); }),
              kBadData);
  }
  EXPECT_EQ(values, std::vector<double>{7});
}

TYPED_TEST(WellsTest, OperatingPointHasItsMembersOrderNotTheQuerys) {
  EXPECT_EQ(this->Ask({"P1"}, this->Numeric(this->Eight("P1", 1)),
                      this->Statuses(this->Words("P1", {"OPEN"}))),
            "no failure");
  ASSERT_EQ(this->points_.size(), 1U);
  const DynWellOpPt& point = this->points_[0];
  EXPECT_EQ(point.status, "OPEN");
  EXPECT_EQ(point.oil_rate, 1);
  EXPECT_EQ(point.gas_rate, 2);
  EXPECT_EQ(point.water_rate, 3);
  EXPECT_EQ(point.water_injection_rate, 4);
  EXPECT_EQ(point.gas_injection_rate, 5);
  EXPECT_EQ(point.uptime_fraction, 6);
  EXPECT_EQ(point.bottom_hole_pressure, 7);
  EXPECT_EQ(point.tubing_head_pressure, 8);
  EXPECT_EQ(this->Requests(),
            (std::vector<std::string>{this->WellQuery("QWELLS", this->kAsked, {"P1"}),
                                      this->WellQuery("QWELLS_STR", {"STATUS"}, {"P1"})}));
}

TYPED_TEST(WellsTest, OperatingPointsComeInTheOrderAskedWhateverTheAnswers) {
  EXPECT_EQ(
      this->Ask({"A", "B"},
                this->Numeric(this->Eight("B", 20) + this->Eight("A", 10) + this->Eight("X", 30)),
                this->Statuses(this->Words("A", {"OPEN"}) + this->Words("B", {"SHUT"}))),
      "no failure");
  ASSERT_EQ(this->points_.size(), 2U);
  this->ExpectPoint(0, 10, "OPEN");
  this->ExpectPoint(1, 20, "SHUT");
}

TYPED_TEST(WellsTest, WellsAfterThoseAskedForAreLeftOut) {
  EXPECT_EQ(this->Ask({"A"}, this->Numeric(this->Eight("A", 10) + this->Eight("X", 30)),
                      this->Statuses(this->Words("A", {"OPEN"}) + this->Words("X", {"SHUT"}))),
            "no failure");
  ASSERT_EQ(this->points_.size(), 1U);
  EXPECT_EQ(this->points_[0].oil_rate, 10);
}

TYPED_TEST(WellsTest, WellAskedTwiceGetsItsFirstRowTwice) {
  EXPECT_EQ(this->Ask({"A", "A"}, this->Numeric(this->Eight("A", 1) + this->Eight("A", 2)),
                      this->Statuses(this->Words("A", {"OPEN"}) + this->Words("A", {"SHUT"}))),
            "no failure");
  ASSERT_EQ(this->points_.size(), 2U);
  this->ExpectPoint(1, 1, "OPEN");
}

TYPED_TEST(WellsTest, OperatingPointsAreAppended) {
  this->points_.resize(1);
  this->Ask({"A"}, this->Numeric(this->Eight("A", 1)), this->Statuses(this->Words("A", {"OPEN"})));
  EXPECT_EQ(this->points_.size(), 2U);
}

TYPED_TEST(WellsTest, NoWellsStillMakeBothQueries) {
  EXPECT_EQ(this->Ask({}, this->Numeric(""), this->Statuses("")), "no failure");
  EXPECT_TRUE(this->points_.empty());
  EXPECT_EQ(this->Requests().size(), 2U);
}

TYPED_TEST(WellsTest, NumericNamesOtherThanAskedFail) {
  std::vector<std::string> names = this->kAsked;
  std::swap(names[0], names[1]);
  this->AnswerQuery(wire::Cstr("QITEMS", names) + this->Eight("A", 1));
  EXPECT_EQ(this->FailureOf([this] { this->connector_.GetWellOpPtData({"A"}, this->points_); }),
            kBadData);
  EXPECT_EQ(this->Requests().size(), 1U);
}

TYPED_TEST(WellsTest, StatusNamesOtherThanAskedFail) {
  EXPECT_EQ(this->Ask({"A"}, this->Numeric(this->Eight("A", 1)),
                      wire::Cstr("QITEMS", {"TYPE"}) + this->Words("A", {"OPEN"})),
            kBadStatuses);
}

TYPED_TEST(WellsTest, FewerNumericRowsThanWellsFail) {
  EXPECT_EQ(this->Ask({"A", "B"}, this->Numeric(this->Eight("A", 1)),
                      this->Statuses(this->Words("A", {"OPEN"}) + this->Words("B", {"OPEN"}))),
            kBadData);
  EXPECT_EQ(this->points_.size(), 1U);  // that of the well before
}

TYPED_TEST(WellsTest, LaterWellWithoutItsStatusFailsWithThePointsBefore) {
  EXPECT_EQ(
      this->Ask({"A", "B", "C"},
                this->Numeric(this->Eight("A", 1) + this->Eight("B", 2) + this->Eight("C", 3)),
                this->Statuses(this->Words("C", {"SHUT"}) + this->Words("A", {"OPEN"}))),
      "Unexpected answer when querying the well status data.");
  ASSERT_EQ(this->points_.size(), 1U);
  this->ExpectPoint(0, 1, "OPEN");
}

TYPED_TEST(WellsTest, LaterWellWithoutItsDataFailsWithThePointsBefore) {
  EXPECT_EQ(this->Ask({"A", "B"}, this->Numeric(this->Eight("X", 9) + this->Eight("A", 1)),
                      this->Statuses(this->Words("A", {"OPEN"}) + this->Words("B", {"SHUT"}))),
            "Unexpected answer when querying the well operating point data.");
  ASSERT_EQ(this->points_.size(), 1U);
  EXPECT_EQ(this->points_[0].oil_rate, 1);
}

// The points of an earlier question stay where they are, before and after a failure.
TYPED_TEST(WellsTest, PointsOfFailingQuestionsAreAppendedEachTime) {
  for (std::size_t again = 1; again <= 2; ++again) {
    EXPECT_EQ(this->Ask({"A", "B"}, this->Numeric(this->Eight("A", 1) + this->Eight("X", 2)),
                        this->Statuses(this->Words("A", {"OPEN"}) + this->Words("B", {"OPEN"}))),
              "Unexpected answer when querying the well operating point data.");
    EXPECT_EQ(this->points_.size(), again);
  }
  EXPECT_EQ(this->Ask({"B"}, this->Numeric(this->Eight("B", 5)),
                      this->Statuses(this->Words("B", {"SHUT"}))),
            "no failure");
  ASSERT_EQ(this->points_.size(), 3U);
  EXPECT_EQ(this->points_[0].oil_rate, 1);
  EXPECT_EQ(this->points_[1].oil_rate, 1);
  this->ExpectPoint(2, 5, "SHUT");
}

TYPED_TEST(WellsTest, WellAbsentFromTheNumericAnswerFails) {
  EXPECT_EQ(this->Ask({"A"}, this->Numeric(this->Eight("X", 1)),
                      this->Statuses(this->Words("A", {"OPEN"}))),
            "Unexpected answer when querying the well operating point data.");
}

TYPED_TEST(WellsTest, WellAbsentFromTheStatusAnswerFails) {
  EXPECT_EQ(this->Ask({"A"}, this->Numeric(this->Eight("A", 1)),
                      this->Statuses(this->Words("X", {"OPEN"}))),
            "Unexpected answer when querying the well status data.");
}

TYPED_TEST(WellsTest, WellAbsentFromBothAnswersFailsAsAbsentFromTheNumericOne) {
  EXPECT_EQ(this->Ask({"A"}, this->Numeric(this->Eight("X", 1)),
                      this->Statuses(this->Words("X", {"OPEN"}))),
            "Unexpected answer when querying the well operating point data.");
}

TYPED_TEST(WellsTest, StatusIsSetWithTheUsersClosure) {
  this->AnswerSetter();
  this->connector_.SetWellStatus({"A", "B"}, {"OPEN", "SHUT"});
  EXPECT_EQ(this->Requests(),
            std::vector<std::string>{
                wire::Mess("SET") + wire::Mess("SETWSTATUS") + wire::Cstr("WCLOSURE", {"USER"}) +
                wire::Cstr("SETITEM", {"STATUS"}) + wire::Cstr("WELNAMES", {"A", "B"}) +
                wire::Cstr("VALUES", {"OPEN", "SHUT"}) + this->End()});
}

TYPED_TEST(WellsTest, UptimeIsSetForAllWellsAtOnce) {
  this->AnswerSetter();
  this->connector_.SetWellUptime({"A", "B"}, {0.5, 1});
  EXPECT_EQ(this->Requests(),
            std::vector<std::string>{wire::Mess("SET") + wire::Mess("SETWELLS") +
                                     wire::Cstr("SETITEM", {"UPTIME_FRACTION"}) +
                                     wire::Cstr("WELNAMES", {"A", "B"}) +
                                     wire::Doub("VALUES", {0.5, 1}) + this->End()});
}

TYPED_TEST(WellsTest, ConstraintsAreTheUsers) {
  this->AnswerSetter();
  this->connector_.SetWellConstraints({"A", "B"}, {{"X", "Y"}, {}}, {{1, 2}, {}});
  EXPECT_EQ(this->Requests(),
            std::vector<std::string>{
                wire::Mess("SET") + wire::Mess("SETWCONSTRAINTS") + wire::Cstr("WELLNAME", {"A"}) +
                wire::Cstr("ITEMS", {"X", "Y"}) + wire::Doub("VALUES", {1, 2}) +
                wire::Cstr("SETTERS", {"USER", "USER"}) + wire::Cstr("WELLNAME", {"B"}) +
                wire::Cstr("ITEMS", {}) + wire::Doub("VALUES", {}) + wire::Cstr("SETTERS", {}) +
                this->End()});
}

// Neither the simulator's numbers nor the master's are ours to judge: a not-a-number that signals
// comes through as well.
TYPED_TEST(WellsTest, NumbersKeepEveryBitOnTheirWay) {
  using Limits = std::numeric_limits<double>;
  const std::vector<double> odd = {std::bit_cast<double>(0x7ff0'0000'0000'0123),
                                   -0.0,
                                   Limits::infinity(),
                                   -Limits::infinity(),
                                   Limits::denorm_min(),
                                   -1,
                                   2,
                                   Limits::lowest()};
  this->AnswerSetter();
  this->connector_.SetWellUptime({"1", "2", "3", "4", "5", "6", "7", "8"}, odd);
  EXPECT_THAT(this->Requests().back(), HasSubstr(wire::Doub("VALUES", odd) + this->End()));
  this->AnswerSetter();
  this->connector_.SetWellConstraints({"A"}, {std::vector<std::string>(8, "X")}, {odd});
  EXPECT_THAT(this->Requests().back(), HasSubstr(wire::Doub("VALUES", odd)));
  EXPECT_EQ(this->Ask({"A"}, this->Numeric(this->Row("A", odd)),
                      this->Statuses(this->Words("A", {"OPEN"}))),
            "no failure");
  const DynWellOpPt& point = this->points_.at(0);
  const auto bits = [](double number) { return std::bit_cast<std::uint64_t>(number); };
  EXPECT_EQ(bits(point.oil_rate), bits(odd[0]));
  EXPECT_EQ(bits(point.gas_rate), bits(odd[1]));
  EXPECT_EQ(bits(point.tubing_head_pressure), bits(odd[7]));
}

TYPED_TEST(WellsTest, SettersOfNoWellsSendNothingWhateverTheRest) {
  this->connector_.SetWellStatus({}, {"OPEN"});
  this->connector_.SetWellUptime({}, {1});
  this->connector_.SetWellConstraints({}, {{"X"}}, {});
  EXPECT_TRUE(this->Requests().empty());
}

TYPED_TEST(WellsTest, ConstraintsThatDoNotMatchFailBeforeAnythingIsSent) {
  using Properties = std::vector<std::vector<std::string>>;
  using Values = std::vector<std::vector<double>>;
  const std::vector<std::pair<Properties, Values>> cases = {{{{"X"}}, {{1}, {2}}},
                                                            {{{"X"}, {"Y"}}, {{1}}},
                                                            {{{"X"}, {"Y"}}, {{1}, {2, 3}}},
                                                            {{{"X"}, {"Y"}, {}}, {{1}, {2}}},
                                                            {{{"X"}, {"Y"}}, {{1}, {2}, {}}}};
  for (const auto& [properties, values] : cases) {
    EXPECT_EQ(this->FailureOf([&, &names = properties, &numbers = values] {
      this->connector_.SetWellConstraints({"A", "B"}, names, numbers);
    }),
              "Incorrect argument dimensions passed to SetWellConstraints");
  }
  EXPECT_TRUE(this->Requests().empty());
}

TYPED_TEST(WellsTest, ListsThatTheClientRefusesLeaveTheConnectionUsable) {
  EXPECT_THROW(this->connector_.SetWellStatus({"A", "B"}, {"OPEN"}), std::invalid_argument);
  EXPECT_THROW(this->connector_.SetWellUptime({"A"}, {}), std::invalid_argument);
  this->AnswerSetter();
  this->connector_.SetWellStatus({"A"}, {"OPEN"});
  EXPECT_EQ(this->Requests().size(), 1U);
}

}  // namespace
