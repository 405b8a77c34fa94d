#include <filesystem>
#include <iostream>
#include <map>

#include "tests/load/actor.h"
#include "tests/load/scenarios.h"
#include "tests/support/child_process.h"

namespace load {
namespace {

using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

void WaitForRest(LoadSite& site) {
  Eventually([&] { return ChildrenOf(site.daemon().pid()).empty(); }, Baseline::kPatience);
}

// One connection of each quick kind: what a daemon makes once it makes now.
std::vector<Action> OneOfEach() {
  constexpr int kKinds = static_cast<int>(Kind::kSimulatorAbsent);
  std::vector<Action> plan;
  plan.reserve(kKinds);
  for (int kind = 0; kind < kKinds; ++kind) {
    plan.push_back({static_cast<Kind>(kind), 5});
  }
  return plan;
}

void ReportKinds(const std::vector<Action>& plan, Report& report) {
  std::map<std::string, std::size_t> counts;
  for (const Action& action : plan) ++counts[NameOf(action.kind)];
  std::string text;
  for (const auto& [name, count] : counts) text += " " + name + " " + std::to_string(count);
  report.Figure("kinds", text.substr(1));
}

void RequireSimulatorsAtRest(LoadSite& site, Report& report) {
  report.Require(
      Eventually([&] { return site.simulators().Open() == 0; }),
      std::to_string(site.simulators().Open()) + " simulators whose controllers have not left");
}

// A run from its first to its last message, and what it leaves.
void RequireServed(LoadSite& site, const std::string& life, Report& report) {
  CarryOut(site, {{Kind::kRun, 5}}, 1, seconds(30), life, report);
}

void EmptyData(const LoadSite& site) {
  for (const auto& entry : std::filesystem::directory_iterator(site.data().path())) {
    std::filesystem::remove(entry.path());
  }
}

}  // namespace

void Churn(const ChurnSize& size, Report& report) {
  LoadSite site(true);
  CarryOut(site, OneOfEach(), 1, seconds(60), "first", report);
  WaitForRest(site);
  const Baseline baseline(site.daemon().pid());
  report.Figure("the daemon at rest", baseline.Text());

  const std::vector<Action> plan = MakePlan(size.seed, size.connections, size.launches, size.slow);
  ReportKinds(plan, report);
  const Clock::time_point start = Clock::now();
  CarryOut(site, plan, size.at_once, seconds(3600), "churn", report);
  const double duration = std::chrono::duration<double>(Clock::now() - start).count();
  report.Figure("connections a second", static_cast<double>(size.connections) / duration, "");

  baseline.RequireRest(report);
  RequireSimulatorsAtRest(site, report);
  RequireServed(site, "last", report);
  baseline.RequireRest(report);
  report.Figure("the daemon at the end", Baseline(site.daemon().pid()).Text());
}

std::vector<Action> RoundPlan(std::uint64_t seed, const RoundSize& size) {
  // A round with slow ones takes as long as ten others.
  return MakePlan(seed, size.connections, size.launches, size.slow && seed % 8 == 0);
}

void Soak(seconds duration, std::size_t rounds, std::uint64_t seed, const RoundSize& size,
          Report& report) {
  LoadSite site(true);
  CarryOut(site, OneOfEach(), 1, seconds(60), "first", report);
  if (!report.failures().empty()) return;  // whatever the seed
  WaitForRest(site);
  const Baseline baseline(site.daemon().pid());
  report.Figure("the daemon at rest", baseline.Text());

  const Clock::time_point start = Clock::now();
  std::size_t done = 0;
  std::size_t connections = 0;
  while (report.failures().empty() && (rounds == 0 || done < rounds) &&
         Clock::now() - start < duration) {
    const std::uint64_t round = seed + done;
    const std::vector<Action> plan = RoundPlan(round, size);
    CarryOut(site, plan, size.at_once, seconds(120), std::to_string(round), report);
    baseline.RequireRest(report);
    RequireSimulatorsAtRest(site, report);
    RequireServed(site, std::to_string(round) + "-after", report);
    baseline.RequireRest(report);
    EmptyData(site);
    ++done;
    connections += plan.size();
    if (!report.failures().empty()) {
      std::cout << "Round " << round << " failed. It alone again: scripts/soak --replay " << round
                << "\n";
    }
  }
  report.Figure("rounds", std::to_string(done) + ", from seed " + std::to_string(seed) + " on");
  report.Figure("connections", std::to_string(connections));
  report.Figure("the daemon at the end", Baseline(site.daemon().pid()).Text());
}

}  // namespace load
