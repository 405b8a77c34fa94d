#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connector/inflow_survey.h"
#include "connector/records.h"
#include "connector/well_table.h"
#include "tests/support/generators.h"

namespace {

using connector::InflowSurvey;
using connector::WellTable;
using Names = std::vector<std::string>;

// One well, with its type and its rates at the first point.
struct Well {
  std::string type;
  double oil = 0;
  double gas = 0;
  double water = 0;
  double waterInjected = 0;
  double gasInjected = 0;
};
std::ostream& operator<<(std::ostream& out, const Well& well) {
  return out << well.type << " oil " << well.oil << " gas " << well.gas << " water " << well.water
             << " injected " << well.waterInjected << ", " << well.gasInjected;
}

rc::Gen<Well> AnyWell() {
  return rc::gen::build<Well>(
      rc::gen::set(&Well::type, rc::gen::element<std::string>("PRODUCER", "WATER_INJECTOR",
                                                              "GAS_INJECTOR", "", "producer")),
      rc::gen::set(&Well::oil, any::Double()), rc::gen::set(&Well::gas, any::Double()),
      rc::gen::set(&Well::water, any::Double()), rc::gen::set(&Well::waterInjected, any::Double()),
      rc::gen::set(&Well::gasInjected, any::Double()));
}
rc::Gen<std::vector<Well>> AnyWells() {
  return rc::gen::container<std::vector<Well>>(AnyWell());
}

Names NamesOf(const std::vector<Well>& wells) {
  Names names;
  for (std::size_t i = 0; i < wells.size(); ++i) names.push_back("W" + std::to_string(i));
  return names;
}

void TakeTypes(InflowSurvey& survey, const std::vector<Well>& wells,
               std::vector<DynWellIPR>& tables) {
  WellTable<std::string> types;
  types.wells = NamesOf(wells);
  types.items = {"TYPE"};
  for (const Well& well : wells) types.values.push_back(well.type);
  survey.TakeTypes(types, tables);
}

// A point of which only the rates matter, in the order in which they are asked for.
void TakePoint(InflowSurvey& survey, const std::vector<Well>& wells,
               std::vector<DynWellIPR>& tables) {
  WellTable<double> answer;
  answer.wells = NamesOf(wells);
  answer.items = survey.properties();
  for (const Well& well : wells) {
    answer.values.insert(answer.values.end(), {well.oil, well.gas, well.water, well.waterInjected,
                                               well.gasInjected, 0, 0, 0, 0, 0, 0});
  }
  survey.TakePoint(answer, tables);
}

// The limits that belong to `fraction` of a well's first rates.
std::vector<double> Limits(const Well& well, double fraction) {
  if (well.type == "PRODUCER") {
    return {(well.water + well.oil) * fraction, well.gas * fraction};
  }
  if (well.type == "WATER_INJECTOR") return {well.waterInjected * fraction};
  return {well.gasInjected * fraction};
}

RC_GTEST_PROP(InflowProperty, FirstLimitsDependOnTypeAndUnitsOnly, (bool metric)) {
  const std::vector<Well> wells = *AnyWells();
  const Names names = NamesOf(wells);
  InflowSurvey survey(names, 0, true, metric);
  std::vector<DynWellIPR> tables;
  TakeTypes(survey, wells, tables);
  const double liquid = metric ? 0.158987 * 100000.0 : 100000.0;
  const double gas = metric ? 28174.0 * 100000.0 : 100000.0;
  for (std::size_t i = 0; i < wells.size(); ++i) {
    if (wells[i].type == "PRODUCER") {
      RC_ASSERT(survey.constraints()[i] ==
                (Names{"LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"}));
      RC_ASSERT(survey.limits()[i] == (std::vector<double>{liquid, gas}));
    } else if (wells[i].type == "WATER_INJECTOR") {
      RC_ASSERT(survey.constraints()[i] == (Names{"WATER_INJECTION_RATE"}));
      RC_ASSERT(survey.limits()[i] == std::vector<double>{liquid});
    } else {
      RC_ASSERT(survey.constraints()[i] == (Names{"GAS_INJECTION_RATE"}));
      RC_ASSERT(survey.limits()[i] == std::vector<double>{gas});
    }
    RC_ASSERT(survey.setters()[i] == Names(survey.constraints()[i].size(), "USER"));
  }
}

// Whatever the later points say and whatever the skewness: the limits are fractions of the rates
// of the first point, by the same fraction for every well.
RC_GTEST_PROP(InflowProperty, LimitsAreTheFractionsOfTheFirstRates, (bool metric)) {
  const std::vector<Well> wells = *AnyWells();
  const double skewness =
      *rc::gen::oneOf(any::Double(), rc::gen::element(0.0, 0.5, 1.0, 2.0, 3.0, -1.0));
  const Names names = NamesOf(wells);
  InflowSurvey survey(names, 0, true, metric);
  std::vector<DynWellIPR> tables;
  TakeTypes(survey, wells, tables);
  for (int point = 1; point <= 10; ++point) {
    std::vector<Well> now = wells;
    if (point > 1) {
      for (Well& well : now) well.oil = well.gas = well.water = well.waterInjected = 12345.0;
    }
    TakePoint(survey, now, tables);
    survey.LowerLimits(point, skewness);
    const double fraction = std::pow((10.0 - point) / 10.0, skewness);
    for (std::size_t i = 0; i < wells.size(); ++i) {
      RC_ASSERT(any::Bits(survey.limits()[i]) == any::Bits(Limits(wells[i], fraction)));
    }
  }
}

// A positive skewness lowers the limits from point to point, to nothing behind the last.
RC_GTEST_PROP(InflowProperty, LimitsOfAProducingWellFallFromPointToPoint, ()) {
  const double skewness = *rc::gen::inRange(1, 400) / 100.0;
  const double rate = *rc::gen::inRange(1, 1'000'000) / 10.0;
  const std::vector<Well> wells = {{"PRODUCER", rate, rate, 0, 0, 0}};
  const Names names = NamesOf(wells);
  InflowSurvey survey(names, 0, false, false);
  std::vector<DynWellIPR> tables;
  TakeTypes(survey, wells, tables);
  double before = rate;
  for (int point = 1; point <= 10; ++point) {
    TakePoint(survey, wells, tables);
    survey.LowerLimits(point, skewness);
    RC_ASSERT(survey.limits()[0][0] < before);
    RC_ASSERT(survey.limits()[0][0] >= 0);
    RC_ASSERT(survey.limits()[0][1] == survey.limits()[0][0]);
    before = survey.limits()[0][0];
  }
  RC_ASSERT(before == 0);
}

}  // namespace
