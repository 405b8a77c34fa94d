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
#include <memory>
#include <sstream>
#include <stdexcept>

#include "bench/whole/flows.h"
#include "bench/whole/peer.h"
#include "bench/whole/rig.h"
#include "tests/support/bytes.h"
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

  // The median of the real times over those of another series that was measured in turns.
  double RealOver(const Samples& other) const {
    std::vector<double> quotients;
    for (std::size_t i = 0; i < real_.size(); ++i) quotients.push_back(real_[i] / other.real_[i]);
    return Median(quotients);
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
    master_.Launch(daemon.path());
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
  master.Launch(daemon.path());
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
  // After the name, which may hold anything: state, six numbers, flags, and these.
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

double CountSystemCalls(Daemon::Kind kind, const Flow& flow, const Step& set_up, int repeats) {
  const TemporaryDirectory directory;
  const Peers peers(set_up, flow, 1);
  const Daemon daemon(kind, {.simulator_port = peers.port(), .set_up = &set_up, .flow = &flow});
  Run run(daemon, set_up);
  const std::string summary = directory.File("summary");
  const std::string said = directory.File("said");
  Flow once = flow;
  once.repeats = 1;
  run.Block(once);
  const pid_t child = daemon.Child();
  ChildProcess::Options process;
  process.output_file = said;
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

// Its times and pages, after a block that has made it warm.
Counts Usage(Daemon::Kind kind, const Flow& flow, const Step& set_up) {
  const Peers peers(set_up, flow, 1);
  const Daemon daemon(kind, {.simulator_port = peers.port(), .set_up = &set_up, .flow = &flow});
  Run run(daemon, set_up);
  run.Block(flow);
  const pid_t child = daemon.Child();
  const double before = ProcessorTime(child);
  const double faults = PageFaults(child);
  run.Block(flow);
  Counts counts;
  counts.processor_us = (ProcessorTime(child) - before) / flow.repeats;
  counts.page_faults = (PageFaults(child) - faults) / flow.repeats;
  return counts;
}

constexpr std::size_t kIdleChildren = 20;

// What is shared among idle children counts for each of them by its part.
void MeasureIdle(Daemon::Kind kind, const Step& set_up, Memory& memory) {
  const Flow none{"none", {}, 1};
  const Daemon daemon(kind, {.simulator_port = FreePort(), .set_up = &set_up, .flow = &none});
  std::vector<std::unique_ptr<Master>> masters;
  for (std::size_t i = 0; i < kIdleChildren; ++i) {
    masters.push_back(std::make_unique<Master>(daemon.port()));
    masters.back()->Launch(daemon.path());
  }
  std::vector<double> proportional;
  std::vector<double> own;
  for (const pid_t child : ChildrenOf(daemon.pid())) {
    proportional.push_back(static_cast<double>(ProportionalSetSize(child)));
    own.push_back(static_cast<double>(PrivateMemory(child)));
  }
  if (own.size() != kIdleChildren) throw std::runtime_error("not all children are there");
  memory.idle = static_cast<long>(Median(proportional));
  memory.idle_private = static_cast<long>(Median(own));
}

Memory MemoryOf(Daemon::Kind kind, const Flow& flow, const Step& set_up) {
  Memory memory;
  MeasureIdle(kind, set_up, memory);
  const Peers peers(set_up, flow, 1);
  const Daemon daemon(kind, {.simulator_port = peers.port(), .set_up = &set_up, .flow = &flow});
  Run run(daemon, set_up);
  Flow once = flow;
  once.repeats = 1;
  run.Block(once);
  memory.worked_private = PrivateMemory(daemon.Child());
  return memory;
}

// One number of wells of a scale, ready to be measured block by block.
class Point {
 public:
  Point(const Flow& flow, int wells) : wells_(wells), flow_(flow), set_up_(SetUp()) {
    Learn(set_up_, flow_);
    peers_ = std::make_unique<Peers>(set_up_, flow_, 2);
    Daemon::Options options;
    options.simulator_port = peers_->port();
    real_ = std::make_unique<Daemon>(Daemon::Kind::kReal, options);
    options.set_up = &set_up_;
    options.flow = &flow_;
    floor_ = std::make_unique<Daemon>(Daemon::Kind::kFloor, options);
    real_run_ = std::make_unique<Run>(*real_, set_up_);
    floor_run_ = std::make_unique<Run>(*floor_, set_up_);
    real_run_->Block(flow_);
    floor_run_->Block(flow_);
  }

  void Measure() {
    const Run::Times real = real_run_->Block(flow_);
    const Run::Times floor = floor_run_->Block(flow_);
    first_.Add(real.first / wells_, floor.first / wells_);
    whole_.Add(real.whole / wells_, floor.whole / wells_);
  }

  Scale Summary(const Point& base) const {
    Scale scale{wells_, {first_.Summary(), whole_.Summary()}};
    if (wells_ > base.wells_) {
      scale.first_growth = first_.RealOver(base.first_);
      scale.whole_growth = whole_.RealOver(base.whole_);
    }
    return scale;
  }

 private:
  int wells_;
  Flow flow_;
  Step set_up_;
  std::unique_ptr<Peers> peers_;
  std::unique_ptr<Daemon> real_;
  std::unique_ptr<Daemon> floor_;
  std::unique_ptr<Run> real_run_;
  std::unique_ptr<Run> floor_run_;
  Samples first_;
  Samples whole_;
};

// The items of the comms log for the request that MeasureLogItem is given.
const std::vector<std::string> kItems = {"Received header: ", "4", "\n",
                                         "GetTimeDays: ",     "0", "\n"};

void CheckItems(const std::string& log) {
  std::string text;
  for (const std::string& item : kItems) text += item;
  if (log.find(text + text) == std::string::npos) {
    throw std::runtime_error("the comms log has other items: " + log);
  }
}

// Microseconds for an item that is written to two files.
double TwoWrites(int one, int other, int repeats) {
  const auto start = Clock::now();
  for (int i = 0; i < repeats; ++i) {
    for (const std::string& item : kItems) {
      if (write(one, item.data(), item.size()) < 0 || write(other, item.data(), item.size()) < 0) {
        throw std::runtime_error("cannot write");
      }
    }
  }
  return Microseconds(Clock::now() - start) / repeats / static_cast<double>(kItems.size());
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

std::vector<Scale> MeasureScale(const std::function<Flow(int)>& make, const std::vector<int>& wells,
                                int base, int blocks) {
  std::vector<std::unique_ptr<Point>> points;
  const Point* base_point = nullptr;
  for (const int n : wells) {
    points.push_back(std::make_unique<Point>(make(n), n));
    if (n == base) base_point = points.back().get();
  }
  for (int block = 0; block < blocks; ++block) {
    for (const auto& point : points) point->Measure();
  }
  std::vector<Scale> scale;
  scale.reserve(points.size());
  for (const auto& point : points) scale.push_back(point->Summary(*base_point));
  return scale;
}

Timing MeasureLogItem(const Flow& learned, const Step& set_up, int blocks) {
  const Peers peers(set_up, learned, 2);
  Daemon::Options options;
  options.simulator_port = peers.port();
  const Daemon quiet(Daemon::Kind::kReal, options);
  options.comms_log = true;
  const Daemon logging(Daemon::Kind::kReal, options);
  Run without(quiet, set_up);
  Run with(logging, set_up);
  with.Block(learned);
  without.Block(learned);
  CheckItems(logging.Log());
  const TemporaryDirectory directory;
  const auto log = [&](const char* name) {
    return Descriptor(
        open(directory.File(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  };
  const Descriptor file = log("file");
  const Descriptor output = log("output");
  Samples samples;
  for (int block = 0; block < blocks; ++block) {
    const double more = with.Block(learned).whole - without.Block(learned).whole;
    samples.Add(more / static_cast<double>(kItems.size()),
                TwoWrites(file.get(), output.get(), learned.repeats));
  }
  return samples.Summary();
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

FlowCounts CountFlow(const Flow& learned, const Step& set_up, int repeats) {
  FlowCounts counts;
  counts.real = Usage(Daemon::Kind::kReal, learned, set_up);
  counts.floor = Usage(Daemon::Kind::kFloor, learned, set_up);
  counts.real.system_calls = CountSystemCalls(Daemon::Kind::kReal, learned, set_up, repeats);
  counts.floor.system_calls = CountSystemCalls(Daemon::Kind::kFloor, learned, set_up, repeats);
  counts.real.allocations = CountAllocations(learned, set_up, repeats);
  return counts;
}

Memories MeasureMemory(const Flow& learned, const Step& set_up) {
  return {MemoryOf(Daemon::Kind::kReal, learned, set_up),
          MemoryOf(Daemon::Kind::kFloor, learned, set_up)};
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
