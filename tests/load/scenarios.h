#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tests/load/observation.h"
#include "tests/load/plan.h"

namespace load {

/// Each scenario is one life of a daemon. It prints its figures and notes in the report what is
/// not as it has to be. The defaults are the full sizes.

struct IdleSize {
  std::size_t connections = 2000;        ///< in the handshake, at all its stages
  std::size_t runs = 50;                 ///< that step and query all the time
  std::chrono::milliseconds pause{100};  ///< of a run between two of its rounds of requests
  std::chrono::seconds load{30};  ///< while new connections are probed, all others being there
  /// The most that 99 of 100 new connections may wait for the daemon's first byte; 0: printed only.
  double limit_ms = 50;
};
void Idle(const IdleSize& size, Report& report);

struct ChurnSize {
  std::size_t connections = 10000;
  std::size_t launches = 2000;  ///< among them
  unsigned at_once = 8;
  std::uint64_t seed = 1;
  bool slow = true;  ///< also what takes a minute until it is over
};
void Churn(const ChurnSize& size, Report& report);

struct RequestsSize {
  std::size_t requests = 1000000;  ///< on one connection
  std::size_t settled = 10000;     ///< after so many memory has to stay
};
void Requests(const RequestsSize& size, Report& report);

struct VolumeSize {
  std::uint64_t bytes = 10ULL << 30;  ///< from the simulator to the controller
  std::size_t answer = 64UL << 20;    ///< a large answer
  std::size_t small_answers = 2048;   ///< of 16 KiB each, after every four large ones
};
void Volume(const VolumeSize& size, Report& report);

struct RoundSize {
  std::size_t connections = 80;
  std::size_t launches = 50;
  unsigned at_once = 8;
  bool slow = true;  ///< in every eighth round also what takes a minute until it is over
};

/// What the round of `seed` does; nothing else decides it.
std::vector<Action> RoundPlan(std::uint64_t seed, const RoundSize& size);

/// Rounds of connections of all kinds against one daemon, with the seeds `seed`, `seed` + 1, ...
/// until `duration` has passed or `rounds` have been (0: any number). After each the daemon has to
/// answer, and to hold what it held at first. Ends after a round that fails and tells how to repeat
/// it alone.
void Soak(std::chrono::seconds duration, std::size_t rounds, std::uint64_t seed,
          const RoundSize& size, Report& report);

}  // namespace load
