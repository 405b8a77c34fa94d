#pragma once

#include <string>
#include <vector>

namespace master {

/// What the master asks the daemon to launch. Texts are sent as they are, but for the version's
/// dot. The daemon reads a number up to the first character that is no digit.
struct RunRequest {
  std::string cluster = "0";       ///< above 0: a cluster run, whose input file is copied
  std::string path{};              ///< data directory on the daemon's side
  std::string root{};              ///< name of the model: its input file without the extension
  std::string processes = "1";     ///< of the simulator
  std::string version = "2017.2";  ///< of the simulator; the number 20172 will do as well
  std::string user{};              ///< Windows user name
  std::string debug = "0";         ///< handed to the distribution script
};

struct Date {
  int day = 0;
  int month = 0;
  int year = 0;

  bool operator==(const Date&) const = default;
};

/// A well of the model as the simulator names it.
struct WellStatus {
  std::string name;
  std::string type;    ///< "PRODUCER", "WATER_INJECTOR", ...
  std::string status;  ///< "OPEN", ...

  bool operator==(const WellStatus&) const = default;
};

/// Operating point of a well, in the run's units. The reply has no well name: records come in the
/// order of the request.
struct WellData {
  std::string status;
  double oil_rate = 0;
  double gas_rate = 0;
  double water_rate = 0;
  double water_injection_rate = 0;
  double gas_injection_rate = 0;
  double bottom_hole_pressure = 0;
  double tubing_head_pressure = 0;
  double uptime_fraction = 0;

  bool operator==(const WellData&) const = default;
};

/// Constraints of one well: `names[i]` is limited to `values[i]`.
struct WellConstraints {
  std::string well;
  std::vector<std::string> names;  ///< the simulator's, for example "OIL_PRODUCTION_RATE"
  std::vector<double> values;      ///< in the run's units
};

/// Inflow table of one well, one entry per point in every list; the first point is the open well,
/// the rate falls from point to point. In the run's units.
struct WellIPR {
  std::vector<double> pressure;  ///< bottom-hole or tubing-head, as asked
  std::vector<double> oil_rate;
  std::vector<double> water_rate;  ///< injected by a water injector
  std::vector<double> gas_rate;    ///< injected by a gas injector
  std::vector<double> temperature;
  std::vector<double> gas_density;
  std::vector<double> oil_density;
  std::vector<double> water_density;
  /// Per point the total mole fraction of each component; empty when none were asked for.
  std::vector<std::vector<double>> mole_fractions;

  bool operator==(const WellIPR&) const = default;
};

/// Which inflow tables to build.
struct IPRRequest {
  std::vector<std::string> wells;
  int components = 0;       ///< how many components' mole fractions; 0 for none
  bool bottom_hole = true;  ///< whether the tables have bottom-hole or tubing-head pressures
  double skewness = 1;      ///< above 1 crowds the points towards low rates
};

struct IPRTables {
  int points = 0;              ///< per table
  std::vector<WellIPR> wells;  ///< in the order of the request
};

/// Equation-of-state description. The lists have one value per component unless the simulator
/// left the property out; the daemon passes them on as they are.
struct EOSProps {
  std::string name;
  std::vector<std::string> components;
  std::vector<double> molecular_weight;
  std::vector<double> critical_temperature;
  std::vector<double> critical_pressure;
  std::vector<double> critical_volume;
  std::vector<double> acentric_factor;
  std::vector<double> reserved;  ///< empty: a place in the layout that nothing fills
  std::vector<double> boiling_point;
  std::vector<double> volume_shift;
  std::vector<double> omega_a;
  std::vector<double> omega_b;
  std::vector<double> parachor;
  std::vector<double> binary_interaction;  ///< flat, in the simulator's order

  bool operator==(const EOSProps&) const = default;
};

}  // namespace master
