#include "simulator/equation_of_state.h"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace simulator {
namespace {

std::vector<Component> Named(const std::vector<std::string>& names) {
  std::vector<Component> all;
  all.reserve(names.size());
  for (const std::string& name : names) all.push_back(find_component(name).value());
  return all;
}

TEST(EquationOfStateTest, MethaneAtReservoirConditionsDeviatesFromAnIdealGasAsCharted) {
  // Reduced temperature 1.84, reduced pressure 4.35: the gas charts give a factor of about 0.91.
  const EquationOfState methane(Named({"C1"}), 350);
  const double volume = methane.molar_volume({1}, 200, EquationOfState::Phase::kVapour);
  EXPECT_NEAR(volume / (kGasConstant * 350 / 200), 0.91, 0.03);
}

TEST(EquationOfStateTest, PropaneBoilsAtItsVapourPressure) {
  // 9.98 bar at 300 K.
  const EquationOfState propane(Named({"C3"}), 300);
  EXPECT_NEAR(propane.bubble_point({1}, 50), 9.98, 0.2);
}

TEST(EquationOfStateTest, BubblePointsOfAFewBarAndLessAreFound) {
  const EquationOfState heavy(Named({"C3", "C6", "C7+"}), 378.15);
  EXPECT_NEAR(heavy.bubble_point({0.01, 0.09, 0.90}, 330), 0.58006, 1e-4);
  EXPECT_NEAR(heavy.bubble_point({0.03, 0.09, 0.88}, 330), 1.25051, 1e-4);
  EXPECT_NEAR(heavy.bubble_point({0, 0.01, 0.99}, 330), 0.038589, 1e-5);
  const EquationOfState cold(Named({"C7+"}), 288);
  EXPECT_EQ(cold.bubble_point({1}, 330), 0);
}

TEST(EquationOfStateTest, BubblePointsNearACriticalPointAreFound) {
  const EquationOfState mixture(Named({"C1", "C3", "C7+"}), 340);
  const std::vector<double> z{0.40, 0.57, 0.03};
  const double bubble_point = mixture.bubble_point(z, 400);
  EXPECT_NEAR(bubble_point, 111.6, 0.2);
  EXPECT_EQ(mixture.flash(z, bubble_point * 1.0001).vapour_fraction, 0);
  const double below = mixture.flash(z, bubble_point * 0.999).vapour_fraction;
  EXPECT_GT(below, 0);
  EXPECT_LT(below, 0.05);
}

TEST(EquationOfStateTest, ThinMixtureIsVapourHoweverHeavyItIs) {
  const EquationOfState mixture(Named({"C3", "NC4"}), 300);
  const Flash flash = mixture.flash({0.5, 0.5}, 1);
  EXPECT_EQ(flash.vapour_fraction, 1);
  EXPECT_EQ(mixture.flash({0.5, 0.5}, 20).vapour_fraction, 0);
}

TEST(EquationOfStateTest, FlashKeepsEveryComponent) {
  const std::vector<double> z{0.5, 0.3, 0.2};
  const EquationOfState mixture(Named({"C1", "NC4", "C7+"}), 360);
  const Flash flash = mixture.flash(z, 60);
  ASSERT_GT(flash.vapour_fraction, 0.1);
  ASSERT_LT(flash.vapour_fraction, 0.9);
  for (std::size_t i = 0; i < z.size(); ++i) {
    EXPECT_NEAR(
        flash.vapour_fraction * flash.vapour[i] + (1 - flash.vapour_fraction) * flash.liquid[i],
        z[i], 1e-9);
  }
  EXPECT_GT(flash.vapour[0], flash.liquid[0]);
}

TEST(EquationOfStateTest, OnePhaseAboveTheBubblePointTwoBelow) {
  const std::vector<double> z{0.4, 0.2, 0.4};
  const EquationOfState mixture(Named({"C1", "C3", "C7+"}), 370);
  const double bubble_point = mixture.bubble_point(z, 600);
  ASSERT_GT(bubble_point, 50);
  EXPECT_EQ(mixture.flash(z, bubble_point * 1.01).vapour_fraction, 0);
  const double below = mixture.flash(z, bubble_point * 0.99).vapour_fraction;
  EXPECT_GT(below, 0);
  EXPECT_LT(below, 0.05);
}

TEST(EquationOfStateTest, VolumeFallsAsPressureRises) {
  const std::vector<double> z{0.4, 0.2, 0.4};
  const EquationOfState mixture(Named({"C1", "C3", "C7+"}), 370);
  double last = INFINITY;
  for (int pressure = 1; pressure < 600; pressure += 2) {
    const double volume = mixture.flash(z, pressure).volume();
    ASSERT_LT(volume, last) << pressure;
    last = volume;
  }
}

TEST(ComponentsTest, InteractionCoefficientsAreSymmetric) {
  EXPECT_DOUBLE_EQ(binary_interaction("CO2", "C1"), 0.105);
  EXPECT_DOUBLE_EQ(binary_interaction("C1", "CO2"), 0.105);
  EXPECT_DOUBLE_EQ(binary_interaction("H2S", "N2"), 0.130);
  EXPECT_DOUBLE_EQ(binary_interaction("N2", "H2S"), 0.130);
  EXPECT_DOUBLE_EQ(binary_interaction("C1", "C7+"), 0);
}

}  // namespace
}  // namespace simulator
