#pragma once

#include <string>
#include <vector>

#include "tools/jobmillctl/serve/timeline.h"

namespace jobmillctl::serve {

struct Dot {
  double time = 0;  ///< seconds since 1970
  double value = 0;
};

/// A curve over time as an SVG, empty below two dots. `from` and `to` are the ends of the time
/// axis.
std::string Curve(const std::vector<Dot>& dots, double from, double to);

/// By how much the values, which only grow, grow in a minute. Each step of the result is over a
/// 60th of the time axis, and over ten seconds at least.
std::vector<Dot> PerMinute(const std::vector<Dot>& dots, double from, double to);

/// The states as bars in their colours over the same time axis.
std::string Bars(const std::vector<Timeline::Span>& states, double from, double to);

/// How the page names the colour of a state.
std::string ColourOf(const std::string& state);

/// The character that is the sign of a state.
std::string SignOf(const std::string& state);

}  // namespace jobmillctl::serve
