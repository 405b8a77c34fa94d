#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/jobmillctl/serve/fields.h"

namespace jobmillctl::serve {

/// What the looks at one run have shown, one after the other. Times are seconds since 1970. What
/// happened between two looks is not seen: of requests in quick succession only the state at the
/// moment of a look.
class Timeline {
 public:
  struct Span {
    std::string state;
    double since = 0;
    double until = 0;
  };
  struct Point {
    double time = 0;
    std::optional<double> day;             ///< simulated
    std::optional<std::int64_t> requests;  ///< since the run's beginning
  };

  /// A run as `status --json` tells it, at the first look that has it. `before` is when the look
  /// before that was, 0 without one.
  Timeline(const Json& run, double now, double before);

  /// The run at the next look.
  void Add(const Json& run, double now);

  /// The run was not there any more at the next look.
  void End(double now) { ended_ = now; }

  const Json& run() const { return run_; }
  std::optional<double> ended() const { return ended_; }
  double seen() const { return seen_; }

  /// The last states, at most kMostStates; `states_left_out` tells of others before them.
  static constexpr std::size_t kMostStates = 500;
  const std::vector<Span>& states() const { return states_; }
  bool states_left_out() const { return states_left_out_; }

  /// At most 720, evenly over the time in which the run was seen.
  const std::vector<Point>& points() const { return points_; }

  /// How long the run was seen in a state.
  double SecondsIn(const std::string& state) const;

  /// How long the run waited for its script to name a host, which the script does when the job is
  /// through its queue. None when that is not known: the host was named before anybody looked.
  struct Queue {
    double seconds = 0;
    bool at_most = false;  ///< the wait began and ended between two looks
  };
  std::optional<Queue> Queued() const;

  /// When its master connected, or else the first time that is known.
  double Beginning() const;

  /// How many processors its simulator used between the last two looks. None when the simulator is
  /// not on this machine, or when there was one look.
  std::optional<double> processors() const { return processors_; }

  /// Since when its simulator has used no processor time; none when it has, or when that is not
  /// known.
  std::optional<double> idle_since() const { return idle_since_; }

 private:
  void AddState(double now);
  void AddPoint(double now);
  void AddProcessors(const Json& before, double now);

  Json run_;
  double seen_ = 0;
  std::optional<double> ended_;
  std::vector<Span> states_;
  bool states_left_out_ = false;
  std::map<std::string, double> seconds_;
  std::optional<Queue> queue_;  // as known at the first look; unless at_most, seconds_ has the time
  std::vector<Point> points_;
  double distance_ = 0;  // between two points
  std::optional<double> processors_;
  std::optional<double> idle_since_;
};

/// The timelines of all runs that are there, and of the last 200 that have ended. A pointer to one
/// holds until the next Add().
class Timelines {
 public:
  /// Takes a document of `status --json` that was made at `now`.
  void Add(const Json& status, double now);

  /// The run of this number: the one that is there, or the last one that was. Null when there is
  /// none.
  const Timeline* Find(const std::string& id) const;

  /// The timeline of a run in the last document.
  const Timeline* Of(const Json& run) const;

  /// The timeline of a run that `history --json` tells of; null also when two could be meant.
  const Timeline* FindEnded(const Json& run) const;

 private:
  double last_ = 0;                       // when the last look was
  std::map<std::string, Timeline> runs_;  // by number and time of the connection
  std::vector<Timeline> ended_;           // in the order of their ends
};

}  // namespace jobmillctl::serve
