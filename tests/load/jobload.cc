// Loads a daemon at full size; see docs/load.md.

#include <sys/resource.h>

#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "tests/load/plan.h"
#include "tests/load/scenarios.h"

namespace {

using load::Report;

constexpr const char* kUsage =
    "usage: jobload SCENARIO...              idle, churn, requests, volume\n"
    "       jobload soak MINUTES [SEED]      rounds of a seeded mix\n"
    "       jobload replay SEED              one of its rounds alone\n"
    "       jobload plan SEED                what that round does\n";

// A descriptor for every connection and simulator, where the system lets us.
void RaiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

std::string LoadAverage() {
  std::ifstream file("/proc/loadavg");
  std::string text;
  std::getline(file, text);
  return text;
}

int Run(const std::string& name, const std::function<void(Report&)>& scenario) {
  std::cout << name << " (load average before: " << LoadAverage() << ")" << std::endl;
  Report report;
  const std::time_t start = std::time(nullptr);
  try {
    scenario(report);
  } catch (const std::exception& error) {
    report.Require(false, error.what());
  } catch (const std::string& error) {
    report.Require(false, error);
  }
  report.Figure("duration", static_cast<double>(std::time(nullptr) - start), "s");
  report.Figure("load average after", LoadAverage());
  const std::size_t failures = report.failures().size();
  std::cout << name << ": " << (failures == 0 ? "passed" : std::to_string(failures) + " failures")
            << std::endl;
  return failures == 0 ? 0 : 1;
}

int ShowPlan(std::uint64_t seed) {
  for (const load::Action& action : load::RoundPlan(seed, {})) {
    std::cout << load::NameOf(action.kind) << " " << action.parameter << "\n";
  }
  return 0;
}

int Soak(const std::vector<std::string>& arguments) {
  const long minutes = std::stol(arguments.at(1));
  const std::uint64_t seed = arguments.size() > 2 ? std::stoull(arguments[2])
                                                  : static_cast<std::uint64_t>(std::time(nullptr));
  std::cout << "seed " << seed << "\n";
  return Run("soak", [&](Report& report) {
    load::Soak(std::chrono::minutes(minutes), 0, seed, {}, report);
  });
}

int Replay(std::uint64_t seed) {
  ShowPlan(seed);
  return Run("replay of " + std::to_string(seed),
             [&](Report& report) { load::Soak(std::chrono::hours(1), 1, seed, {}, report); });
}

const std::map<std::string, std::function<void(Report&)>> kScenarios = {
    {"idle", [](Report& report) { load::Idle({}, report); }},
    {"churn", [](Report& report) { load::Churn({}, report); }},
    {"requests", [](Report& report) { load::Requests({}, report); }},
    {"volume", [](Report& report) { load::Volume({}, report); }},
};

int Main(const std::vector<std::string>& arguments) {
  if (arguments.empty()) throw std::invalid_argument("no scenario");
  if (arguments[0] == "soak") return Soak(arguments);
  if (arguments[0] == "replay") return Replay(std::stoull(arguments.at(1)));
  if (arguments[0] == "plan") return ShowPlan(std::stoull(arguments.at(1)));
  for (const std::string& name : arguments) {
    if (!kScenarios.contains(name)) throw std::invalid_argument("no scenario " + name);
  }
  int status = 0;
  for (const std::string& name : arguments) status |= Run(name, kScenarios.at(name));
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  RaiseDescriptorLimit();
  try {
    return Main({argv + 1, argv + argc});
  } catch (const std::logic_error& error) {
    std::cerr << "jobload: " << error.what() << "\n" << kUsage;
    return 2;
  }
}
