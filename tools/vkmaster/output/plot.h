#pragma once

#include <string>
#include <vector>

namespace vkmaster {

struct Plot {
  std::string title;
  std::string x_label;
  std::string y_label;
  std::vector<double> x;
  std::vector<double> y;  ///< as long as `x`
};

/// The points and the lines between them as characters, `width` by `height` inside the axes. Points
/// that are no finite numbers are left out; empty when none is left.
std::string Draw(const Plot& plot, int width = 56, int height = 14);

}  // namespace vkmaster
