#include "inspect/commands.h"

#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <vector>

#include "inspect/access.h"
#include "inspect/file.h"
#include "inspect/probe.h"
#include "inspect/script.h"

namespace inspect {
namespace {

// The command that asks a scheduler something small, by the name of the scheduler's script.
const std::map<std::string, std::vector<std::string>> kQuestions = {
    {"slurm", {"squeue", "--noheader", "--states=pending"}},
    {"pbs", {"qstat", "-B"}},
    {"lsf", {"lsid"}},
    {"gridengine", {"qstat"}},
    {"htcondor", {"condor_q", "-totals"}}};

// What is in single quotes after `begin` at the start of a line of a script; or nothing.
std::string SettingIn(const std::string& script, const std::string& begin) {
  const std::string text = "\n" + script;
  const std::size_t found = text.find("\n" + begin + "'");
  if (found == std::string::npos) return {};
  const std::size_t start = found + begin.size() + 2;
  return text.substr(start, text.find('\'', start) - start);
}

// Where runs look for commands; without a PATH a shell has one of its own.
std::string PathOf(const Site& site) {
  const std::string path = RunVariable(site, "PATH");
  return path.empty() ? "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin" : path;
}

void AskScheduler(const std::string& file, const std::string& path,
                  const std::vector<std::string>& question, Findings& findings) {
  std::string shown;
  std::vector<std::string> words{"/usr/bin/env", "PATH=" + path};
  for (const std::string& word : question) {
    shown += (shown.empty() ? "" : " ") + word;
    words.push_back(word);
  }
  const auto answer = RunCommand(words, Complaints::kIncluded);
  if (answer && answer->status == 0) return;
  std::string what = "'" + shown + "' did not answer within 10 s";
  if (answer) {
    const std::string said = answer->output.substr(0, answer->output.find('\n'));
    what = "'" + shown + "' ended with status " + std::to_string(answer->status) +
           (said.empty() ? "" : ": " + said);
  }
  findings.push_back({"host.scheduler-silent", Severity::kError, file, 0, what,
                      "no run starts until the scheduler answers", "see to the scheduler"});
}

}  // namespace

std::string SystemCommands(bool single_machine) {
  const std::string both =
      "dirname readlink sed grep find tail cut id getent mktemp stat ls mv rm rmdir";
  return both + (single_machine ? " sleep setsid" : " tr timeout mkfifo cat chmod");
}

Findings CheckCommands(const Site& site) {
  Findings findings;
  const std::string file = RealName(site.ScriptFile());
  const std::string name = std::filesystem::path(file).filename();
  const std::string text = ReadFile(file).value_or("");
  const std::string path = PathOf(site);
  const std::string scheduler = SettingIn(text, "needed=");
  std::istringstream needed(scheduler + " " +
                            (IsPackagedScript(text) ? SystemCommands(scheduler.empty()) : ""));
  std::vector<Need> needs;
  std::string missing;
  for (std::string command; needed >> command;) {
    const auto files = RegularFiles(InDirectories(path, command));
    if (files.empty()) {
      missing.append(missing.empty() ? "" : ", ").append(command);
    } else {
      needs.push_back(
          {"host.no-command", file, 0, "needs the command " + files[0] + ", which ", files, X_OK});
    }
  }
  if (!missing.empty()) {
    findings.push_back({"host.no-command", Severity::kError, file, 0,
                        "needs what is not in PATH, " + path + ": " + missing,
                        "every run is refused with 'No host detected'",
                        "install it, or set PATH in the environment file"});
  }
  // CheckScript() says it already when not all accounts could be asked.
  if (!needs.empty()) AddExcluded(needs, FindExcluded(site, needs), findings);
  const auto question = kQuestions.find(name);
  if (findings.empty() && !scheduler.empty() && question != kQuestions.end()) {
    AskScheduler(file, path, question->second, findings);
  }
  return findings;
}

}  // namespace inspect
