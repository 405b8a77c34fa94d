#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

/// One message of the controller to the simulator and all that the simulator sends for it.
struct Exchange {
  std::string query;  ///< as it travels; learned from the real controller
  std::string answer;
};

/// One request of the master, what the controller does for it on the other link, and its reply.
struct Step {
  std::string request;  ///< as it travels, with its length
  std::vector<Exchange> exchanges;
  std::string reply;  ///< learned
};

/// What is measured: the steps are repeated in their order.
struct Flow {
  std::string name;
  std::vector<Step> steps;
  int repeats;  ///< of all steps, in one block of measurement

  /// The steps' exchanges in a row.
  std::vector<Exchange> Exchanges() const;
};

/// The set-up that comes before every flow: the request that connects to the simulator.
Step SetUp();

/// The handshake as the master sends it, after the daemon's version, for a run in `path`.
std::string RunRequest(const std::string& path);

/// Writes what bench_floor does for its one connection: `set_up` once, then the flow's steps for
/// ever.
void WritePlan(const std::string& file, const Step& set_up, const Flow& flow);

}  // namespace bench
