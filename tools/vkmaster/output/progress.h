#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace vkmaster {

/// A line on the terminal that shows that something is under way; overwritten in place, gone when
/// done. Disabled it writes nothing.
///
/// The daemon says nothing while a step is computed. So the line shows the time spent, and the bar
/// moves only when a step has ended.
class Progress {
 public:
  Progress(bool enabled, std::FILE* terminal) : enabled_(enabled), terminal_(terminal) {}

  /// Starts the line for something whose end is not known.
  void Begin(std::string what);

  /// Starts the line for an advance from one time to another, in days.
  void BeginAdvance(double from, double to);

  /// The advance has got to `days`.
  void Reached(double days);

  /// Draws the line anew; to be called while waiting.
  void Tick();

  /// Removes the line, so that results can be written. The next Tick() draws it again.
  void Hide();

  /// Removes the line for good.
  void End();

  /// The line as it is at `elapsed` after the beginning.
  std::string Line(std::chrono::seconds elapsed) const;

 private:
  bool enabled_;
  std::FILE* terminal_;
  bool active_ = false;
  bool shown_ = false;
  bool advance_ = false;
  std::string what_;
  double from_ = 0;
  double to_ = 0;
  double reached_ = 0;
  std::chrono::steady_clock::time_point begin_;
};

}  // namespace vkmaster
