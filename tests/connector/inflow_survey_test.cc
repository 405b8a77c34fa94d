#include "connector/inflow_survey.h"

#include <array>
#include <cmath>
#include <stdexcept>

#include "tests/connector/connector_fixture.h"

namespace {

template <class Connector>
class InflowTest : public ConnectorTest<Connector> {
 protected:
  using Names = std::vector<std::string>;
  using Numbers = std::vector<double>;

  const Names kAsked = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                        "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "TEMPERATURE",
                        "GAS_DENSITY",          "WATER_DENSITY",       "OIL_DENSITY",
                        "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};
  // Oil 800, gas 5000, water 200.
  const Numbers kProducing = {800, 5000, 200, 0, 0, 180, 6, 62, 50, 2500, 900};

  void SetUp() override { this->Connect(); }

  // Prepares the answers up to the types of the wells.
  void AnswerStart(const std::string& units,
                   const std::vector<std::pair<std::string, std::string>>& wells) {
    this->AnswerQuery(this->Item("UNIT_SYSTEM", {units}));
    this->AnswerSetter();
    std::string rows;
    for (const auto& [name, type] : wells) rows += this->Words(name, {type});
    this->AnswerQuery(wire::Cstr("QITEMS", {"TYPE"}) + rows);
  }
  void AnswerPoint(const Names& items, const std::string& rows) {
    this->AnswerSetter();
    this->AnswerQuery(wire::Cstr("QITEMS", items) + rows);
  }

  // Prepares the whole survey of well W in field units.
  void AnswerSurvey(const std::string& type, const Numbers& point, const Names& items) {
    AnswerStart("TOLMEN_FIELD", {{"W", type}});
    for (int k = 0; k < 10; ++k) AnswerPoint(items, this->Row("W", point));
  }

  int Survey(const Names& wells, double skewness, int components = 0, bool bottom_hole = true) {
    return this->connector_.GetWellIPRData(components, wells, bottom_hole, skewness, tables_);
  }

  static std::string SetLimits(const std::string& wells) {
    return wire::Mess("SET") + wire::Mess("SETWCONSTRAINTS") + wells + wire::Mess("END");
  }
  static std::string Limits(const std::string& well, const Names& items, const Numbers& values) {
    return wire::Cstr("WELLNAME", {well}) + wire::Cstr("ITEMS", items) +
           wire::Doub("VALUES", values) + wire::Cstr("SETTERS", Names(items.size(), "USER"));
  }

  std::vector<DynWellIPR> tables_;
};
TYPED_TEST_SUITE(InflowTest, ConnectorTypes);

constexpr const char* kBadTypes = "Unexpected answer when querying the well status data.";
constexpr const char* kBadPoint = "Unexpected answer when querying the well IPR data.";

TYPED_TEST(InflowTest, SurveyOfAProducerIsThisConversation) {
  this->AnswerSurvey("PRODUCER", this->kProducing, this->kAsked);
  EXPECT_EQ(this->Survey({"W"}, 1), 10);
  const std::vector<std::string> items = {"LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"};
  std::vector<std::string> expected = {
      this->RunQuery("QRESVR_STR", {"UNIT_SYSTEM"}),
      wire::Mess("SET") + wire::Mess("SETWSTATUS") + wire::Cstr("WCLOSURE", {"USER"}) +
          wire::Cstr("SETITEM", {"STATUS"}) + wire::Cstr("WELNAMES", {"W"}) +
          wire::Cstr("VALUES", {"OPEN"}) + this->End(),
      this->WellQuery("QWELLS_STR", {"TYPE"}, {"W"})};
  const std::vector<std::vector<double>> limits = {
      {100000, 100000}, {900, 4500}, {800, 4000}, {700, 3500}, {600, 3000},
      {500, 2500},      {400, 2000}, {300, 1500}, {200, 1000}, {100, 500}};
  for (const std::vector<double>& limit : limits) {
    expected.push_back(this->SetLimits(this->Limits("W", items, limit)));
    expected.push_back(this->WellQuery("QWELLS", this->kAsked, {"W"}));
  }
  EXPECT_EQ(this->Requests(), expected);
}

// A well that obeys its limits answers less at every point; the steps of the limits must not
// shrink with it.
TYPED_TEST(InflowTest, LimitsAreFractionsOfTheFirstPointAndEveryPointIsAnEntry) {
  this->AnswerStart("TOLMEN_FIELD", {{"W", "PRODUCER"}});
  std::vector<std::vector<double>> columns(11);
  for (int k = 0; k < 10; ++k) {
    std::vector<double> row = this->kProducing;
    for (std::size_t i = 0; i < row.size(); ++i) {
      row[i] -= k * 0.25;
      columns[i].push_back(row[i]);
    }
    this->AnswerPoint(this->kAsked, this->Row("W", row));
  }
  EXPECT_EQ(this->Survey({"W"}, 1), 10);

  const std::vector<std::string> requests = this->Requests();
  ASSERT_EQ(requests.size(), 23U);
  const std::vector<std::string> items = {"LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"};
  const std::vector<std::vector<double>> limits = {{900, 4500}, {800, 4000}, {700, 3500},
                                                   {600, 3000}, {500, 2500}, {400, 2000},
                                                   {300, 1500}, {200, 1000}, {100, 500}};
  for (std::size_t k = 0; k < limits.size(); ++k) {
    EXPECT_EQ(requests[5 + 2 * k], this->SetLimits(this->Limits("W", items, limits[k]))) << k;
  }

  ASSERT_EQ(this->tables_.size(), 1U);
  const DynWellIPR& table = this->tables_[0];
  EXPECT_EQ(table.oil_rate, (std::vector<double>{800, 799.75, 799.5, 799.25, 799, 798.75, 798.5,
                                                 798.25, 798, 797.75}));
  EXPECT_EQ(table.gas_rate, columns[1]);
  EXPECT_EQ(table.water_rate, columns[2]);
  EXPECT_EQ(table.temperature, columns[5]);
  EXPECT_EQ(table.gas_density, columns[6]);
  EXPECT_EQ(table.water_density, columns[7]);
  EXPECT_EQ(table.oil_density, columns[8]);
  EXPECT_EQ(table.pressure, columns[9]);
}

TYPED_TEST(InflowTest, SkewnessIsThePowerOfTheFractionsWhateverTheRate) {
  const std::vector<std::string> items = {"WATER_INJECTION_RATE"};
  for (const double skewness : {2.0, 3.0, 0.5, 0.0, -1.0}) {
    for (const double rate : {1000.0, -1000.0}) {
      const std::size_t sent = this->Requests().size();
      this->AnswerSurvey("WATER_INJECTOR", {7, 300, 40, rate, 60, 180, 6, 62, 50, 2500, 900},
                         this->kAsked);
      this->Survey({"W"}, skewness);
      const std::vector<std::string> requests = this->Requests();
      ASSERT_EQ(requests.size(), sent + 23);
      EXPECT_EQ(requests[sent + 3], this->SetLimits(this->Limits("W", items, {100000})));
      for (std::size_t k = 0; k < 9; ++k) {
        const double fraction = std::pow((9.0 - static_cast<double>(k)) / 10.0, skewness);
        EXPECT_EQ(requests[sent + 5 + 2 * k],
                  this->SetLimits(this->Limits("W", items, {rate * fraction})));
      }
    }
  }
  // As these decimal fractions, to the last bit but one.
  const std::array<double, 9> squares = {0.81, 0.64, 0.49, 0.36, 0.25, 0.16, 0.09, 0.04, 0.01};
  for (std::size_t k = 0; k < squares.size(); ++k) {
    EXPECT_DOUBLE_EQ(std::pow((9.0 - static_cast<double>(k)) / 10.0, 2.0), squares[k]);
  }
}

TYPED_TEST(InflowTest, MetricFirstLimitsAreTheMastersOwn) {
  this->AnswerStart("TOLMEN_METRIC",
                    {{"P", "PRODUCER"}, {"I", "WATER_INJECTOR"}, {"G", "GAS_INJECTOR"}});
  for (int k = 0; k < 10; ++k) {
    this->AnswerPoint(this->kAsked, this->Row("P", this->kProducing) +
                                        this->Row("I", this->kProducing) +
                                        this->Row("G", this->kProducing));
  }
  this->Survey({"P", "I", "G"}, 1);
  const double liquid = 0.158987 * 100000.0;
  const double gas = 28174.0 * 100000.0;
  EXPECT_DOUBLE_EQ(liquid, 15898.7);
  EXPECT_EQ(gas, 2817400000.0);
  EXPECT_EQ(this->Requests()[3],
            this->SetLimits(this->Limits("P", {"LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"},
                                         {liquid, gas}) +
                            this->Limits("I", {"WATER_INJECTION_RATE"}, {liquid}) +
                            this->Limits("G", {"GAS_INJECTION_RATE"}, {gas})));
}

TYPED_TEST(InflowTest, ProducerTableHoldsWhatItProduces) {
  this->AnswerSurvey("PRODUCER", this->kProducing, this->kAsked);
  this->Survey({"W"}, 1);
  ASSERT_EQ(this->tables_.size(), 1U);
  const DynWellIPR& table = this->tables_[0];
  EXPECT_EQ(table.pressure, std::vector<double>(10, 2500));
  EXPECT_EQ(table.oil_rate, std::vector<double>(10, 800));
  EXPECT_EQ(table.water_rate, std::vector<double>(10, 200));
  EXPECT_EQ(table.gas_rate, std::vector<double>(10, 5000));
  EXPECT_EQ(table.temperature, std::vector<double>(10, 180));
  EXPECT_EQ(table.gas_density, std::vector<double>(10, 6));
  EXPECT_EQ(table.oil_density, std::vector<double>(10, 50));
  EXPECT_EQ(table.water_density, std::vector<double>(10, 62));
  EXPECT_TRUE(table.mole_fractions.empty());
}

// The answers give every well all five rates; only the right ones may reach its table and limits.
TYPED_TEST(InflowTest, WaterInjectorTableHoldsWhatItInjects) {
  this->AnswerSurvey("WATER_INJECTOR", {11, 12, 13, 3, 4, 180, 6, 62, 50, 2500, 900}, this->kAsked);
  this->Survey({"W"}, 1, 0, false);
  const DynWellIPR& table = this->tables_.at(0);
  EXPECT_EQ(table.oil_rate, std::vector<double>(10, 11));
  EXPECT_EQ(table.water_rate, std::vector<double>(10, 3));
  EXPECT_EQ(table.gas_rate, std::vector<double>(10, 4));
  EXPECT_EQ(table.pressure, std::vector<double>(10, 900));
  EXPECT_EQ(this->Requests()[5],
            this->SetLimits(this->Limits("W", {"WATER_INJECTION_RATE"}, {3 * 0.9})));
}

TYPED_TEST(InflowTest, TableOfAnyOtherWellHoldsWhatItInjects) {
  for (const char* type : {"GAS_INJECTOR", "SOMETHING_ELSE", "", "producer", "PRODUCER2"}) {
    this->tables_.clear();
    const std::size_t sent = this->Requests().size();
    this->AnswerSurvey(type, {11, 12, 13, 3, 4, 180, 6, 62, 50, 2500, 900}, this->kAsked);
    this->Survey({"W"}, 1, 0, false);
    const DynWellIPR& table = this->tables_.at(0);
    EXPECT_EQ(table.oil_rate, std::vector<double>(10, 11));
    EXPECT_EQ(table.water_rate, std::vector<double>(10, 3));
    EXPECT_EQ(table.gas_rate, std::vector<double>(10, 4));
    EXPECT_EQ(table.pressure, std::vector<double>(10, 900));
    EXPECT_EQ(this->Requests()[sent + 5],
              this->SetLimits(this->Limits("W", {"GAS_INJECTION_RATE"}, {4 * 0.9})));
  }
}

TYPED_TEST(InflowTest, MoleFractionsAreAskedByComponentNumberAndFoundByName) {
  std::vector<std::string> items = this->kAsked;
  for (const char* number : {"1", "2", "3"}) {
    items.push_back(std::string("TOTAL_MOLE_FRACTION[") + number + "]");
  }
  const std::vector<std::string> answered(items.rbegin(), items.rend());
  std::vector<double> values = {0.3, 0.2, 0.5};
  values.insert(values.end(), this->kProducing.rbegin(), this->kProducing.rend());
  this->AnswerSurvey("PRODUCER", values, answered);
  this->Survey({"W"}, 1, 3);
  EXPECT_EQ(this->Requests()[4], this->WellQuery("QWELLS", items, {"W"}));
  EXPECT_EQ(this->tables_.at(0).mole_fractions,
            std::vector<std::vector<double>>(10, {0.5, 0.2, 0.3}));
  EXPECT_EQ(this->tables_.at(0).oil_rate, std::vector<double>(10, 800));
}

TYPED_TEST(InflowTest, WellsAreFoundByNameInEveryAnswer) {
  this->AnswerStart("TOLMEN_FIELD", {{"B", "WATER_INJECTOR"}, {"A", "PRODUCER"}});
  const std::vector<double> injecting = {11, 12, 13, 70, 14, 180, 6, 62, 50, 2500, 900};
  for (int k = 0; k < 10; ++k) {
    this->AnswerPoint(this->kAsked, this->Row("B", injecting) + this->Row("A", this->kProducing));
  }
  this->Survey({"A", "B"}, 1);
  EXPECT_EQ(this->tables_.at(0).oil_rate, std::vector<double>(10, 800));
  EXPECT_EQ(this->tables_.at(1).water_rate, std::vector<double>(10, 70));
}

TYPED_TEST(InflowTest, LimitsOfEveryWellAreLowered) {
  this->AnswerStart("TOLMEN_FIELD", {{"A", "PRODUCER"}, {"B", "WATER_INJECTOR"}});
  const std::vector<double> injecting = {11, 12, 13, 70, 14, 180, 6, 62, 50, 2500, 900};
  for (int k = 0; k < 10; ++k) {
    this->AnswerPoint(this->kAsked, this->Row("A", this->kProducing) + this->Row("B", injecting));
  }
  this->Survey({"A", "B"}, 1);
  const std::vector<std::string> requests = this->Requests();
  ASSERT_EQ(requests.size(), 23U);
  const std::vector<std::string> produced = {"LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"};
  EXPECT_EQ(requests[5], this->SetLimits(this->Limits("A", produced, {900, 4500}) +
                                         this->Limits("B", {"WATER_INJECTION_RATE"}, {63})));
}

TYPED_TEST(InflowTest, NoWellsStillMakeEveryExchangeButTheStatus) {
  this->AnswerQuery(this->Item("UNIT_SYSTEM", {"TOLMEN_FIELD"}));
  this->AnswerQuery("");
  for (int k = 0; k < 10; ++k) {
    this->AnswerSetter();
    this->AnswerQuery("");
  }
  EXPECT_EQ(this->Survey({}, 1), 10);
  EXPECT_TRUE(this->tables_.empty());
  EXPECT_EQ(this->Requests().size(), 22U);
}

TYPED_TEST(InflowTest, WellAbsentFromTheTypesFails) {
  this->AnswerStart("TOLMEN_FIELD", {{"X", "PRODUCER"}});
  EXPECT_EQ(this->FailureOf([this] { this->Survey({"W"}, 1); }), kBadTypes);
}

TYPED_TEST(InflowTest, TypeAnswerWithoutAValueFails) {
  this->AnswerQuery(this->Item("UNIT_SYSTEM", {"TOLMEN_FIELD"}));
  this->AnswerSetter();
  this->AnswerQuery(wire::Cstr("QITEMS", {}) + this->Words("W", {}));
  EXPECT_EQ(this->FailureOf([this] { this->Survey({"W"}, 1); }), kBadTypes);
}

// The well's first text is its type, whatever the simulator calls it and whatever comes with it.
TYPED_TEST(InflowTest, TypeIsTheFirstTextOfTheAnswerUnderWhateverName) {
  using Columns = std::vector<std::string>;
  const std::vector<std::pair<Columns, Columns>> answers = {
      {{"KIND"}, {"WATER_INJECTOR"}},
      {{"TYPE", "STATUS"}, {"WATER_INJECTOR", "PRODUCER"}},
      {{"STATUS", "TYPE"}, {"WATER_INJECTOR", "PRODUCER"}}};
  for (const auto& [items, values] : answers) {
    this->AnswerQuery(this->Item("UNIT_SYSTEM", {"TOLMEN_FIELD"}));
    this->AnswerSetter();
    this->AnswerQuery(wire::Cstr("QITEMS", items) + this->Words("W", values));
    for (int k = 0; k < 10; ++k) {
      this->AnswerPoint(this->kAsked, this->Row("W", this->kProducing));
    }
    const std::size_t sent = this->Requests().size();
    this->tables_.clear();
    this->Survey({"W"}, 1);
    EXPECT_EQ(this->Requests()[sent + 3],
              this->SetLimits(this->Limits("W", {"WATER_INJECTION_RATE"}, {100000})))
        << items[0];
  }
}

TYPED_TEST(InflowTest, LaterWellAbsentFromTheTypesFailsWithARecordForIt) {
  this->AnswerStart("TOLMEN_FIELD", {{"A", "PRODUCER"}, {"C", "PRODUCER"}});
  EXPECT_EQ(this->FailureOf([this] { this->Survey({"A", "B", "C"}, 1); }), kBadTypes);
  ASSERT_EQ(this->tables_.size(), 2U);
  EXPECT_TRUE(this->tables_[0].oil_rate.empty());
  EXPECT_EQ(this->Requests().size(), 3U);  // no limits are set
}

TYPED_TEST(InflowTest, LaterWellAbsentFromAPointFailsWithThePointsOfTheWellsBefore) {
  this->AnswerStart("TOLMEN_FIELD", {{"A", "PRODUCER"}, {"B", "PRODUCER"}, {"C", "PRODUCER"}});
  const auto row = [this](const char* well) { return this->Row(well, this->kProducing); };
  this->AnswerPoint(this->kAsked, row("A") + row("B") + row("C"));
  this->AnswerPoint(this->kAsked, row("A") + row("X") + row("C"));
  EXPECT_EQ(this->FailureOf([this] { this->Survey({"A", "B", "C"}, 1); }), kBadPoint);
  ASSERT_EQ(this->tables_.size(), 3U);
  EXPECT_EQ(this->tables_[0].oil_rate, std::vector<double>(2, 800));
  EXPECT_EQ(this->tables_[0].water_density, std::vector<double>(2, 62));
  EXPECT_EQ(this->tables_[1].oil_rate, std::vector<double>(1, 800));
  EXPECT_EQ(this->tables_[2].oil_rate, std::vector<double>(1, 800));
}

// Nothing is left of a survey that failed, and the next one of the same wells sets its own limits.
TYPED_TEST(InflowTest, SurveyAfterFailedOnesBeginsAnew) {
  for (int again = 0; again < 2; ++again) {
    this->AnswerStart("TOLMEN_FIELD", {{"W", "WATER_INJECTOR"}});
    this->AnswerPoint(this->kAsked, this->Row("W", this->kProducing));
    this->AnswerPoint(this->kAsked, "");
    EXPECT_EQ(this->FailureOf([this] { this->Survey({"W"}, 1); }), kBadPoint);
    EXPECT_EQ(this->tables_.at(0).oil_rate.size(), 1U);
    this->tables_.clear();
  }
  const std::size_t sent = this->Requests().size();
  this->AnswerSurvey("PRODUCER", this->kProducing, this->kAsked);
  EXPECT_EQ(this->Survey({"W"}, 1), 10);
  EXPECT_EQ(this->tables_.at(0).oil_rate, std::vector<double>(10, 800));
  EXPECT_EQ(this->Requests()[sent + 3],
            this->SetLimits(this->Limits("W", {"LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"},
                                         {100000, 100000})));
}

TYPED_TEST(InflowTest, WellAbsentFromAPointFailsWithThePointsBefore) {
  this->AnswerStart("TOLMEN_FIELD", {{"W", "PRODUCER"}});
  this->AnswerPoint(this->kAsked, this->Row("W", this->kProducing));
  this->AnswerPoint(this->kAsked, this->Row("X", this->kProducing));
  EXPECT_EQ(this->FailureOf([this] { this->Survey({"W"}, 1); }), kBadPoint);
  EXPECT_EQ(this->tables_.at(0).oil_rate, std::vector<double>{800});
}

TYPED_TEST(InflowTest, EveryPropertyMustBeInTheAnswer) {
  for (std::size_t missing = 0; missing < this->kAsked.size(); ++missing) {
    std::vector<std::string> items = this->kAsked;
    items.erase(items.begin() + static_cast<std::ptrdiff_t>(missing));
    this->AnswerStart("TOLMEN_FIELD", {{"W", "PRODUCER"}});
    this->AnswerPoint(items, this->Row("W", std::vector<double>(items.size())));
    this->tables_.clear();
    EXPECT_EQ(this->FailureOf([this] { this->Survey({"W"}, 1); }), kBadPoint) << missing;
  }
}

TYPED_TEST(InflowTest, DataGoIntoTheFirstRecordsOfAListThatWasNotEmpty) {
  this->tables_.resize(1);
  this->AnswerSurvey("PRODUCER", this->kProducing, this->kAsked);
  this->Survey({"W"}, 1);
  ASSERT_EQ(this->tables_.size(), 2U);
  EXPECT_EQ(this->tables_[0].oil_rate.size(), 10U);
  EXPECT_TRUE(this->tables_[1].oil_rate.empty());
}

TEST(InflowSurveyTest, MostComponentsAreTaken) {
  const std::vector<std::string> wells = {"W"};
  const connector::InflowSurvey survey(wells, 100000, true, false);
  EXPECT_EQ(survey.properties().size(), 100011U);
  EXPECT_EQ(survey.properties().back(), "TOTAL_MOLE_FRACTION[100000]");
}

TYPED_TEST(InflowTest, TooManyComponentsAreRefused) {
  this->AnswerQuery(this->Item("UNIT_SYSTEM", {"TOLMEN_FIELD"}));
  EXPECT_THROW(this->Survey({"W"}, 1, 100001), std::length_error);
  EXPECT_EQ(this->Requests().size(), 1U);
}

}  // namespace
