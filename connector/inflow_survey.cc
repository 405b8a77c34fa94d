#include "connector/inflow_survey.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>

#include "net/master_link.h"

namespace connector {
namespace {

// The properties by their positions in the list that PropertiesWith() makes.
enum Property : std::size_t {
  kOilProduction,
  kGasProduction,
  kWaterProduction,
  kWaterInjection,
  kGasInjection,
  kTemperature,
  kGasDensity,
  kWaterDensity,
  kOilDensity,
  kBottomHolePressure,
  kTubingHeadPressure,
  kFirstMoleFraction
};

// The limit of the first point, far above any well's rate, and its factors in a metric run. The
// factor of gas is not the usual conversion from cubic feet. It stays, since masters have tables
// that were built with it.
constexpr double kFirstLimit = 100000.0;
constexpr double kMetricLiquid = 0.158987;
constexpr double kMetricGas = 28174.0;

constexpr const char* kBadTypes = "Unexpected answer when querying the well status data.";
constexpr const char* kBadPoint = "Unexpected answer when querying the well IPR data.";

std::vector<std::string> PropertiesWith(int components) {
  if (components > InflowSurvey::kMostComponents) {
    throw std::length_error("Too many components asked for");
  }
  std::vector<std::string> properties = {
      "OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
      "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "TEMPERATURE",
      "GAS_DENSITY",          "WATER_DENSITY",       "OIL_DENSITY",
      "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};
  for (int component = 1; component <= components; ++component) {
    properties.push_back("TOTAL_MOLE_FRACTION[" + std::to_string(component) + "]");
  }
  return properties;
}

}  // namespace

InflowSurvey::InflowSurvey(const std::vector<std::string>& wells, int components, bool bottom_hole,
                           bool metric)
    : wells_(wells),
      well_lookup_(wells),
      bottom_hole_(bottom_hole),
      first_limits_{(metric ? kMetricLiquid : 1.0) * kFirstLimit,
                    (metric ? kMetricGas : 1.0) * kFirstLimit},
      properties_(PropertiesWith(components)),
      property_lookup_(properties_) {}

InflowSurvey::Type InflowSurvey::TypeOf(const std::string& word) {
  if (word == "PRODUCER") return Type::kProducer;
  if (word == "WATER_INJECTOR") return Type::kWaterInjector;
  return Type::kOther;
}

std::vector<std::string> InflowSurvey::ConstraintsOf(Type type) {
  switch (type) {
    case Type::kProducer:
      return {"LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"};
    case Type::kWaterInjector:
      return {"WATER_INJECTION_RATE"};
    default:
      return {"GAS_INJECTION_RATE"};
  }
}

void InflowSurvey::SetLimits(Type type, Rates rates, std::vector<double>& limits) {
  switch (type) {
    case Type::kProducer:
      limits = {rates.liquid, rates.gas};
      return;
    case Type::kWaterInjector:
      limits = {rates.liquid};
      return;
    default:
      limits = {rates.gas};
  }
}

void InflowSurvey::ReservePoints(DynWellIPR& table) {
  for (auto* series :
       {&table.pressure, &table.oil_rate, &table.water_rate, &table.gas_rate, &table.temperature,
        &table.gas_density, &table.oil_density, &table.water_density}) {
    series->reserve(master_link::kTablePoints);
  }
}

void InflowSurvey::TakeTypes(const WellTable<std::string>& types, std::vector<DynWellIPR>& tables) {
  const std::vector<std::size_t> rows = well_lookup_.PositionsIn(types.wells);
  for (std::size_t i = 0; i < wells_.size(); ++i) {
    ReservePoints(tables.emplace_back());
    if (rows[i] == NameLookup::npos || types.items.empty()) throw std::runtime_error(kBadTypes);
    const Type type = TypeOf(types.row(rows[i]).front());
    types_.push_back(type);
    constraints_.push_back(ConstraintsOf(type));
    setters_.emplace_back(constraints_.back().size(), "USER");
    SetLimits(type, first_limits_, limits_.emplace_back());
  }
}

void InflowSurvey::TakePoint(const WellTable<double>& answer, std::vector<DynWellIPR>& tables) {
  const std::vector<std::size_t> rows = well_lookup_.PositionsIn(answer.wells);
  const std::vector<std::size_t> columns = property_lookup_.PositionsIn(answer.items);
  const bool complete =
      std::find(columns.begin(), columns.end(), NameLookup::npos) == columns.end();
  const bool first_point = base_.empty();
  for (std::size_t i = 0; i < wells_.size(); ++i) {
    if (rows[i] == NameLookup::npos || !complete) throw std::runtime_error(kBadPoint);
    const auto values = answer.row(rows[i]);
    const auto value = [&](Property property) { return values[columns[property]]; };
    const bool producer = types_[i] == Type::kProducer;
    const double gas = value(producer ? kGasProduction : kGasInjection);
    const double water = value(producer ? kWaterProduction : kWaterInjection);
    const double oil = value(kOilProduction);
    DynWellIPR& table = tables[i];
    table.oil_rate.push_back(oil);
    table.gas_rate.push_back(gas);
    table.water_rate.push_back(water);
    table.pressure.push_back(value(bottom_hole_ ? kBottomHolePressure : kTubingHeadPressure));
    table.temperature.push_back(value(kTemperature));
    table.oil_density.push_back(value(kOilDensity));
    table.gas_density.push_back(value(kGasDensity));
    table.water_density.push_back(value(kWaterDensity));
    if (columns.size() > kFirstMoleFraction) {
      std::vector<double>& fractions = table.mole_fractions.emplace_back();
      fractions.reserve(columns.size() - kFirstMoleFraction);
      for (std::size_t k = kFirstMoleFraction; k < columns.size(); ++k) {
        fractions.push_back(values[columns[k]]);
      }
    }
    if (first_point) base_.push_back({producer ? water + oil : water, gas});
  }
}

void InflowSurvey::LowerLimits(int taken, double skewness) {
  constexpr double kPoints = master_link::kTablePoints;
  const double fraction = std::pow((kPoints - taken) / kPoints, skewness);
  for (std::size_t i = 0; i < limits_.size(); ++i) {
    SetLimits(types_[i], {base_[i].liquid * fraction, base_[i].gas * fraction}, limits_[i]);
  }
}

}  // namespace connector
