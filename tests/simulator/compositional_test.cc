#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "simulator/reservoir.h"
#include "tests/simulator/decks.h"

namespace simulator {
namespace {

class CompositionalTest : public testing::Test {
 protected:
  std::vector<double> Fractions(const std::string& well) {
    std::vector<double> z;
    for (int i = 1; i <= 5; ++i) {
      z.push_back(reservoir_.well_property(well, "TOTAL_MOLE_FRACTION[" + std::to_string(i) + "]"));
    }
    return z;
  }

  Reservoir reservoir_{parse_deck(decks::kCompositional, "X.afi")};
};

TEST_F(CompositionalTest, MolesOfEveryComponentAreConserved) {
  const Amounts before = reservoir_.in_place();
  double time = 0;
  for (int n = 0; n < 20; ++n) {
    reservoir_.set_status("P1", n % 6 == 4 ? "SHUT" : "OPEN");
    reservoir_.advance_to(time += 5 + 45 * (n % 2));
    const Amounts now = reservoir_.in_place();
    for (std::size_t i = 0; i < before.moles.size(); ++i) {
      ASSERT_NEAR(now.moles[i] + reservoir_.moles_produced()[i] - reservoir_.moles_injected()[i],
                  before.moles[i], 1e-11 * before.moles[i])
          << i;
    }
    ASSERT_NEAR(now.water + reservoir_.cumulative().water - reservoir_.cumulative().water_injection,
                before.water, 1e-11 * before.water);
  }
  EXPECT_GT(reservoir_.moles_produced()[4], 0.01 * before.moles[4]);
  EXPECT_GT(reservoir_.moles_injected()[1], 0);
}

TEST_F(CompositionalTest, ProducerStartsWithTheReservoirFluid) {
  const std::vector<double> z = Fractions("P1");
  const std::vector<double> expected{0.01, 0.50, 0.15, 0.09, 0.25};
  for (std::size_t i = 0; i < z.size(); ++i) EXPECT_NEAR(z[i], expected[i], 1e-9);
  EXPECT_EQ(Fractions("W1"), (std::vector<double>{0, 0, 0, 0, 0}));
}

TEST_F(CompositionalTest, ExternalSourceChangesWhatIsInjectedAndInTimeWhatIsProduced) {
  ASSERT_TRUE(reservoir_.create_source("G1", "SRC", "GAS"));
  EXPECT_EQ(Fractions("G1"), (std::vector<double>{0.02, 0.90, 0.08, 0, 0}));
  ASSERT_TRUE(reservoir_.set_source_composition(
      "SRC", {"TOTAL_MOLE_FRACTION[1]", "TOTAL_MOLE_FRACTION[2]"}, {3, 1}));
  EXPECT_EQ(Fractions("G1"), (std::vector<double>{0.75, 0.25, 0, 0, 0}));
  ASSERT_TRUE(reservoir_.create_source("G1", "SRC", "GAS"));  // which is there, and stays as it is
  EXPECT_EQ(Fractions("G1"), (std::vector<double>{0.75, 0.25, 0, 0, 0}));
  double nitrogen = Fractions("P1")[0];
  for (int n = 1; n <= 9; ++n) {
    reservoir_.advance_to(100 * n);
    const std::vector<double> z = Fractions("P1");
    ASSERT_GT(z[0], nitrogen);
    ASSERT_NEAR(std::accumulate(z.begin(), z.end(), 0.0), 1, 1e-12);
    nitrogen = z[0];
  }
  EXPECT_GT(nitrogen, 0.02);
}

TEST_F(CompositionalTest, SourcesThatMakeNoSenseAreRefused) {
  EXPECT_FALSE(reservoir_.create_source("P1", "SRC", "GAS"));
  EXPECT_FALSE(reservoir_.create_source("W1", "SRC", "GAS"));
  EXPECT_FALSE(reservoir_.create_source("G9", "SRC", "GAS"));
  EXPECT_FALSE(reservoir_.create_source("G1", "SRC", "OIL"));
  EXPECT_FALSE(reservoir_.set_source_composition("SRC", {"C1"}, {1}));
  ASSERT_TRUE(reservoir_.create_source("G1", "SRC", "GAS"));
  EXPECT_FALSE(reservoir_.set_source_composition("SRC", {"TOTAL_MOLE_FRACTION[6]"}, {1}));
  EXPECT_FALSE(reservoir_.set_source_composition("SRC", {"C1", "C3"}, {1, -1}));
  EXPECT_FALSE(reservoir_.set_source_composition("SRC", {"C1"}, {0}));
  EXPECT_EQ(Fractions("G1")[1], 0.90);
  EXPECT_TRUE(reservoir_.set_source_composition("SRC", {"C1"}, {0.4}));
  EXPECT_EQ(Fractions("G1")[1], 1);
}

TEST_F(CompositionalTest, LaterFractionOfAComponentNamedTwiceCounts) {
  ASSERT_TRUE(reservoir_.create_source("G1", "SRC", "GAS"));
  ASSERT_TRUE(
      reservoir_.set_source_composition("SRC", {"TOTAL_MOLE_FRACTION[1]", "C1", "C1"}, {1, 5, 1}));
  EXPECT_EQ(Fractions("G1"), (std::vector<double>{0.5, 0.5, 0, 0, 0}));
}

TEST_F(CompositionalTest, ProductionLeavesTheHeavyEndBehindBelowTheBubblePoint) {
  reservoir_.set_status("W1", "SHUT");
  reservoir_.set_status("G1", "SHUT");
  reservoir_.set_constraint("P1", "BOTTOM_HOLE_PRESSURE", 20, "USER");
  const double ratio = reservoir_.well_property("P1", "GAS_OIL_RATIO");
  reservoir_.advance_to(1000);
  EXPECT_GT(reservoir_.well_property("P1", "GAS_OIL_RATIO"), 1.2 * ratio);
  EXPECT_LT(Fractions("P1")[4], 0.25);
}

TEST_F(CompositionalTest, DensitiesAreThoseOfOilAndGas) {
  EXPECT_NEAR(reservoir_.well_property("P1", "OIL_DENSITY"), 560, 80);
  EXPECT_NEAR(reservoir_.well_property("P1", "GAS_DENSITY"), 130, 60);
}

TEST_F(CompositionalTest, OilWithABubblePointOfLessThanABarFlowsInAStraightLine) {
  const std::string heavy = decks::Replaced(
      decks::Replaced(decks::Replaced(decks::kCompositional, R"("N2", "C1", "C3", "C6", "C7+")",
                                      R"("C3", "C6", "C7+")"),
                      "[0.01, 0.50, 0.15, 0.09, 0.25]", "[0.01, 0.09, 0.90]"),
      "[0.02, 0.90, 0.08, 0, 0]", "[1, 0, 0]");
  const Reservoir oil(parse_deck(heavy, "X.afi"));
  EXPECT_NEAR(oil.well_property("P1", "LIQUID_PRODUCTION_RATE"), 5 * (330 - 120), 1e-6);
}

// The numbers are those of flash calculations made apart from this code.
TEST_F(CompositionalTest, DensitiesBelowTheBubblePointAreThoseOfTheTwoPhasesThere) {
  struct Expected {
    double pressure;
    double oil;
    double gas;
  };
  for (const Expected& each :
       {Expected{120, 625.504, 90.759}, {60, 671.234, 45.161}, {10, 725.642, 8.3564}}) {
    reservoir_.set_constraint("P1", "BOTTOM_HOLE_PRESSURE", each.pressure, "USER");
    ASSERT_NEAR(reservoir_.well_property("P1", "BOTTOM_HOLE_PRESSURE"), each.pressure, 1e-6);
    EXPECT_NEAR(reservoir_.well_property("P1", "OIL_DENSITY"), each.oil, 0.01);
    EXPECT_NEAR(reservoir_.well_property("P1", "GAS_DENSITY"), each.gas, 0.001);
  }
}

TEST_F(CompositionalTest, DensitiesDoNotJumpAtThePressureOfASaturatedReservoir) {
  reservoir_.set_status("W1", "SHUT");
  reservoir_.set_status("G1", "SHUT");
  reservoir_.set_constraint("P1", "BOTTOM_HOLE_PRESSURE", 20, "USER");
  reservoir_.advance_to(1000);
  const double pressure = reservoir_.pressure();
  ASSERT_LT(pressure, 200);
  const auto densities = [&](double at) {
    reservoir_.set_constraint("P1", "BOTTOM_HOLE_PRESSURE", at, "USER");
    return std::vector{reservoir_.well_property("P1", "OIL_DENSITY"),
                       reservoir_.well_property("P1", "GAS_DENSITY")};
  };
  const std::vector<double> at = densities(pressure);
  const std::vector<double> below = densities(pressure - 0.01);
  EXPECT_NEAR(below[0], at[0], 0.02);
  EXPECT_NEAR(below[1], at[1], 0.02);
}

TEST_F(CompositionalTest, MolesAreConservedInATankThatItsWellsTurnOverQuickly) {
  Reservoir small(parse_deck(
      decks::Replaced(decks::Replaced(decks::kCompositional, "length = 2000", "length = 200"),
                      "width = 1500", "width = 150"),
      "X.afi"));
  const Amounts before = small.in_place();
  small.advance_to(60);
  const Amounts now = small.in_place();
  for (std::size_t i = 0; i < before.moles.size(); ++i) {
    EXPECT_NEAR(now.moles[i] + small.moles_produced()[i] - small.moles_injected()[i],
                before.moles[i], 1e-11 * (before.moles[i] + small.moles_injected()[i]))
        << i;
  }
  EXPECT_NEAR(now.water + small.cumulative().water - small.cumulative().water_injection,
              before.water, 1e-11 * (before.water + small.cumulative().water_injection));
}

TEST_F(CompositionalTest, DryGasIsRefusedAtItsLine) {
  for (const char* saturation : {"0.22", "0.2", "0.20000000000000004"}) {
    const std::string gas = decks::Replaced(
        decks::Replaced(
            decks::Replaced(decks::kCompositional, R"("C3", "C6", "C7+")", R"("C2", "C3", "NC4")"),
            "[0.01, 0.50, 0.15, 0.09, 0.25]", "[0.01, 0.90, 0.07, 0.02, 0]"),
        "water_saturation = 0.22", std::string("water_saturation = ") + saturation);
    try {
      const Reservoir reservoir(parse_deck(gas, "X.afi"));
      ADD_FAILURE() << "accepted: " << reservoir.rates().gas;
    } catch (const DeckError& error) {
      EXPECT_STREQ(error.what(),
                   "X.afi:19: the reservoir gives dry gas at its start, and the index of a "
                   "producer is that of its liquid");
    }
  }
}

}  // namespace
}  // namespace simulator
