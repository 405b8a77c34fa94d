// What the gates cost beside what else carries a connection over TLS, and beside two programs that
// pass bytes on: the real daemon, a simulator whose answers lie ready, the master library, and the
// pairs in turns. Everything runs on one core, so what the programs cost adds up.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "bench/gate/pairs.h"
#include "bench/whole/flows.h"
#include "bench/whole/peer.h"
#include "bench/whole/rig.h"
#include "master/launch.h"
#include "master/run.h"
#include "tests/gate/breaking_relay.h"
#include "tests/support/ports.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 31;
constexpr int kRequests = 40;  // in a round
constexpr int kStarts = 10;
constexpr int kIdle = 200;
constexpr int kResumptions = 30;

enum Kind { kGates, kStunnel, kHaproxy, kRelays, kResuming, kKinds };
constexpr const char* kNames[] = {"gates", "stunnel", "HAProxy", "bare relay",
                                  "stunnel, sessions resumed"};

double MicrosecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

double Median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

std::unique_ptr<Pair> MakePair(Kind kind, const Certificates& certificates, int target) {
  switch (kind) {
    case kGates:
      return MakeGates(target);
    case kStunnel:
    case kResuming:
      return MakeStunnel(certificates, target, kind == kResuming);
    case kHaproxy:
      return MakeHaproxy(certificates, target);
    default:
      return MakeRelays(target);
  }
}

master::Run Launched(int port, const std::string& path) {
  master::Launch launch(
      master::FrameChannel::ConnectTo("127.0.0.1", port, std::chrono::seconds(5)));
  launch.ExchangeVersions();
  launch.Request({.path = path, .root = "CASE", .user = "alice"});
  launch.AwaitHost();
  master::Run run(launch.Release());
  run.Connect();
  return run;
}

// A run through a pair, and all that it needs.
class Running {
 public:
  Running(Kind kind, const Certificates& certificates, const Flow& flow)
      : set_up_(SetUp()), flow_(flow), listener_(BindFreePort(4)) {
    Learn(set_up_, flow_);
    Daemon::Options options;
    options.simulator_port = PortOf(listener_.get());
    daemon_ = std::make_unique<Daemon>(Daemon::Kind::kReal, options);
    pair_ = MakePair(kind, certificates, daemon_->port());
    simulator_ = std::thread([this] { Serve(listener_.get(), set_up_, flow_); });
    run_ = std::make_unique<master::Run>(Launched(pair_->port(), daemon_->path()));
  }
  ~Running() {
    run_.reset();
    simulator_.join();
  }

  master::Run& run() { return *run_; }

 private:
  Step set_up_;
  Flow flow_;
  Descriptor listener_;
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<Pair> pair_;
  std::thread simulator_;
  std::unique_ptr<master::Run> run_;
};

struct Row {
  std::map<Kind, double> values;
  double ratio = 0;  // of the gates to stunnel's pair, the median of the rounds
};

// In turns, so that a slow moment of the machine meets all. `measure` gives microseconds.
Row InTurns(const std::vector<Kind>& kinds, const std::function<double(Kind)>& measure) {
  std::map<Kind, std::vector<double>> times;
  std::vector<double> ratios;
  for (const Kind kind : kinds) measure(kind);
  for (int round = 0; round < kRounds; ++round) {
    for (const Kind kind : kinds) times[kind].push_back(measure(kind));
    ratios.push_back(times[kGates].back() / times[kStunnel].back());
  }
  Row row;
  for (const Kind kind : kinds) row.values[kind] = Median(times[kind]);
  row.ratio = Median(ratios);
  return row;
}

const std::vector<Kind> kAll = {kGates, kStunnel, kHaproxy, kRelays};

Row Requests(const Certificates& certificates, const Flow& flow,
             const std::function<void(master::Run&)>& ask, int times) {
  std::map<Kind, std::unique_ptr<Running>> running;
  for (const Kind kind : kAll) running[kind] = std::make_unique<Running>(kind, certificates, flow);
  return InTurns(kAll, [&](Kind kind) {
    const auto begin = Clock::now();
    for (int i = 0; i < times; ++i) ask(running[kind]->run());
    return MicrosecondsSince(begin) / times;
  });
}

// From connecting to the daemon's first word.
Row Starts(const Certificates& certificates) {
  const Daemon daemon(Daemon::Kind::kReal, {});
  std::map<Kind, std::unique_ptr<Pair>> pairs;
  std::vector<Kind> kinds = kAll;
  kinds.push_back(kResuming);
  for (const Kind kind : kinds) pairs[kind] = MakePair(kind, certificates, daemon.port());
  return InTurns(kinds, [&](Kind kind) {
    double sum = 0;
    for (int i = 0; i < kStarts; ++i) {
      const auto begin = Clock::now();
      Master master(pairs[kind]->port());
      master.ReceiveFrame();
      sum += MicrosecondsSince(begin);
      master.Leave();
      // What the programs still do for this connection is none of the next one's.
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return sum / kStarts;
  });
}

double Resident(const Pair& pair) {
  double sum = 0;
  for (const pid_t process : pair.processes()) {
    sum += static_cast<double>(StatusValue(process, "VmRSS"));
  }
  return sum;
}

// KiB at both ends together for a link on which nothing is said, after as many that made the
// programs ready.
Row IdleLinks(const Certificates& certificates) {
  Row row;
  for (const Kind kind : kAll) {
    const Daemon daemon(Daemon::Kind::kReal, {});
    const auto pair = MakePair(kind, certificates, daemon.port());
    std::vector<std::unique_ptr<Master>> masters;
    const auto add = [&] {
      masters.push_back(std::make_unique<Master>(pair->port()));
      masters.back()->ReceiveFrame();
    };
    for (int i = 0; i < 10; ++i) add();
    const double before = Resident(*pair);
    for (int i = 0; i < kIdle; ++i) add();
    row.values[kind] = (Resident(*pair) - before) / kIdle;
  }
  row.ratio = row.values[kGates] / row.values[kStunnel];
  return row;
}

// From the moment at which the connection between the gates is cut to the answer to a request that
// is sent right then. The pause before the first attempt is at most 10 ms here.
double Resumption() {
  Step set_up = SetUp();
  Flow flow = TimeDays();
  Learn(set_up, flow);
  const Descriptor listener = BindFreePort(4);
  Daemon::Options options;
  options.simulator_port = PortOf(listener.get());
  const Daemon daemon(Daemon::Kind::kReal, options);
  Door door(daemon.port(), {"--claim-wait=3600"});
  BreakingRelay network(door.serving().port());
  const auto near = door.Connect(door.alice(), {"--longest-pause=0.01"}, network.port());
  std::thread simulator([&] { Serve(listener.get(), set_up, flow); });
  std::vector<double> times;
  {
    master::Run run = Launched(near->port(), daemon.path());
    for (int i = 0; i < kResumptions; ++i) {
      run.GetTimeDays();
      const auto begin = Clock::now();
      network.Cut();
      run.GetTimeDays();
      times.push_back(MicrosecondsSince(begin) / 1000);
    }
  }
  simulator.join();
  return Median(times);
}

bool Print(const char* title, const Row& row, double goal) {
  fmt::print("{:<38}", title);
  for (const Kind kind : kAll) fmt::print(" {:>10.1f}", row.values.at(kind));
  fmt::print(" {:>8.2f}  {:.2f} {}\n", row.ratio, goal, row.ratio <= goal ? "yes" : "NO");
  std::fflush(stdout);
  return row.ratio <= goal;
}

bool MeasureAll() {
  const Certificates certificates;
  fmt::print("{:<38}", "through both programs");
  for (const Kind kind : kAll) fmt::print(" {:>10}", kNames[kind]);
  fmt::print(" {:>8}  {}\n", "ratio", "goal");
  bool good =
      Print("a simple request, µs",
            Requests(
                certificates, TimeDays(), [](master::Run& run) { run.GetTimeDays(); }, kRequests),
            1.15);
  const auto names = WellNames(5000);
  good &=
      Print("5,000 wells' data, µs",
            Requests(
                certificates, WellData(5000), [&](master::Run& run) { run.GetWellData(names); }, 1),
            1.05);
  const Row starts = Starts(certificates);
  good &= Print("start of a link, µs", starts, 1.2);
  good &= Print("memory of an idle link, KiB", IdleLinks(certificates), 0.5);
  fmt::print("\nstart of a link through {}, which the gates do not: {:.0f} µs\n", kNames[kResuming],
             starts.values.at(kResuming));
  fmt::print("from a cut to the answer to a request, with a pause of at most 10 ms: {:.1f} ms\n",
             Resumption());
  return good;
}

}  // namespace
}  // namespace bench

int main() {
  try {
    bench::UseOneCore();
    return bench::MeasureAll() ? 0 : 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench_gate: {}\n", error.what());
    return 2;
  }
}
