#include "simulator/black_oil_tank.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace simulator {
namespace {

const Units kField{Units::System::kField};  // the correlations are in field units

constexpr double kWaterDensity = 999.0;  // kg/m3 at standard conditions, to which gravities refer
constexpr double kAirDensity = 1.2230;
constexpr double kStandingExponent = 1.2048;

// Sutton's pseudo-critical constants of a natural gas as one component.
std::vector<Component> pseudo_gas(double gravity) {
  Component gas;
  gas.name = "gas";
  gas.molecular_weight = 28.964 * gravity;
  gas.critical_temperature =
      kField.to_model(Quantity::kAbsolute, 169.2 + 349.5 * gravity - 74.0 * gravity * gravity);
  gas.critical_pressure =
      kField.to_model(Quantity::kPressure, 756.8 - 131.0 * gravity - 3.6 * gravity * gravity);
  gas.acentric_factor = 0.02;
  gas.volume_shift = -0.15;  // near methane's
  return {gas};
}

}  // namespace

BlackOilTank::BlackOilTank(const Deck& deck)
    : Tank(deck),
      gas_equation_(pseudo_gas(deck.black_oil.gas_gravity), deck.temperature + 273.15),
      oil_gravity_(141.5 / (131.5 + deck.black_oil.api)),
      gas_gravity_(deck.black_oil.gas_gravity),
      api_(deck.black_oil.api),
      oil_compressibility_(deck.black_oil.oil_compressibility) {
  oil_ = 1;
  gas_ = solution_ratio(deck.black_oil.bubble_point);
  oil_ = deck.pore_volume * (1 - deck.water_saturation) / oil_volume_factor(deck.pressure);
  gas_ *= oil_;
  flow_.pressure = deck.pressure;
  set_scale(deck);
}

// Standing: sm3 of gas that an sm3 of oil can hold.
double BlackOilTank::solution_ratio(double pressure) const {
  const double psi = kField.from_model(Quantity::kPressure, pressure);
  const double degrees = kField.from_model(Quantity::kTemperature, fluid_temperature_ - 273.15);
  const double base = (psi / 18.2 + 1.4) * std::pow(10, 0.0125 * api_ - 0.00091 * degrees);
  return kField.to_model(Quantity::kGasOilRatio, gas_gravity_ * std::pow(base, kStandingExponent));
}

// Standing's relation solved for the pressure.
double BlackOilTank::bubble_point(double solution_ratio) const {
  const double ratio = kField.from_model(Quantity::kGasOilRatio, solution_ratio);
  const double degrees = kField.from_model(Quantity::kTemperature, fluid_temperature_ - 273.15);
  const double base = std::pow(ratio / gas_gravity_, 1 / kStandingExponent) /
                      std::pow(10, 0.0125 * api_ - 0.00091 * degrees);
  return kField.to_model(Quantity::kPressure, 18.2 * (base - 1.4));
}

double BlackOilTank::dissolved(double pressure) const {
  return std::min(solution_ratio(pressure), gas_ / oil_);
}

double BlackOilTank::oil_volume_factor(double pressure) const {
  const double ratio = dissolved(pressure);
  const double degrees = kField.from_model(Quantity::kTemperature, fluid_temperature_ - 273.15);
  const double scf = kField.from_model(Quantity::kGasOilRatio, ratio);
  const double saturated =
      0.9759 +
      0.00012 * std::pow(scf * std::sqrt(gas_gravity_ / oil_gravity_) + 1.25 * degrees, 1.2);
  const double above = std::max(0.0, pressure - bubble_point(ratio));
  return saturated * std::exp(-oil_compressibility_ * above);
}

double BlackOilTank::gas_volume_factor(double pressure) const {
  return gas_equation_.molar_volume({1.0}, pressure, EquationOfState::Phase::kVapour) /
         kStandardVolume;
}

double BlackOilTank::hydrocarbon_volume(double pressure) const {
  const double free = std::max(0.0, gas_ - oil_ * dissolved(pressure));
  const double free_volume = free > 0 ? free * gas_volume_factor(pressure) : 0;
  return oil_ * oil_volume_factor(pressure) + free_volume;
}

void BlackOilTank::update_flow(double pressure) {
  const double oil_density = oil_gravity_ * kWaterDensity;
  const double gas_density = gas_gravity_ * kAirDensity;
  const double half_way = tubing_pressure(pressure);
  const double ratio = dissolved(pressure);
  const double oil_factor = oil_volume_factor(pressure);
  const double gas_factor = gas_volume_factor(pressure);
  const double tubing_gas_factor = gas_volume_factor(half_way);
  const double tubing_free = ratio - std::min(ratio, dissolved(half_way));
  const double free = std::max(0.0, gas_ - oil_ * ratio);
  const Mobilities mobile = mobilities(pressure, oil_ * oil_factor, free * gas_factor);
  const double oil = scale_ * mobile.oil / oil_factor;
  const double gas = scale_ * mobile.gas / gas_factor;
  flow_.pressure = pressure;
  flow_.bubble_point = std::min(pressure, bubble_point(ratio));
  flow_.oil_phase = {oil, oil * ratio, oil * (oil_density + ratio * gas_density),
                     oil * (oil_volume_factor(half_way) + tubing_free * tubing_gas_factor)};
  flow_.gas_phase = {0, gas, gas * gas_density, gas * tubing_gas_factor};
  flow_.water = scale_ * mobile.water / water_volume_factor(pressure);
}

Amounts BlackOilTank::produced(const Exchange& exchange) const {
  const double oil =
      exchange.oil_phase * flow_.oil_phase.oil + exchange.gas_phase * flow_.gas_phase.oil;
  const double gas =
      exchange.oil_phase * flow_.oil_phase.gas + exchange.gas_phase * flow_.gas_phase.gas;
  return {oil, gas, exchange.water * flow_.water, {}};
}

double BlackOilTank::hydrocarbon_voidage(const Exchange& exchange) const {
  const double oil = exchange.oil_phase * flow_.oil_phase.oil;
  const double gas = exchange.gas_phase * flow_.gas_phase.gas - exchange.gas_injected;
  return oil * oil_volume_factor(flow_.pressure) + gas * gas_volume_factor(flow_.pressure);
}

Amounts BlackOilTank::in_place() const {
  return {oil_, gas_, water_, {}};
}

double BlackOilTank::oil_density(double pressure) const {
  const double mass =
      oil_gravity_ * kWaterDensity + dissolved(pressure) * gas_gravity_ * kAirDensity;
  return mass / oil_volume_factor(pressure);
}

double BlackOilTank::gas_density(double pressure) const {
  return gas_gravity_ * kAirDensity / gas_volume_factor(pressure);
}

std::vector<double> BlackOilTank::stream_composition(double /*gas_mobility*/) const {
  return {};
}

void BlackOilTank::apply(const Exchange& exchange, double days) {
  const Amounts out = produced(exchange);
  oil_ -= out.oil * days;
  gas_ += (exchange.gas_injected - out.gas) * days;
  water_ += (exchange.water_injected - out.water) * days;
}

void BlackOilTank::save() {
  saved_ = {oil_, gas_, water_};
}

void BlackOilTank::restore() {
  oil_ = saved_.oil;
  gas_ = saved_.gas;
  water_ = saved_.water;
}

double BlackOilTank::emptying_limit(const Exchange& exchange) const {
  const Amounts out = produced(exchange);
  double limit = std::numeric_limits<double>::infinity();
  const auto bound = [&](double held, double rate) {
    if (rate > 0) limit = std::min(limit, 0.5 * held / rate);
  };
  bound(oil_, out.oil);
  bound(gas_, out.gas);
  bound(water_, out.water);
  return limit;
}

}  // namespace simulator
