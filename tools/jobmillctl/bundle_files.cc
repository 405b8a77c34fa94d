#include "tools/jobmillctl/bundle_files.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "base/number.h"
#include "config/env_collection.h"
#include "inspect/file.h"
#include "inspect/history.h"
#include "inspect/probe.h"
#include "inspect/run_file.h"
#include "inspect/site.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/history_view.h"
#include "tools/jobmillctl/json_values.h"
#include "tools/jobmillctl/run_view.h"
#include "tools/jobmillctl/site_options.h"

namespace jobmillctl {
namespace {

namespace fs = std::filesystem;
using inspect::EndedRun;
using inspect::History;
using inspect::Run;
using inspect::Runs;

// Of longer logs only the end is taken: of one run nearly all, of each of many what tells its end.
constexpr std::size_t kMostOfOne = 8 << 20;
constexpr std::size_t kMostOfEach = 256 << 10;
constexpr std::size_t kMostOfAll = 128 << 20;

// check asks the scheduler and name services, each for ten seconds at most.
constexpr std::chrono::minutes kPatience{2};

// Shorter values, such as numbers, stand for other things as well.
constexpr std::size_t kLeastOfValue = 6;
constexpr const char* kLeftOut = "(left out)";

// The texts that no file of the bundle may hold.
class Values {
 public:
  void Add(const std::string& value) {
    if (value.size() >= kLeastOfValue) values_.insert(value);
  }

  void AddFile(const std::string& program) {
    const std::string file = program.substr(0, program.rfind('/') + 1) + ".vk_corvane_env";
    const CEnvCollection environment(file.c_str());
    for (const CEnv* entry = environment.first(); entry != nullptr; entry = entry->next) {
      Add(entry->value);
    }
  }

  // The longest first: one may be part of another.
  void LeaveOut(std::string& text) const {
    std::vector<std::string> values(values_.begin(), values_.end());
    std::ranges::stable_sort(values, std::greater<>(), &std::string::size);
    for (const std::string& value : values) {
      for (std::size_t at = text.find(value); at != std::string::npos; at = text.find(value, at)) {
        text.replace(at, value.size(), kLeftOut);
        at += std::string_view(kLeftOut).size();
      }
    }
  }

 private:
  std::set<std::string> values_;
};

std::string OutputOf(const std::vector<std::string>& words) {
  const auto answer = inspect::RunCommand(words, inspect::Complaints::kIncluded, kPatience);
  return answer && answer->status != 127 ? answer->output : "not known\n";
}

std::string Versions(const Runs& found) {
  std::string text = "jobmillctl " JOBMILL_VERSION "\n";
  for (const inspect::Daemon& daemon : found.daemons) {
    text += fmt::format("daemon of port {}: {}{}\n", daemon.options.listen_port, daemon.program,
                        daemon.older ? ", an older one than is installed" : "");
  }
  text += "\nuname -a\n" + OutputOf({"uname", "-a"});
  text += "\n/etc/os-release\n" + inspect::ReadFile("/etc/os-release").value_or("not known\n");
  text += "\nPackages\n" + OutputOf({"sh", "-c", "dpkg-query -W 'jobmill*' || rpm -qa 'jobmill*'"});
  return text;
}

// The findings for all configurations. Who holds ports is left out: those are runs of others.
std::string Findings(bool of_others) {
  std::vector<std::string> words = {inspect::RealName("/proc/self/exe"), "check", "--json"};
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(inspect::kConfigurationDirectory, error)) {
    if (entry.path().extension() == ".conf") words.push_back(entry.path().stem());
  }
  std::string output = OutputOf(words);
  Json document = Json::parse(output, nullptr, false);
  if (document.is_discarded()) return output;
  if (!of_others) {
    auto& findings = document["findings"];
    for (auto finding = findings.begin(); finding != findings.end();) {
      const bool port = finding->value("id", "").starts_with("port.");
      finding = port ? findings.erase(finding) : finding + 1;
    }
  }
  return Dump(document);
}

// A log of a run's account, as a file of the bundle that is still without its text.
struct WantedLog {
  BundleFile as;
  std::string file;
  uid_t owner = 0;
};

// The end of the log, or why there is none; empty when there is no such file.
std::string TextOf(const WantedLog& wanted, std::size_t most) {
  const inspect::RunFile log(wanted.file, wanted.owner);
  if (!log.error().empty()) {
    return log.error() == strerror(ENOENT) ? "" : "not read: " + log.error() + "\n";
  }
  const bool cut = log.size() > static_cast<std::int64_t>(most);
  return (cut ? "(only the end)\n" : "") + log.Tail(most);
}

// Reads the logs in a process of its own, which a file system that does not answer may hold.
void AddLogs(const std::vector<WantedLog>& wanted, std::size_t most,
             std::vector<BundleFile>& files) {
  const auto answer = inspect::Ask(
      [&] {
        std::string texts;
        for (const WantedLog& log : wanted) {
          const std::string text = texts.size() < kMostOfAll ? TextOf(log, most) : "";
          texts += std::to_string(text.size()) + "\n" + text;
        }
        return texts;
      },
      kPatience);
  std::string_view rest = answer ? std::string_view(*answer) : std::string_view();
  for (const WantedLog& log : wanted) {
    BundleFile file = log.as;
    if (answer) {
      const auto size = static_cast<std::size_t>(NumberIn(std::string(rest.substr(0, 20)).c_str()));
      rest.remove_prefix(std::min(rest.find('\n'), rest.size() - 1) + 1);
      file.text = rest.substr(0, size);
      rest.remove_prefix(size);
    } else {
      file.text = "not read: a file system does not answer\n";
    }
    if (!file.text.empty()) files.push_back(std::move(file));
  }
}

void AddRun(const EndedRun& run, std::vector<BundleFile>& files, std::vector<WantedLog>& logs) {
  const std::string place = "runs/" + run.id + "/";
  std::string lines;
  for (const std::string& line : run.lines) lines += line + "\n";
  files.push_back({place + "daemon-log.txt", "its own lines of the daemon's log", lines});
  // Without a comms port it did not come to its script.
  if (!run.path || !run.root || !run.path->starts_with('/') || !run.comms_port) return;
  const std::string slash = run.path->ends_with('/') ? "" : "/";
  // The file of that name may be a later run's.
  if (run.told_by_account || run.goes_on) {
    logs.push_back({{place + "comms-log.txt", "its comms log, the word of its account", ""},
                    *run.path + *run.root + ".crvnlog",
                    run.owner});
  }
  logs.push_back({{place + "output.txt", "the output of the model's last simulator", ""},
                  *run.path + slash + *run.root + ".out",
                  run.owner});
}

// Leaves what is meant: the one run in one of both lists, or all that may be shown.
void Select(const std::string& name, Runs& found, History& history) {
  if (name.empty()) {
    const auto of_others = [](auto owner) { return geteuid() != 0 && owner != geteuid(); };
    std::erase_if(found.runs, [&](const Run& run) { return of_others(run.user.value_or(0)); });
    std::erase_if(history.runs, [&](const EndedRun& run) { return of_others(run.owner); });
    return;
  }
  std::optional<EndedRun> meant;
  if (IsOneOf(found, name)) {
    const Run run = Choose(found, name);
    meant = FindEnd(history, run);
    found.runs = {run};
  } else {
    const EndedRun* run = Find(history, name);
    if (run == nullptr) {
      throw Failed(fmt::format("'{}' is no run that goes on or that a log tells of", name));
    }
    meant = *run;
    found.runs.clear();
  }
  history.runs.clear();
  if (meant) history.runs.push_back(*meant);
}

}  // namespace

std::vector<BundleFile> FilesOfBundle(const std::string& run, double since) {
  const bool all = run.empty();
  const double now = inspect::Now();
  Runs found = inspect::FindRuns();
  History history = inspect::ReadHistoryWithLines(found, all ? since : 0);
  Select(run, found, history);
  Values values;
  values.AddFile(DaemonProgram(""));
  for (const inspect::Daemon& daemon : found.daemons) {
    if (!daemon.program.empty()) values.AddFile(daemon.program);
  }
  std::vector<BundleFile> files = {
      {"versions.txt", "versions of the jobmill and the system", Versions(found)},
      {"check.json", "the daemons' options, and what jobmillctl check finds", Findings(all)},
      {"status.json", all ? "what runs" : "the run's state", Dump(JsonOf(found, now))},
  };
  std::vector<WantedLog> logs;
  for (const EndedRun& ended : history.runs) {
    for (const std::string& value : ended.environment) values.Add(value);
    AddRun(ended, files, logs);
  }
  AddLogs(logs, all ? kMostOfEach : kMostOfOne, files);
  std::erase_if(history.runs, [](const EndedRun& ended) { return ended.goes_on; });
  files.push_back(
      {"history.json", all ? "what has ended" : "how it ended", Dump(JsonOf(history, now))});
  for (BundleFile& file : files) values.LeaveOut(file.text);
  return files;
}

}  // namespace jobmillctl
