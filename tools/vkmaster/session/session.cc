#include "tools/vkmaster/session/session.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>

#include "base/number.h"
#include "net/master_link.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

// Stands in front of a well that the model adds in the course of the run: "later:P9".
constexpr std::string_view kLater = "later:";

bool IsPattern(const std::string& word) {
  return word.find_first_of("*?") != std::string::npos;
}

Words SplitAtCommas(const Words& words) {
  Words parts;
  for (const std::string& word : words) {
    for (std::size_t begin = 0; begin <= word.size();) {
      const std::size_t end = std::min(word.find(',', begin), word.size());
      if (end > begin) parts.push_back(word.substr(begin, end - begin));
      begin = end + 1;
    }
  }
  return parts;
}

}  // namespace

std::string CommsLog(const master::RunRequest& request) {
  // The daemon joins path and root without a slash, and adds the cluster's number to the root.
  const bool cluster = NumberIn(request.cluster.c_str()) > 0;
  return request.path + request.root + (cluster ? "_" + request.cluster : "") + ".crvnlog";
}

master::Run& Session::run() {
  if (shut_down_) throw UsageError("The run has been shut down");
  if (!connected_) throw UsageError("The daemon is not connected to the simulator: connect first");
  return run_;
}

void Session::Connect() {
  if (shut_down_) throw UsageError("The run has been shut down");
  if (connected_) throw UsageError("The daemon is connected to the simulator already");
  run_.Connect();
  connected_ = true;
}

void Session::FirstStep() {
  if (first_step_done_) throw UsageError("The run is at its first time step or beyond already");
  run().Newton();
  first_step_done_ = true;
  wells_current_ = false;
}

void Session::RunUntil(double days) {
  wells_current_ = false;
  run().RunUntil(days);
}

void Session::Shutdown() {
  if (shut_down_) throw UsageError("The run has been shut down already");
  run_.Shutdown();
  shut_down_ = true;
}

bool Session::Metric() {
  if (!metric_) metric_ = run().GetMetricFlag();
  return *metric_;
}

master::Date Session::StartDate() {
  if (!start_) start_ = run().GetStartDate();
  return *start_;
}

const std::vector<std::string>& Session::Components() {
  if (!components_) components_ = run().GetEOSProps().components;
  return *components_;
}

double Session::TimeDays() {
  return last_days_ = run().GetTimeDays();
}

bool Session::Ended() {
  return has_ended_ = run().GetTermFlag();
}

std::vector<master::WellStatus> Session::Wells() {
  wells_ = run().GetWellStatus();
  wells_known_ = wells_current_ = true;
  return wells_;
}

const std::vector<master::WellStatus>& Session::KnownWells() {
  if (!wells_known_) Wells();
  return wells_;
}

std::vector<std::string> Session::Resolve(const Words& patterns) {
  std::vector<std::string> names;
  std::unordered_set<std::string> seen;
  bool fresh = !wells_known_;
  KnownWells();
  for (const std::string& word : SplitAtCommas(patterns)) {
    const std::string pattern = IsLater(word) ? word.substr(kLater.size()) : word;
    // Nobody would notice that a well which has come since is missing from all that "P*" means.
    if (!wells_current_ && (pattern == "all" || IsPattern(pattern))) {
      Wells();
      fresh = true;
    }
    std::vector<std::string> found = Find(pattern);
    if (found.empty() && !fresh) {
      Wells();
      fresh = true;
      found = Find(pattern);
    }
    if (found.empty()) {
      std::vector<std::string> known;
      for (const master::WellStatus& well : wells_) known.push_back(well.name);
      const std::string meant = IsPattern(pattern) ? "" : MaybeMeant(pattern, known);
      throw UsageError((IsPattern(pattern) ? "No well matches '" : "No well is called '") +
                       pattern + "'" + (meant.empty() ? " (the command wells lists them)" : meant));
    }
    for (std::string& name : found) {
      if (seen.insert(name).second) names.push_back(std::move(name));
    }
  }
  return names;
}

void Session::CheckWells(const Words& patterns) {
  Words now;
  for (const std::string& pattern : SplitAtCommas(patterns)) {
    if (!IsLater(pattern)) now.push_back(pattern);
  }
  // In a model that has no wells yet no name is wrong. The command itself will complain.
  if (!now.empty() && !KnownWells().empty()) Resolve(now);
}

bool Session::IsLater(const std::string& pattern) {
  return pattern.starts_with(kLater);
}

void Session::Remember(const master::WellConstraints& constraints) {
  Add(constraints, constraints_);
}

master::WellConstraints Session::Remembered(const std::string& well, bool planned) const {
  master::WellConstraints all{well, {}, {}};
  for (const Constraints* known : {&constraints_, &planned_}) {
    const auto found = known->find(well);
    if (found == known->end() || (known == &planned_ && !planned)) continue;
    for (std::size_t i = 0; i < found->second.names.size(); ++i) {
      SetConstraint(all, found->second.names[i], found->second.values[i]);
    }
  }
  return all;
}

std::vector<std::string> Session::Find(const std::string& pattern) const {
  std::vector<std::string> exact;
  std::vector<std::string> alike;
  for (const master::WellStatus& well : wells_) {
    if (well.name == pattern) return {well.name};
    if (pattern == "all" || (IsPattern(pattern) && Matches(pattern, well.name))) {
      exact.push_back(well.name);
    }
    if (EqualIgnoringCase(pattern, well.name)) alike.push_back(well.name);
  }
  if (exact.empty() && alike.size() == 1) return alike;
  return exact;
}

bool Session::Knows(const std::string& well, const std::string& name, bool planned) const {
  const std::vector<std::string> names = Remembered(well, planned).names;
  return std::find(names.begin(), names.end(), name) != names.end();
}

void Session::Plan(const master::WellConstraints& constraints) {
  Add(constraints, planned_);
}

void Session::Add(const master::WellConstraints& constraints, Constraints& to) {
  master::WellConstraints& kept = to[constraints.well];
  kept.well = constraints.well;
  for (std::size_t i = 0; i < constraints.names.size(); ++i) {
    SetConstraint(kept, constraints.names[i], constraints.values[i]);
  }
}

Rates SumOf(const std::vector<master::WellData>& wells) {
  using Data = master::WellData;
  Rates sums{};
  for (const Data& well : wells) {
    std::size_t i = 0;
    for (const auto rate : {&Data::oil_rate, &Data::water_rate, &Data::gas_rate,
                            &Data::water_injection_rate, &Data::gas_injection_rate}) {
      sums[i++] += well.*rate;
    }
  }
  return sums;
}

void Totals::Begin(double days) {
  if (since) return;
  since = days;
  up_to = days;
  skips = false;
}

void Totals::Add(double days, const Rates& rates) {
  Begin(days);
  const double span = days - up_to;
  for (std::size_t i = 0; i < rates.size(); ++i) sums[i] += rates[i] * span;
  if (std::exchange(skips, false) && span > longest_skip) {
    longest_skip = span;
    end_of_skip = days;
  }
  up_to = days;
}

void SetConstraint(master::WellConstraints& well, const std::string& name, double value) {
  const auto found = std::find(well.names.begin(), well.names.end(), name);
  if (found == well.names.end()) {
    well.names.push_back(name);
    well.values.push_back(value);
  } else {
    well.values[static_cast<std::size_t>(found - well.names.begin())] = value;
  }
}

std::vector<std::vector<std::string>> Parts(const std::vector<std::string>& names, std::size_t head,
                                            std::size_t extra) {
  std::vector<std::vector<std::string>> parts;
  std::size_t size = 0;
  for (const std::string& name : names) {
    const std::size_t more = 4 + name.size() + extra;
    if (parts.empty() || size + more > master_link::kMaxFrame) {
      parts.emplace_back();
      size = head;
    }
    parts.back().push_back(name);
    size += more;
  }
  return parts;
}

}  // namespace vkmaster
