#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What the connector tells the master about wells and fluid. The members are packed in the order
// in which they stand here, and the master reads them by position.
//
// Values are in the unit system of the run, field or metric; nothing here converts them.

/// The static definition of one well.
struct StaticWellDef {
  std::string name;
  std::string type;    ///< the simulator's word, "PRODUCER" or "WATER_INJECTOR" for example
  std::string status;  ///< the simulator's word, "OPEN" for example
};

/// The present operating point of one well. It does not name the well: records come in the order
/// in which the wells were asked for.
struct DynWellOpPt {
  std::string status;
  double oil_rate = 0;
  double gas_rate = 0;
  double water_rate = 0;
  double water_injection_rate = 0;
  double gas_injection_rate = 0;
  double bottom_hole_pressure = 0;
  double tubing_head_pressure = 0;
  double uptime_fraction = 0;
};

/// The inflow table of one well: one entry per point in every list, in the order in which the
/// points were taken.
struct DynWellIPR {
  std::vector<double> pressure;    ///< bottom-hole or tubing-head, as asked
  std::vector<double> oil_rate;    ///< produced
  std::vector<double> water_rate;  ///< produced by a producer, injected by any other well
  std::vector<double> gas_rate;    ///< produced by a producer, injected by any other well
  std::vector<double> temperature;
  std::vector<double> gas_density;
  std::vector<double> oil_density;
  std::vector<double> water_density;
  /// Per point the total mole fraction of each component; empty when none were asked for.
  std::vector<std::vector<double>> mole_fractions;
};

/// The equation-of-state description of the reservoir fluid: one entry per component in every
/// list but the last.
struct EOS {
  std::string name;
  std::vector<std::string> components;  ///< in the simulator's order
  std::vector<double> molecular_weight;
  std::vector<double> critical_temperature;
  std::vector<double> critical_pressure;
  std::vector<double> critical_volume;
  std::vector<double> acentric_factor;
  // Always sent empty. The master unpacks these vectors by position, so the slot has to stay
  // between the acentric factors and the boiling points.
  std::vector<double> reserved;
  std::vector<double> boiling_point;
  std::vector<double> volume_shift;
  std::vector<double> omega_a;
  std::vector<double> omega_b;
  std::vector<double> parachor;
  std::vector<double> binary_interaction;  ///< flat, in the simulator's order
  std::int32_t component_count = 0;

  /// Back to the state of a new object.
  void reset() { *this = EOS(); }
};
