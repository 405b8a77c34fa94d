#pragma once

#include <functional>

namespace simulator {

/// The x in [low, high] at which the falling function `f` is 0, to about 12 digits. Where f does
/// not change sign the nearer end is returned: the caller knows what its ends mean.
double falling_root(const std::function<double(double)>& f, double low, double high);

}  // namespace simulator
