#include <array>
#include <memory>
#include <string>

#include "simulator/reservoir.h"
#include "tests/load/load_site.h"
#include "tests/load/scenarios.h"
#include "tests/support/child_process.h"
#include "tests/support/sanitized.h"

namespace load {
namespace {

using Clock = std::chrono::steady_clock;
using Names = std::vector<std::string>;

// Over a million requests a byte in eight of them shows.
constexpr long kTolerance = 128;

const Names kWells = {"P1", "P2", "P3", "P4", "P5", "P6"};
const Names kItems = {"OIL_PRODUCTION_RATE", "BOTTOM_HOLE_PRESSURE"};

// Requests of all codes in a fixed order, compared with a model that gets the same.
class MixedRequests {
 public:
  MixedRequests(master::Run& run, const simulator::Deck& deck) : run_(run), model_(deck) {
    run_.Connect();
    run_.Newton();
  }

  // The costly ones are rarer: they are many exchanges with the simulator each.
  void Send(std::size_t number) {
    if (number % 1000 == 999) return Survey();
    if (number % 500 == 499) return Step();
    switch (number % 16) {
      case 0:
      case 8:
        return Check(run_.GetTimeDays() == days_, "another time");
      case 1:
        return Check(!run_.GetMetricFlag(), "other units");
      case 2:
        return Check(run_.GetVersion() == 2017.2, "another version");
      case 3:
        return Check(!run_.GetCompFlag(), "another fluid");
      case 4:
        return Check(run_.GetStartDate() == master::Date{1, 1, 2020}, "another start");
      case 5:
      case 9:
        return Check(!run_.GetTermFlag(), "the run has ended");
      case 6:
        return Check(run_.GetWellStatus().size() == model_.well_count(), "other wells");
      case 7:
        return CompareVariables();
      case 10:
        return CompareData();
      case 11:
        return run_.SetWellUptime({"P6"}, {0.95});
      case 12:
        return run_.SetWellStatus({"P5"}, {"OPEN"});
      case 13:
        return run_.SetWellConstraints({{"P6", {"LIQUID_PRODUCTION_RATE"}, {2000.0}}});
      case 14:
        return CompareDate();
      default:
        return Check(run_.GetEOSProps().components.empty(), "components in a black-oil run");
    }
  }

 private:
  void Step() {
    days_ = std::min(days_ + 1, 3600.0);
    run_.RunUntil(days_);
    model_.advance_to(days_);
  }

  void CompareDate() {
    const simulator::DateTime date = model_.date();
    Check(run_.GetDate() == master::Date{date[2], date[1], date[0]}, "another date");
  }

  void CompareVariables() {
    const std::vector<double> values = run_.GetWellVariables("P1", kItems);
    Check(values == std::vector{model_.well_property("P1", kItems[0]),
                                model_.well_property("P1", kItems[1])},
          "other variables than the model's");
  }

  void CompareData() {
    const std::vector<master::WellData> data = run_.GetWellData(kWells);
    Check(data.size() == kWells.size() && data[5].oil_rate == model_.well_property("P6", kItems[0]),
          "another operating point than the model's");
  }

  // Leaves the limits that it set; they are those of no rate for this injector.
  void Survey() {
    Check(run_.GetWellIPRData({{"WI1"}, 0, true, 1.0}).wells.size() == 1, "no table");
    run_.SetWellConstraints({{"WI1", {"WATER_INJECTION_RATE"}, {4500.0}}});
    run_.SetWellStatus({"WI1"}, {"OPEN"});
  }

  master::Run& run_;
  simulator::Reservoir model_;
  double days_ = 0;
};

}  // namespace

void Requests(const RequestsSize& size, Report& report) {
  LoadSite site(false);
  const pid_t daemon = site.daemon().pid();
  site.Launch(site.Request(LoadSite::Root(SimulatorFarm::kGood, "first")));
  Eventually([&] { return ChildrenOf(daemon).empty(); });
  const Baseline baseline(daemon);

  const auto run = site.Launch(site.Request(LoadSite::Root(SimulatorFarm::kGood, "long")));
  // The script may not have ended yet.
  Eventually([&] { return ChildrenOf(daemon).size() == 1; });
  const pid_t controller = ChildrenOf(daemon).at(0);
  MixedRequests requests(*run, site.simulators().deck());
  long settled = 0;
  std::size_t descriptors = 0;
  const Clock::time_point start = Clock::now();
  for (std::size_t number = 0; number < size.requests; ++number) {
    requests.Send(number);
    if (number + 1 == size.settled) {
      settled = MemoryOf(controller).value_or(Memory{}).anonymous;
      descriptors = OpenDescriptors(controller);
      report.Figure("the controller after " + std::to_string(size.settled) + " requests",
                    std::to_string(settled) + " KiB of its own, " + std::to_string(descriptors) +
                        " descriptors");
    } else if (number >= size.settled && (number + 1) % size.settled == 0) {
      const long now = MemoryOf(controller).value_or(Memory{}).anonymous;
      if (!kSanitized && now > settled + kTolerance) break;  // reported below
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const long now = MemoryOf(controller).value_or(Memory{}).anonymous;
  report.Figure("the controller at the end", std::to_string(now) + " KiB of its own, " +
                                                 std::to_string(OpenDescriptors(controller)) +
                                                 " descriptors");
  report.Figure("requests a second", static_cast<double>(size.requests) / seconds, "");
  report.RequireFlat("the controller's memory", settled, now, kTolerance);
  report.Require(OpenDescriptors(controller) == descriptors,
                 "the controller's descriptors have changed");
  run->Shutdown();
  baseline.RequireRest(report);
}

}  // namespace load
