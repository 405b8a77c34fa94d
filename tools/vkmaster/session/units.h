#pragma once

#include <string>

namespace vkmaster {

/// The names of units. Values are shown as they come, in the unit system of the run.
struct Units {
  std::string system;
  std::string liquid_rate;
  std::string gas_rate;
  std::string pressure;
  std::string temperature;
  std::string density;
  std::string gas_oil_ratio;
};

inline const Units& UnitsOf(bool metric) {
  static const Units kMetric{"metric", "sm3/d", "sm3/d", "bar", "degC", "kg/m3", "sm3/sm3"};
  static const Units kField{"field", "STB/d", "MMscf/d", "psi", "degF", "lb/ft3", "scf/STB"};
  return metric ? kMetric : kField;
}

}  // namespace vkmaster
