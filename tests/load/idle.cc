#include <poll.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "simulator/reservoir.h"
#include "tests/load/bare_server.h"
#include "tests/load/load_site.h"
#include "tests/load/scenarios.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"

namespace load {
namespace {

using Clock = std::chrono::steady_clock;
using Names = std::vector<std::string>;

double MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A new connection whose first byte has come, and how long that took.
Descriptor Greeted(int port, std::vector<double>& waits) {
  const Clock::time_point start = Clock::now();
  Descriptor connection = LoadSite::ConnectTo(port);
  pollfd readable{connection.get(), POLLIN, 0};
  poll(&readable, 1, static_cast<int>(1000 * LoadSite::kPatience.count()));
  waits.push_back(MillisecondsSince(start));
  return connection;
}

// The same, of the daemon.
Descriptor Greeted(const LoadSite& site, std::vector<double>& waits) {
  Descriptor connection = Greeted(site.daemon().port(), waits);
  Check(ReadFrame(connection.get()) == "3", "no version");
  return connection;
}

// One live run: a step and the queries that follow it, again and again, compared with a model of
// its own.
class LiveRun {
 public:
  LiveRun(const LoadSite& site, const simulator::Deck& deck, std::size_t number)
      : model_(deck),
        run_(site.Launch(
            site.Request(LoadSite::Root(SimulatorFarm::kGood, "live-" + std::to_string(number))))) {
    run_->Connect();
    run_->Newton();
  }

  // `delay`: so that the runs do not all step at the same moment.
  void Go(const std::atomic<bool>& stop, std::chrono::milliseconds pause,
          std::chrono::milliseconds delay) {
    std::this_thread::sleep_for(delay);
    while (!stop) {
      Round();
      std::this_thread::sleep_for(pause);
    }
    run_->Shutdown();
    Check(!run_->channel().Receive(master::Clock::now() + LoadSite::kPatience),
          "more after a shutdown");
  }

  std::size_t requests() const { return requests_; }
  const std::vector<double>& waits() const { return waits_; }

 private:
  void Round() {
    days_ = std::min(days_ + 1, 3650.0);
    run_->RunUntil(days_);
    model_.advance_to(days_);
    const Clock::time_point start = Clock::now();
    Check(run_->GetTimeDays() == days_, "another time than asked for");
    waits_.push_back(MillisecondsSince(start));
    const Names wells = {"P1", "P6"};
    const std::vector<master::WellData> data = run_->GetWellData(wells);
    Check(data.size() == 2, "records of other wells than asked for");
    for (std::size_t i = 0; i < wells.size(); ++i) {
      Check(data[i].oil_rate == model_.well_property(wells[i], "OIL_PRODUCTION_RATE"),
            "another rate than the model's");
    }
    Check(run_->GetWellStatus().size() == model_.well_count(), "another number of wells");
    requests_ += 4;
  }

  simulator::Reservoir model_;
  std::unique_ptr<master::Run> run_;
  double days_ = 0;
  std::size_t requests_ = 0;
  std::vector<double> waits_;
};

class LiveRuns {
 public:
  LiveRuns(LoadSite& site, const IdleSize& size, Report& report) {
    for (std::size_t i = 0; i < size.runs; ++i) {
      runs_.push_back(std::make_unique<LiveRun>(site, site.simulators().deck(), i));
    }
    for (std::size_t i = 0; i < size.runs; ++i) {
      threads_.emplace_back([this, i, &size, &report] {
        try {
          runs_[i]->Go(stop_, size.pause, size.pause * i / size.runs);
        } catch (const std::exception& error) {
          report.Require(false, std::string("a live run: ") + error.what());
        }
      });
    }
  }
  ~LiveRuns() { Stop(); }
  LiveRuns(const LiveRuns&) = delete;
  LiveRuns& operator=(const LiveRuns&) = delete;

  void Stop() {
    stop_ = true;
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  std::size_t requests() const {
    std::size_t sum = 0;
    for (const auto& run : runs_) sum += run->requests();
    return sum;
  }
  std::vector<double> waits() const {
    std::vector<double> all;
    for (const auto& run : runs_) all.insert(all.end(), run->waits().begin(), run->waits().end());
    return all;
  }

 private:
  std::atomic<bool> stop_ = false;
  std::vector<std::unique_ptr<LiveRun>> runs_;
  std::vector<std::thread> threads_;
};

// Takes the connection to one of the handshake's stages: the answer to the version and six of the
// seven lines can be sent without a script being started.
void Advance(const LoadSite& site, const Descriptor& connection, std::size_t stage) {
  const master::RunRequest request = site.Request("idle");
  const Names lines = {"3",          request.cluster,   request.path,
                       request.root, request.processes, request.version,
                       request.user};
  for (std::size_t i = 0; i < stage % (lines.size() + 1); ++i) {
    WriteAll(connection.get(), Frame(lines[i]));
  }
}

void ReportWaits(const std::string& what, const std::vector<double>& waits, Report& report) {
  report.Figure(what + ", number", static_cast<double>(waits.size()), "");
  report.Figure(what + ", median", Percentile(waits, 0.5), "ms");
  report.Figure(what + ", 99th percentile", Percentile(waits, 0.99), "ms");
  report.Figure(what + ", longest", Percentile(waits, 1), "ms");
}

// A machine on which the least server takes half of the time is too busy to say anything about the
// daemon. That is no pass either.
void JudgeWaits(double daemon, double bare, double limit, Report& report) {
  if (daemon <= limit) return;
  std::string failure = "99th percentile of the first byte: " + std::to_string(daemon) + " ms";
  if (bare > limit / 2) {
    failure +=
        ", but the machine is too busy to judge: " + std::to_string(bare) + " ms for a bare fork";
  }
  report.Require(false, failure);
}

void ReportChildren(pid_t daemon, Report& report) {
  long own = 0;
  long share = 0;
  long largest = 0;
  const std::vector<pid_t> children = ChildrenOf(daemon);
  for (const pid_t child : children) {
    const Memory memory = MemoryOf(child).value_or(Memory{});
    own += memory.own;
    share += memory.share;
    largest = std::max(largest, memory.own);
  }
  report.Figure("connection children", static_cast<double>(children.size()), "");
  report.Figure("private memory of all of them", static_cast<double>(own) / 1024, "MiB");
  report.Figure("private memory of the largest", static_cast<double>(largest), "KiB");
  report.Figure("their share of all memory", static_cast<double>(share) / 1024, "MiB");
}

// None of the connections has got another byte, or its end.
bool AreAllQuiet(const std::vector<Descriptor>& connections) {
  std::vector<pollfd> all;
  all.reserve(connections.size());
  for (const Descriptor& connection : connections) all.push_back({connection.get(), POLLIN, 0});
  return poll(all.data(), all.size(), 0) == 0;
}

}  // namespace

void Idle(const IdleSize& size, Report& report) {
  const BareServer bare;
  LoadSite site(false);
  const pid_t daemon = site.daemon().pid();
  std::vector<double> waits;
  for (int i = 0; i < 20; ++i) Greeted(site, waits);  // what is made once is made now
  Eventually([&] { return ChildrenOf(daemon).empty(); });
  const Baseline baseline(daemon);
  report.Figure("the daemon at rest", baseline.Text());

  LiveRuns runs(site, size, report);
  waits.clear();
  std::vector<Descriptor> idle;
  const Clock::time_point ramp = Clock::now();
  for (std::size_t i = 0; i < size.connections; ++i) {
    idle.push_back(Greeted(site, waits));
    Advance(site, idle.back(), i);
  }
  report.Figure("time to open them one after another", MillisecondsSince(ramp) / 1000, "s");
  ReportWaits("first byte, idle connections as they came", waits, report);

  std::vector<double> probes;
  std::vector<double> bare_probes;
  const Clock::time_point start = Clock::now();
  while (Clock::now() - start < size.load) {
    Greeted(site, probes);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    Greeted(bare.port(), bare_probes);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ReportWaits("first byte, new connections among all", probes, report);
  ReportWaits("the same of a server that only forks and sends it", bare_probes, report);
  if (size.limit_ms > 0) {
    JudgeWaits(Percentile(probes, 0.99), Percentile(bare_probes, 0.99), size.limit_ms, report);
  }

  report.Require(AreAllQuiet(idle), "an idle connection was answered or cut");
  report.Require(
      Eventually([&] { return ChildrenOf(daemon).size() == size.connections + size.runs; }),
      "the daemon has " + std::to_string(ChildrenOf(daemon).size()) + " children");
  report.Require(ZombiesOf(daemon).empty(), "zombies among the children");
  baseline.RequireUnchanged(report);
  ReportChildren(daemon, report);

  const Clock::time_point end = Clock::now();
  idle.clear();
  runs.Stop();
  baseline.RequireRest(report);
  report.Figure("time until all children were gone", MillisecondsSince(end) / 1000, "s");
  report.Figure("requests of the live runs", static_cast<double>(runs.requests()), "");
  ReportWaits("answer of a live run to a time request", runs.waits(), report);
  report.Require(runs.requests() > 0, "the live runs made no request");
  report.Require(Eventually([&] { return site.simulators().Open() == 0; }),
                 "simulators whose controllers have not left");
}

}  // namespace load
