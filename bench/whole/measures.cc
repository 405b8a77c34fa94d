#include "bench/whole/measures.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "bench/whole/flows.h"
#include "bench/whole/peer.h"
#include "bench/whole/rig.h"
#include "tests/support/ports.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

double Microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

double Quantile(std::vector<double> values, double fraction) {
  const auto at = static_cast<std::ptrdiff_t>(fraction * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[static_cast<std::size_t>(at)];
}

double Median(const std::vector<double>& values) {
  return Quantile(values, 0.5);
}

class Samples {
 public:
  void Add(double real, double floor) {
    real_.push_back(real);
    floor_.push_back(floor);
    ratios_.push_back(real / floor);
  }

  Timing Summary() const {
    return {Median(real_), Median(floor_), Median(ratios_),
            (Quantile(ratios_, 0.75) - Quantile(ratios_, 0.25)) / 2};
  }

 private:
  std::vector<double> real_;
  std::vector<double> floor_;
  std::vector<double> ratios_;
};

// A master whose run is set up.
class Run {
 public:
  Run(const Daemon& daemon, const Step& set_up) : master_(daemon.port()) {
    master_.Launch();
    Ask(set_up);
  }

  void Ask(const Step& step) {
    master_.Send(step.request);
    master_.Skip(step.reply.size());
  }

  struct Times {
    double first;
    double whole;
  };

  // Microseconds per repeat.
  Times Block(const Flow& flow) {
    Clock::duration first{};
    const auto start = Clock::now();
    for (int i = 0; i < flow.repeats; ++i) {
      const auto begin = flow.steps.size() > 1 ? Clock::now() : start;
      Ask(flow.steps.front());
      if (flow.steps.size() > 1) first += Clock::now() - begin;
      for (std::size_t step = kFirstReply; step < flow.steps.size(); ++step) Ask(flow.steps[step]);
    }
    const auto whole = Clock::now() - start;
    if (flow.steps.size() == 1) first = whole;
    return {Microseconds(first) / flow.repeats, Microseconds(whole) / flow.repeats};
  }

 private:
  Master master_;
};

class Peers {
 public:
  Peers(const Step& set_up, const Flow& flow, int connections)
      : listener_(BindFreePort(connections)),
        children_(ServeInChildren(listener_.get(), set_up, flow, connections)) {}
  Peers(const Peers&) = delete;
  Peers& operator=(const Peers&) = delete;
  ~Peers() {
    for (const pid_t child : children_) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
  }

  int port() const { return PortOf(listener_.get()); }

 private:
  Descriptor listener_;
  std::vector<pid_t> children_;
};

// Two controllers over the same bytes: which is real and which the measure is the caller's choice.
FlowTimes Compare(const Flow& flow, const Step& set_up, const Daemon& one, const Daemon& other,
                  int blocks) {
  Run real(one, set_up);
  Run floor(other, set_up);
  real.Block(flow);
  floor.Block(flow);
  Samples first;
  Samples whole;
  for (int block = 0; block < blocks; ++block) {
    Run::Times a{};
    Run::Times b{};
    // Whoever comes second finds a warmer machine; so each does in turn.
    if (block % 2 == 0) {
      a = real.Block(flow);
      b = floor.Block(flow);
    } else {
      b = floor.Block(flow);
      a = real.Block(flow);
    }
    first.Add(a.first, b.first);
    whole.Add(a.whole, b.whole);
  }
  return {first.Summary(), whole.Summary()};
}

double LaunchTime(const Daemon& daemon) {
  const auto start = Clock::now();
  Master master(daemon.port());
  master.Launch();
  const double time = Microseconds(Clock::now() - start);
  master.Leave();
  return time;
}

long FieldOf(const std::string& file, const std::vector<std::string>& names) {
  std::ifstream in(file);
  long sum = 0;
  std::string line;
  while (std::getline(in, line)) {
    for (const std::string& name : names) {
      if (line.starts_with(name + ":")) sum += std::stol(line.substr(name.size() + 1));
    }
  }
  return sum;
}

std::string Rollup(pid_t pid) {
  return "/proc/" + std::to_string(pid) + "/smaps_rollup";
}

long ProportionalSetSize(pid_t pid) {
  return FieldOf(Rollup(pid), {"Pss"});
}

long PrivateMemory(pid_t pid) {
  return FieldOf(Rollup(pid), {"Private_Clean", "Private_Dirty"});
}

// Time on the processor so far.
double ProcessorTime(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
  double nanoseconds = 0;
  in >> nanoseconds;
  return nanoseconds / 1000;
}

// Pages that the system has had to provide so far.
double PageFaults(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(in, line);
  // Behind the name, which may hold anything: state, six numbers, flags, and these.
  std::istringstream fields(line.substr(line.rfind(')') + 1));
  std::string field;
  for (int i = 0; i < 8; ++i) fields >> field;
  return std::stod(field);
}

// A number that a library in another process counts up.
class SharedCounter {
 public:
  explicit SharedCounter(const std::string& file) {
    const Descriptor descriptor(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (ftruncate(descriptor.get(), sizeof(std::uint64_t)) != 0) {
      throw std::runtime_error("cannot make the counters");
    }
    void* page = mmap(nullptr, sizeof(std::uint64_t), PROT_READ, MAP_SHARED, descriptor.get(), 0);
    if (page == MAP_FAILED) throw std::runtime_error("cannot map the counters");
    value_ = static_cast<const volatile std::uint64_t*>(page);
  }
  double value() const { return static_cast<double>(*value_); }

 private:
  const volatile std::uint64_t* value_;
};

double CountAllocations(const Flow& flow, const Step& set_up, int repeats) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("counters");
  const SharedCounter counter(file);
  const Peers peers(set_up, flow, 1);
  Daemon::Options options;
  options.simulator_port = peers.port();
  options.preload = BENCH_ALLOCATIONS;
  options.counters = file;
  const Daemon daemon(Daemon::Kind::kReal, options);
  Run run(daemon, set_up);
  Flow once = flow;
  once.repeats = 1;
  run.Block(once);
  const double before = counter.value();
  for (int i = 0; i < repeats; ++i) run.Block(once);
  return (counter.value() - before) / repeats;
}

// The calls in strace's summary. A call that was entered before strace came is not among them, one
// that is entered last is.
double CallsIn(const std::string& summary) {
  std::istringstream lines(summary);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.find("total") == std::string::npos) continue;
    std::istringstream fields(line);
    double percent = 0;
    double seconds = 0;
    double microseconds = 0;
    double calls = 0;
    fields >> percent >> seconds >> microseconds >> calls;
    return calls;
  }
  throw std::runtime_error("no total in strace's summary: " + summary);
}

double CountSystemCalls(const Flow& flow, const Step& set_up, int repeats) {
  const TemporaryDirectory directory;
  const Peers peers(set_up, flow, 1);
  Daemon::Options options;
  options.simulator_port = peers.port();
  const Daemon daemon(Daemon::Kind::kReal, options);
  Run run(daemon, set_up);
  const std::string summary = directory.File("summary");
  const std::string said = directory.File("said");
  Flow once = flow;
  once.repeats = 1;
  run.Block(once);
  const pid_t child = daemon.Child();
  ChildProcess::Options process;
  process.outputFile = said;
  ChildProcess strace({"/usr/bin/strace", "-c", "-o", summary, "-p", std::to_string(child)},
                      process);
  if (!Eventually([&] { return StatusValue(child, "TracerPid") > 0; })) {
    throw std::runtime_error("strace did not attach: " + directory.Read("said"));
  }
  for (int i = 0; i < repeats; ++i) run.Block(once);
  strace.Signal(SIGINT);
  strace.Wait(std::chrono::seconds(5));
  return CallsIn(directory.Read("summary")) / repeats;
}

}  // namespace

FlowTimes MeasureFlow(const Flow& learned, const Step& set_up, int blocks) {
  const Peers peers(set_up, learned, 2);
  Daemon::Options options;
  options.simulator_port = peers.port();
  const Daemon real(Daemon::Kind::kReal, options);
  options.set_up = &set_up;
  options.flow = &learned;
  const Daemon floor(Daemon::Kind::kFloor, options);
  return Compare(learned, set_up, real, floor, blocks);
}

FlowTimes MeasureCommsLog(const Flow& learned, const Step& set_up, int blocks) {
  const Peers peers(set_up, learned, 2);
  Daemon::Options options;
  options.simulator_port = peers.port();
  const Daemon without(Daemon::Kind::kReal, options);
  options.comms_log = true;
  const Daemon with(Daemon::Kind::kReal, options);
  return Compare(learned, set_up, with, without, blocks);
}

Timing MeasureLaunch(int blocks, int launches) {
  const Flow none{"launch", {}, 1};
  const Step set_up = SetUp();
  Daemon::Options options;
  options.simulator_port = FreePort();
  options.set_up = &set_up;
  options.flow = &none;
  const Daemon real(Daemon::Kind::kReal, options);
  const Daemon floor(Daemon::Kind::kFloor, options);
  Samples samples;
  for (int block = 0; block < blocks; ++block) {
    std::vector<double> a;
    std::vector<double> b;
    for (int i = 0; i < launches; ++i) {
      a.push_back(LaunchTime(real));
      b.push_back(LaunchTime(floor));
    }
    samples.Add(Median(a), Median(b));
  }
  return samples.Summary();
}

Counts CountFlow(const Flow& learned, const Step& set_up, int repeats) {
  Counts counts;
  counts.allocations = CountAllocations(learned, set_up, repeats);
  counts.system_calls = CountSystemCalls(learned, set_up, repeats);
  const Peers peers(set_up, learned, 1);
  Daemon::Options options;
  options.simulator_port = peers.port();
  const Daemon daemon(Daemon::Kind::kReal, options);
  Run run(daemon, set_up);
  run.Block(learned);
  const pid_t child = daemon.Child();
  const double before = ProcessorTime(child);
  const double faults = PageFaults(child);
  run.Block(learned);
  counts.processor_us = (ProcessorTime(child) - before) / learned.repeats;
  counts.page_faults = (PageFaults(child) - faults) / learned.repeats;
  return counts;
}

Memory MeasureMemory(const Flow& learned, const Step& set_up) {
  Memory memory;
  const Flow none{"none", {}, 1};
  Daemon::Options options;
  options.set_up = &set_up;
  options.flow = &none;
  options.simulator_port = FreePort();
  for (const auto kind : {Daemon::Kind::kReal, Daemon::Kind::kFloor}) {
    const Daemon daemon(kind, options);
    Master master(daemon.port());
    master.Launch();
    (kind == Daemon::Kind::kReal ? memory.idle_child : memory.idle_floor) =
        ProportionalSetSize(daemon.Child());
  }
  const Peers peers(set_up, learned, 2);
  options.simulator_port = peers.port();
  options.flow = &learned;
  Flow once = learned;
  once.repeats = 1;
  for (const auto kind : {Daemon::Kind::kReal, Daemon::Kind::kFloor}) {
    const Daemon daemon(kind, options);
    Run run(daemon, set_up);
    run.Block(once);
    (kind == Daemon::Kind::kReal ? memory.worked_private : memory.worked_floor) =
        PrivateMemory(daemon.Child());
  }
  return memory;
}

Growth MeasureConnections(int connections) {
  Daemon::Options options;
  options.simulator_port = FreePort();
  const Daemon daemon(Daemon::Kind::kReal, options);
  const auto connect = [&](int n) {
    for (int i = 0; i < n; ++i) {
      Master master(daemon.port());
      master.ReceiveFrame();
      master.Send(Frame("0"));
      master.AwaitEnd();
    }
  };
  connect(100);
  Growth growth;
  growth.before = StatusValue(daemon.pid(), "VmRSS");
  connect(connections);
  growth.after = StatusValue(daemon.pid(), "VmRSS");
  return growth;
}

}  // namespace bench
