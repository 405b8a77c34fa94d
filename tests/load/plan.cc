#include "tests/load/plan.h"

#include <random>
#include <span>
#include <utility>

namespace load {
namespace {

struct Entry {
  Kind kind;
  const char* name;
  unsigned weight;  // among its half: with or without a launch
};

constexpr Entry kBefore[] = {
    {Kind::kLeavesAtOnce, "leaves-at-once", 4},
    {Kind::kLeavesInHandshake, "leaves-in-handshake", 8},
    {Kind::kResetsInHandshake, "resets-in-handshake", 4},
    {Kind::kRefusesVersion, "refuses-version", 2},
    {Kind::kStranger, "stranger", 2},
    {Kind::kDeniedUser, "denied-user", 2},
    {Kind::kUnknownUser, "unknown-user", 2},
    {Kind::kMissingAccount, "missing-account", 2},
};

constexpr Entry kLaunching[] = {
    {Kind::kScriptWithoutHost, "script-without-host", 2},
    {Kind::kScriptKilled, "script-killed", 2},
    {Kind::kScriptWithBlankHost, "script-with-blank-host", 1},
    {Kind::kScriptChatty, "script-chatty", 1},
    {Kind::kScriptStays, "script-stays", 2},
    {Kind::kLeavesInLaunch, "leaves-in-launch", 2},
    {Kind::kLeavesLaunched, "leaves-launched", 2},
    {Kind::kSimulatorRefuses, "simulator-refuses", 2},
    {Kind::kSimulatorHangsUp, "simulator-hangs-up", 2},
    {Kind::kSimulatorCuts, "simulator-cuts", 4},
    {Kind::kSimulatorSpoils, "simulator-spoils", 4},
    {Kind::kRun, "run", 10},
    {Kind::kClusterRun, "cluster-run", 2},
    {Kind::kLeavesRun, "leaves-run", 3},
    {Kind::kResetsRun, "resets-run", 3},
    {Kind::kResetsRequest, "resets-request", 3},
    {Kind::kLeavesRecords, "leaves-records", 3},
    {Kind::kHostileRequest, "hostile-request", 3},
    {Kind::kUnknownRequest, "unknown-request", 2},
    {Kind::kSimulatorAbsent, "simulator-absent", 1},
    {Kind::kLeavesRequest, "leaves-request", 1},
};

// The last of them, left out where time is short.
constexpr std::size_t kSlow = 2;

// The library's distributions may differ from one implementation to the next; this does not.
std::uint64_t Below(std::mt19937_64& random, std::uint64_t limit) {
  return random() % limit;
}

Action Draw(std::mt19937_64& random, std::span<const Entry> entries) {
  std::uint64_t total = 0;
  for (const Entry& entry : entries) total += entry.weight;
  std::uint64_t at = Below(random, total);
  auto chosen = entries.begin();
  for (; at >= chosen->weight; ++chosen) at -= chosen->weight;
  return {chosen->kind, static_cast<std::uint32_t>(Below(random, 1U << 31))};
}

}  // namespace

std::string NameOf(Kind kind) {
  for (const Entry& entry : kBefore) {
    if (entry.kind == kind) return entry.name;
  }
  for (const Entry& entry : kLaunching) {
    if (entry.kind == kind) return entry.name;
  }
  return "?";
}

bool Launches(Kind kind) {
  return kind >= Kind::kScriptWithoutHost;
}

std::vector<Action> MakePlan(std::uint64_t seed, std::size_t connections, std::size_t launches,
                             bool slow) {
  std::mt19937_64 random(seed);
  std::vector<Action> plan;
  plan.reserve(connections);
  const auto launching = std::span(kLaunching).first(std::size(kLaunching) - (slow ? 0 : kSlow));
  for (std::size_t i = 0; i < launches; ++i) plan.push_back(Draw(random, launching));
  while (plan.size() < connections) plan.push_back(Draw(random, kBefore));
  for (std::size_t i = plan.size(); i > 1; --i) {
    std::swap(plan[i - 1], plan[Below(random, i)]);
  }
  return plan;
}

}  // namespace load
