#include "simulator/equation_of_state.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

namespace simulator {
namespace {

constexpr int kMostIterations = 300;
constexpr double kCriticalVolume = 3.95;     // of the Peng-Robinson equation, over the co-volume
constexpr double kLowestBubblePoint = 1e-3;  // bar; a lower one is as good as none

// The slope of the attraction term over temperature; heavy components have a curve of their own.
double slope(double acentric) {
  if (acentric <= 0.49) return 0.37464 + acentric * (1.54226 - 0.26992 * acentric);
  return 0.379642 + acentric * (1.48503 + acentric * (-0.164423 + 0.016666 * acentric));
}

double attraction(const Component& component, double temperature) {
  const double r = kGasConstant * component.critical_temperature;
  const double alpha = 1 + slope(component.acentric_factor) *
                               (1 - std::sqrt(temperature / component.critical_temperature));
  return component.omega_a * r * r / component.critical_pressure * alpha * alpha;
}

double cubic(double z, double c2, double c1, double c0) {
  return ((z + c2) * z + c1) * z + c0;
}

double polish(double z, double c2, double c1, double c0) {
  for (int n = 0; n < 3; ++n) {
    const double derivative = (3 * z + 2 * c2) * z + c1;
    if (derivative == 0) break;
    z -= cubic(z, c2, c1, c0) / derivative;
  }
  return z;
}

struct Roots {
  double smallest;
  double largest;
};

// Real roots of z^3 + c2 z^2 + c1 z + c0.
Roots real_roots(double c2, double c1, double c0) {
  const double q = (c2 * c2 - 3 * c1) / 9;
  const double r = (c2 * (2 * c2 * c2 - 9 * c1) + 27 * c0) / 54;
  const double shift = c2 / 3;
  if (r * r < q * q * q) {
    const double angle = std::acos(r / std::sqrt(q * q * q));
    const double size = -2 * std::sqrt(q);
    const double first = size * std::cos(angle / 3) - shift;
    const double last = size * std::cos((angle + 2 * std::numbers::pi) / 3) - shift;
    return {polish(first, c2, c1, c0), polish(last, c2, c1, c0)};
  }
  const double s =
      -std::copysign(std::cbrt(std::abs(r) + std::sqrt(std::max(0.0, r * r - q * q * q))), r);
  const double root = polish(s + (s == 0 ? 0 : q / s) - shift, c2, c1, c0);
  return {root, root};
}

// The vapour fraction that solves the Rachford-Rice equation. Below 0 or above 1 there is one phase
// only; the iteration goes on with such fractions, since the equilibrium values still converge.
double vapour_fraction(const std::vector<double>& z, const std::vector<double>& k) {
  const auto [least, most] = std::minmax_element(k.begin(), k.end());
  if (*most <= 1 + 1e-12) return -1e6;
  if (*least >= 1 - 1e-12) return 1e6;
  double low = 1 / (1 - *most);
  double high = 1 / (1 - *least);
  double v = std::clamp(0.5, low, high);
  for (int n = 0; n < 100; ++n) {
    double sum = 0;
    double derivative = 0;
    for (std::size_t i = 0; i < z.size(); ++i) {
      const double part = (k[i] - 1) / (1 + v * (k[i] - 1));
      sum += z[i] * part;
      derivative -= z[i] * part * part;
    }
    (sum > 0 ? low : high) = v;
    double next = v - sum / derivative;
    if (!(next > low && next < high)) next = (low + high) / 2;
    if (std::abs(next - v) < 1e-14 * std::max(1.0, std::abs(v))) return next;
    v = next;
  }
  return v;
}

void normalise(std::vector<double>& x) {
  const double sum = std::accumulate(x.begin(), x.end(), 0.0);
  for (double& each : x) each /= sum;
}

void split(const std::vector<double>& z, const std::vector<double>& k, double v,
           std::vector<double>& x, std::vector<double>& y) {
  for (std::size_t i = 0; i < z.size(); ++i) {
    x[i] = z[i] / (1 + v * (k[i] - 1));
    y[i] = k[i] * x[i];
  }
  normalise(x);
  normalise(y);
}

// Sets the equilibrium values by the phases' fugacities. Returns the sum of the squared changes, by
// which the caller sees convergence.
double update(std::vector<double>& k, const std::vector<double>& in_liquid,
              const std::vector<double>& in_vapour) {
  double change = 0;
  for (std::size_t i = 0; i < k.size(); ++i) {
    const double next = in_liquid[i] - in_vapour[i];
    const double step = next - std::log(k[i]);
    change += step * step;
    k[i] = std::exp(next);
  }
  return change;
}

bool is_trivial(const std::vector<double>& k) {
  double sum = 0;
  for (const double each : k) sum += std::log(each) * std::log(each);
  return sum < 1e-4;
}

}  // namespace

EquationOfState::EquationOfState(const std::vector<Component>& components, double temperature)
    : components_(components), temperature_(temperature) {
  const std::size_t n = components.size();
  pairs_.resize(n * n);
  b_.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    b_[i] = components[i].omega_b * kGasConstant * components[i].critical_temperature /
            components[i].critical_pressure;
    for (std::size_t j = 0; j < n; ++j) {
      pairs_[i * n + j] = std::sqrt(attraction(components[i], temperature) *
                                    attraction(components[j], temperature)) *
                          (1 - binary_interaction(components[i].name, components[j].name));
    }
  }
}

EquationOfState::Mixed EquationOfState::mix(const std::vector<double>& x) const {
  const std::size_t n = x.size();
  Mixed mixed;
  mixed.pair_sums.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    const double* row = &pairs_[i * n];
    mixed.pair_sums[i] = std::inner_product(x.begin(), x.end(), row, 0.0);
    mixed.a += x[i] * mixed.pair_sums[i];
    mixed.b += x[i] * b_[i];
  }
  return mixed;
}

double EquationOfState::compressibility(const Mixed& mixed, double pressure, Phase phase) const {
  const double rt = kGasConstant * temperature_;
  const double a = mixed.a * pressure / (rt * rt);
  const double b = mixed.b * pressure / rt;
  const Roots roots = real_roots(b - 1, a - b * (3 * b + 2), -b * (a - b * (1 + b)));
  // A root below the co-volume is no volume of a fluid. There is then only the largest root's
  // phase.
  if (phase == Phase::kLiquid && roots.smallest > b) return roots.smallest;
  return roots.largest;
}

void EquationOfState::log_fugacity(const std::vector<double>& x, double pressure, Phase phase,
                                   std::vector<double>& out) const {
  const double root2 = std::numbers::sqrt2;
  const Mixed mixed = mix(x);
  const double rt = kGasConstant * temperature_;
  const double a = mixed.a * pressure / (rt * rt);
  const double b = mixed.b * pressure / rt;
  const double z = compressibility(mixed, pressure, phase);
  const double log_free = std::log(z - b);
  const double log_ratio = std::log((z + (1 + root2) * b) / (z + (1 - root2) * b));
  for (std::size_t i = 0; i < x.size(); ++i) {
    const double share = b_[i] / mixed.b;
    out[i] = share * (z - 1) - log_free -
             a / (2 * root2 * b) * (2 * mixed.pair_sums[i] / mixed.a - share) * log_ratio;
  }
}

std::vector<double> EquationOfState::wilson(double pressure) const {
  std::vector<double> k(components_.size());
  std::transform(components_.begin(), components_.end(), k.begin(), [&](const Component& c) {
    return c.critical_pressure / pressure *
           std::exp(5.373 * (1 + c.acentric_factor) * (1 - c.critical_temperature / temperature_));
  });
  return k;
}

bool EquationOfState::looks_liquid(const std::vector<double>& mixture, double pressure) const {
  const Mixed mixed = mix(mixture);
  const double z = compressibility(mixed, pressure, Phase::kLiquid);
  if (z * kGasConstant * temperature_ / pressure > kCriticalVolume * mixed.b) return false;
  double weighted = 0;
  double volume = 0;
  for (std::size_t i = 0; i < mixture.size(); ++i) {
    const double part = mixture[i] * components_[i].critical_volume;
    weighted += part * components_[i].critical_temperature;
    volume += part;
  }
  return temperature_ < weighted / volume;
}

Flash EquationOfState::flash(const std::vector<double>& mixture, double pressure) const {
  const std::size_t n = mixture.size();
  std::vector<double> k = wilson(pressure);
  std::vector<double> in_liquid(n);
  std::vector<double> in_vapour(n);
  Flash result;
  result.liquid.resize(n);
  result.vapour.resize(n);
  double v = 0;
  for (int iteration = 0; iteration < kMostIterations; ++iteration) {
    v = vapour_fraction(mixture, k);
    // The first estimates may see one phase where there are two, so the fraction is held within 0
    // and 1 for some iterations.
    if (iteration < 10) v = std::clamp(v, 0.0, 1.0);
    if (std::abs(v) > 1e5) break;
    split(mixture, k, v, result.liquid, result.vapour);
    log_fugacity(result.liquid, pressure, Phase::kLiquid, in_liquid);
    log_fugacity(result.vapour, pressure, Phase::kVapour, in_vapour);
    if (update(k, in_liquid, in_vapour) < 1e-20 && iteration >= 10) break;
  }
  const bool trivial = is_trivial(k);
  if (trivial || std::abs(v) > 1e5) {
    // Where every component would rather be vapour, v is far above 1, and there is only vapour.
    const bool liquid = trivial ? looks_liquid(mixture, pressure) : v < 0;
    v = liquid ? 0 : 1;
    result.liquid = result.vapour = mixture;
  } else if (v <= 0) {
    v = 0;
    result.liquid = mixture;
  } else if (v >= 1) {
    v = 1;
    result.vapour = mixture;
  }
  result.vapour_fraction = v;
  result.liquid_volume = molar_volume(result.liquid, pressure, Phase::kLiquid);
  result.vapour_volume = molar_volume(result.vapour, pressure, Phase::kVapour);
  return result;
}

double EquationOfState::molar_volume(const std::vector<double>& x, double pressure,
                                     Phase phase) const {
  double shift = 0;
  for (std::size_t i = 0; i < x.size(); ++i) shift += x[i] * components_[i].volume_shift * b_[i];
  const double z = compressibility(mix(x), pressure, phase);
  return z * kGasConstant * temperature_ / pressure - shift;
}

double EquationOfState::bubble_point(const std::vector<double>& liquid, double liquid_at) const {
  if (const auto found = iterate_bubble_point(liquid)) return *found;
  // Near a critical point the iteration ends in the trivial solution, but flash calculations still
  // tell where there are two phases.
  double low = kLowestBubblePoint;
  double high = liquid_at;
  if (!(low < high) || flash(liquid, low).vapour_fraction <= 0) return 0;
  while (high - low > 1e-6 * high) {
    const double middle = (low + high) / 2;
    (flash(liquid, middle).vapour_fraction > 0 ? low : high) = middle;
  }
  return high;
}

std::optional<double> EquationOfState::iterate_bubble_point(
    const std::vector<double>& liquid) const {
  const std::size_t n = liquid.size();
  const std::vector<double> start = wilson(1);
  double pressure =
      std::clamp(std::inner_product(liquid.begin(), liquid.end(), start.begin(), 0.0) / 3,
                 kLowestBubblePoint, 400.0);
  std::vector<double> k = wilson(pressure);
  std::vector<double> vapour(n);
  std::vector<double> in_liquid(n);
  std::vector<double> in_vapour(n);
  for (int iteration = 0; iteration < kMostIterations; ++iteration) {
    for (std::size_t i = 0; i < n; ++i) vapour[i] = liquid[i] * k[i];
    const double sum = std::accumulate(vapour.begin(), vapour.end(), 0.0);
    normalise(vapour);
    const double next = pressure * std::clamp(sum, 0.7, 1.4);
    if (!(next > kLowestBubblePoint && next < 2000)) return std::nullopt;
    const bool settled = std::abs(next - pressure) < 1e-8 * pressure;
    pressure = next;
    log_fugacity(liquid, pressure, Phase::kLiquid, in_liquid);
    log_fugacity(vapour, pressure, Phase::kVapour, in_vapour);
    const double change = update(k, in_liquid, in_vapour);
    if (n > 1 && is_trivial(k)) return std::nullopt;
    if (settled && change < 1e-12) return pressure;
  }
  return std::nullopt;
}

double EquationOfState::molecular_weight(const std::vector<double>& x) const {
  double sum = 0;
  for (std::size_t i = 0; i < x.size(); ++i) sum += x[i] * components_[i].molecular_weight;
  return sum;
}

}  // namespace simulator
