#include "simulator/reservoir.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "simulator/equation_of_state.h"

namespace simulator {

Reservoir::Reservoir(Deck deck)
    : deck_(std::move(deck)), tank_(make_tank(deck_)), end_time_(deck_.end_time) {
  wells_.reserve(deck_.wells.size());
  for (const WellDeck& each : deck_.wells) {
    positions_.emplace(each.name, wells_.size());
    wells_.emplace_back(each);
  }
  if (deck_.composition) {
    moles_produced_.resize(deck_.composition->components.size());
    moles_injected_.resize(deck_.composition->components.size());
  }
  points_.resize(wells_.size());
  build_properties();
}

void Reservoir::limit_end_time(double days) {
  end_time_ = std::min(end_time_, days);
}

void Reservoir::advance_to(double days, const std::function<bool()>& interrupted) {
  const double target = std::min(days, end_time_);
  const Exchange answer = response();
  while (time_ < target && !(interrupted && interrupted())) {
    const Step step = tank_->advance([this](double pressure) { return exchange(pressure); }, answer,
                                     std::min(target - time_, deck_.max_step));
    account(step);
    // The last step ends on `target` itself; a sum of steps would miss it by its rounding.
    time_ = step.days < target - time_ ? time_ + step.days : target;
    forget_points();
  }
}

void Reservoir::account(const Step& step) {
  const Amounts& out = step.produced;
  cumulative_.oil += shown(Quantity::kLiquid, out.oil * step.days);
  cumulative_.gas += shown(Quantity::kGas, out.gas * step.days);
  cumulative_.water += shown(Quantity::kLiquid, out.water * step.days);
  cumulative_.water_injection += shown(Quantity::kLiquid, step.rates.water_injected * step.days);
  cumulative_.gas_injection += shown(Quantity::kGas, step.rates.gas_injected * step.days);
  for (std::size_t i = 0; i < out.moles.size(); ++i) {
    moles_produced_[i] += out.moles[i] * step.days;
    moles_injected_[i] += step.rates.moles_injected[i] * step.days;
  }
}

void Reservoir::forget_points() {
  points_.assign(wells_.size(), std::nullopt);
}

// Densities are those at the tank's pressure, also where `flow` has another.
Surroundings Reservoir::surroundings(const FlowState& flow) const {
  const double pressure = tank_->flow().pressure;
  return {flow, tank_->water_density(pressure), tank_->gas_density(pressure),
          deck_.fracture_pressure};
}

const OperatingPoint& Reservoir::point(std::size_t well) const {
  auto& known = points_[well];
  if (!known) known = wells_[well].solve(surroundings(tank_->flow()));
  return *known;
}

const std::vector<double>& Reservoir::injected_composition(std::size_t well) const {
  const auto found = attached_.find(well);
  return found == attached_.end() ? deck_.composition->injection_gas : sources_.at(found->second);
}

void Reservoir::add_production(Exchange& sum, const Well& well, double drawdown_term) {
  const double term = drawdown_term * well.uptime();
  sum.oil_phase += term;
  sum.gas_phase += term * well.deck().gas_mobility;
  sum.water += term * well.deck().water_mobility;
}

void Reservoir::add_gas_injection(Exchange& sum, std::size_t well, double rate) const {
  sum.gas_injected += rate;
  if (!deck_.composition) return;
  const std::vector<double>& gas = injected_composition(well);
  for (std::size_t c = 0; c < gas.size(); ++c) {
    sum.moles_injected[c] += rate / kStandardVolume * gas[c];
  }
}

Exchange Reservoir::exchange(double pressure) const {
  Exchange sum;
  if (deck_.composition) sum.moles_injected.resize(deck_.composition->components.size());
  FlowState flow = tank_->flow();
  const bool is_current = pressure == flow.pressure;
  flow.bubble_point =
      flow.bubble_point < flow.pressure ? std::min(flow.bubble_point, pressure) : pressure;
  flow.pressure = pressure;
  const Surroundings around = surroundings(flow);
  for (std::size_t i = 0; i < wells_.size(); ++i) {
    auto& known = points_[i];
    if (is_current && !known) known = wells_[i].solve(around);
    const OperatingPoint& point = is_current ? *known : wells_[i].solve(around);
    add_production(sum, wells_[i], point.drawdown_term);
    sum.water_injected += point.water_injection;
    if (point.gas_injection > 0) add_gas_injection(sum, i, point.gas_injection);
  }
  return sum;
}

Exchange Reservoir::response() const {
  Exchange sum;
  if (deck_.composition) sum.moles_injected.resize(deck_.composition->components.size());
  for (std::size_t i = 0; i < wells_.size(); ++i) {
    const Well& well = wells_[i];
    if (!well.is_open()) continue;
    const double index = well.deck().index;
    switch (well.deck().type) {
      case WellType::kProducer:
        add_production(sum, well, index);
        break;
      case WellType::kWaterInjector:
        sum.water_injected -= index * well.uptime();
        break;
      case WellType::kGasInjector:
        add_gas_injection(sum, i, -index * well.uptime());
        break;
    }
  }
  return sum;
}

double Reservoir::pressure() const {
  return shown(Quantity::kPressure, tank_->flow().pressure);
}

FieldTotals Reservoir::rates() const {
  FieldTotals sum;
  for (std::size_t i = 0; i < wells_.size(); ++i) {
    const OperatingPoint& now = point(i);
    sum.oil += now.oil;
    sum.gas += now.gas;
    sum.water += now.water;
    sum.water_injection += now.water_injection;
    sum.gas_injection += now.gas_injection;
  }
  return {shown(Quantity::kLiquid, sum.oil), shown(Quantity::kGas, sum.gas),
          shown(Quantity::kLiquid, sum.water), shown(Quantity::kLiquid, sum.water_injection),
          shown(Quantity::kGas, sum.gas_injection)};
}

Amounts Reservoir::in_place() const {
  const Amounts held = tank_->in_place();
  return {shown(Quantity::kLiquid, held.oil), shown(Quantity::kGas, held.gas),
          shown(Quantity::kLiquid, held.water), held.moles};
}

std::optional<std::size_t> Reservoir::find_well(const std::string& name) const {
  const auto found = positions_.find(name);
  if (found == positions_.end()) return std::nullopt;
  return found->second;
}

double Reservoir::mole_fraction(std::size_t well, std::size_t component) const {
  const WellDeck& deck = wells_[well].deck();
  if (deck.type == WellType::kWaterInjector) return 0;
  if (deck.type == WellType::kGasInjector) return injected_composition(well)[component];
  return tank_->stream_composition(deck.gas_mobility)[component];
}

void Reservoir::build_properties() {
  using R = const Reservoir&;
  using Read = double (*)(R, std::size_t, std::size_t);
  const auto add = [this](const char* name, Quantity quantity, Read read) {
    properties_.emplace(name, std::make_shared<Property>(Property{quantity, read, 0}));
  };
  const auto liquid = Quantity::kLiquid;
  const auto pressure = Quantity::kPressure;
  add("OIL_PRODUCTION_RATE", liquid, [](R r, auto w, auto) { return r.point(w).oil; });
  add("GAS_PRODUCTION_RATE", Quantity::kGas, [](R r, auto w, auto) { return r.point(w).gas; });
  add("WATER_PRODUCTION_RATE", liquid, [](R r, auto w, auto) { return r.point(w).water; });
  add("LIQUID_PRODUCTION_RATE", liquid,
      [](R r, auto w, auto) { return r.point(w).oil + r.point(w).water; });
  add("WATER_INJECTION_RATE", liquid, [](R r, auto w, auto) { return r.point(w).water_injection; });
  add("GAS_INJECTION_RATE", Quantity::kGas,
      [](R r, auto w, auto) { return r.point(w).gas_injection; });
  add("UPTIME_FRACTION", Quantity::kNone, [](R r, auto w, auto) { return r.wells_[w].uptime(); });
  add("BOTTOM_HOLE_PRESSURE", pressure,
      [](R r, auto w, auto) { return r.point(w).bottom_hole_pressure; });
  add("TUBING_HEAD_PRESSURE", pressure,
      [](R r, auto w, auto) { return r.point(w).tubing_head_pressure; });
  add("TEMPERATURE", Quantity::kTemperature, [](R r, auto w, auto) {
    const bool producer = r.wells_[w].deck().type == WellType::kProducer;
    return producer ? r.deck_.temperature : r.deck_.injection_temperature;
  });
  add("OIL_DENSITY", Quantity::kDensity,
      [](R r, auto w, auto) { return r.tank_->oil_density(r.point(w).bottom_hole_pressure); });
  add("GAS_DENSITY", Quantity::kDensity,
      [](R r, auto w, auto) { return r.tank_->gas_density(r.point(w).bottom_hole_pressure); });
  add("WATER_DENSITY", Quantity::kDensity,
      [](R r, auto w, auto) { return r.tank_->water_density(r.point(w).bottom_hole_pressure); });
  add("WATER_CUT", Quantity::kNone, [](R r, auto w, auto) {
    const double both = r.point(w).oil + r.point(w).water;
    return both > 0 ? r.point(w).water / both : 0;
  });
  add("GAS_OIL_RATIO", Quantity::kGasOilRatio,
      [](R r, auto w, auto) { return r.point(w).oil > 0 ? r.point(w).gas / r.point(w).oil : 0; });
  if (!deck_.composition) return;
  for (std::size_t i = 0; i < deck_.composition->components.size(); ++i) {
    const Read read = [](R r, std::size_t w, std::size_t c) { return r.mole_fraction(w, c); };
    properties_.emplace("TOTAL_MOLE_FRACTION[" + std::to_string(i + 1) + "]",
                        std::make_shared<Property>(Property{Quantity::kNone, read, i}));
  }
}

const Reservoir::Property* Reservoir::find_property(const std::string& name) const {
  const auto found = properties_.find(name);
  return found == properties_.end() ? nullptr : found->second.get();
}

double Reservoir::value(std::size_t well, const Property& property) const {
  return shown(property.quantity, property.read(*this, well, property.index));
}

std::optional<std::string> Reservoir::text(std::size_t well, const std::string& name) const {
  if (name == "TYPE") return to_string(wells_[well].deck().type);
  if (name == "STATUS") return wells_[well].is_open() ? "OPEN" : "SHUT";
  if (name == "CONTROL_MODE") return std::string(point(well).limited_by);
  return std::nullopt;
}

double Reservoir::well_property(const std::string& well, const std::string& property) const {
  const auto position = find_well(well);
  const Property* found = find_property(property);
  if (!position || !found) throw std::out_of_range(well + " " + property);
  return value(*position, *found);
}

std::optional<InflowCurve> Reservoir::inflow_curve(std::size_t well,
                                                   const std::string& pressure_type, int points,
                                                   double skewness) const {
  const bool at_bottom = pressure_type == "BOTTOM_HOLE_PRESSURE";
  if (!at_bottom && pressure_type != "TUBING_HEAD_PRESSURE") return std::nullopt;
  const Surroundings around = surroundings(tank_->flow());
  const FlowState& flow = around.flow;
  const WellDeck& deck = wells_[well].deck();
  const bool producer = deck.type == WellType::kProducer;
  InflowCurve curve;
  curve.items = {pressure_type};
  if (producer) {
    curve.items.insert(curve.items.end(),
                       {"OIL_PRODUCTION_RATE", "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE"});
  } else {
    curve.items.emplace_back(deck.type == WellType::kGasInjector ? "GAS_INJECTION_RATE"
                                                                 : "WATER_INJECTION_RATE");
  }
  curve.values.resize(curve.items.size());
  const double open_flow = inflow(flow.pressure, flow.bubble_point, kStandardPressure);
  for (int k = 0; k < points; ++k) {
    const double f = std::pow(static_cast<double>(points - k) / points, skewness);
    const double bottom =
        producer ? inverse_inflow(flow.pressure, flow.bubble_point, f * open_flow)
                 : flow.pressure + f * std::max(0.0, deck_.fracture_pressure - flow.pressure);
    const OperatingPoint at = wells_[well].at_bottom_hole_pressure(around, bottom);
    curve.values[0].push_back(
        shown(Quantity::kPressure, at_bottom ? at.bottom_hole_pressure : at.tubing_head_pressure));
    if (producer) {
      curve.values[1].push_back(shown(Quantity::kLiquid, at.oil));
      curve.values[2].push_back(shown(Quantity::kGas, at.gas));
      curve.values[3].push_back(shown(Quantity::kLiquid, at.water));
    } else if (deck.type == WellType::kGasInjector) {
      curve.values[1].push_back(shown(Quantity::kGas, at.gas_injection));
    } else {
      curve.values[1].push_back(shown(Quantity::kLiquid, at.water_injection));
    }
  }
  return curve;
}

bool Reservoir::set_status(const std::string& well, const std::string& status) {
  const auto position = find_well(well);
  if (!position || (status != "OPEN" && status != "SHUT")) return false;
  wells_[*position].set_open(status == "OPEN");
  points_[*position].reset();
  return true;
}

bool Reservoir::set_uptime(const std::string& well, double fraction) {
  const auto position = find_well(well);
  if (!position || !(fraction >= 0 && fraction <= 1)) return false;
  wells_[*position].set_uptime(fraction);
  points_[*position].reset();
  return true;
}

bool Reservoir::set_constraint(const std::string& well, const std::string& constraint, double value,
                               const std::string& setter) {
  const auto position = find_well(well);
  const auto which = find_constraint(constraint);
  if (!position || !which) return false;
  const bool removes = !std::isfinite(value) || value < 0;
  wells_[*position].set_limit(
      *which, removes ? std::nullopt
                      : std::optional(
                            Well::Limit{deck_.units.to_model(quantity_of(*which), value), setter}));
  points_[*position].reset();
  return true;
}

bool Reservoir::create_source(const std::string& well, const std::string& source,
                              const std::string& phase) {
  const auto position = find_well(well);
  if (!position || !deck_.composition || phase != "GAS" || source.empty()) return false;
  if (wells_[*position].deck().type != WellType::kGasInjector) return false;
  sources_.emplace(source, deck_.composition->injection_gas);
  attached_[*position] = source;
  return true;
}

std::optional<std::size_t> Reservoir::component_position(const std::string& name) const {
  const std::vector<Component>& components = deck_.composition->components;
  for (std::size_t i = 0; i < components.size(); ++i) {
    if (name == components[i].name ||
        name == "TOTAL_MOLE_FRACTION[" + std::to_string(i + 1) + "]") {
      return i;
    }
  }
  return std::nullopt;
}

bool Reservoir::set_source_composition(const std::string& source,
                                       const std::vector<std::string>& names,
                                       const std::vector<double>& values) {
  const auto found = sources_.find(source);
  if (found == sources_.end() || names.size() != values.size()) return false;
  std::vector<double> composition(deck_.composition->components.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto component = component_position(names[i]);
    if (!component || !std::isfinite(values[i]) || values[i] < 0) return false;
    composition[*component] = values[i];
  }
  const double sum = std::accumulate(composition.begin(), composition.end(), 0.0);
  if (!(sum > 0) || !std::isfinite(sum)) return false;
  for (double& each : composition) each /= sum;
  found->second = std::move(composition);
  return true;
}

}  // namespace simulator
