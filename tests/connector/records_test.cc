#include "connector/records.h"

#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include "connector/connector_base.h"

namespace {

static_assert(std::has_virtual_destructor_v<ConnectorBase>);
static_assert(std::is_abstract_v<ConnectorBase>);

// The lists of an EOS in the order in which they are packed.
std::vector<std::vector<double>*> ListsOf(EOS& eos) {
  return {&eos.molecular_weight,  &eos.critical_temperature,
          &eos.critical_pressure, &eos.critical_volume,
          &eos.acentric_factor,   &eos.reserved,
          &eos.boiling_point,     &eos.volume_shift,
          &eos.omega_a,           &eos.omega_b,
          &eos.parachor,          &eos.binary_interaction};
}

TEST(RecordsTest, PointsBeginWithNothing) {
  const DynWellOpPt point;
  for (const double value :
       {point.oil_rate, point.gas_rate, point.water_rate, point.water_injection_rate,
        point.gas_injection_rate, point.bottom_hole_pressure, point.tubing_head_pressure,
        point.uptime_fraction}) {
    EXPECT_EQ(value, 0);
  }
}

TEST(RecordsTest, ResetEmptiesAnEos) {
  EOS eos;
  eos.name = "PR";
  eos.components = {"C1"};
  for (auto* list : ListsOf(eos)) *list = {1};
  eos.component_count = 1;
  eos.reset();
  EXPECT_EQ(eos.name, "");
  EXPECT_TRUE(eos.components.empty());
  for (const auto* list : ListsOf(eos)) EXPECT_TRUE(list->empty());
  EXPECT_EQ(eos.component_count, 0);
}

TEST(RecordsTest, AssignmentCopiesEveryMemberOfAnEos) {
  EOS source;
  source.name = "PR";
  source.components = {"C1"};
  double number = 0;
  for (auto* list : ListsOf(source)) *list = {++number};
  source.component_count = 7;
  EOS target;
  target = source;
  EXPECT_EQ(target.name, "PR");
  EXPECT_EQ(target.components, source.components);
  for (std::size_t i = 0; i < 12; ++i) EXPECT_EQ(*ListsOf(target)[i], *ListsOf(source)[i]);
  EXPECT_EQ(target.component_count, 7);
}

TEST(RecordsTest, MovedTableLeavesNineEmptyMembers) {
  DynWellIPR source;
  const std::vector<std::vector<double>*> lists = {
      &source.pressure,    &source.oil_rate,    &source.water_rate,  &source.gas_rate,
      &source.temperature, &source.gas_density, &source.oil_density, &source.water_density};
  for (auto* list : lists) *list = {1};
  source.mole_fractions = {{1}};
  const DynWellIPR target = std::move(source);
  for (const auto* list : lists) EXPECT_TRUE(list->empty());
  EXPECT_TRUE(source.mole_fractions.empty());  // NOLINT(bugprone-use-after-move): what is tested
  EXPECT_EQ(target.pressure, std::vector<double>{1});
  EXPECT_EQ(target.mole_fractions.size(), 1U);
}

}  // namespace
