#include "tools/vkmaster/output/plot.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <fmt/format.h>

#include "tools/vkmaster/text/words.h"

namespace vkmaster {
namespace {

struct Axis {
  double low = 0;
  double high = 1;

  // The place of `value` on an axis of `size` characters.
  int Place(double value, int size) const {
    return static_cast<int>(std::lround((value - low) / (high - low) * (size - 1)));
  }
};

Axis AxisOf(const std::vector<double>& values) {
  const auto [low, high] = std::minmax_element(values.begin(), values.end());
  if (*high > *low) return {*low, *high};
  // All values alike: the line lies in the middle.
  const double margin = std::max(std::abs(*low), 1.0) / 2;
  return {*low - margin, *high + margin};
}

class Canvas {
 public:
  Canvas(int width, int height)
      : rows_(static_cast<std::size_t>(height), std::string(static_cast<std::size_t>(width), ' ')) {
  }

  void Put(int x, int y, char c) {
    rows_[rows_.size() - 1 - static_cast<std::size_t>(y)][static_cast<std::size_t>(x)] = c;
  }

  void Line(int x0, int y0, int x1, int y1) {
    const int steps = std::max(std::abs(x1 - x0), std::abs(y1 - y0));
    for (int i = 0; i <= steps; ++i) {
      const double part = steps == 0 ? 0 : static_cast<double>(i) / steps;
      Put(static_cast<int>(std::lround(x0 + part * (x1 - x0))),
          static_cast<int>(std::lround(y0 + part * (y1 - y0))), '.');
    }
  }

  const std::vector<std::string>& rows() const { return rows_; }

 private:
  std::vector<std::string> rows_;
};

}  // namespace

std::string Draw(const Plot& plot, int width, int height) {
  std::vector<double> xs;
  std::vector<double> ys;
  for (std::size_t i = 0; i < std::min(plot.x.size(), plot.y.size()); ++i) {
    if (!std::isfinite(plot.x[i]) || !std::isfinite(plot.y[i])) continue;
    xs.push_back(plot.x[i]);
    ys.push_back(plot.y[i]);
  }
  if (xs.empty()) return "";
  const Axis x_axis = AxisOf(xs);
  const Axis y_axis = AxisOf(ys);
  std::vector<std::pair<int, int>> points;
  for (std::size_t i = 0; i < xs.size(); ++i) {
    points.emplace_back(x_axis.Place(xs[i], width), y_axis.Place(ys[i], height));
  }
  Canvas canvas(width, height);
  for (std::size_t i = 1; i < points.size(); ++i) {
    canvas.Line(points[i - 1].first, points[i - 1].second, points[i].first, points[i].second);
  }
  for (const auto& [x, y] : points) canvas.Put(x, y, '*');

  std::string text = fmt::format("{}\n{:>10}\n", Printable(plot.title), plot.y_label);
  for (std::size_t row = 0; row < canvas.rows().size(); ++row) {
    const std::string mark = row == 0                          ? fmt::format("{:.5g}", y_axis.high)
                             : row + 1 == canvas.rows().size() ? fmt::format("{:.5g}", y_axis.low)
                                                               : "";
    text += TrimRight(fmt::format("{:>10} |{}", mark, canvas.rows()[row])) + "\n";
  }
  const std::string low = fmt::format("{:.5g}", x_axis.low);
  const std::string high = fmt::format("{:.5g}", x_axis.high);
  const int middle = std::max(0, width - static_cast<int>(low.size() + high.size()));
  text += fmt::format("{:>10} +{:-<{}}\n", "", "", width);
  text += fmt::format("{:>10}  {}{:^{}}{}\n", "", low, plot.x_label, middle, high);
  return text;
}

}  // namespace vkmaster
