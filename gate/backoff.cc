#include "gate/backoff.h"

#include <algorithm>

namespace gate {

void Backoff::Attached(Time now) {
  attached_ = true;
  attached_at_ = now;
  broken_at_.reset();
}

std::optional<Time> Backoff::Pause(Time now, double random) {
  // The pauses begin anew after a connection that has lasted. One that breaks as soon as it is up,
  // again and again, does not make this gate come faster.
  if (next_ == Time::zero() || (attached_ && now - attached_at_ > next_)) next_ = options_.first;
  attached_ = false;
  if (!broken_at_) broken_at_ = now;
  if (now - *broken_at_ >= options_.hold) return std::nullopt;
  const auto middle = static_cast<double>(next_.count());
  const Time pause(static_cast<Time::rep>(middle * (0.5 + random)));
  next_ = std::min(next_ * 2, options_.longest);
  return pause;
}

}  // namespace gate
