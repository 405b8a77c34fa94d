#pragma once

#include <optional>
#include <string>

namespace simulator {

/// The constants of the Peng-Robinson equation.
inline constexpr double kOmegaA = 0.45724;
inline constexpr double kOmegaB = 0.07780;

/// One component of an equation of state. Temperatures in K, pressure in bar, critical volume in
/// m3/kmol.
struct Component {
  std::string name;
  double molecular_weight = 0;
  double critical_temperature = 0;
  double critical_pressure = 0;
  double critical_volume = 0;
  double acentric_factor = 0;
  double boiling_point = 0;
  double volume_shift = 0;  ///< shift of the molar volume over the co-volume, dimensionless
  double omega_a = kOmegaA;
  double omega_b = kOmegaB;
  double parachor = 0;
};

/// The built-in component of that name (N2, CO2, H2S, C1, C2, C3, IC4, NC4, IC5, NC5, C6, C7+), or
/// nothing. The sources of the constants are in docs/stand-in-simulator.md.
std::optional<Component> find_component(const std::string& name);

/// Binary interaction coefficient of two components, in either order. It is 0 for a pair that has
/// no entry in the table: two hydrocarbons, or a component that is not built in.
double binary_interaction(const std::string& a, const std::string& b);

}  // namespace simulator
