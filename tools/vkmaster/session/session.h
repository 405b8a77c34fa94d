#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "master/records.h"
#include "master/run.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

/// How the run came to be; for people.
struct Launched {
  std::string daemon_host;
  int daemon_port = 0;
  std::string daemon_version;
  std::string simulator_host;
  master::RunRequest request;
};

/// Where the daemon writes what it exchanged with master and simulator, if it was told to.
std::string CommsLog(const master::RunRequest& request);

/// A launched run and what is already known about it, so that nothing is asked twice and nothing
/// is sent that is sure to fail: a request that fails ends the run.
class Session {
 public:
  Session(master::Run run, Launched launched)
      : run_(std::move(run)), launched_(std::move(launched)) {}

  /// For the requests that need nothing from here. Throws UsageError before Connect() and after
  /// Shutdown().
  master::Run& run();

  /// The same without the check.
  master::Run& raw_run() { return run_; }

  const Launched& launched() const { return launched_; }

  void Connect();
  void FirstStep();
  void Shutdown();
  bool connected() const { return connected_; }
  bool first_step_done() const { return first_step_done_; }
  bool shut_down() const { return shut_down_; }

  /// Asked for once.
  bool Metric();
  master::Date StartDate();

  /// Asked for each time; last_days() is the time last heard of.
  double TimeDays();
  double last_days() const { return last_days_; }

  /// Asked for each time; has_ended() is what was last heard.
  bool Ended();
  bool has_ended() const { return has_ended_; }

  /// The wells as they are now.
  std::vector<master::WellStatus> Wells();

  /// The wells' names, asked for once; those() that Wells() heard of last.
  const std::vector<master::WellStatus>& KnownWells();

  /// Takes names, patterns with * and ?, "all", and lists of them with commas. A name in another
  /// letter case is understood when it is unique. In the order given, each well once. Throws
  /// UsageError for what is no well of the model; for a name not known the wells are asked for
  /// again first, since a model may add wells.
  std::vector<std::string> Resolve(const Words& patterns);

  /// Keeps what was set of a well's constraints, which no request can ask for; a later value of
  /// a name replaces the earlier one.
  void Remember(const master::WellConstraints& constraints);
  master::WellConstraints Remembered(const std::string& well) const;

  /// Operating points of any number of wells, in as many requests as it takes.
  std::vector<master::WellData> Data(const std::vector<std::string>& wells);

 private:
  std::vector<std::string> Find(const std::string& pattern) const;

  master::Run run_;
  Launched launched_;
  bool connected_ = false;
  bool first_step_done_ = false;
  bool shut_down_ = false;
  int metric_ = -1;  // not yet asked for
  bool start_known_ = false;
  master::Date start_;
  double last_days_ = 0;
  bool has_ended_ = false;
  bool wells_known_ = false;
  std::vector<master::WellStatus> wells_;
  std::map<std::string, master::WellConstraints> constraints_;
};

/// Sets `name` to `value` among the constraints of `well`, replacing what it was.
void SetConstraint(master::WellConstraints& well, const std::string& name, double value);

/// Splits `names` so that no request with the names of a part, `extra` bytes more for each, and
/// `head` bytes besides is longer than the daemon reads.
std::vector<std::vector<std::string>> Parts(const std::vector<std::string>& names, std::size_t head,
                                            std::size_t extra);

}  // namespace vkmaster
