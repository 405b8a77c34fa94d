#pragma once

#include <string>

#include "tools/jobmillctl/serve/timeline.h"

namespace jobmillctl::serve {

/// All that a page shows.
struct View {
  const Json& snapshot;  ///< snapshot.h; null: there was none yet
  const Timelines& timelines;
  double now = 0;
  std::string trouble;  ///< why there is no snapshot, or no newer one; empty: all is well
};

/// Which runs are shown.
struct Filter {
  std::string state;  ///< the words of a state, or kLicence; empty: all
  std::string text;   ///< held by a name of the run, in whatever case of letters; empty: all
  std::string ended;  ///< kFailed: of the runs that have ended only those that failed; empty: all
};

/// Stands for the runs that have a simulator, which holds a licence.
inline constexpr const char* kLicence = "with a simulator";

inline constexpr const char* kFailed = "failed";

/// The table of runs, what has ended, the findings.
std::string RunsPage(const View& view, const Filter& filter);

/// All about one run, and how it came there.
std::string RunPage(const View& view, const Timeline& timeline);

std::string SentencePage(const View& view, const std::string& sentence);

/// How many seconds old the document of `part` is: of "runs", "history" or "check".
double AgeOf(const View& view, const char* part);

/// Whether the collector still works: its last look at the runs succeeded and was not long ago.
bool IsCollected(const View& view);

}  // namespace jobmillctl::serve
