#include "connector/inflow_survey.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>

namespace connector {
namespace {

// Positions in the list of properties.
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

// Far above any well's rate. The metric factors are those that the master's tables were built
// with; the one of gas is not the usual conversion from cubic feet, and stays.
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

// One well's values in the order of the properties asked for.
class Row {
 public:
  Row(const std::vector<double>& values, const std::vector<std::size_t>& positions)
      : values_(values), positions_(positions) {}

  double operator[](std::size_t property) const {
    const std::size_t position = positions_[property];
    if (position >= values_.size()) throw std::runtime_error(kBadPoint);
    return values_[position];
  }

  std::vector<double> MoleFractions() const {
    std::vector<double> fractions;
    fractions.reserve(positions_.size() - kFirstMoleFraction);
    for (std::size_t i = kFirstMoleFraction; i < positions_.size(); ++i) {
      fractions.push_back((*this)[i]);
    }
    return fractions;
  }

 private:
  const std::vector<double>& values_;
  const std::vector<std::size_t>& positions_;
};

}  // namespace

InflowSurvey::InflowSurvey(const std::vector<std::string>& wells, int components, bool bottomHole,
                           bool metric)
    : wells_(wells),
      well_lookup_(wells),
      bottom_hole_(bottomHole),
      first_limits_{(metric ? kMetricLiquid : 1.0) * kFirstLimit,
                    (metric ? kMetricGas : 1.0) * kFirstLimit},
      properties_(PropertiesWith(components)) {}

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

std::vector<double> InflowSurvey::LimitsOf(Type type, Rates rates) {
  switch (type) {
    case Type::kProducer:
      return {rates.liquid, rates.gas};
    case Type::kWaterInjector:
      return {rates.liquid};
    default:
      return {rates.gas};
  }
}

void InflowSurvey::TakeTypes(const ::vk_ec::WellQueryResults<std::string>& types,
                             std::vector<DynWellIPR>& tables) {
  const std::vector<std::size_t> rows = well_lookup_.PositionsIn(types.wells);
  for (std::size_t i = 0; i < wells_.size(); ++i) {
    tables.emplace_back();
    if (rows[i] >= types.values.size() || types.values[rows[i]].empty()) {
      throw std::runtime_error(kBadTypes);
    }
    const Type type = TypeOf(types.values[rows[i]].front());
    types_.push_back(type);
    constraints_.push_back(ConstraintsOf(type));
    setters_.emplace_back(constraints_.back().size(), "USER");
    limits_.push_back(LimitsOf(type, first_limits_));
  }
}

void InflowSurvey::TakePoint(const ::vk_ec::WellQueryResults<double>& answer,
                             std::vector<DynWellIPR>& tables) {
  const std::vector<std::size_t> rows = well_lookup_.PositionsIn(answer.wells);
  const std::vector<std::size_t> positions = NameLookup(properties_).PositionsIn(answer.items);
  const bool complete =
      std::find(positions.begin(), positions.end(), NameLookup::npos) == positions.end();
  const bool firstPoint = base_.empty();
  for (std::size_t i = 0; i < wells_.size(); ++i) {
    if (rows[i] >= answer.values.size() || !complete) throw std::runtime_error(kBadPoint);
    const Row row(answer.values[rows[i]], positions);
    const bool producer = types_[i] == Type::kProducer;
    const double gas = row[producer ? kGasProduction : kGasInjection];
    const double water = row[producer ? kWaterProduction : kWaterInjection];
    const double oil = row[kOilProduction];
    DynWellIPR& table = tables[i];
    table.oil_rate.push_back(oil);
    table.gas_rate.push_back(gas);
    table.water_rate.push_back(water);
    table.pressure.push_back(row[bottom_hole_ ? kBottomHolePressure : kTubingHeadPressure]);
    table.temperature.push_back(row[kTemperature]);
    table.oil_density.push_back(row[kOilDensity]);
    table.gas_density.push_back(row[kGasDensity]);
    table.water_density.push_back(row[kWaterDensity]);
    if (properties_.size() > kFirstMoleFraction) {
      table.mole_fractions.push_back(row.MoleFractions());
    }
    if (firstPoint) base_.push_back({producer ? water + oil : water, gas});
  }
}

void InflowSurvey::LowerLimits(int taken, double skewness) {
  const double fraction = std::pow((10.0 - taken) / 10.0, skewness);
  for (std::size_t i = 0; i < limits_.size(); ++i) {
    limits_[i] = LimitsOf(types_[i], {base_[i].liquid * fraction, base_[i].gas * fraction});
  }
}

}  // namespace connector
