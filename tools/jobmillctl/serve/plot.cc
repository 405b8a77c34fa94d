#include "tools/jobmillctl/serve/plot.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <iterator>

#include <fmt/format.h>

#include "inspect/runs.h"

namespace jobmillctl::serve {
namespace {

using inspect::RunState;

// In the coordinates of the pictures.
constexpr double kLeft = 64;
constexpr double kRight = 952;
constexpr double kTop = 8;
constexpr double kBottom = 150;
constexpr double kBar = 26;

struct Look {
  RunState state;
  const char* colour;
  const char* sign;
};
constexpr Look kLooks[] = {
    {RunState::kHandshake, "handshake", "◌"},
    {RunState::kScript, "script", "◷"},
    {RunState::kSimulatorListens, "listens", "◎"},
    {RunState::kMaster, "master", "‖"},
    {RunState::kSimulator, "simulator", "▶"},
    {RunState::kEnded, "end", "■"},
    {RunState::kEnding, "end", "◧"},
    {RunState::kLost, "lost", "▲"},
    {RunState::kUnknown, "unknown", "?"},
};

const Look& LookOf(const std::string& state) {
  const auto* found =
      std::ranges::find_if(kLooks, [&](const Look& look) { return Name(look.state) == state; });
  return found == std::end(kLooks) ? *(found - 1) : *found;
}

// Where a time stands between the left and the right end of a picture.
class Axis {
 public:
  Axis(double from, double to) : from_(from), length_(std::max(to - from, 1.0)) {}

  double At(double time) const {
    return kLeft + (kRight - kLeft) * std::clamp((time - from_) / length_, 0.0, 1.0);
  }

  // The times at both ends and in the middle, below the line `y`.
  std::string Labels(double y) const {
    constexpr std::array<const char*, 3> kAnchors = {"start", "middle", "end"};
    std::string svg;
    for (std::size_t i = 0; i < kAnchors.size(); ++i) {
      const double time = from_ + length_ * static_cast<double>(i) / 2;
      svg += fmt::format(R"(<text x="{:.1f}" y="{:.1f}" text-anchor="{}">{}</text>)", At(time),
                         y + 14, kAnchors.at(i), TimeOfDay(time));
    }
    return svg;
  }

 private:
  // With the day where the axis is longer than one.
  std::string TimeOfDay(double time) const {
    const auto seconds = static_cast<time_t>(time);
    const tm* local = localtime(&seconds);
    std::array<char, 32> text{};
    constexpr double kDay = 86400;
    if (local == nullptr) return {};
    strftime(text.data(), text.size(), length_ > kDay ? "%m-%d %H:%M" : "%H:%M:%S", local);
    return text.data();
  }

  double from_;
  double length_;
};

}  // namespace

std::string Curve(const std::vector<Dot>& dots, double from, double to) {
  if (dots.size() < 2) return {};
  const auto [least, most] = std::ranges::minmax(dots, {}, &Dot::value);
  const double low = std::min(0.0, least.value);
  const double height = most.value - low > 0 ? most.value - low : 1;
  const Axis axis(from, to);
  const auto y = [&](double value) { return kBottom - (kBottom - kTop) * (value - low) / height; };
  std::string svg = R"(<svg class="plot" viewBox="0 0 960 170" role="img">)";
  for (const double share : {0.0, 0.5, 1.0}) {
    const double value = low + share * height;
    svg += fmt::format(R"(<line class="axis" x1="{0}" x2="{1}" y1="{2:.1f}" y2="{2:.1f}"/>)"
                       R"(<text x="{3}" y="{4:.1f}" text-anchor="end">{5:.4g}</text>)",
                       kLeft, kRight, y(value), kLeft - 6, y(value) + 4, value);
  }
  svg += R"(<polyline class="curve" points=")";
  for (const Dot& dot : dots) svg += fmt::format("{:.1f},{:.1f} ", axis.At(dot.time), y(dot.value));
  return svg + "\"/>" + axis.Labels(kBottom) + "</svg>";
}

std::vector<Dot> PerMinute(const std::vector<Dot>& dots, double from, double to) {
  constexpr double kLeast = 10;
  constexpr double kMinute = 60;
  const double step = std::max(kLeast, (to - from) / 60);
  std::vector<Dot> rates;
  if (dots.empty()) return rates;
  Dot begin = dots.front();
  for (const Dot& dot : dots) {
    const double passed = dot.time - begin.time;
    // The last step is what is left, when that is not so short that one request makes a peak.
    if (passed < step && (&dot != &dots.back() || passed < step / 2)) continue;
    const double rate = std::max(0.0, dot.value - begin.value) * kMinute / passed;
    rates.push_back({begin.time, rate});
    rates.push_back({dot.time, rate});
    begin = dot;
  }
  return rates;
}

std::string Bars(const std::vector<Timeline::Span>& states, double from, double to) {
  const Axis axis(from, to);
  std::string svg = R"(<svg class="plot" viewBox="0 0 960 56" role="img">)";
  svg += fmt::format(R"(<rect class="unseen" x="{}" y="{}" width="{}" height="{}"/>)", kLeft, kTop,
                     kRight - kLeft, kBar);
  for (const Timeline::Span& span : states) {
    const double left = axis.At(span.since);
    svg += fmt::format(
        R"(<rect class="bar {}" x="{:.1f}" y="{}" width="{:.1f}" height="{}"><title>{}</title></rect>)",
        ColourOf(span.state), left, kTop, std::max(1.0, axis.At(span.until) - left), kBar,
        LookOf(span.state).state == RunState::kUnknown ? "unknown" : span.state);
  }
  return svg + axis.Labels(kTop + kBar) + "</svg>";
}

std::string ColourOf(const std::string& state) {
  return LookOf(state).colour;
}

std::string SignOf(const std::string& state) {
  return LookOf(state).sign;
}

}  // namespace jobmillctl::serve
