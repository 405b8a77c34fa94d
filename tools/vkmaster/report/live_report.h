#pragma once

#include <chrono>
#include <string>

namespace vkmaster {

/// Makes the directory of `file` when there is none. Throws UsageError when the file could not be
/// written there, or holds something else than a report.
void CheckWritable(const std::string& file);

/// The report of a run that goes on, made anew from its directory from time to time.
class LiveReport {
 public:
  /// `file` empty: no report.
  LiveReport(std::string directory, std::string file);

  /// Writes the page when it is due. Reading and writing many results takes its time, so that the
  /// page gets rarer, and the run loses no more than a twentieth to it. A page that cannot be
  /// written does not end the run: Finish() says so.
  void Update();

  /// Writes the page of a run that has ended. Throws UsageError when it cannot be written.
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;

  std::string directory_;
  std::string file_;
  Clock::time_point due_;
  Clock::duration last_{};  // what the last page took
};

}  // namespace vkmaster
