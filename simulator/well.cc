#include "simulator/well.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

#include "simulator/equation_of_state.h"
#include "simulator/root_finding.h"

namespace simulator {
namespace {

constexpr double kGravity = 9.80665;
constexpr double kPascalPerBar = 1e5;
constexpr double kSecondsPerDay = 86400;
constexpr double kFrictionFactor = 0.02;  // Darcy's, of a used steel tubing

std::string_view name_of(Constraint constraint) {
  return constraint_names()[static_cast<std::size_t>(constraint)];
}

/// Keeps the smallest of the rates that limits allow, and which limit it was.
class Tightest {
 public:
  Tightest(double rate, std::string_view by) : rate_(rate), by_(by) {}
  void allow(double rate, std::string_view by) {
    if (rate < rate_) {
      rate_ = std::max(rate, 0.0);
      by_ = by;
    }
  }
  double rate() const { return rate_; }
  std::string_view by() const { return by_; }

 private:
  double rate_;
  std::string_view by_;
};

}  // namespace

double inflow(double reservoir, double bubble_point, double bottom_hole) {
  if (bottom_hole >= reservoir) return 0;
  const double pb = std::min(bubble_point, reservoir);
  if (bottom_hole >= pb) return reservoir - bottom_hole;
  const double x = std::max(bottom_hole, 0.0) / pb;
  return reservoir - pb + pb / 1.8 * (1 - x * (0.2 + 0.8 * x));
}

double inverse_inflow(double reservoir, double bubble_point, double inflow) {
  const double pb = std::min(bubble_point, reservoir);
  if (inflow <= reservoir - pb) return reservoir - inflow;
  const double rest = std::max(0.0, 1 - (inflow - (reservoir - pb)) * 1.8 / pb);
  return pb * (std::sqrt(0.04 + 3.2 * rest) - 0.2) / 1.6;
}

struct Well::Mix {
  double oil = 0;
  double gas = 0;
  double water = 0;
  double mass = 0;
  double volume = 0;
};

/// Pressure from the bottom of the tubing to its head: weight of a fluid of constant density plus
/// friction with the square of the rate, so that it is monotonic in both.
struct Well::Column {
  double weight = 0;    // bar
  double friction = 0;  // bar / (rate)^2
};

Well::Well(const WellDeck& deck) : deck_(deck), open_(deck.open), uptime_(deck.uptime) {
  for (std::size_t i = 0; i < kConstraintCount; ++i) {
    if (deck.limits[i]) limits_[i] = Limit{*deck.limits[i], "DECK"};
  }
}

void Well::set_uptime(double fraction) {
  uptime_ = std::clamp(fraction, 0.0, 1.0);
}

void Well::set_limit(Constraint constraint, std::optional<Limit> limit) {
  limits_[static_cast<std::size_t>(constraint)] = std::move(limit);
}

const std::optional<Well::Limit>& Well::limit(Constraint constraint) const {
  return limits_[static_cast<std::size_t>(constraint)];
}

Well::Mix Well::mix(const FlowState& flow) const {
  const Stream& oil = flow.oil_phase;
  const Stream& gas = flow.gas_phase;
  const double g = deck_.gas_mobility;
  Mix mix;
  mix.oil = oil.oil + g * gas.oil;
  mix.gas = oil.gas + g * gas.gas;
  mix.water = deck_.water_mobility * flow.water;
  mix.mass = oil.mass + g * gas.mass;
  mix.volume = oil.tubing_volume + g * gas.tubing_volume;
  return mix;
}

Well::Column Well::column(const Surroundings& around, const Mix& mix) const {
  double density = around.water_density;
  double volume = 1;  // m3 in the tubing per unit of rate
  if (deck_.type == WellType::kProducer) {
    const double all = mix.volume + mix.water;
    density = all > 0 ? (mix.mass + mix.water * around.water_density) / all : 0;
    volume = all;
  } else if (deck_.type == WellType::kGasInjector) {
    density = around.gas_density;
    // Injected gas takes the weight of a typical dry gas (gravity 0.65) into the tubing.
    volume = 0.65 * 1.223 / density;
  }
  const double area = std::numbers::pi / 4 * deck_.tubing_diameter * deck_.tubing_diameter;
  const double velocity = volume / area / kSecondsPerDay;
  return {density * kGravity * deck_.depth / kPascalPerBar,
          kFrictionFactor * deck_.depth / deck_.tubing_diameter * density * velocity * velocity /
              2 / kPascalPerBar};
}

OperatingPoint Well::producing(const Surroundings& around, double drawdown_term) const {
  const Mix each = mix(around.flow);
  const Column tubing = column(around, each);
  OperatingPoint point;
  const double average = drawdown_term * uptime_;
  point.drawdown_term = drawdown_term;
  point.oil = average * each.oil;
  point.gas = average * each.gas;
  point.water = average * each.water;
  point.bottom_hole_pressure =
      inverse_inflow(around.flow.pressure, around.flow.bubble_point, drawdown_term / deck_.index);
  const double lift = drawdown_term > 0 ? deck_.lift : 0;
  point.tubing_head_pressure = std::max(0.0, point.bottom_hole_pressure + lift - tubing.weight -
                                                 tubing.friction * drawdown_term * drawdown_term);
  return point;
}

OperatingPoint Well::injecting(const Surroundings& around, double rate) const {
  const Column tubing = column(around, {});
  OperatingPoint point;
  (deck_.type == WellType::kGasInjector ? point.gas_injection : point.water_injection) =
      rate * uptime_;
  point.bottom_hole_pressure = around.flow.pressure + rate / deck_.index;
  point.tubing_head_pressure =
      std::max(0.0, point.bottom_hole_pressure - tubing.weight + tubing.friction * rate * rate);
  return point;
}

OperatingPoint Well::solve_producer(const Surroundings& around) const {
  const FlowState& flow = around.flow;
  const Mix each = mix(flow);
  const auto open_up = [&](double pressure) {
    return deck_.index * inflow(flow.pressure, flow.bubble_point, pressure);
  };
  Tightest tightest(open_up(kStandardPressure), "RESERVOIR");
  const auto rate_limit = [&](Constraint constraint, double per_term) {
    const auto& set = limit(constraint);
    const double average = uptime_ * per_term;
    if (set && average > 0) tightest.allow(set->value / average, name_of(constraint));
  };
  rate_limit(Constraint::kOilProductionRate, each.oil);
  rate_limit(Constraint::kGasProductionRate, each.gas);
  rate_limit(Constraint::kWaterProductionRate, each.water);
  rate_limit(Constraint::kLiquidProductionRate, each.oil + each.water);
  if (const auto& set = limit(Constraint::kBottomHolePressure)) {
    tightest.allow(open_up(set->value), name_of(Constraint::kBottomHolePressure));
  }
  if (const auto& set = limit(Constraint::kTubingHeadPressure)) {
    const Column tubing = column(around, each);
    const auto spare = [&](double term) {
      return inverse_inflow(flow.pressure, flow.bubble_point, term / deck_.index) + deck_.lift -
             tubing.weight - tubing.friction * term * term - set->value;
    };
    tightest.allow(falling_root(spare, 0, tightest.rate()),
                   name_of(Constraint::kTubingHeadPressure));
  }
  OperatingPoint point = producing(around, tightest.rate());
  point.limited_by = tightest.by();
  return point;
}

OperatingPoint Well::solve_injector(const Surroundings& around) const {
  const bool gas = deck_.type == WellType::kGasInjector;
  const auto open_up = [&](double pressure) {
    return deck_.index * std::max(0.0, pressure - around.flow.pressure);
  };
  Tightest tightest(open_up(around.fracture_pressure), "RESERVOIR");
  const Constraint rate = gas ? Constraint::kGasInjectionRate : Constraint::kWaterInjectionRate;
  if (const auto& set = limit(rate); set && uptime_ > 0) {
    tightest.allow(set->value / uptime_, name_of(rate));
  }
  if (const auto& set = limit(Constraint::kBottomHolePressure)) {
    tightest.allow(open_up(set->value), name_of(Constraint::kBottomHolePressure));
  }
  if (const auto& set = limit(Constraint::kTubingHeadPressure)) {
    const Column tubing = column(around, {});
    const auto spare = [&](double q) {
      return set->value -
             (around.flow.pressure + q / deck_.index - tubing.weight + tubing.friction * q * q);
    };
    tightest.allow(falling_root(spare, 0, tightest.rate()),
                   name_of(Constraint::kTubingHeadPressure));
  }
  OperatingPoint point = injecting(around, tightest.rate());
  point.limited_by = tightest.by();
  return point;
}

OperatingPoint Well::solve(const Surroundings& around) const {
  const bool producer = deck_.type == WellType::kProducer;
  if (open_) return producer ? solve_producer(around) : solve_injector(around);
  OperatingPoint point = producer ? producing(around, 0) : injecting(around, 0);
  point.limited_by = "SHUT";
  return point;
}

OperatingPoint Well::at_bottom_hole_pressure(const Surroundings& around, double pressure) const {
  const FlowState& flow = around.flow;
  if (deck_.type == WellType::kProducer) {
    return producing(around, deck_.index * inflow(flow.pressure, flow.bubble_point, pressure));
  }
  return injecting(around, deck_.index * std::max(0.0, pressure - flow.pressure));
}

}  // namespace simulator
