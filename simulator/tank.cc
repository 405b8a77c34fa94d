#include "simulator/tank.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "simulator/black_oil_tank.h"
#include "simulator/compositional_tank.h"
#include "simulator/root_finding.h"

namespace simulator {
namespace {

constexpr double kLowestPressure = 0.5;      // bar
constexpr double kHighestPressure = 3000.0;  // bar

// Rates are computed at the start of a step. With a larger change of pressure within the step they
// would be wrong at its end, and the pressure would swing from step to step.
constexpr double kMostPressureChange = 5.0;  // bar
constexpr double kShortestStep = 1e-6;       // days

double corey(double saturation, double least, double span, double end_point, double exponent) {
  const double mobile = std::clamp((saturation - least) / span, 0.0, 1.0);
  return end_point * std::pow(mobile, exponent);
}

}  // namespace

Tank::Tank(const Deck& deck)
    : fluid_temperature_(deck.temperature + 273.15),
      initial_pressure_(deck.pressure),
      initial_pore_volume_(deck.pore_volume),
      rock_compressibility_(deck.rock_compressibility),
      water_density_(deck.water_density),
      water_volume_factor_(deck.water_volume_factor),
      water_compressibility_(deck.water_compressibility),
      curves_(deck.relative_permeability),
      viscosities_(deck.viscosities) {
  water_ = deck.pore_volume * deck.water_saturation / water_volume_factor_;
}

double Tank::pore_volume(double pressure) const {
  return initial_pore_volume_ * std::exp(rock_compressibility_ * (pressure - initial_pressure_));
}

double Tank::water_volume_factor(double pressure) const {
  return water_volume_factor_ * std::exp(-water_compressibility_ * (pressure - initial_pressure_));
}

double Tank::water_density(double pressure) const {
  return water_density_ / water_volume_factor(pressure);
}

double Tank::tubing_pressure(double pressure) const {
  return std::max(0.5 * pressure, 5.0);
}

double Tank::find_pressure() const {
  const auto excess = [this](double pressure) {
    return hydrocarbon_volume(pressure) + water_ * water_volume_factor(pressure) -
           pore_volume(pressure);
  };
  // Most steps move the pressure little: a narrow bracket saves flash calculations.
  const double last = flow_.pressure;
  const double low = last - 2 * kMostPressureChange;
  const double high = last + 2 * kMostPressureChange;
  if (low > kLowestPressure && excess(low) > 0 && excess(high) < 0) {
    return falling_root(excess, low, high);
  }
  return falling_root(excess, kLowestPressure, kHighestPressure);
}

double Tank::advance(const Exchange& exchange, double days) {
  const double before = flow_.pressure;
  double step = std::min(days, emptying_limit(exchange));
  save();
  for (;;) {
    apply(exchange, step);
    const double after = find_pressure();
    if (std::abs(after - before) <= kMostPressureChange || step <= kShortestStep) {
      update_flow(after);
      return step;
    }
    restore();
    step = std::max(step * std::min(0.5, 0.9 * kMostPressureChange / std::abs(after - before)),
                    kShortestStep);
  }
}

Tank::Mobilities Tank::mobilities(double pressure, double oil_volume, double gas_volume) const {
  const double water_volume = water_ * water_volume_factor(pressure);
  const double all = oil_volume + gas_volume + water_volume;
  const double mobile = 1 - curves_.connate_water - curves_.residual_oil;
  return {corey(oil_volume / all, curves_.residual_oil, mobile, 1, curves_.oil_exponent) /
              viscosities_.oil,
          corey(gas_volume / all, curves_.critical_gas, mobile - curves_.critical_gas,
                curves_.gas_end_point, curves_.gas_exponent) /
              viscosities_.gas,
          corey(water_volume / all, curves_.connate_water, mobile, curves_.water_end_point,
                curves_.water_exponent) /
              viscosities_.water};
}

void Tank::set_scale() {
  scale_ = 1;
  settle();
  const double liquid = flow_.oil_phase.oil + flow_.gas_phase.oil + flow_.water;
  if (!(liquid > 0)) {
    throw std::runtime_error("Nothing in the reservoir flows as a liquid at its initial state");
  }
  scale_ = 1 / liquid;
  settle();
}

std::unique_ptr<Tank> make_tank(const Deck& deck) {
  if (deck.composition) return std::make_unique<CompositionalTank>(deck);
  return std::make_unique<BlackOilTank>(deck);
}

}  // namespace simulator
