#pragma once

#include <string>

#include "simulator/reservoir.h"

/// The run as its user reads it on standard output. Every line is flushed at once: whoever started
/// the run waits for some of them. A reader that has gone does not disturb the run.
class RunLog {
 public:
  /// With `details`, every step is followed by a line for each well.
  explicit RunLog(bool details) : details_(details) {}

  void Line(const std::string& text) const;
  void Summary(const simulator::Reservoir& run, const std::string& deck) const;
  void Step(const simulator::Reservoir& run);
  void Totals(const simulator::Reservoir& run) const;

 private:
  void Heading(const simulator::Reservoir& run) const;
  void Wells(const simulator::Reservoir& run) const;

  bool details_;
  bool headed_ = false;
};
