#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "inspect/history.h"
#include "inspect/process.h"
#include "inspect/runs.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/history_view.h"
#include "tools/jobmillctl/json_values.h"
#include "tools/jobmillctl/run_logs.h"
#include "tools/jobmillctl/run_view.h"
#include "tools/jobmillctl/table.h"
#include "tools/jobmillctl/watch.h"

namespace jobmillctl {
namespace {

constexpr std::size_t kLastLines = 10;

struct Given {
  std::string run;
  bool json = false;
  bool watch = false;
  std::string gates = inspect::kGateDirectory;
};

// A run that has ended is found by its root name or its id in the history. A number is taken for
// that of a process: a job of that number may be another run.
bool PrintEnded(const Given& given, const inspect::Runs& found) {
  if (given.run.find_first_not_of("0123456789") == std::string::npos) return false;
  inspect::History history = inspect::ReadHistory(found);
  const inspect::EndedRun* run = Find(history, given.run);
  if (run == nullptr) return false;
  if (given.json) {
    history.runs = {inspect::EndedRun(*run)};
    PrintDocument(JsonOf(history, inspect::Now()));
  } else {
    for (const std::string& line : DetailsOf(*run)) fmt::print("{}\n", line);
  }
  return true;
}

// Whether a simulator that is waited for computes, by the processor time that it uses in the second
// that this takes. Empty where no simulator is waited for, or none is on this machine.
std::string ComputingText(const inspect::Run& run) {
  if (run.state != inspect::RunState::kSimulator || !run.simulator) return {};
  const auto before = inspect::Process::Open(*run.simulator);
  if (!before) return {};
  constexpr std::chrono::seconds kLook{1};
  std::this_thread::sleep_for(kLook);
  const auto after = inspect::Process::Open(before->stat().id);
  if (!after) return "it has just ended";
  const double used = inspect::Seconds(after->stat().ticks - before->stat().ticks);
  if (used == 0) return "no processor time in this second";
  return fmt::format("computing, {:.2f} processors", used / kLook.count());
}

int PrintStatus(const Given& given) {
  inspect::Runs found = inspect::FindRuns(given.gates);
  const double now = inspect::Now();
  AddCauses(found);
  if (!given.run.empty()) {
    if (!IsOneOf(found, given.run) && PrintEnded(given, found)) return kOk;
    inspect::Run run = Choose(found, given.run);
    found.runs = {std::move(run)};
  }
  if (given.json) {
    PrintDocument(JsonOf(found, now));
  } else if (given.run.empty()) {
    PrintCut(LinesOf(found, now));
  } else {
    const inspect::Run& run = found.runs.front();
    for (const std::string& line : DetailsOf(run, now)) fmt::print("{}\n", line);
    const std::string computing = ComputingText(run);
    if (!computing.empty()) fmt::print("{:<22} {}\n", "simulator is", computing);
    for (const RunLog& log : LogsOf(run)) {
      fmt::print("\n{}\n", log.title);
      for (const std::string& line : LastLines(log, kLastLines)) fmt::print("  {}\n", line);
    }
  }
  return kOk;
}

int PrintLogOf(const std::string& name, bool follow) {
  const inspect::Runs found = inspect::FindRuns();
  return follow ? FollowLog(Choose(found, name)) : PrintLog(Choose(found, name));
}

}  // namespace

void DeclareStatus(CLI::App& app, Action& chosen) {
  const auto given = std::make_shared<Given>();
  CLI::App* status = app.add_subcommand("status", "Say what runs, for whom, and what it waits for");
  status->add_option("RUN", given->run, "Everything about one run: its number, root name or job");
  auto* json = status->add_flag("--json", given->json, "Print one JSON document");
  status->add_flag("--watch", given->watch, "Go on saying it, until q or Ctrl-C")->excludes(json);
  status->add_option("--gates", given->gates, "Where the gates of this machine say what goes on")
      ->type_name("DIR")
      ->capture_default_str();
  status->callback([given, &chosen] {
    chosen = [given] {
      return given->watch ? Watch(given->run, given->gates) : PrintStatus(*given);
    };
  });

  struct LogGiven {
    std::string run;
    bool follow = false;
  };
  const auto log_given = std::make_shared<LogGiven>();
  CLI::App* log = app.add_subcommand("log", "Print the log of a run");
  log->add_option("RUN", log_given->run, "Its number, root name or job")->required();
  log->add_flag("-f,--follow", log_given->follow, "Go on until the run ends");
  log->callback([log_given, &chosen] {
    chosen = [log_given] { return PrintLogOf(log_given->run, log_given->follow); };
  });
}

}  // namespace jobmillctl
