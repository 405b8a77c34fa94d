// The run as vkmaster knows it: what was launched, what the daemon has answered before, which words
// mean which wells, and the engineers' names and units of its quantities.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "master/records.h"
#include "master/run.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

/// Sums over wells: oil, water, gas, water injected, gas injected.
using Rates = std::array<double, 5>;
Rates SumOf(const std::vector<master::WellData>& wells);

/// What the rates that were read add up to. Each counts for the days since the ones before.
struct Totals {
  std::optional<double> since;  ///< the day from which rates count; nothing before the first ones
  double up_to = 0;             ///< the day of the last rates
  Rates sums{};
  bool told = false;  ///< it was noted that the totals do not count from the start

  /// An advance has read no rates, or those of its end alone: the next ones count for all its days.
  bool skips = false;
  double longest_skip = 0;  ///< the most days for which such rates have counted
  double end_of_skip = 0;   ///< the day of those rates

  /// Lets rates count from `days` on, unless they count already.
  void Begin(double days);
  void Add(double days, const Rates& rates);
};

/// How the run was launched, for the status and for hints.
struct Launched {
  std::string daemon_host;
  int daemon_port = 0;
  std::string daemon_version;
  std::string simulator_host;
  double launch_seconds = 0;  ///< from reaching for the daemon until the simulator's host is known
  master::RunRequest request;
};

/// The file, on the daemon's host, in which a daemon started with -l logs what it exchanges with
/// master and simulator.
std::string CommsLog(const master::RunRequest& request);

/// A launched run and what is already known about it, so that nothing is asked twice and nothing
/// is sent that is sure to fail: a request that fails ends the run.
class Session {
 public:
  Session(master::Run run, Launched launched)
      : run_(std::move(run)), launched_(std::move(launched)) {}

  /// The requests themselves. Throws UsageError before Connect() and after Shutdown().
  master::Run& run();

  /// The requests at any time, for a shutdown.
  master::Run& raw_run() { return run_; }

  const Launched& launched() const { return launched_; }

  /// Each is a request that is sent once, and throws UsageError the second time.
  void Connect();
  void FirstStep();
  void Shutdown();

  /// Has the simulator compute up to `days` since the start date.
  void RunUntil(double days);
  bool connected() const { return connected_; }
  bool first_step_done() const { return first_step_done_; }
  bool shut_down() const { return shut_down_; }

  /// Whether values are in metric units, and when the simulation begins. Each asks the daemon once.
  bool Metric();
  master::Date StartDate();

  /// The components of the fluid model in their order, none for black oil. Asks the daemon once.
  const std::vector<std::string>& Components();

  /// Asks the daemon each time; last_days() is its last answer.
  double TimeDays();
  double last_days() const { return last_days_; }

  /// Asks the daemon each time; has_ended() is its last answer.
  bool Ended();
  bool has_ended() const { return has_ended_; }

  /// The wells as they are now. Asks the daemon each time.
  std::vector<master::WellStatus> Wells();

  /// The wells as Wells() found them last. Calls Wells() when nobody has.
  const std::vector<master::WellStatus>& KnownWells();

  /// The wells that `patterns` mean, in that order and each once. A pattern is a name, has * and ?
  /// in it, is "all", or is a list of such with commas. A name in another letter case is understood
  /// when only one well has it. Throws UsageError for what means no well. A model may add wells:
  /// after an advance the wells are asked for anew, for a name only when it is not known.
  std::vector<std::string> Resolve(const Words& patterns);

  /// Throws UsageError when Resolve() would for the wells now. Those that are said to come later
  /// ("later:P9"), since the model adds them in the course of the run, are left out.
  void CheckWells(const Words& patterns);
  static bool IsLater(const std::string& pattern);

  /// Keeps the constraints that were set on a well, since no request can ask for them. A later
  /// value of a constraint replaces the earlier one.
  void Remember(const master::WellConstraints& constraints);

  /// Keeps the constraints that a command will set, while all commands are checked in their order
  /// before the first is carried out.
  void Plan(const master::WellConstraints& constraints);

  /// The constraints that were set on the well, with `planned` also those that Plan() has kept.
  master::WellConstraints Remembered(const std::string& well, bool planned = false) const;

  /// Whether a constraint `name` is among those.
  bool Knows(const std::string& well, const std::string& name, bool planned) const;

  Totals& totals() { return totals_; }

  /// The wells that an inflow table has left with other limits than those that are remembered.
  std::set<std::string>& cut_back() { return cut_back_; }

  /// The external sources that were attached in this session.
  void RememberSource(const std::string& source) { sources_.insert(source); }
  const std::set<std::string>& sources() const { return sources_; }

  /// Whether the source was attached, or will have been by a command that is not carried out yet.
  void PlanSource(const std::string& source) { planned_sources_.insert(source); }
  bool KnowsSource(const std::string& source, bool planned) const {
    return sources_.contains(source) || (planned && planned_sources_.contains(source));
  }

 private:
  using Constraints = std::map<std::string, master::WellConstraints>;  // by well

  static void Add(const master::WellConstraints& constraints, Constraints& to);
  std::vector<std::string> Find(const std::string& pattern) const;

  master::Run run_;
  Launched launched_;
  bool connected_ = false;
  bool first_step_done_ = false;
  bool shut_down_ = false;
  std::optional<bool> metric_;
  std::optional<master::Date> start_;
  std::optional<std::vector<std::string>> components_;
  double last_days_ = 0;
  bool has_ended_ = false;
  bool wells_known_ = false;
  bool wells_current_ = false;  // nothing has been computed since they were asked for
  std::vector<master::WellStatus> wells_;
  Constraints constraints_;
  Constraints planned_;
  std::set<std::string> cut_back_;
  std::set<std::string> sources_;
  std::set<std::string> planned_sources_;
  Totals totals_;
};

/// Sets `name` to `value` among the constraints of `well`, replacing what it was.
void SetConstraint(master::WellConstraints& well, const std::string& name, double value);

/// Splits `names` into parts for requests that the daemon can read. A request takes `head` bytes
/// and for each name its length, its text and `extra` bytes.
std::vector<std::vector<std::string>> Parts(const std::vector<std::string>& names, std::size_t head,
                                            std::size_t extra);

}  // namespace vkmaster
