#include <string>

#include <gtest/gtest.h>

#include "simulator/reservoir.h"

namespace simulator {
namespace {

Reservoir Example(const std::string& root) {
  return Reservoir(read_deck(deck_path(EXAMPLES_DIR, root)));
}

TEST(ExampleDecksTest, TenWellsDeclineWhileTheirWaterCutRises) {
  Reservoir field = Example("TENWELLS");
  ASSERT_EQ(field.well_count(), 10U);
  const double first = field.rates().oil;
  EXPECT_GT(first, 10000);
  EXPECT_LT(first, 20000);
  double cut = 0;
  for (int month = 1; month <= 120; ++month) {
    field.advance_to(month * 30.4375);
    const FieldTotals now = field.rates();
    ASSERT_GE(now.water / (now.oil + now.water), cut);
    cut = now.water / (now.oil + now.water);
    ASSERT_GT(field.pressure(), 1500);
    ASSERT_LT(field.pressure(), 5000);
    for (std::size_t well = 0; well < field.well_count(); ++well) {
      const double bottom = field.value(well, *field.find_property("BOTTOM_HOLE_PRESSURE"));
      ASSERT_GE(bottom, 1500);
      ASSERT_LE(bottom, 5600);
    }
  }
  field.advance_to(3653);
  EXPECT_TRUE(field.ended());
  EXPECT_LT(field.rates().oil, 0.7 * first);
  EXPECT_GT(cut, 0.25);
}

TEST(ExampleDecksTest, CompositionalFieldProducesMoreMethaneAsGasIsInjected) {
  Reservoir field = Example("COMP");
  const double methane = field.well_property("A-1", "TOTAL_MOLE_FRACTION[3]");
  const double oil = field.rates().oil;
  field.advance_to(5000);
  EXPECT_TRUE(field.ended());
  EXPECT_GT(field.well_property("A-1", "TOTAL_MOLE_FRACTION[3]"), methane + 0.02);
  EXPECT_LT(field.rates().oil, oil);
  EXPECT_GT(field.rates().oil, 0.2 * oil);
  EXPECT_GT(field.pressure(), 120);
}

TEST(ExampleDecksTest, GasMobilityCountsOnceThePressureIsBelowTheBubblePoint) {
  Reservoir field = Example("TENWELLS");
  const auto ratio = [&](const char* well) { return field.well_property(well, "GAS_OIL_RATIO"); };
  field.advance_to(300);
  EXPECT_DOUBLE_EQ(ratio("P6"), ratio("P1"));
  for (const char* injector : {"WI1", "WI2", "WI3", "GI1"}) field.set_status(injector, "SHUT");
  field.advance_to(2100);
  EXPECT_GT(ratio("P6"), 1.02 * ratio("P1"));
  EXPECT_LT(ratio("P5"), 0.99 * ratio("P1"));
  EXPECT_DOUBLE_EQ(ratio("P4"), ratio("P1"));
}

}  // namespace
}  // namespace simulator
