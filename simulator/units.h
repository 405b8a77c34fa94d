#pragma once

#include <string>

namespace simulator {

/// What a number of the deck or of an answer measures. The model computes in one set of units
/// throughout, given first; metric decks and answers use the second, field decks the third.
enum class Quantity {
  kNone,             ///< 1; 1; 1
  kPressure,         ///< bar; bar; psi
  kCompressibility,  ///< 1/bar; 1/bar; 1/psi
  kTemperature,      ///< deg C; deg C; deg F
  kAbsolute,         ///< K; K; deg R (critical and boiling temperatures)
  kLength,           ///< m; m; ft
  kDiameter,         ///< m; mm; in
  kDensity,          ///< kg/m3; kg/m3; lb/ft3
  kLiquid,           ///< sm3 or sm3/d; the same; stb or stb/d
  kGas,              ///< sm3 or sm3/d; the same; MMscf or MMscf/d
  kGasOilRatio,      ///< sm3/sm3; sm3/sm3; scf/stb
  kLiquidIndex,      ///< sm3/d/bar; sm3/d/bar; stb/d/psi
  kGasIndex,         ///< sm3/d/bar; sm3/d/bar; MMscf/d/psi
  kMolarVolume,      ///< m3/kmol; m3/kmol; ft3/lbmol
};

/// The unit system that a deck declares and that every number on the link is in.
class Units {
 public:
  enum class System { kMetric, kField };

  explicit Units(System system) : system_(system) {}

  /// Converts a value from the deck's units to the model's, and back.
  double to_model(Quantity quantity, double value) const;
  double from_model(Quantity quantity, double value) const;

  /// What UNIT_SYSTEM answers: "TOLMEN_METRIC" or "TOLMEN_FIELD".
  std::string name() const;

  /// The unit as people write it, for the run log: "psi", "stb", "MMscf".
  std::string label(Quantity quantity) const;

 private:
  System system_;
};

}  // namespace simulator
