#pragma once

#include <functional>

namespace simulator {

/// A point of a function.
struct Sample {
  double x = 0;
  double value = 0;
};

/// The x in [low, high] at which the falling function `f` is 0, to about 12 digits. Where f does
/// not change sign the nearer end is returned: the caller knows what its ends mean.
double falling_root(const std::function<double(double)>& f, double low, double high);

/// The same where the values at both ends are known already.
double falling_root(const std::function<double(double)>& f, Sample low, Sample high);

}  // namespace simulator
