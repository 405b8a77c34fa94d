#include "simulator/root_finding.h"

#include <cmath>

namespace simulator {

// The Illinois form of the false position: as safe as halving, and far fewer evaluations, which
// matter because one may be a whole flash calculation.
double falling_root(const std::function<double(double)>& f, double low, double high) {
  constexpr int kMostEvaluations = 200;
  double at_low = f(low);
  double at_high = f(high);
  if (at_low <= 0) return low;
  if (at_high >= 0) return high;
  int last_side = 0;
  for (int n = 0; n < kMostEvaluations && high - low > 1e-12 * std::abs(high); ++n) {
    double x = (low * at_high - high * at_low) / (at_high - at_low);
    if (n % 8 == 7 || !(x > low && x < high)) x = (low + high) / 2;
    const double at_x = f(x);
    if (at_x == 0) return x;
    if (at_x > 0) {
      low = x;
      at_low = at_x;
      if (last_side > 0) at_high /= 2;
      last_side = 1;
    } else {
      high = x;
      at_high = at_x;
      if (last_side < 0) at_low /= 2;
      last_side = -1;
    }
  }
  return (low + high) / 2;
}

}  // namespace simulator
