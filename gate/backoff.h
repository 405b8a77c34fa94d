#pragma once

#include <chrono>
#include <optional>

#include "gate/opening.h"

namespace gate {

/// The pauses between a connecting gate's attempts to come back: they grow, and each is spread at
/// random, the first one too, so that a thousand masters whose network returns do not come in one
/// moment.
class Backoff {
 public:
  struct Options {
    Time first = std::chrono::milliseconds(200);
    Time longest = std::chrono::seconds(30);
    /// How long a link may be broken; 0: it is never resumed.
    Time hold = std::chrono::hours(12);
  };

  explicit Backoff(const Options& options) : options_(options) {}

  /// The serving gate has accepted the opening of a new connection.
  void Attached(Time now);

  /// The connection has broken, or an attempt has failed, at `now`. Returns how long to wait before
  /// the next attempt; nothing when the link has been broken for longer than it may be. `random` is
  /// between 0 and 1.
  std::optional<Time> Pause(Time now, double random);

 private:
  const Options options_;
  Time next_{};         ///< the middle of the next pause; 0: the first
  Time attached_at_{};  ///< when Attached() was called last
  bool attached_ = false;
  std::optional<Time> broken_at_;
};

}  // namespace gate
