#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace load {

/// Memory of one process in KiB, from /proc/PID/smaps_rollup.
struct Memory {
  long resident = 0;
  long anonymous = 0;  ///< heap, stacks and written data, also where shared since a fork
  long own = 0;        ///< what goes when the process goes: its private pages
  long share = 0;      ///< resident, with shared pages counted in equal parts
};

/// Nothing when the process is not there.
std::optional<Memory> MemoryOf(pid_t pid);

/// The children of `parent` that have ended and were not waited for.
std::vector<pid_t> ZombiesOf(pid_t parent);

/// The smallest of `values` that is not below `share` of them (0 < share <= 1); 0 without values.
double Percentile(std::vector<double> values, double share);

/// What a scenario saw: figures, printed as they come, and what was not as it has to be. For use
/// by several threads.
class Report {
 public:
  void Figure(const std::string& what, const std::string& value);
  void Figure(const std::string& what, double value, const std::string& unit);

  /// Notes `failure` unless `holds`.
  void Require(bool holds, const std::string& failure);

  /// Notes a failure when `now` exceeds `before` by more than `tolerance` KiB.
  void RequireFlat(const std::string& what, long before, long now, long tolerance);

  std::vector<std::string> failures() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> failures_;
};

/// What a daemon holds at rest; what it holds later is compared with it.
class Baseline {
 public:
  /// The tolerance, in KiB: pages that are written for the first time during a long life. Over ten
  /// thousand connections it shows a leak of seven bytes each.
  static constexpr long kTolerance = 64;

  /// The longest that a child may stay after its master: the probes by which it finds out that a
  /// master has gone in the middle of a request take a minute.
  static constexpr std::chrono::seconds kPatience{90};

  /// Of a daemon without children.
  explicit Baseline(pid_t daemon);

  /// Descriptors and memory as at first; also while there are children.
  void RequireUnchanged(Report& report) const;

  /// Waits for the last child to go; then no zombie is left either, and all is as at first.
  void RequireRest(Report& report, std::chrono::milliseconds patience = kPatience) const;

  std::string Text() const;

 private:
  pid_t daemon_;
  std::size_t descriptors_;
  long anonymous_;
};

}  // namespace load
