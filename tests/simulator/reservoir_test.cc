#include "simulator/reservoir.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/simulator/decks.h"

namespace simulator {
namespace {

using decks::kBlackOil;
using decks::Replaced;

class ReservoirTest : public testing::Test {
 protected:
  static Reservoir Make(const std::string& text) { return Reservoir(parse_deck(text, "X.afi")); }
  double Get(const std::string& well, const std::string& property) {
    return reservoir_.well_property(well, property);
  }
  void Limit(const std::string& well, const std::string& name, double value) {
    ASSERT_TRUE(reservoir_.set_constraint(well, name, value, "USER"));
  }

  Reservoir reservoir_ = Make(kBlackOil);
};

TEST_F(ReservoirTest, StartsAtThePressureAndProductivityOfTheDeck) {
  EXPECT_NEAR(reservoir_.pressure(), 280, 1e-6);
  // Above the bubble point the rate is the index times the drawdown: down to 180 bar on the
  // straight line, from there to 120 bar on Vogel's curve.
  const double x = 120.0 / 180;
  const double expected = 5 * (280 - 180 + 180 / 1.8 * (1 - 0.2 * x - 0.8 * x * x));
  EXPECT_NEAR(Get("P1", "LIQUID_PRODUCTION_RATE"), expected, 1e-6 * expected);
}

TEST_F(ReservoirTest, VolumesAreConservedOverUnevenStepsAndChangesOfControl) {
  const Amounts before = reservoir_.in_place();
  double time = 0;
  for (int n = 0; n < 60; ++n) {
    time += 1 + 37 * (n % 3);
    reservoir_.set_uptime("P1", n % 4 == 1 ? 0.5 : 1);
    reservoir_.set_status("W1", n % 7 == 3 ? "SHUT" : "OPEN");
    Limit("G1", "GAS_INJECTION_RATE", n % 5 == 2 ? 300000 : 50000);
    reservoir_.advance_to(time);
    const Amounts now = reservoir_.in_place();
    const FieldTotals& moved = reservoir_.cumulative();
    ASSERT_NEAR(now.oil + moved.oil, before.oil, 1e-11 * before.oil);
    ASSERT_NEAR(now.gas + moved.gas - moved.gas_injection, before.gas, 1e-11 * before.gas);
    ASSERT_NEAR(now.water + moved.water - moved.water_injection, before.water,
                1e-11 * before.water);
  }
  EXPECT_GT(reservoir_.cumulative().oil, 0.02 * before.oil);
}

TEST_F(ReservoirTest, WellRatesAddUpToWhatLeavesTheTank) {
  const double oil = reservoir_.rates().oil;
  const double before = reservoir_.in_place().oil;
  reservoir_.advance_to(1);
  EXPECT_NEAR(before - reservoir_.in_place().oil, oil, 1e-9 * before);
  EXPECT_NEAR(reservoir_.cumulative().oil, oil, 1e-9 * oil);
}

TEST_F(ReservoirTest, ProductionNeverRisesWithBottomHolePressure) {
  for (const double time : {0.0, 1000.0, 3000.0}) {
    reservoir_.advance_to(time);
    double last = INFINITY;
    for (int pressure = 1; pressure < 420; pressure += 3) {
      Limit("P1", "BOTTOM_HOLE_PRESSURE", pressure);
      const double rate = Get("P1", "OIL_PRODUCTION_RATE");
      ASSERT_LE(rate, last) << pressure;
      ASSERT_GE(rate, 0);
      last = rate;
    }
    EXPECT_EQ(last, 0);  // above the reservoir's pressure nothing comes
    Limit("P1", "BOTTOM_HOLE_PRESSURE", 120);
  }
}

TEST_F(ReservoirTest, TubingHeadPressureFallsAsTheRateRises) {
  double last = INFINITY;
  for (int rate = 10; rate < 800; rate += 10) {
    Limit("P1", "LIQUID_PRODUCTION_RATE", rate);
    const double pressure = Get("P1", "TUBING_HEAD_PRESSURE");
    ASSERT_LE(pressure, last) << rate;
    last = pressure;
  }
  EXPECT_GT(last, 0);
}

TEST_F(ReservoirTest, EverLowerRateLimitsWalkTheInflowCurve) {
  reservoir_.advance_to(1500);
  const double gas = Get("P1", "GAS_PRODUCTION_RATE");
  const double liquid = Get("P1", "LIQUID_PRODUCTION_RATE");
  double last = 0;
  for (int k = 0; k < 10; ++k) {
    const double f = (10.0 - k) / 10;
    Limit("P1", "LIQUID_PRODUCTION_RATE", f * liquid);
    Limit("P1", "GAS_PRODUCTION_RATE", f * gas);
    const double bottom = Get("P1", "BOTTOM_HOLE_PRESSURE");
    const double rate = Get("P1", "LIQUID_PRODUCTION_RATE");
    EXPECT_NEAR(rate, f * liquid, 1e-9 * liquid);
    EXPECT_GT(bottom, last);
    last = bottom;
    // The same pressure imposed on the well gives the same rate.
    Limit("P1", "LIQUID_PRODUCTION_RATE", -1);
    Limit("P1", "GAS_PRODUCTION_RATE", -1);
    Limit("P1", "BOTTOM_HOLE_PRESSURE", bottom);
    EXPECT_NEAR(Get("P1", "LIQUID_PRODUCTION_RATE"), rate, 1e-9 * liquid);
    Limit("P1", "BOTTOM_HOLE_PRESSURE", 120);
  }
}

TEST_F(ReservoirTest, InjectionNeverFallsWithBottomHolePressure) {
  Limit("W1", "WATER_INJECTION_RATE", -1);
  double last = -1;
  for (int pressure = 200; pressure < 420; pressure += 5) {
    Limit("W1", "BOTTOM_HOLE_PRESSURE", pressure);
    const double rate = Get("W1", "WATER_INJECTION_RATE");
    ASSERT_GE(rate, last);
    last = rate;
  }
  EXPECT_NEAR(last, 10 * (415 - reservoir_.pressure()), 1e-6);
}

struct Binding {
  const char* constraint;
  double fraction;  // of what the property is without it
};

class BindingTest : public ReservoirTest, public testing::WithParamInterface<Binding> {};

TEST_P(BindingTest, TightestConstraintIsTheOneThatIsObeyed) {
  reservoir_.advance_to(2500);  // by then water is produced as well
  const double free = Get("P1", GetParam().constraint);
  ASSERT_GT(free, 0);
  Limit("P1", GetParam().constraint, GetParam().fraction * free);
  EXPECT_NEAR(Get("P1", GetParam().constraint), GetParam().fraction * free, 1e-8 * free);
  EXPECT_EQ(reservoir_.text(0, "CONTROL_MODE"), GetParam().constraint);
  EXPECT_GE(Get("P1", "BOTTOM_HOLE_PRESSURE"), 120);
}

INSTANTIATE_TEST_SUITE_P(
    Producer, BindingTest,
    testing::Values(Binding{"OIL_PRODUCTION_RATE", 0.7}, Binding{"GAS_PRODUCTION_RATE", 0.6},
                    Binding{"WATER_PRODUCTION_RATE", 0.5}, Binding{"LIQUID_PRODUCTION_RATE", 0.4},
                    Binding{"BOTTOM_HOLE_PRESSURE", 1.2}, Binding{"TUBING_HEAD_PRESSURE", 1.3}),
    [](const auto& each) { return std::string(each.param.constraint); });

TEST_F(ReservoirTest, LooserConstraintChangesNothing) {
  const double oil = Get("P1", "OIL_PRODUCTION_RATE");
  Limit("P1", "OIL_PRODUCTION_RATE", 2 * oil);
  Limit("P1", "TUBING_HEAD_PRESSURE", 0);
  EXPECT_EQ(Get("P1", "OIL_PRODUCTION_RATE"), oil);
  EXPECT_EQ(reservoir_.text(0, "CONTROL_MODE"), "BOTTOM_HOLE_PRESSURE");
}

TEST_F(ReservoirTest, NegativeValueTakesALimitOff) {
  const double oil = Get("P1", "OIL_PRODUCTION_RATE");
  Limit("P1", "OIL_PRODUCTION_RATE", 100);
  Limit("P1", "OIL_PRODUCTION_RATE", -1);
  EXPECT_EQ(Get("P1", "OIL_PRODUCTION_RATE"), oil);
}

TEST_F(ReservoirTest, UnattainableTubingHeadPressureStopsTheWell) {
  Limit("P1", "TUBING_HEAD_PRESSURE", 500);
  EXPECT_EQ(Get("P1", "OIL_PRODUCTION_RATE"), 0);
}

TEST_F(ReservoirTest, InjectorObeysItsTubingHeadPressure) {
  Limit("W1", "WATER_INJECTION_RATE", -1);
  Limit("W1", "TUBING_HEAD_PRESSURE", 60);
  EXPECT_NEAR(Get("W1", "TUBING_HEAD_PRESSURE"), 60, 1e-6);
  EXPECT_GT(Get("W1", "WATER_INJECTION_RATE"), 0);
}

TEST_F(ReservoirTest, NoInjectorGoesAboveTheFracturePressure) {
  Limit("W1", "WATER_INJECTION_RATE", 1e9);
  EXPECT_NEAR(Get("W1", "BOTTOM_HOLE_PRESSURE"), 1.5 * 280, 1e-9);
}

TEST_F(ReservoirTest, UptimeScalesTheRatesOfAPressureControlledWell) {
  const double oil = Get("P1", "OIL_PRODUCTION_RATE");
  const double gas = Get("P1", "GAS_PRODUCTION_RATE");
  ASSERT_TRUE(reservoir_.set_uptime("P1", 0.4));
  EXPECT_NEAR(Get("P1", "OIL_PRODUCTION_RATE"), 0.4 * oil, 1e-9 * oil);
  EXPECT_NEAR(Get("P1", "GAS_PRODUCTION_RATE"), 0.4 * gas, 1e-9 * gas);
  EXPECT_EQ(Get("P1", "UPTIME_FRACTION"), 0.4);
  EXPECT_FALSE(reservoir_.set_uptime("P1", 1.1));
  EXPECT_FALSE(reservoir_.set_uptime("P1", NAN));
  EXPECT_EQ(Get("P1", "UPTIME_FRACTION"), 0.4);
}

TEST_F(ReservoirTest, RateLimitBindsTheDaysAverage) {
  const double oil = Get("P1", "OIL_PRODUCTION_RATE");
  Limit("P1", "OIL_PRODUCTION_RATE", oil / 2);
  reservoir_.set_uptime("P1", 0.8);
  EXPECT_NEAR(Get("P1", "OIL_PRODUCTION_RATE"), oil / 2, 1e-9 * oil);
}

TEST_F(ReservoirTest, ZeroUptimeMeansNoFlow) {
  reservoir_.set_uptime("P1", 0);
  reservoir_.set_uptime("W1", 0);
  EXPECT_EQ(Get("P1", "OIL_PRODUCTION_RATE"), 0);
  EXPECT_EQ(Get("W1", "WATER_INJECTION_RATE"), 0);
}

TEST_F(ReservoirTest, ShutWellsDoNotFlow) {
  for (const char* well : {"P1", "W1", "G1"}) ASSERT_TRUE(reservoir_.set_status(well, "SHUT"));
  const Amounts before = reservoir_.in_place();
  reservoir_.advance_to(500);
  EXPECT_EQ(reservoir_.in_place().oil, before.oil);
  EXPECT_EQ(reservoir_.in_place().gas, before.gas);
  EXPECT_EQ(reservoir_.in_place().water, before.water);
  EXPECT_EQ(Get("P1", "OIL_PRODUCTION_RATE"), 0);
  EXPECT_EQ(reservoir_.text(0, "STATUS"), "SHUT");
  EXPECT_NEAR(Get("P1", "BOTTOM_HOLE_PRESSURE"), reservoir_.pressure(), 1e-9);
  EXPECT_FALSE(reservoir_.set_status("P1", "open"));
  EXPECT_TRUE(reservoir_.set_status("P1", "OPEN"));
  EXPECT_GT(Get("P1", "OIL_PRODUCTION_RATE"), 0);
}

TEST_F(ReservoirTest, WaterCutRisesUnderWaterInjection) {
  double last = Get("P1", "WATER_CUT");
  EXPECT_EQ(last, 0);
  for (int time = 30; time < 3600; time += 30) {
    reservoir_.advance_to(time);
    const double cut = Get("P1", "WATER_CUT");
    ASSERT_GE(cut, last) << time;
    last = cut;
  }
  EXPECT_GT(last, 0.03);
}

TEST_F(ReservoirTest, GasOilRatioRisesBelowTheBubblePoint) {
  reservoir_ = Make(Replaced(kBlackOil, "thickness = 15", "thickness = 6"));
  reservoir_.set_status("W1", "SHUT");
  reservoir_.set_status("G1", "SHUT");
  Limit("P1", "BOTTOM_HOLE_PRESSURE", 20);
  const double at_start = Get("P1", "GAS_OIL_RATIO");
  reservoir_.advance_to(3650);
  EXPECT_LT(reservoir_.pressure(), 180);
  EXPECT_GT(Get("P1", "GAS_OIL_RATIO"), 1.5 * at_start);
}

TEST_F(ReservoirTest, DepletionLowersPressureAndRate) {
  reservoir_.set_status("W1", "SHUT");
  reservoir_.set_status("G1", "SHUT");
  double pressure = reservoir_.pressure();
  double oil = Get("P1", "OIL_PRODUCTION_RATE");
  for (int time = 100; time < 3650; time += 100) {
    reservoir_.advance_to(time);
    ASSERT_LT(reservoir_.pressure(), pressure);
    ASSERT_LT(Get("P1", "OIL_PRODUCTION_RATE"), oil);
    pressure = reservoir_.pressure();
    oil = Get("P1", "OIL_PRODUCTION_RATE");
  }
}

TEST_F(ReservoirTest, RunsToExactlyTheAskedTimeAndDate) {
  reservoir_.advance_to(2.25);
  EXPECT_EQ(reservoir_.time(), 2.25);
  EXPECT_EQ(reservoir_.start_date(), (DateTime{2020, 2, 27, 0, 0, 0}));
  EXPECT_EQ(reservoir_.date(), (DateTime{2020, 2, 29, 6, 0, 0}));  // a leap year
  reservoir_.advance_to(1);
  EXPECT_EQ(reservoir_.time(), 2.25);
  reservoir_.advance_to(3);
  EXPECT_EQ(reservoir_.date(), (DateTime{2020, 3, 1, 0, 0, 0}));
}

TEST_F(ReservoirTest, EndsAtTheEndTimeOfTheDeck) {
  reservoir_.advance_to(3649);
  EXPECT_FALSE(reservoir_.ended());
  reservoir_.advance_to(1e9);
  EXPECT_TRUE(reservoir_.ended());
  EXPECT_EQ(reservoir_.time(), 3650);
}

TEST_F(ReservoirTest, StaysSoundWhereOneWellCouldEmptyTheTankInAStep) {
  Reservoir greedy =
      Make(Replaced(Replaced(kBlackOil, "productivity_index = 5", "productivity_index = 50000"),
                    "max_step = 10", "max_step = 1000"));
  const Amounts before = greedy.in_place();
  greedy.advance_to(1000);
  const Amounts now = greedy.in_place();
  EXPECT_GT(now.oil, 0);
  EXPECT_GT(greedy.pressure(), 100);
  EXPECT_NEAR(now.oil + greedy.cumulative().oil, before.oil, 1e-9 * before.oil);
}

std::string Small(const std::string& wells, const char* length, const char* width) {
  return Replaced(Replaced(decks::kBlackOilHead + wells, "length = 3000", length), "width = 2000",
                  width);
}

TEST_F(ReservoirTest, InjectorFillsASmallFieldToTheFracturePressureAndNotBeyond) {
  Reservoir small =
      Make(Small(Replaced(decks::kWaterInjector, "INJECTION_RATE = 700", "INJECTION_RATE = 1e9"),
                 "length = 300", "width = 200"));
  double last = small.pressure();
  for (int time = 10; time <= 1000; time += 10) {
    small.advance_to(time);
    ASSERT_LE(small.well_property("W1", "BOTTOM_HOLE_PRESSURE"), 1.5 * 280 + 1e-9) << time;
    ASSERT_GE(small.pressure(), last - 1e-9) << time;
    last = small.pressure();
  }
  EXPECT_NEAR(last, 1.5 * 280, 0.01);
}

// A tank that its wells turn over in days: the pressure used to swing by 5 bar from step to step.
TEST_F(ReservoirTest, SmallTankIsAsSmoothInLongStepsAsInThoseOfADay) {
  const std::string wells =
      decks::kProducer +
      Replaced(decks::kWaterInjector, "INJECTION_RATE = 700", "INJECTION_RATE = 1e9");
  const std::string text = Small(wells, "length = 150", "width = 100");
  Reservoir days = Make(Replaced(text, "max_step = 10", "max_step = 1"));
  Reservoir tens = Make(text);
  const Amounts before = tens.in_place();
  double last = tens.pressure();
  for (int time = 10; time <= 2000; time += 10) {
    tens.advance_to(time);
    days.advance_to(time);
    ASSERT_NEAR(tens.pressure(), days.pressure(), time < 100 ? 15 : 1) << time;
    if (time > 100) {
      ASSERT_LT(tens.pressure(), last) << time;
    }
    last = tens.pressure();
  }
  const Amounts now = tens.in_place();
  const FieldTotals& moved = tens.cumulative();
  EXPECT_NEAR(now.oil + moved.oil, before.oil, 1e-11 * before.oil);
  EXPECT_NEAR(now.gas + moved.gas, before.gas, 1e-11 * before.gas);
  EXPECT_NEAR(now.water + moved.water - moved.water_injection, before.water,
              1e-11 * moved.water_injection);
}

TEST_F(ReservoirTest, PhaseDensitiesAreThoseOfOilGasAndWater) {
  EXPECT_NEAR(Get("P1", "OIL_DENSITY"), 730, 80);
  EXPECT_NEAR(Get("P1", "GAS_DENSITY"), 90, 30);
  EXPECT_NEAR(Get("P1", "WATER_DENSITY"), 1005, 10);
  EXPECT_DOUBLE_EQ(Get("P1", "TEMPERATURE"), 90);
}

TEST_F(ReservoirTest, FieldUnitsGiveTheSameReservoirInOtherNumbers) {
  // The metric deck with every number written in field units.
  const std::string field = R"([run]
units = "FIELD"
fluid = "BLACK_OIL"
start = 2020-02-27
end_time = 3650
[reservoir]
pressure = 4061.0566
temperature = 194
length = 9842.519685
width = 6561.679790
thickness = 49.21259843
porosity = 0.2
water_saturation = 0.2
injection_temperature = 68
[black_oil]
api = 35
gas_gravity = 0.75
bubble_point = 2610.6793
[flow]
oil_viscosity = 0.8
water_viscosity = 0.4
[[well]]
name = "P1"
type = "PRODUCER"
productivity_index = 2.168336
depth = 4265.091864
tubing_diameter = 3.5
[well.constraints]
BOTTOM_HOLE_PRESSURE = 1740.4529
)";
  Reservoir imperial = Make(field);
  Reservoir metric = Make(decks::kBlackOilHead + decks::kProducer);
  imperial.advance_to(1000);
  metric.advance_to(1000);
  EXPECT_NEAR(imperial.pressure() * 0.0689475729, metric.pressure(), 1e-3);
  EXPECT_NEAR(imperial.well_property("P1", "OIL_PRODUCTION_RATE") * 0.158987295,
              metric.well_property("P1", "OIL_PRODUCTION_RATE"), 1e-2);
  EXPECT_NEAR(imperial.well_property("P1", "GAS_PRODUCTION_RATE") * 28316.846592,
              metric.well_property("P1", "GAS_PRODUCTION_RATE"), 2);
  EXPECT_NEAR(imperial.well_property("P1", "TEMPERATURE"), 194, 1e-9);
}

TEST_F(ReservoirTest, InflowCurveRunsFromOpenFlowTowardsTheReservoirPressure) {
  const auto curve = reservoir_.inflow_curve(0, "BOTTOM_HOLE_PRESSURE", 5, 2);
  ASSERT_TRUE(curve.has_value());
  EXPECT_EQ(curve->items,
            (std::vector<std::string>{"BOTTOM_HOLE_PRESSURE", "OIL_PRODUCTION_RATE",
                                      "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE"}));
  ASSERT_EQ(curve->values[0].size(), 5U);
  EXPECT_NEAR(curve->values[1][1] / curve->values[1][0], 0.64, 1e-9);
  for (std::size_t k = 1; k < 5; ++k) {
    EXPECT_GT(curve->values[0][k], curve->values[0][k - 1]);
    EXPECT_LT(curve->values[1][k], curve->values[1][k - 1]);
  }
  EXPECT_FALSE(reservoir_.inflow_curve(0, "PRESSURE", 5, 2).has_value());
}

TEST_F(ReservoirTest, WellThatDoesNotFlowHasNeitherWaterCutNorGasOilRatio) {
  ASSERT_TRUE(reservoir_.set_status("P1", "SHUT"));
  EXPECT_EQ(Get("P1", "WATER_CUT"), 0);
  EXPECT_EQ(Get("P1", "GAS_OIL_RATIO"), 0);
}

TEST_F(ReservoirTest, UnknownTextPropertyHasNoValue) {
  EXPECT_EQ(reservoir_.text(0, "COLOUR"), std::nullopt);
}

TEST_F(ReservoirTest, UnknownWellOrPropertyIsOutOfRange) {
  EXPECT_THROW(Get("P9", "WATER_CUT"), std::out_of_range);
  EXPECT_THROW(Get("P1", "COLOUR"), std::out_of_range);
}

TEST_F(ReservoirTest, InjectorsInflowCurveIsOfItsOwnPhaseAtEitherPressure) {
  const auto gas = reservoir_.inflow_curve(2, "BOTTOM_HOLE_PRESSURE", 4, 1);
  ASSERT_TRUE(gas.has_value());
  EXPECT_EQ(gas->items, (std::vector<std::string>{"BOTTOM_HOLE_PRESSURE", "GAS_INJECTION_RATE"}));
  const auto head = reservoir_.inflow_curve(2, "TUBING_HEAD_PRESSURE", 4, 1);
  ASSERT_TRUE(head.has_value());
  EXPECT_EQ(head->items[0], "TUBING_HEAD_PRESSURE");
  EXPECT_EQ(head->values[1], gas->values[1]);
  for (std::size_t k = 0; k < 4; ++k) EXPECT_LT(head->values[0][k], gas->values[0][k]);
  EXPECT_EQ(reservoir_.inflow_curve(2, "PRESSURE", 4, 1), std::nullopt);
}

TEST_F(ReservoirTest, SettersRefuseUnknownWells) {
  EXPECT_FALSE(reservoir_.set_uptime("P9", 1));
  EXPECT_FALSE(reservoir_.set_constraint("P9", "BOTTOM_HOLE_PRESSURE", 100, "USER"));
  EXPECT_FALSE(reservoir_.create_source("P9", "S", "GAS"));
}

TEST_F(ReservoirTest, InfiniteValueTakesALimitOff) {
  Limit("P1", "OIL_PRODUCTION_RATE", 10);
  ASSERT_NEAR(Get("P1", "OIL_PRODUCTION_RATE"), 10, 1e-6);
  Limit("P1", "OIL_PRODUCTION_RATE", INFINITY);
  EXPECT_GT(Get("P1", "OIL_PRODUCTION_RATE"), 100);
}

TEST_F(ReservoirTest, SourceTakesSoundCompositionsOnly) {
  Reservoir gas = Make(decks::kCompositional);
  EXPECT_FALSE(gas.create_source("G1", "", "GAS"));
  ASSERT_TRUE(gas.create_source("G1", "S", "GAS"));
  EXPECT_TRUE(gas.set_source_composition("S", {"C1"}, {2}));
  EXPECT_FALSE(gas.set_source_composition("S", {"C1", "C3"}, {1}));
  EXPECT_FALSE(gas.set_source_composition("S", {"C1"}, {INFINITY}));
  EXPECT_FALSE(gas.set_source_composition("S", {"C1", "C3"}, {1e308, 1.7e308}));
  EXPECT_FALSE(gas.set_source_composition("S", {"C1"}, {0}));
}

TEST_F(ReservoirTest, UnknownNamesAreRefused) {
  EXPECT_FALSE(reservoir_.find_well("P2").has_value());
  EXPECT_EQ(reservoir_.find_property("SKIN"), nullptr);
  EXPECT_EQ(reservoir_.find_property("TOTAL_MOLE_FRACTION[1]"), nullptr);
  EXPECT_FALSE(reservoir_.set_status("P2", "OPEN"));
  EXPECT_FALSE(reservoir_.set_constraint("P1", "SKIN", 1, "USER"));
  EXPECT_FALSE(reservoir_.create_source("G1", "S", "GAS"));  // not a compositional run
}

}  // namespace
}  // namespace simulator
