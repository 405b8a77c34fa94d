#include "simulator/tank.h"

#include <algorithm>
#include <cmath>

#include "simulator/black_oil_tank.h"
#include "simulator/compositional_tank.h"
#include "simulator/root_finding.h"

namespace simulator {
namespace {

constexpr double kLowestPressure = 0.5;      // bar
constexpr double kHighestPressure = 3000.0;  // bar

// Mobilities and compositions are those at the start of a step. With a larger change of pressure
// within the step they would be wrong at its end.
constexpr double kMostPressureChange = 5.0;  // bar
constexpr double kShortestStep = 1e-6;       // days

// How much of a change of the pressure the wells may undo within a step whose rates are those at
// its start. With more than 1 the pressure would swing from step to step.
constexpr double kMostResponse = 0.5;

// sm3 of gas with an sm3 of liquid. Beyond that a gas is called dry, and its rate would be made of
// the little liquid in it.
constexpr double kMostGas = 1e5;

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

double Tank::find_pressure() {
  const auto excess = [this](double pressure) {
    return hydrocarbon_volume(pressure) + water_ * water_volume_factor(pressure) -
           pore_volume(pressure);
  };
  // Most steps move the pressure little: a narrow bracket saves flash calculations.
  const double last = flow_.pressure;
  Sample low{last - 2 * kMostPressureChange};
  Sample high{last + 2 * kMostPressureChange};
  if (low.x > kLowestPressure && (low.value = excess(low.x)) > 0 &&
      (high.value = excess(high.x)) < 0) {
    const double found = falling_root(excess, low, high);
    // At the bubble point the contents are much softer below than above. The harder side counts.
    volume_per_bar_ = std::min(low.value / (found - low.x), -high.value / (high.x - found));
    return found;
  }
  return falling_root(excess, kLowestPressure, kHighestPressure);
}

double Tank::pressure_after(const Exchange& rates, double days) {
  apply(rates, days);
  const double after = find_pressure();
  restore();
  return after;
}

// Whether rates that are constant over a step would carry the pressure beyond the one at which the
// wells come to rest, or near it.
bool Tank::overshoots(const Exchange& response, double days) const {
  const double per_day =
      hydrocarbon_voidage(response) + (response.water * flow_.water - response.water_injected) *
                                          water_volume_factor(flow_.pressure);
  return per_day * days > kMostResponse * volume_per_bar_;
}

Step Tank::advance(const std::function<Exchange(double pressure)>& rates_at,
                   const Exchange& response, double days) {
  const double before = flow_.pressure;
  const Exchange at_start = rates_at(before);
  double step = std::min(days, emptying_limit(at_start));
  save();
  for (;;) {
    Exchange rates = at_start;
    double change = pressure_after(rates, step) - before;
    if (overshoots(response, step)) {
      // The higher the pressure for which the rates are taken, the lower the one that they lead to.
      const auto rise = [&](double pressure) {
        return pressure_after(rates_at(pressure), step) - pressure;
      };
      const Sample start{before, change};
      const double most = step > kShortestStep ? kMostPressureChange : kHighestPressure;
      Sample end{before + std::clamp(change, -most, most)};
      end.value = rise(end.x);
      if (std::abs(change) > most && end.value * change > 0) {
        // Not within reach. The step is too long by about as much as a straight line says.
        change = (end.x - before) * change / (change - end.value);
      } else {
        const bool rises = change > 0;
        rates = rates_at(falling_root(rise, rises ? start : end, rises ? end : start));
        if (step > emptying_limit(rates)) {
          step /= 2;
          continue;
        }
        change = pressure_after(rates, step) - before;
      }
    }
    if (std::abs(change) <= kMostPressureChange || step <= kShortestStep) {
      Step taken{step, rates, produced(rates)};
      apply(rates, step);
      update_flow(before + change);
      return taken;
    }
    step =
        std::max(step * std::min(0.5, 0.9 * kMostPressureChange / std::abs(change)), kShortestStep);
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

void Tank::set_scale(const Deck& deck) {
  scale_ = 1;
  settle();
  const double liquid = flow_.oil_phase.oil + flow_.gas_phase.oil + flow_.water;
  const double gas = flow_.oil_phase.gas + flow_.gas_phase.gas;
  if (!(liquid > 0 && gas <= kMostGas * liquid)) {
    throw DeckError(deck.fluid_place +
                    ": the reservoir gives dry gas at its start, and the index of a producer is "
                    "that of its liquid");
  }
  scale_ = 1 / liquid;
  settle();
}

std::unique_ptr<Tank> make_tank(const Deck& deck) {
  if (deck.composition) return std::make_unique<CompositionalTank>(deck);
  return std::make_unique<BlackOilTank>(deck);
}

}  // namespace simulator
