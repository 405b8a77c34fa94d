#include "inspect/service.h"

#include <unistd.h>

#include <filesystem>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/number.h"
#include "inspect/file.h"
#include "inspect/listener.h"
#include "inspect/probe.h"
#include "inspect/unit_settings.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr long kFirstOfSystemd = 200;
constexpr const char* kProperties =
    "LoadState,LoadError,ActiveState,SubState,Result,MainPID,ExecMainCode,ExecMainStatus,"
    "UnitFileState,FragmentPath,DropInPaths,NeedDaemonReload,ExecStart,KillMode";

// Why the program was not started, by the exit status of env, which starts it, or, from
// kFirstOfSystemd on, of systemd itself; empty for other statuses.
std::string MeaningOf(long status) {
  static const std::map<long, std::string> meanings = {
      {126, "the program cannot be executed"},
      {127, "the program, or a library of it, is not there"},
      {200, "its working directory cannot be entered"},
      {203, "the program cannot be executed"},
      {216, "its group is not known"},
      {217, "its account is not known"},
      {226, "the unit's view of the file systems cannot be made: a path in it is missing"},
      {240, "/var/log/jobmill cannot be made a directory"}};
  const auto found = meanings.find(status);
  return found == meanings.end() ? "" : " (" + found->second + ")";
}

std::vector<std::string> WordsOf(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

class ServiceCheck {
 public:
  ServiceCheck(const Site& site, const ServiceState& state, Findings& findings)
      : site_(site), state_(state), unit_(UnitOf(site)), findings_(findings) {}

  void All() {
    const auto listener = DaemonOn(site_.options.listen_port);
    main_ = static_cast<pid_t>(NumberIn(Property("MainPID").c_str()));
    CheckOther(listener);
    if (!IsLoaded()) return;
    CheckState(listener.has_value());
    CheckProgram();
    CheckOptions();
    CheckFiles();
  }

 private:
  std::string Property(const char* name) const {
    const auto found = state_.properties.find(name);
    return found == state_.properties.end() ? "" : found->second;
  }

  void Add(const char* id, Severity severity, const std::string& what,
           const std::string& consequence, const std::string& remedy) {
    findings_.push_back({id, severity, site_.configuration, site_.line, what, consequence, remedy});
  }

  // A daemon on the port that is not the unit's.
  void CheckOther(const std::optional<Process>& listener) {
    if (!listener || listener->stat().id.pid == main_) return;
    Add("service.other-daemon", Severity::kError,
        Described(listener) + ", which is not the one of " + unit_ + ", listens on port " +
            std::to_string(site_.options.listen_port),
        "it serves with options and files of its own, and the service cannot have the port",
        "end it, and start the service");
  }

  bool IsLoaded() {
    const std::string load = Property("LoadState");
    if (load == "loaded") return true;
    std::string what = "is not known to systemd";
    if (load == "masked") what = "is masked";
    if (load == "bad-setting" || load == "error") {
      what = "has an error: " + Property("LoadError");
    }
    Add("service.not-loaded", Severity::kError, unit_ + " " + what, "nothing starts the daemon",
        load == "masked" ? "systemctl unmask " + unit_
                         : "install the package, or correct the unit; see systemctl status");
    return false;
  }

  // How the last process of the unit has ended.
  std::string Reason() const {
    const std::string result = Property("Result");
    const long status = NumberIn(Property("ExecMainStatus").c_str());
    std::string reason = result;
    if (result == "exit-code") reason = "status " + std::to_string(status) + MeaningOf(status);
    if (result == "signal" || result == "core-dump") reason = "signal " + std::to_string(status);
    if (result == "resources") reason = "a file that it names, or memory, is missing";
    // Where systemd did not come to start it, the daemon's last words are of another time.
    const bool started = result != "exit-code" || status < kFirstOfSystemd;
    if (started && !state_.last_words.empty()) {
      reason += ", and the last it said is: " + state_.last_words;
    }
    return reason;
  }

  void CheckState(bool served) {
    const std::string active = Property("ActiveState");
    const std::string start = "see systemctl status " + unit_;
    if (active == "failed" || Property("SubState") == "auto-restart") {
      Add("service.failed", Severity::kError,
          unit_ + (active == "failed" ? " has failed: " : " is started again and again: ") +
              Reason(),
          "nobody can run", start);
    } else if (active == "inactive" && !served) {
      Add("service.not-running", Severity::kError, unit_ + " is not running", "nobody can run",
          "systemctl enable --now " + unit_);
    }
    const std::string enabled = Property("UnitFileState");
    if (active == "active" && (enabled == "disabled" || enabled.ends_with("-runtime"))) {
      Add("service.not-enabled", Severity::kWarning, unit_ + " runs and is not enabled",
          "it does not start with the machine", "systemctl enable " + unit_);
    }
    if (Property("NeedDaemonReload") == "yes") {
      Add("service.needs-reload", Severity::kWarning,
          "files of " + unit_ + " were changed after systemd has read them",
          "the next start does not heed the change", "systemctl daemon-reload");
    }
  }

  void CheckProgram() {
    const std::string command = Property("ExecStart");
    std::string program;
    for (const std::string& word : WordsOf(command)) {
      // The first one begins with "argv[]=".
      if (fs::path(word).filename() == kDaemonProgram) program = word.substr(word.find('/'));
    }
    if (command.empty() || (!program.empty() && RealName(program) == site_.program)) return;
    std::error_code ignored;
    const bool missing = !program.empty() && !fs::exists(program, ignored);
    Add("service.other-program", missing ? Severity::kError : Severity::kWarning,
        unit_ + " starts " +
            (program.empty() ? "no " + std::string(kDaemonProgram)
                             : program + (missing ? ", which is not there" : "")) +
            ", and judged is " + site_.program,
        missing ? "the service cannot start" : "what is said here is not about what runs",
        "correct ExecStart= of the unit, or name the program with --program");
  }

  void CheckOptions() {
    const auto process = main_ > 0 ? Process::Open(main_) : std::nullopt;
    std::vector<std::string> words = process ? process->Arguments() : std::vector<std::string>();
    // Before it becomes the daemon, the process is the command that starts it.
    if (words.empty() || fs::path(words[0]).filename() != kDaemonProgram) return;
    words.erase(words.begin());
    if (words != site_.words) {
      AddOther("runs with other options: " + Joined(words));
      return;
    }
    if (geteuid() != 0) return;
    for (const auto& [name, assignment] :
         ReadAssignments(ReadFile(site_.configuration).value_or(""))) {
      if (name == "OPTIONS" || process->Variable(name) == assignment.value) continue;
      AddOther("was started before " + name + " was set so");
      findings_.back().line = assignment.line;
    }
  }

  void AddOther(const std::string& what) {
    Add("service.other-options", Severity::kWarning,
        "the daemon, process " + std::to_string(main_) + ", " + what,
        "what this file says does not count before a restart", "jobmillctl restart --when-idle");
  }

  void CheckFiles() {
    std::vector<std::string> files{Property("FragmentPath")};
    for (const std::string& file : WordsOf(Property("DropInPaths"))) {
      if (!IsShipped(file)) files.push_back(file);
    }
    const Findings restricted = CheckUnitSettings(files);
    findings_.insert(findings_.end(), restricted.begin(), restricted.end());
    bool named = false;
    for (const UnitLine& line : ReadUnit(files)) named = named || line.name == "KillMode";
    const std::string mode = Property("KillMode");
    if (named || mode.empty() || mode == "process") return;
    findings_.push_back({"service.restricted", Severity::kWarning, files[0], 0,
                         "leaves KillMode=" + mode, "a stop or restart of the daemon ends all runs",
                         "set KillMode=process"});
  }

  // The addition that comes with the daemon, for sites whose runs need none of what it takes away.
  bool IsShipped(const std::string& file) const {
    const std::string text = ReadFile(file).value_or("");
    const fs::path programs = site_.ProgramDirectory();
    for (const char* shared : {"../share", "../../share"}) {
      if (text == ReadFile(programs / shared / "jobmill/systemd/confined.conf")) return true;
    }
    return false;
  }

  const Site& site_;
  const ServiceState& state_;
  std::string unit_;
  pid_t main_ = 0;
  Findings& findings_;
};

Finding Unchecked(const Site& site, const std::string& why) {
  return {"service.unchecked",
          Severity::kUnchecked,
          site.configuration,
          site.line,
          "not checked: the state of " + UnitOf(site) + ": " + why,
          "it may not run, or with other options",
          "look at the processes with jobmillctl status"};
}

}  // namespace

std::string UnitOf(const Site& site) {
  return site.name == "jobmill" ? "jobmill.service" : "jobmill@" + site.name + ".service";
}

std::map<std::string, std::string> ReadProperties(const std::string& text) {
  std::map<std::string, std::string> properties;
  for (const std::string_view line : Lines(text)) {
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) continue;
    properties.emplace(line.substr(0, equals), line.substr(equals + 1));
  }
  return properties;
}

Findings JudgeService(const Site& site, const ServiceState& state) {
  Findings findings;
  ServiceCheck(site, state, findings).All();
  return findings;
}

Findings CheckService(const Site& site) {
  if (site.name.empty()) return {};
  std::error_code ignored;
  if (!fs::is_directory("/run/systemd/system", ignored)) {
    return {Unchecked(site, "this machine was not started by systemd")};
  }
  const auto shown = RunCommand({"systemctl", "show", "--property", kProperties, UnitOf(site)});
  if (!shown || shown->status != 0) {
    return {Unchecked(site, shown ? "systemctl fails" : "systemctl does not answer within 10 s")};
  }
  ServiceState state{.properties = ReadProperties(shown->output), .last_words = ""};
  if (state.properties["ActiveState"] != "active") {
    const auto journal =
        RunCommand({"journalctl", "--unit", UnitOf(site), "--identifier", "jobmill", "--quiet",
                    "--no-pager", "--output", "cat", "--lines", "1"});
    if (journal && journal->status == 0) {
      state.last_words = journal->output.substr(0, journal->output.find('\n'));
    }
  }
  return JudgeService(site, state);
}

}  // namespace inspect
