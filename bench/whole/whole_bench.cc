// Measures the real programs: vkjobmill.exe with a script and a simulator whose answers lie ready,
// beside a minimal daemon that moves the same bytes.
//
//   bench_whole [--json FILE] [--blocks N] [--only TEXT] [--counts] [--scale]

#include <exception>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "bench/whole/flows.h"
#include "bench/whole/measures.h"
#include "bench/whole/report.h"
#include "bench/whole/rig.h"

namespace bench {
namespace {

// From so many wells on the time per well should not grow.
constexpr int kBase = 100;

struct Choice {
  int blocks = 31;
  std::string only;
};

class Session {
 public:
  explicit Session(const Choice& choice) : choice_(choice) {}

  bool Wants(const std::string& name) const {
    return choice_.only.empty() || name.find(choice_.only) != std::string::npos;
  }

  // `goal` of the first reply, `whole_goal` of all steps.
  void Time(Flow flow, double goal, double whole_goal = 0) {
    if (!Wants(flow.name)) return;
    Step set_up = SetUp();
    Learn(set_up, flow);
    const FlowTimes times = MeasureFlow(flow, set_up, choice_.blocks);
    const bool several = flow.steps.size() > 1;
    Add(flow.name + (several ? ", first reply" : ""), times.first, goal);
    if (several) Add(flow.name + ", whole", times.whole, whole_goal);
  }

  void Count(Flow flow, int repeats) {
    if (!Wants(flow.name)) return;
    Step set_up = SetUp();
    Learn(set_up, flow);
    const FlowCounts counts = CountFlow(flow, set_up, repeats);
    const auto add = [&](const char* what, const char* unit, double Counts::*count) {
      Row row{flow.name + ", " + what, unit, counts.real.*count};
      row.floor = counts.floor.*count;
      if (row.floor > 0) row.ratio = row.value / row.floor;
      rows_.push_back(row);
    };
    add("system calls", "calls", &Counts::system_calls);
    add("allocations", "calls", &Counts::allocations);
    add("page faults", "pages", &Counts::page_faults);
    add("processor", "us", &Counts::processor_us);
  }

  void Launch() {
    if (!Wants("launch")) return;
    Add("launch, connect to host line", MeasureLaunch(choice_.blocks, 20), 1.15);
  }

  void CommsLog() {
    Flow flow = TimeDays();
    if (!Wants("comms log")) return;
    Step set_up = SetUp();
    Learn(set_up, flow);
    Add("comms log, one item", MeasureLogItem(flow, set_up, choice_.blocks), 0);
  }

  void Sizes() {
    if (!Wants("memory")) return;
    Flow flow = WellData(5000);
    Step set_up = SetUp();
    Learn(set_up, flow);
    const Memories memory = MeasureMemory(flow, set_up);
    const auto add = [&](const char* name, long Memory::*size, double goal) {
      AddSize(name, memory.real.*size, memory.floor.*size, goal);
    };
    add("memory of an idle child", &Memory::idle, 250);
    add("memory of an idle child, private", &Memory::idle_private, 0);
    add("memory after GetWellData, 5000 wells, private", &Memory::worked_private, 1536);
    const Growth growth = MeasureConnections(10000);
    AddSize("memory of the daemon, 100 connections", growth.before, 0, 0);
    AddSize("memory of the daemon, 10100 connections", growth.after, 0, 0);
  }

  // Times per well.
  void Scale(const std::string& name, const std::function<Flow(int)>& make,
             const std::vector<int>& wells, bool records) {
    if (!Wants(name)) return;
    for (const bench::Scale& point : MeasureScale(make, wells, kBase, choice_.blocks)) {
      const auto add = [&](const char* part, const Timing& timing, double growth) {
        Add(fmt::format("{}{}, {} wells", name, part, point.wells), timing, 0);
        rows_.back().growth = growth;
      };
      add(records ? ", first reply" : "", point.times.first, point.first_growth);
      if (records) add(", whole", point.times.whole, point.whole_growth);
    }
  }

  const std::vector<Row>& rows() const { return rows_; }

 private:
  void Add(const std::string& name, const Timing& timing, double goal) {
    rows_.push_back({name, "us", timing.real, timing.floor, timing.ratio, timing.spread, goal});
  }

  // Memory is judged by itself; the floor is told beside it.
  void AddSize(const std::string& name, long size, long floor, double goal) {
    Row row{name, "KiB", static_cast<double>(size)};
    row.floor = static_cast<double>(floor);
    row.goal = goal;
    rows_.push_back(row);
  }

  Choice choice_;
  std::vector<Row> rows_;
};

void TimeAll(Session& session) {
  constexpr double simple = 1.08;
  constexpr double round_trip = 1.06;
  session.Time(TimeDays(), simple);
  session.Time(TermFlag(), simple);
  session.Time(Version(), round_trip);
  session.Time(RunUntil(), round_trip);
  session.Time(Variables(1), round_trip);
  session.Time(Variables(8), round_trip);
  session.Time(WellData(1), 0, 1.10);
  session.Time(WellData(1000), 2.5, 1.10);
  session.Time(WellData(5000), 2.5, 1.10);
  session.Time(WellStatus(5000), 5);
  session.Time(InflowTables(1000), 2.0);
  session.Launch();
  session.CommsLog();
  session.Sizes();
}

void CountAll(Session& session) {
  session.Count(TimeDays(), 100);
  session.Count(Version(), 100);
  session.Count(RunUntil(), 100);
  session.Count(Variables(8), 100);
  session.Count(WellStatus(5000), 10);
  session.Count(WellStatus(50000), 5);
  session.Count(WellData(1000), 10);
  session.Count(WellData(5000), 3);
  session.Count(InflowTables(1000), 10);
}

// 5,000 names are the most that a request holds.
void ScaleAll(Session& session) {
  session.Scale("GetWellData", WellData, {10, 100, 1000, 5000}, true);
  session.Scale("GetWellIPRData", InflowTables, {10, 100, 1000, 5000}, true);
  session.Scale("GetWellStatus", WellStatus, {10, 100, 1000, 5000, 50000}, false);
}

int Measure(int argc, char** argv) {
  CLI::App app("Measures the jobmill beside the least that the kernel needs.");
  Choice choice;
  std::string json;
  bool counts = false;
  bool scale = false;
  app.add_option("--json", json, "Keep the figures in this file");
  app.add_option("--blocks", choice.blocks, "Blocks of measurement for each flow")
      ->check(CLI::Range(3, 10000));
  app.add_option("--only", choice.only, "Only what has this text in its name");
  app.add_flag("--counts", counts, "Count system calls, allocations and processor time instead");
  app.add_flag("--scale", scale, "Times per well over the number of wells instead");
  CLI11_PARSE(app, argc, argv);
  UseOneCore();
  Session session(choice);
  if (counts) {
    CountAll(session);
  } else if (scale) {
    ScaleAll(session);
  } else {
    TimeAll(session);
  }
  fmt::print("{}", Table(session.rows()));
  if (!json.empty()) std::ofstream(json) << Json(session.rows());
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  try {
    return bench::Measure(argc, argv);
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench_whole: {}\n", error.what());
    return 1;
  }
}
