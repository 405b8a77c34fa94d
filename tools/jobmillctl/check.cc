#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "inspect/accepted.h"
#include "inspect/account_places.h"
#include "inspect/commands.h"
#include "inspect/environment_file.h"
#include "inspect/file.h"
#include "inspect/firewall.h"
#include "inspect/host.h"
#include "inspect/log_directory.h"
#include "inspect/options.h"
#include "inspect/port.h"
#include "inspect/program.h"
#include "inspect/script.h"
#include "inspect/service.h"
#include "inspect/site.h"
#include "inspect/user_file_check.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/dry_run.h"
#include "tools/jobmillctl/findings.h"
#include "tools/jobmillctl/json_values.h"
#include "tools/jobmillctl/site_options.h"

namespace jobmillctl {
namespace {

using inspect::AcceptedFinding;
using inspect::Finding;
using inspect::Findings;
using inspect::Severity;
using inspect::Site;

using Area = Findings (*)(const Site& site);

/// What is judged of each site.
constexpr Area kAreas[] = {
    inspect::CheckProgram,         [](const Site& site) { return inspect::CheckOptions(site); },
    inspect::CheckUserFile,        inspect::CheckAccounts,
    inspect::CheckEnvironmentFile, inspect::CheckScript,
};

/// What is judged of the machine for each site. It depends on the daemon's options: of a site whose
/// options are not known nothing but the service is judged.
constexpr Area kMachineAreas[] = {
    inspect::CheckPort,
    inspect::CheckCommsPorts,
    [](const Site& site) { return inspect::CheckLogDirectory(site); },
    [](const Site& site) { return inspect::CheckAccountPlaces(site); },
    inspect::CheckCommands,
    inspect::CheckHost,
    inspect::CheckFirewall,
};

struct Judged {
  Findings findings;  // the worst first
  std::vector<AcceptedFinding> accepted;
};

/// What is wrong at all `sites`. What is wrong with a file that several of them use is told once.
Findings Find(const std::vector<Site>& sites, bool files_only) {
  Findings findings;
  for (const Site& site : sites) {
    for (const Area area : kAreas) std::ranges::move(area(site), std::back_inserter(findings));
    if (files_only) continue;
    std::ranges::move(inspect::CheckService(site), std::back_inserter(findings));
    if (site.words.empty()) continue;
    for (const Area area : kMachineAreas) {
      std::ranges::move(area(site), std::back_inserter(findings));
    }
  }
  return findings;
}

void SortOut(Findings& findings) {
  const auto key = [](const Finding& finding) {
    return std::tie(finding.severity, finding.file, finding.line, finding.id, finding.what);
  };
  std::ranges::stable_sort(findings, {}, key);
  const auto same = [&key](const Finding& a, const Finding& b) { return key(a) == key(b); };
  findings.erase(std::unique(findings.begin(), findings.end(), same), findings.end());
}

/// The areas that were judged whole: an accepted finding of theirs that was not found again has
/// gone. There are none without root, or unless all daemons of this directory could be judged.
std::set<std::string> WholeAreas(const std::vector<Site>& sites, bool files_only) {
  std::set<std::string> judged;
  for (const Site& site : sites) judged.insert(site.configuration);
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(sites[0].others, ignored)) {
    if (entry.path().extension() == ".conf" && !judged.contains(entry.path())) return {};
  }
  const auto failed = [](const Site& site) { return site.words.empty(); };
  if (geteuid() != 0 || std::ranges::any_of(sites, failed)) return {};
  if (files_only) return {"options", "program", "users", "environment", "script"};
  return {"options", "program", "users", "environment", "script", "service", "port", "host"};
}

Judged Judge(const std::vector<Site>& sites, bool files_only) {
  Judged judged;
  judged.findings = Find(sites, files_only);
  SortOut(judged.findings);
  inspect::Accepted accepted(sites[0].others);
  judged.accepted = accepted.Take(judged.findings);
  std::ranges::move(accepted.Wrong(WholeAreas(sites, files_only)),
                    std::back_inserter(judged.findings));
  SortOut(judged.findings);
  return judged;
}

std::ptrdiff_t Count(const Findings& findings, Severity severity) {
  return std::ranges::count(findings, severity, &Finding::severity);
}

/// The counts in words: "2 errors, 1 warning, 1 accepted".
std::string Summary(const Judged& judged) {
  const Findings& findings = judged.findings;
  std::vector<std::string> counts;
  for (const Severity severity : kSeverities) {
    const auto count = Count(findings, severity);
    const char* plural = count == 1 || severity == Severity::kUnchecked ? "" : "s";
    if (count > 0) counts.push_back(fmt::format("{} {}{}", count, Name(severity), plural));
  }
  if (counts.empty()) counts.emplace_back("nothing found");
  if (!judged.accepted.empty()) {
    counts.push_back(fmt::format("{} accepted", judged.accepted.size()));
  }
  return fmt::format("{}", fmt::join(counts, ", "));
}

/// What was judged, with the options as the daemon understands them.
std::string Described(const Site& site) {
  const Options& options = site.options;
  std::string text = site.configuration.empty() ? "the given options" : site.configuration;
  if (site.error != 0) return text;
  text += fmt::format(" (port {}, script {}, comms ports {} to {}, {} s to start",
                      options.listen_port, site.script, options.comms_base_port,
                      std::int64_t{options.comms_base_port} + options.comms_ports - 1,
                      options.start_timeout);
  if (options.comms_log) text += ", comms logs";
  if (!options.run_as_root) text += ", runs under the daemon's account";
  return text + ")";
}

void PrintLines(const std::vector<Site>& sites, const Judged& found) {
  for (const Finding& finding : found.findings) {
    std::string place = finding.file;
    if (finding.line > 0) place += fmt::format(":{}", finding.line);
    if (!place.empty()) place += ": ";
    Print(fmt::format("{}: {}{}; {}; {} [{}]", Name(finding.severity), place, finding.what,
                      finding.consequence, finding.remedy, finding.id));
  }
  std::vector<std::string> judged;
  std::ranges::transform(sites, std::back_inserter(judged), Described);
  Print(fmt::format("{} in {}", Summary(found), fmt::join(judged, " and ")));
}

Json JsonOf(const Finding& finding) {
  return {{"id", finding.id},        {"severity", Name(finding.severity)},
          {"file", finding.file},    {"line", finding.line},
          {"what", finding.what},    {"consequence", finding.consequence},
          {"remedy", finding.remedy}};
}

Json JsonOf(const std::vector<Site>& sites, const Judged& found) {
  Json document{{"schema", 1}, {"version", JOBMILL_VERSION}};
  document["sites"] = Json::array();
  for (const Site& site : sites) {
    const Options& options = site.options;
    Json judged{{"name", site.name}, {"configuration", site.configuration}};
    if (site.error == 0) {
      judged["words"] = site.words;
      judged["port"] = options.listen_port;
      judged["script"] = site.script;
      judged["comms_base_port"] = options.comms_base_port;
      judged["comms_ports"] = options.comms_ports;
      judged["start_timeout"] = options.start_timeout;
      judged["comms_log"] = options.comms_log;
      judged["maps_users"] = options.run_as_root;
    }
    document["sites"].push_back(std::move(judged));
  }
  for (const Severity severity : kSeverities) {
    document["counts"][Name(severity)] = Count(found.findings, severity);
  }
  document["counts"]["accepted"] = found.accepted.size();
  document["findings"] = Json::array();
  for (const Finding& finding : found.findings) document["findings"].push_back(JsonOf(finding));
  document["accepted"] = Json::array();
  for (const AcceptedFinding& accepted : found.accepted) {
    Json entry = JsonOf(accepted.finding);
    entry["reason"] = accepted.reason;
    document["accepted"].push_back(std::move(entry));
  }
  return document;
}

int Check(const SiteOptions& given, bool files_only, bool json) {
  const std::vector<Site> sites = given.Sites();
  const Judged found = Judge(sites, files_only);
  if (json) {
    PrintDocument(JsonOf(sites, found));
  } else {
    PrintLines(sites, found);
  }
  return Count(found.findings, Severity::kError) == 0 ? kOk : kNotGood;
}

}  // namespace

Json FindingsOf(const std::vector<Site>& sites) {
  return JsonOf(sites, Judge(sites, false));
}

void DeclareCheck(CLI::App& app, Action& chosen) {
  struct Given {
    SiteOptions site;
    bool json = false;
    bool files_only = false;
    DryRun dry_run;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* command = app.add_subcommand(
      "check", "Say what is wrong with the configuration of a daemon, and change nothing");
  given->site.Declare(*command);
  CLI::Option* json = command->add_flag("--json", given->json, "Print one JSON document");
  command->add_flag("--files", given->files_only, "Judge options and files only, not this machine");
  CLI::Option* dry_run =
      command
          ->add_option("--dry-run", given->dry_run.account,
                       "Start the distribution script as this account instead, with the "
                       "stand-in simulator, and show what the daemon would read")
          ->type_name("ACCOUNT")
          ->excludes(json);
  command->add_option("--in", given->dry_run.beside, "Where the data of the dry run are made")
      ->type_name("DIR")
      ->needs(dry_run)
      ->capture_default_str();
  command->add_option("--wait", given->dry_run.seconds, "How long its host line may take")
      ->needs(dry_run)
      ->check(CLI::Range(1, 86400))
      ->type_name("SECONDS")
      ->capture_default_str();
  command->callback([given, &chosen] {
    given->site.Validate();
    if (given->dry_run.account.empty()) {
      chosen = [given] { return Check(given->site, given->files_only, given->json); };
      return;
    }
    if (given->site.Sites().size() > 1) throw CLI::ValidationError("--dry-run", "is of one daemon");
    chosen = [given] { return RunDry(given->site.Sites().front(), given->dry_run); };
  });
}

}  // namespace jobmillctl
