#include "inspect/unit_settings.h"

#include <algorithm>
#include <map>
#include <string_view>

#include "base/number.h"
#include "inspect/file.h"

namespace inspect {
namespace {

constexpr long kEnoughTasks = 32768;

// A setting and the values, apart from the empty one, with which it takes nothing from anybody.
struct Setting {
  std::string_view name;
  std::vector<std::string_view> harmless;
  Severity severity;
  const char* consequence;
};

constexpr const char* kNotRoot = "the daemon ends at once: only root can become other accounts";
constexpr const char* kNoData = "runs do not see, or cannot write, data that lies there";
constexpr const char* kSetUserId =
    "set-user-id programs fail in runs: sudo, commands of batch systems";
constexpr const char* kContainers = "containers fail in runs";
constexpr const char* kDevices = "graphics processors and InfiniBand cannot be used by runs";
constexpr const char* kCalls =
    "programs of runs that need what it forbids fail, some without a word";
constexpr const char* kOldPrograms = "32-bit programs, debuggers or interpreters fail in runs";
constexpr const char* kFabrics =
    "MPI fails in runs over other fabrics, or with real-time scheduling";
constexpr const char* kMemory =
    "all runs together have no more, and are slowed down or killed there";
constexpr const char* kEachProcess = "a process of a run that needs more fails or is killed";

const std::vector<Setting>& Settings() {
  static const std::vector<Setting> settings = {
      {"User", {"root", "0"}, Severity::kError, kNotRoot},
      {"DynamicUser", {"no"}, Severity::kError, kNotRoot},
      {"PrivateUsers", {"no"}, Severity::kError, "the daemon cannot become other accounts"},
      {"PrivateNetwork", {"no"}, Severity::kError, "no master reaches the daemon"},
      {"IPAddressDeny", {}, Severity::kWarning, "masters and simulators there are not reached"},
      {"ProtectSystem",
       {"no", "yes", "full"},
       Severity::kError,
       "runs can write nowhere, neither data nor /tmp"},
      {"ProtectHome", {"no"}, Severity::kError, kNoData},
      {"ReadOnlyPaths", {}, Severity::kWarning, kNoData},
      {"InaccessiblePaths", {}, Severity::kWarning, kNoData},
      {"TemporaryFileSystem", {}, Severity::kWarning, kNoData},
      {"RootDirectory", {"/"}, Severity::kWarning, kNoData},
      {"RootImage", {}, Severity::kWarning, kNoData},
      {"NoExecPaths", {}, Severity::kWarning, "programs of runs that lie there cannot be executed"},
      {"PrivateTmp",
       {"no"},
       Severity::kWarning,
       "users do not find what runs put into /tmp, and runs lose it when the daemon is restarted"},
      {"PrivateDevices", {"no"}, Severity::kWarning, kDevices},
      {"DevicePolicy", {"auto"}, Severity::kWarning, kDevices},
      {"NoNewPrivileges", {"no"}, Severity::kWarning, kSetUserId},
      {"CapabilityBoundingSet", {}, Severity::kWarning, kSetUserId},
      {"RestrictNamespaces", {"no"}, Severity::kWarning, kContainers},
      {"ProtectHostname", {"no"}, Severity::kWarning, kContainers},
      {"ProtectKernelTunables", {"no"}, Severity::kWarning, kContainers},
      {"ProtectKernelLogs", {"no"}, Severity::kWarning, kContainers},
      {"ProtectControlGroups", {"no"}, Severity::kWarning, kContainers},
      {"ProtectProc", {"default"}, Severity::kWarning, kContainers},
      {"ProcSubset", {"all"}, Severity::kWarning, kContainers},
      {"RestrictSUIDSGID",
       {"no"},
       Severity::kWarning,
       "runs cannot make directories that pass on their group"},
      {"LockPersonality", {"no"}, Severity::kWarning, kOldPrograms},
      {"MemoryDenyWriteExecute", {"no"}, Severity::kWarning, kOldPrograms},
      {"SystemCallArchitectures", {}, Severity::kWarning, kOldPrograms},
      {"RestrictAddressFamilies", {"none"}, Severity::kWarning, kFabrics},
      {"RestrictRealtime", {"no"}, Severity::kWarning, kFabrics},
      {"SystemCallFilter", {}, Severity::kWarning, kCalls},
      {"ProtectKernelModules", {"no"}, Severity::kWarning, kCalls},
      {"ProtectClock", {"no"}, Severity::kWarning, kCalls},
      {"UMask",
       {"0022", "022", "0002", "002"},
       Severity::kWarning,
       "files of runs have another mode than their users expect"},
      {"MemoryMax", {"infinity"}, Severity::kWarning, kMemory},
      {"MemoryHigh", {"infinity"}, Severity::kWarning, kMemory},
      {"MemoryLimit", {"infinity"}, Severity::kWarning, kMemory},
      {"MemorySwapMax", {"infinity"}, Severity::kWarning, kMemory},
      {"TasksMax",
       {"infinity"},
       Severity::kWarning,
       "all runs together have no more processes and threads, and fail there"},
      {"CPUQuota", {}, Severity::kWarning, "all runs together have no more processor time"},
      {"AllowedCPUs", {}, Severity::kWarning, "runs have these processors only"},
      {"CPUAffinity", {}, Severity::kWarning, "runs have these processors only"},
      {"LimitAS", {"infinity"}, Severity::kWarning, kEachProcess},
      {"LimitDATA", {"infinity"}, Severity::kWarning, kEachProcess},
      {"LimitRSS", {"infinity"}, Severity::kWarning, kEachProcess},
      {"LimitFSIZE", {"infinity"}, Severity::kWarning, kEachProcess},
      {"LimitCPU", {"infinity"}, Severity::kWarning, kEachProcess},
      {"RuntimeMaxSec", {"infinity"}, Severity::kWarning, "the daemon is ended after that time"},
      {"KillMode",
       {"process"},
       Severity::kWarning,
       "a stop or restart of the daemon ends all runs"},
      {"OOMPolicy",
       {"continue"},
       Severity::kWarning,
       "one simulator that is killed for want of memory ends the daemon or all runs"},
      {"Restart", {"always"}, Severity::kWarning, "a daemon that has ended may not come back"},
  };
  return settings;
}

std::string Plain(const std::string& value) {
  if (value == "false" || value == "off" || value == "0") return "no";
  if (value == "true" || value == "on" || value == "1") return "yes";
  return value;
}

// Whether none of the capabilities that runs need is in the list.
bool KeepsNeeded(std::string_view capabilities) {
  return capabilities.find("CAP_SETUID") == std::string_view::npos &&
         capabilities.find("CAP_SETGID") == std::string_view::npos &&
         capabilities.find("CAP_DAC_OVERRIDE") == std::string_view::npos;
}

bool IsHarmless(const Setting& setting, const std::string& value) {
  // An empty value puts a setting back. Of the capabilities, though, an empty list leaves none.
  if (value.empty()) return setting.name != "CapabilityBoundingSet";
  if (std::ranges::find(setting.harmless, value) != setting.harmless.end()) return true;
  if (std::ranges::find(setting.harmless, Plain(value)) != setting.harmless.end()) return true;
  if (setting.name == "TasksMax") {
    return !value.ends_with('%') && NumberIn(value.c_str()) >= kEnoughTasks;
  }
  // What is taken away one by one, as the shipped unit does.
  return setting.name == "CapabilityBoundingSet" && value.starts_with('~') && KeepsNeeded(value);
}

std::string_view Trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

std::vector<UnitLine> ReadUnit(const std::vector<std::string>& files) {
  std::vector<UnitLine> lines;
  for (const std::string& file : files) {
    const std::string text = ReadFile(file).value_or("");
    bool service = false;
    std::int64_t number = 0;
    std::int64_t begun = 0;
    std::string whole;
    for (const std::string_view line : Lines(text)) {
      ++number;
      std::string_view part = Trimmed(line);
      // A comment in the middle of a line that goes on does not end it.
      if (part.starts_with('#') || part.starts_with(';')) continue;
      if (whole.empty()) begun = number;
      const bool goes_on = part.ends_with('\\');
      if (goes_on) part.remove_suffix(1);
      whole += (whole.empty() ? "" : " ") + std::string(Trimmed(part));
      if (goes_on) continue;
      if (whole.starts_with('[')) service = whole == "[Service]";
      const std::size_t equals = whole.find('=');
      if (service && equals != std::string::npos) {
        lines.push_back({std::string(Trimmed(std::string_view(whole).substr(0, equals))),
                         std::string(Trimmed(std::string_view(whole).substr(equals + 1))), file,
                         begun});
      }
      whole.clear();
    }
  }
  return lines;
}

Findings CheckUnitSettings(const std::vector<std::string>& files) {
  Findings findings;
  std::map<std::string_view, UnitLine> last;
  const std::vector<UnitLine> lines = ReadUnit(files);
  for (const UnitLine& line : lines) {
    UnitLine& earlier = last[line.name];
    // What several lines take away from the capabilities is taken away by all of them.
    const bool adds_up = line.name == "CapabilityBoundingSet" && line.value.size() > 1 &&
                         line.value.starts_with('~') && earlier.value.starts_with('~');
    if (!adds_up || KeepsNeeded(earlier.value)) earlier = line;
  }
  for (const Setting& setting : Settings()) {
    const auto found = last.find(setting.name);
    if (found == last.end() || IsHarmless(setting, found->second.value)) continue;
    const UnitLine& line = found->second;
    findings.push_back({"service.restricted", setting.severity, line.file, line.line,
                        "sets " + line.name + "=" + line.value, setting.consequence,
                        "remove it, or put it back in a later file, and systemctl daemon-reload"});
  }
  return findings;
}

}  // namespace inspect
