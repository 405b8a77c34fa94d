#include "simulator/units.h"

namespace simulator {
namespace {

constexpr double kBarPerPsi = 0.0689475729317831;
constexpr double kMetresPerFoot = 0.3048;
constexpr double kCubicMetresPerBarrel = 0.158987294928;
constexpr double kCubicMetresPerCubicFoot = 0.028316846592;
constexpr double kKilogramsPerPound = 0.45359237;

struct Row {
  double metric;  // model units in one metric unit
  double field;   // model units in one field unit
  const char* metric_label;
  const char* field_label;
};

// Field gas is counted in millions of cubic feet: controllers open a well up with a limit of
// 100,000 for liquid and gas alike, and only in this unit no well produces as much gas.
constexpr double kGasUnit = 1e6 * kCubicMetresPerCubicFoot;

Row row(Quantity quantity) {
  switch (quantity) {
    case Quantity::kNone:
      return {1, 1, "", ""};
    case Quantity::kPressure:
      return {1, kBarPerPsi, "bar", "psi"};
    case Quantity::kCompressibility:
      return {1, 1 / kBarPerPsi, "1/bar", "1/psi"};
    case Quantity::kTemperature:
      return {1, 5.0 / 9, "degC", "degF"};
    case Quantity::kAbsolute:
      return {1, 5.0 / 9, "K", "degR"};
    case Quantity::kLength:
      return {1, kMetresPerFoot, "m", "ft"};
    case Quantity::kDiameter:
      return {0.001, kMetresPerFoot / 12, "mm", "in"};
    case Quantity::kDensity:
      return {1, kKilogramsPerPound / kCubicMetresPerCubicFoot, "kg/m3", "lb/ft3"};
    case Quantity::kLiquid:
      return {1, kCubicMetresPerBarrel, "sm3", "stb"};
    case Quantity::kGas:
      return {1, kGasUnit, "sm3", "MMscf"};
    case Quantity::kGasOilRatio:
      return {1, kCubicMetresPerCubicFoot / kCubicMetresPerBarrel, "sm3/sm3", "scf/stb"};
    case Quantity::kLiquidIndex:
      return {1, kCubicMetresPerBarrel / kBarPerPsi, "sm3/d/bar", "stb/d/psi"};
    case Quantity::kGasIndex:
      return {1, kGasUnit / kBarPerPsi, "sm3/d/bar", "MMscf/d/psi"};
    case Quantity::kMolarVolume:
      return {1, kCubicMetresPerCubicFoot / kKilogramsPerPound, "m3/kmol", "ft3/lbmol"};
  }
  return {1, 1, "", ""};
}

// Of all units only degrees Fahrenheit begin elsewhere than the model's.
double offset(Units::System system, Quantity quantity) {
  return quantity == Quantity::kTemperature && system == Units::System::kField ? 32 : 0;
}

double factor(Units::System system, Quantity quantity) {
  const Row units = row(quantity);
  return system == Units::System::kMetric ? units.metric : units.field;
}

}  // namespace

double Units::to_model(Quantity quantity, double value) const {
  return (value - offset(system_, quantity)) * factor(system_, quantity);
}

double Units::from_model(Quantity quantity, double value) const {
  return value / factor(system_, quantity) + offset(system_, quantity);
}

std::string Units::name() const {
  return system_ == System::kMetric ? "TOLMEN_METRIC" : "TOLMEN_FIELD";
}

std::string Units::label(Quantity quantity) const {
  const Row units = row(quantity);
  return system_ == System::kMetric ? units.metric_label : units.field_label;
}

}  // namespace simulator
