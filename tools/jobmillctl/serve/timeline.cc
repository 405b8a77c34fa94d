#include "tools/jobmillctl/serve/timeline.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "inspect/runs.h"

namespace jobmillctl::serve {
namespace {

constexpr std::size_t kMostPoints = 720;
constexpr std::size_t kMostEnded = 200;

// Processors. A process that only sleeps and wakes uses less.
constexpr double kNoProcessorTime = 0.01;

const char* const kHandshake = Name(inspect::RunState::kHandshake);
const char* const kScript = Name(inspect::RunState::kScript);

std::string KeyOf(const Json& run) {
  return run.at("id").dump() + " " + TextOf(run, "connected");
}

}  // namespace

Timeline::Timeline(const Json& run, double now, double before) : run_(run), seen_(now) {
  const std::string state = TextOf(run, "state");
  const auto connected = TimeIn(run.at("connected"));
  if (state == kHandshake || state == kScript) {
    queue_ = Queue{};
  } else if (before > 0 && connected > before) {
    queue_ = Queue{std::ceil(now - *connected), true};
  }
  const double since = std::min(TimeIn(run.at("state_since")).value_or(now), now);
  states_.push_back({state, since, now});
  seconds_[state] = now - since;
  AddPoint(now);
}

void Timeline::Add(const Json& run, double now) {
  const Json before = std::move(run_);
  run_ = run;
  AddState(now);
  AddPoint(now);
  AddProcessors(before, now);
  seen_ = now;
}

void Timeline::AddState(double now) {
  const std::string state = TextOf(run_, "state");
  Span& last = states_.back();
  if (last.state == state) {
    seconds_[state] += now - last.until;
    last.until = now;
    return;
  }
  // Between the two looks, where the run says so.
  const double since = std::clamp(TimeIn(run_.at("state_since")).value_or(now), last.until, now);
  seconds_[last.state] += since - last.until;
  seconds_[state] += now - since;
  last.until = since;
  states_.push_back({state, since, now});
  if (states_.size() > kMostStates) {
    states_.erase(states_.begin());
    states_left_out_ = true;
  }
}

void Timeline::AddPoint(double now) {
  Point point{now, NumberOf(run_, "day"), std::nullopt};
  if (const auto requests = NumberOf(run_, "requests")) {
    point.requests = static_cast<std::int64_t>(*requests);
  }
  // The last point moves on with the looks until it is far enough from the point before it.
  const std::size_t size = points_.size();
  if (size >= 2 && points_[size - 1].time - points_[size - 2].time < distance_) points_.pop_back();
  points_.push_back(point);
  if (points_.size() <= kMostPoints) return;
  for (std::size_t i = 0; i < kMostPoints / 2; ++i) points_[i] = points_[2 * i];
  points_[kMostPoints / 2] = points_.back();
  points_.resize(kMostPoints / 2 + 1);
  distance_ = (points_[1].time - points_[0].time);
}

void Timeline::AddProcessors(const Json& before, double now) {
  const auto last = NumberOf(before, "simulator_cpu_seconds");
  const auto used = NumberOf(run_, "simulator_cpu_seconds");
  if (!last || !used || before.at("simulator") != run_.at("simulator") || now <= seen_) {
    processors_.reset();
    idle_since_.reset();
    return;
  }
  processors_ = std::max(0.0, *used - *last) / (now - seen_);
  if (*processors_ > kNoProcessorTime) {
    idle_since_.reset();
  } else if (!idle_since_) {
    idle_since_ = seen_;
  }
}

double Timeline::SecondsIn(const std::string& state) const {
  const auto found = seconds_.find(state);
  return found == seconds_.end() ? 0 : found->second;
}

std::optional<Timeline::Queue> Timeline::Queued() const {
  if (!queue_ || queue_->at_most) return queue_;
  return Queue{SecondsIn(kScript), false};
}

double Timeline::Beginning() const {
  return std::min(TimeIn(run_.at("connected")).value_or(seen_), states_.front().since);
}

void Timelines::Add(const Json& status, double now) {
  std::set<std::string> present;
  for (const Json& run : status.at("runs")) {
    const std::string key = KeyOf(run);
    present.insert(key);
    const auto [timeline, fresh] = runs_.try_emplace(key, run, now, last_);
    if (!fresh) timeline->second.Add(run, now);
  }
  for (auto timeline = runs_.begin(); timeline != runs_.end();) {
    if (present.contains(timeline->first)) {
      ++timeline;
      continue;
    }
    timeline->second.End(now);
    // A connection that only tries whether the port is open is no run, and is not kept.
    if (timeline->second.run().at("state") != kHandshake) {
      ended_.push_back(std::move(timeline->second));
    }
    timeline = runs_.erase(timeline);
  }
  last_ = now;
  if (ended_.size() > kMostEnded) {
    ended_.erase(ended_.begin(), ended_.end() - static_cast<std::ptrdiff_t>(kMostEnded));
  }
}

const Timeline* Timelines::Find(const std::string& id) const {
  const auto is_meant = [&](const Timeline& timeline) {
    return timeline.run().at("id").dump() == id;
  };
  for (const auto& [key, timeline] : runs_) {
    if (is_meant(timeline)) return &timeline;
  }
  const auto last = std::find_if(ended_.rbegin(), ended_.rend(), is_meant);
  return last == ended_.rend() ? nullptr : &*last;
}

const Timeline* Timelines::Of(const Json& run) const {
  const auto found = runs_.find(KeyOf(run));
  return found == runs_.end() ? nullptr : &found->second;
}

const Timeline* Timelines::FindEnded(const Json& run) const {
  constexpr double kNear = 2;  // the kernel's clock and that of the log are rounded
  const auto began = TimeIn(run.at("connected"));
  const Timeline* found = nullptr;
  for (const Timeline& timeline : ended_) {
    const Json& seen = timeline.run();
    const auto connected = TimeIn(seen.at("connected"));
    if (!began || !connected || std::abs(*began - *connected) > kNear ||
        seen.at("root") != run.at("root") || seen.at("port") != run.at("port")) {
      continue;
    }
    if (found != nullptr) return nullptr;
    found = &timeline;
  }
  return found;
}

}  // namespace jobmillctl::serve
