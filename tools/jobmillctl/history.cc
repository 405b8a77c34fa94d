#include "inspect/history.h"

#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "inspect/runs.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/history_view.h"
#include "tools/jobmillctl/json_values.h"
#include "tools/jobmillctl/since.h"
#include "tools/jobmillctl/table.h"

namespace jobmillctl {
namespace {

struct Given {
  std::string run;
  std::string since;
  std::string user;
  bool failed = false;
  bool all = false;
  bool json = false;
};

bool IsMeant(const inspect::EndedRun& run, const Given& given) {
  if (!given.user.empty() && run.windows_user != given.user && run.account != given.user) {
    return false;
  }
  if (given.failed) return IsFailure(run.end.ending);
  return given.all || run.end.ending != inspect::Ending::kNoRequest;
}

int PrintHistory(const Given& given) {
  inspect::History history = inspect::ReadHistory(inspect::FindRuns(), TimeOf(given.since));
  if (!given.run.empty()) {
    const inspect::EndedRun* run = Find(history, given.run);
    if (run == nullptr) {
      throw Failed(fmt::format("'{}' is no run that has ended and that a log tells of", given.run));
    }
    history.runs = {inspect::EndedRun(*run)};
  } else {
    std::erase_if(history.runs, [&](const inspect::EndedRun& run) { return !IsMeant(run, given); });
  }
  if (given.json) {
    PrintDocument(JsonOf(history, inspect::Now()));
  } else if (given.run.empty()) {
    PrintCut(LinesOf(history));
  } else {
    for (const std::string& line : DetailsOf(history.runs.front())) fmt::print("{}\n", line);
  }
  return kOk;
}

}  // namespace

void DeclareHistory(CLI::App& app, Action& chosen) {
  const auto given = std::make_shared<Given>();
  CLI::App* command = app.add_subcommand("history", "Say which runs have ended, and how");
  command->add_option("RUN", given->run, "Everything about one: its id, root name or job");
  DeclareSince(*command, given->since, "Only those that began then or later");
  command->add_option("--user", given->user, "Only those of this Windows user or account")
      ->type_name("NAME");
  command->add_flag("--failed", given->failed, "Only those that went wrong");
  command->add_flag("--all", given->all, "Connections that asked for no run as well");
  command->add_flag("--json", given->json, "Print one JSON document");
  command->callback([given, &chosen] { chosen = [given] { return PrintHistory(*given); }; });
}

}  // namespace jobmillctl
