#include "simulator/root_finding.h"

#include <cmath>

namespace simulator {

double falling_root(const std::function<double(double)>& f, double low, double high) {
  return falling_root(f, {low, f(low)}, {high, f(high)});
}

// The Illinois form of the false position: as safe as halving, and far fewer evaluations, which
// matter because one may be a whole flash calculation.
double falling_root(const std::function<double(double)>& f, Sample low, Sample high) {
  constexpr int kMostEvaluations = 200;
  if (low.value <= 0) return low.x;
  if (high.value >= 0) return high.x;
  int last_side = 0;
  for (int n = 0; n < kMostEvaluations && high.x - low.x > 1e-12 * std::abs(high.x); ++n) {
    double x = (low.x * high.value - high.x * low.value) / (high.value - low.value);
    if (n % 8 == 7 || !(x > low.x && x < high.x)) x = (low.x + high.x) / 2;
    const double at_x = f(x);
    if (at_x == 0) return x;
    if (at_x > 0) {
      low = {x, at_x};
      if (last_side > 0) high.value /= 2;
      last_side = 1;
    } else {
      high = {x, at_x};
      if (last_side < 0) low.value /= 2;
      last_side = -1;
    }
  }
  return (low.x + high.x) / 2;
}

}  // namespace simulator
