#include "simulator/compositional_tank.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace simulator {

CompositionalTank::CompositionalTank(const Deck& deck)
    : Tank(deck),
      reservoir_equation_(deck.composition->components, deck.temperature + 273.15),
      surface_equation_(deck.composition->components, kStandardTemperature) {
  moles_ = deck.composition->reservoir;
  const double volume = reservoir_equation_.flash(moles_, deck.pressure).volume();
  const double moles = deck.pore_volume * (1 - deck.water_saturation) / volume;
  for (double& each : moles_) each *= moles;
  flow_.pressure = deck.pressure;
  set_scale(deck);
}

double CompositionalTank::total_moles() const {
  return std::accumulate(moles_.begin(), moles_.end(), 0.0);
}

std::vector<double> CompositionalTank::fractions() const {
  const double total = total_moles();
  std::vector<double> z = moles_;
  for (double& each : z) each /= total;
  return z;
}

double CompositionalTank::hydrocarbon_volume(double pressure) const {
  return total_moles() * reservoir_equation_.flash(fractions(), pressure).volume();
}

// What `moles` of a reservoir phase become at the surface, and half way up the tubing, which is
// taken to be as hot as the reservoir.
Stream CompositionalTank::surface_stream(const std::vector<double>& mixture, double moles,
                                         double pressure) const {
  if (moles <= 0) return {};
  const Flash surface = surface_equation_.flash(mixture, kStandardPressure);
  const Flash tubing = reservoir_equation_.flash(mixture, tubing_pressure(pressure));
  return {moles * (1 - surface.vapour_fraction) * surface.liquid_volume,
          moles * surface.vapour_fraction * kStandardVolume,
          moles * reservoir_equation_.molecular_weight(mixture), moles * tubing.volume()};
}

// How the contents split at a pressure, with a phase that is missing in the place of none: its
// properties may be asked for.
Flash CompositionalTank::phases_at(double pressure) const {
  using Phase = EquationOfState::Phase;
  Flash phases = reservoir_equation_.flash(fractions(), pressure);
  if (phases.vapour != phases.liquid) return phases;
  // Far from saturation the missing phase has the composition of what separates at the surface.
  const Flash surface = surface_equation_.flash(phases.liquid, kStandardPressure);
  if (phases.vapour_fraction <= 0) {
    phases.vapour = surface.vapour;
    phases.vapour_volume =
        reservoir_equation_.molar_volume(phases.vapour, pressure, Phase::kVapour);
  } else {
    phases.liquid = surface.liquid;
    phases.liquid_volume =
        reservoir_equation_.molar_volume(phases.liquid, pressure, Phase::kLiquid);
  }
  return phases;
}

const Flash& CompositionalTank::asked(double pressure) const {
  if (pressure == flow_.pressure) return phases_;
  if (!asked_ || asked_->pressure != pressure) asked_ = {pressure, phases_at(pressure)};
  return asked_->phases;
}

void CompositionalTank::update_flow(double pressure) {
  phases_ = phases_at(pressure);
  asked_.reset();
  const double total = total_moles();
  const double v = phases_.vapour_fraction;
  const Mobilities mobile = mobilities(pressure, total * (1 - v) * phases_.liquid_volume,
                                       total * v * phases_.vapour_volume);
  oil_moles_ = scale_ * mobile.oil / phases_.liquid_volume;
  gas_moles_ = scale_ * mobile.gas / phases_.vapour_volume;
  flow_.pressure = pressure;
  flow_.bubble_point =
      v > 0 ? pressure
            : std::min(pressure, reservoir_equation_.bubble_point(phases_.liquid, pressure));
  flow_.oil_phase = surface_stream(phases_.liquid, oil_moles_, pressure);
  flow_.gas_phase = surface_stream(phases_.vapour, gas_moles_, pressure);
  flow_.water = scale_ * mobile.water / water_volume_factor(pressure);
}

std::vector<double> CompositionalTank::moles_out(const Exchange& exchange) const {
  const double from_oil = exchange.oil_phase * oil_moles_;
  const double from_gas = exchange.gas_phase * gas_moles_;
  std::vector<double> out(moles_.size());
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i] = from_oil * phases_.liquid[i] + from_gas * phases_.vapour[i];
  }
  return out;
}

Amounts CompositionalTank::produced(const Exchange& exchange) const {
  const double oil =
      exchange.oil_phase * flow_.oil_phase.oil + exchange.gas_phase * flow_.gas_phase.oil;
  const double gas =
      exchange.oil_phase * flow_.oil_phase.gas + exchange.gas_phase * flow_.gas_phase.gas;
  return {oil, gas, exchange.water * flow_.water, moles_out(exchange)};
}

double CompositionalTank::hydrocarbon_voidage(const Exchange& exchange) const {
  const double injected =
      std::accumulate(exchange.moles_injected.begin(), exchange.moles_injected.end(), 0.0);
  return exchange.oil_phase * oil_moles_ * phases_.liquid_volume +
         (exchange.gas_phase * gas_moles_ - injected) * phases_.vapour_volume;
}

Amounts CompositionalTank::in_place() const {
  const double total = total_moles();
  const double v = phases_.vapour_fraction;
  const Stream oil = surface_stream(phases_.liquid, total * (1 - v), flow_.pressure);
  const Stream gas = surface_stream(phases_.vapour, total * v, flow_.pressure);
  return {oil.oil + gas.oil, oil.gas + gas.gas, water_, moles_};
}

double CompositionalTank::oil_density(double pressure) const {
  const Flash& phases = asked(pressure);
  return reservoir_equation_.molecular_weight(phases.liquid) / phases.liquid_volume;
}

double CompositionalTank::gas_density(double pressure) const {
  const Flash& phases = asked(pressure);
  return reservoir_equation_.molecular_weight(phases.vapour) / phases.vapour_volume;
}

std::vector<double> CompositionalTank::stream_composition(double gas_mobility) const {
  std::vector<double> z = moles_out({1, gas_mobility, 0, 0, 0, {}});
  const double total = std::accumulate(z.begin(), z.end(), 0.0);
  if (!(total > 0)) return fractions();
  for (double& each : z) each /= total;
  return z;
}

void CompositionalTank::apply(const Exchange& exchange, double days) {
  const std::vector<double> out = moles_out(exchange);
  for (std::size_t i = 0; i < moles_.size(); ++i) {
    const double in = exchange.moles_injected.empty() ? 0 : exchange.moles_injected[i];
    moles_[i] += (in - out[i]) * days;
  }
  water_ += (exchange.water_injected - exchange.water * flow_.water) * days;
}

void CompositionalTank::save() {
  saved_moles_ = moles_;
  saved_water_ = water_;
}

void CompositionalTank::restore() {
  moles_ = saved_moles_;
  water_ = saved_water_;
}

double CompositionalTank::emptying_limit(const Exchange& exchange) const {
  double limit = std::numeric_limits<double>::infinity();
  const std::vector<double> out = moles_out(exchange);
  for (std::size_t i = 0; i < out.size(); ++i) {
    if (out[i] > 0) limit = std::min(limit, 0.5 * moles_[i] / out[i]);
  }
  const double water = exchange.water * flow_.water;
  return water > 0 ? std::min(limit, 0.5 * water_ / water) : limit;
}

}  // namespace simulator
