#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "simulator/components.h"

namespace simulator {

/// Gas constant, bar m3 / (kmol K).
inline constexpr double kGasConstant = 0.0831446261815324;

/// Standard conditions: 1.01325 bar and 15.56 deg C (60 deg F).
inline constexpr double kStandardPressure = 1.01325;
inline constexpr double kStandardTemperature = 288.70555555555556;

/// Standard cubic metres that a kmol of ideal gas fills.
inline constexpr double kStandardVolume = kGasConstant * kStandardTemperature / kStandardPressure;

/// How a mixture splits at a pressure. Where there is only one phase, the composition of the other
/// is the one in which it would first appear, or the mixture's own when it can never appear.
struct Flash {
  double vapour_fraction = 0;  ///< moles of vapour per mole of mixture, 0 to 1
  std::vector<double> liquid;  ///< mole fractions
  std::vector<double> vapour;  ///< mole fractions
  double liquid_volume = 0;    ///< m3/kmol of liquid
  double vapour_volume = 0;    ///< m3/kmol of vapour

  /// m3 per kmol of mixture.
  double volume() const {
    return vapour_fraction * vapour_volume + (1 - vapour_fraction) * liquid_volume;
  }
};

/// The Peng-Robinson equation for a list of components at one temperature, with volume shifts.
class EquationOfState {
 public:
  enum class Phase { kLiquid, kVapour };

  /// `temperature` in K.
  EquationOfState(const std::vector<Component>& components, double temperature);

  /// Splits a mixture (mole fractions that add up to 1) at `pressure` in bar.
  Flash flash(const std::vector<double>& mixture, double pressure) const;

  /// m3/kmol of a phase; Phase chooses the root where the equation has several.
  double molar_volume(const std::vector<double>& x, double pressure, Phase phase) const;

  /// The pressure in bar at which a mixture that is a liquid at `liquid_at` bar gives off its first
  /// bubble; 0 when it has none above 0.001 bar.
  double bubble_point(const std::vector<double>& liquid, double liquid_at) const;

  /// kg/kmol.
  double molecular_weight(const std::vector<double>& x) const;

 private:
  struct Mixed {
    double a = 0;
    double b = 0;
    std::vector<double> pair_sums;  // sum over j of x_j a_ij
  };
  Mixed mix(const std::vector<double>& x) const;
  double compressibility(const Mixed& mixed, double pressure, Phase phase) const;
  void log_fugacity(const std::vector<double>& x, double pressure, Phase phase,
                    std::vector<double>& out) const;
  std::vector<double> wilson(double pressure) const;
  std::optional<double> iterate_bubble_point(const std::vector<double>& liquid) const;
  bool looks_liquid(const std::vector<double>& mixture, double pressure) const;

  std::vector<Component> components_;
  double temperature_;
  std::vector<double> pairs_;  // a_ij, row by row
  std::vector<double> b_;
};

}  // namespace simulator
