#include "tests/load/observation.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <iostream>
#include <sstream>

#include "tests/support/child_process.h"
#include "tests/support/sanitized.h"

namespace load {

std::optional<Memory> MemoryOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
  Memory memory;
  std::string line;
  bool found = false;
  while (std::getline(file, line)) {
    std::istringstream fields(line);
    std::string name;
    long value = 0;
    if (!(fields >> name >> value)) continue;
    if (name == "Rss:") memory.resident = value;
    if (name == "Pss:") memory.share = value;
    if (name == "Anonymous:") memory.anonymous = value;
    if (name == "Private_Clean:" || name == "Private_Dirty:") memory.own += value;
    found = true;
  }
  if (!found) return std::nullopt;
  return memory;
}

std::vector<pid_t> ZombiesOf(pid_t parent) {
  std::vector<pid_t> zombies;
  for (const pid_t child : ChildrenOf(parent)) {
    std::ifstream file("/proc/" + std::to_string(child) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t state = text.rfind(") ");  // after the name, which may hold anything
    if (state != std::string::npos && text[state + 2] == 'Z') zombies.push_back(child);
  }
  return zombies;
}

double Percentile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(values.size())));
  const auto at = values.begin() + static_cast<std::ptrdiff_t>(std::max<std::size_t>(rank, 1) - 1);
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

void Report::Figure(const std::string& what, const std::string& value) {
  const std::scoped_lock lock(mutex_);
  std::cout << "  " << what << ": " << value << std::endl;
}

void Report::Figure(const std::string& what, double value, const std::string& unit) {
  std::ostringstream text;
  text.precision(4);
  text << value << " " << unit;
  Figure(what, text.str());
}

void Report::Require(bool holds, const std::string& failure) {
  if (holds) return;
  const std::scoped_lock lock(mutex_);
  failures_.push_back(failure);
  std::cout << "  FAILED: " << failure << std::endl;
}

void Report::RequireFlat(const std::string& what, long before, long now, long tolerance) {
  if (kSanitized) return;
  Require(now <= before + tolerance, what + " grew from " + std::to_string(before) + " to " +
                                         std::to_string(now) + " KiB (tolerance " +
                                         std::to_string(tolerance) + ")");
}

std::vector<std::string> Report::failures() const {
  const std::scoped_lock lock(mutex_);
  return failures_;
}

Baseline::Baseline(pid_t daemon)
    : daemon_(daemon),
      descriptors_(OpenDescriptors(daemon)),
      anonymous_(MemoryOf(daemon).value_or(Memory{}).anonymous) {}

void Baseline::RequireUnchanged(Report& report) const {
  if (!IsRunning(daemon_)) return report.Require(false, "the daemon has ended");
  const std::size_t descriptors = OpenDescriptors(daemon_);
  report.Require(descriptors == descriptors_, "the daemon's descriptors went from " +
                                                  std::to_string(descriptors_) + " to " +
                                                  std::to_string(descriptors));
  report.RequireFlat("the daemon's memory", anonymous_,
                     MemoryOf(daemon_).value_or(Memory{}).anonymous, kTolerance);
}

void Baseline::RequireRest(Report& report, std::chrono::milliseconds patience) const {
  Eventually([this] { return ChildrenOf(daemon_).empty(); }, patience);
  const std::size_t children = ChildrenOf(daemon_).size();
  report.Require(children == 0, std::to_string(children) + " children are left, " +
                                    std::to_string(ZombiesOf(daemon_).size()) + " of them zombies");
  RequireUnchanged(report);
}

std::string Baseline::Text() const {
  return std::to_string(descriptors_) + " descriptors, " + std::to_string(anonymous_) +
         " KiB of its own";
}

}  // namespace load
