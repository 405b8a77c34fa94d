// What it costs to read the operating points of all wells from afar: the real daemon, a simulator
// whose answers lie ready, the master library, and between daemon and master a relay that delays.
//
//   bench_distance [--one-by-one]

#include <algorithm>
#include <chrono>
#include <exception>
#include <string_view>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "bench/whole/flows.h"
#include "bench/whole/peer.h"
#include "bench/whole/rig.h"
#include "master/launch.h"
#include "master/run.h"
#include "tests/support/delaying_relay.h"
#include "tests/support/ports.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr int kRoundTripsAllowed = 3;

double MillisecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// What one reading takes at best, over a round trip of `distance`: other programs only add to it.
double Measure(int wells, microseconds distance, bool one_by_one) {
  Step set_up = SetUp();
  Flow flow = WellData(wells);
  Learn(set_up, flow);
  const Descriptor listener = BindFreePort(4);
  Daemon::Options options;
  options.simulator_port = PortOf(listener.get());
  const Daemon daemon(Daemon::Kind::kReal, options);
  std::thread simulator([&] { Serve(listener.get(), set_up, flow); });
  std::vector<double> times;
  {
    const DelayingRelay relay(daemon.port(), distance / 2);
    master::Launch launch(
        master::FrameChannel::ConnectTo("127.0.0.1", relay.port(), std::chrono::seconds(5)));
    launch.ExchangeVersions();
    launch.Request({.path = daemon.path(), .root = "CASE", .user = "alice"});
    launch.AwaitHost();
    master::Run run(launch.Release());
    if (one_by_one) run.AskOneByOne();
    run.Connect();
    const int readings = one_by_one && wells * distance.count() > 1000000 ? 1 : 9;
    for (int i = 0; i < readings; ++i) {
      const Clock::time_point begin = Clock::now();
      run.GetWellData(WellNames(wells));
      times.push_back(MillisecondsSince(begin));
    }
  }
  simulator.join();
  return *std::min_element(times.begin(), times.end());
}

// True when every distance takes at most kRoundTripsAllowed round trips more than none.
bool MeasureAll(bool one_by_one) {
  bool near_enough = true;
  fmt::print("round trip {:>10} {:>10} {:>10} {:>10}\n", "0 ms", "1 ms", "10 ms", "50 ms");
  for (const int wells : {10, 100, 1000, 2000, 5000}) {
    fmt::print("{:>5} wells", wells);
    double local = 0;
    for (const int distance : {0, 1, 10, 50}) {
      const double took = Measure(wells, microseconds(1000 * distance), one_by_one);
      if (distance == 0) local = took;
      near_enough = near_enough && took <= local + kRoundTripsAllowed * distance + 1;
      fmt::print(" {:>7.1f} ms", took);
    }
    fmt::print("\n");
    std::fflush(stdout);
  }
  return near_enough;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  try {
    const bool one_by_one = argc > 1 && std::string_view(argv[1]) == "--one-by-one";
    return bench::MeasureAll(one_by_one) || one_by_one ? 0 : 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench_distance: {}\n", error.what());
    return 2;
  }
}
