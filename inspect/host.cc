#include "inspect/host.h"

#include <netdb.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "base/number.h"
#include "inspect/file.h"
#include "inspect/probe.h"
#include "inspect/process.h"
#include "inspect/script.h"

namespace inspect {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(10);
constexpr std::chrono::seconds kSlow(2);
constexpr int kClockTolerance = 60;
constexpr unsigned long kLeastRoom = 100UL << 20;
constexpr long kLeastDescriptors = 4096;
constexpr long kLeastProcesses = 4096;

// "1" when the name has an IPv4 address here, which is all that the jobmill looks for.
std::string HasAddress(const std::string& name) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0) return "0";
  freeaddrinfo(found);
  return "1";
}

// `severity` is that of a name without an address.
void CheckName(const std::string& name, const std::string& whose, Severity severity,
               Findings& findings) {
  const auto begin = Clock::now();
  const auto answer = Ask([&] { return HasAddress(name); }, kPatience);
  const auto taken = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin);
  const std::string what = "the name '" + name + "', " + whose + ",";
  if (!answer) {
    findings.push_back(
        {"host.name-silent", Severity::kError, "", 0,
         what + " was not resolved within " + std::to_string(kPatience.count()) + " s",
         "a run on that host waits, and fails", "see to the name service"});
  } else if (*answer != "1") {
    findings.push_back({"host.no-address", severity, "", 0, what + " has no IPv4 address here",
                        "a run whose script names that host ends when its master connects",
                        "add the host to /etc/hosts or the name service"});
  } else if (taken >= kSlow) {
    findings.push_back({"host.name-slow", Severity::kWarning, "", 0,
                        what + " took " + std::to_string(taken.count()) + " s to resolve",
                        "each start of a run on that host takes as long",
                        "see to the name service"});
  }
}

// The first word after `begin` at the start of a line of a script, without its quotes.
std::string SettingIn(const std::string& script, const std::string& begin) {
  const std::string text = "\n" + script;
  const std::size_t found = text.find("\n" + begin + "'");
  if (found == std::string::npos) return {};
  const std::size_t start = found + begin.size() + 2;
  return text.substr(start, text.find('\'', start) - start);
}

// Where runs look for commands; a unit that sets no PATH gets systemd's.
std::string PathOf(const Site& site) {
  const std::string path = RunVariable(site, "PATH");
  return path.empty() ? "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin" : path;
}

std::string CommandIn(const std::string& path, const std::string& command) {
  std::istringstream directories(path);
  for (std::string directory; std::getline(directories, directory, ':');) {
    if (!directory.starts_with('/')) continue;
    std::string file = directory.append("/").append(command);
    if (access(file.c_str(), X_OK) == 0) return file;
  }
  return {};
}

// What asks a scheduler something small, by the name of its script.
const std::map<std::string, std::string> kQuestions = {
    {"slurm", "squeue --noheader --states=pending"},
    {"pbs", "qstat -B"},
    {"lsf", "lsid"},
    {"gridengine", "qstat"},
    {"htcondor", "condor_q -totals"}};

// Runs a command that is bounded in time and prints nothing. 0: it said yes.
int StatusOf(const std::string& path, const std::string& command) {
  std::string line = "cd / && PATH='";
  line.append(path).append("' LC_ALL=C timeout --kill-after=2 10 ").append(command);
  line.append(" </dev/null >/dev/null 2>&1");
  const int status = system(line.c_str());  // NOLINT(cert-env33-c): the words are this file's own
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void CheckScheduler(const Site& site, Findings& findings) {
  const std::string file = RealName(site.ScriptFile());
  const std::string script = ReadFile(file).value_or("");
  const std::string path = PathOf(site);
  if (path.find('\'') != std::string::npos) return;
  std::istringstream needed(SettingIn(script, "needed="));
  bool complete = true;
  for (std::string command; needed >> command;) {
    if (!CommandIn(path, command).empty()) continue;
    complete = false;
    findings.push_back({"host.no-command", Severity::kError, file, 0,
                        std::string("the command ")
                            .append(command)
                            .append(", which it needs, is not in ")
                            .append(path),
                        "every run is refused with 'No host detected'",
                        "install it, or set PATH in the environment file"});
  }
  const auto question = kQuestions.find(file.substr(file.rfind('/') + 1));
  if (complete && question != kQuestions.end() && !SettingIn(script, "needed=").empty()) {
    const auto status = Ask([&] { return std::to_string(StatusOf(path, question->second)); },
                            std::chrono::seconds(15));
    if (!status || *status != "0") {
      const bool late = !status || *status == "124" || *status == "137";
      findings.push_back(
          {"host.scheduler-silent", Severity::kError, file, 0,
           "'" + question->second + "' " +
               (late ? "did not answer within 10 s" : "ended with status " + *status),
           "no run starts until the scheduler answers", "see to the scheduler"});
    }
  }
  std::istringstream nodes(RunVariable(site, "JOBMILL_NODES"));
  if (!file.ends_with("/ssh")) return;
  for (std::string node; std::getline(nodes, node, ',');) {
    // The configuration of ssh may know such a name all the same.
    if (!node.empty()) CheckName(node, "of JOBMILL_NODES", Severity::kWarning, findings);
  }
}

// A file from the future was written by another machine, or before this one's clock was set back.
void CheckClock(const Site& site, Findings& findings) {
  for (const std::string& file : std::set<std::string>{
           site.configuration, site.ScriptFile(), site.BesideProgram(".vk_corvane_users"),
           site.BesideProgram(".vk_corvane_env"), "/var/log"}) {
    const auto ahead = Ask([&] {
      struct stat status {};
      if (stat(file.c_str(), &status) != 0) return std::string("0");
      return std::to_string(status.st_mtime - time(nullptr));
    });
    if (!ahead) {
      findings.push_back({"host.file-silent", Severity::kError, file, 0,
                          "its file system does not answer", "daemon and runs wait for it",
                          "see to the file system"});
    } else if (NumberIn(ahead->c_str()) > kClockTolerance) {
      findings.push_back({"host.clock", Severity::kWarning, file, 0,
                          "it was changed " + *ahead + " s in the future",
                          "times in the logs of this machine and of others do not fit together",
                          "set the clock, here or where the file lies"});
    }
  }
}

void CheckLogRoom(Findings& findings) {
  const bool unit = access("/var/log/jobmill", F_OK) == 0;
  const std::string directory = unit ? "/var/log/jobmill" : "/var/log";
  const auto room = Ask([&] {
    struct statvfs status {};
    if (statvfs(directory.c_str(), &status) != 0) return std::string("-1");
    const bool inodes = status.f_files == 0 || status.f_favail > 0;
    return std::to_string(inodes ? status.f_bavail * status.f_frsize : 0);
  });
  if (!room || *room == "-1") {
    findings.push_back({"host.no-log-directory", Severity::kWarning, directory, 0,
                        "it cannot be reached", "the log goes to /tmp", "make the directory"});
  } else if (std::stoul(*room) < kLeastRoom) {
    findings.push_back({"host.log-room", Severity::kWarning, directory, 0,
                        "only " + std::to_string(std::stoul(*room) >> 20) + " MiB are free",
                        "lines of the log are lost when there is no room", "make room"});
  }
}

// The soft limit in a line of /proc/PID/limits; none when there is none.
std::optional<long> LimitIn(const std::string& limits, const std::string& name) {
  const std::size_t line = limits.find(name);
  if (line == std::string::npos) return std::nullopt;
  std::istringstream rest(limits.substr(line + name.size()));
  long soft = 0;
  if (!(rest >> soft)) return std::nullopt;  // "unlimited"
  return soft;
}

// The limits of the daemon of this port are those of its runs, whatever their account.
void CheckLimits(const Site& site, Findings& findings) {
  for (const ProcessStat& stat : AllProcesses()) {
    if (stat.name != "vkjobmill.exe") continue;
    const auto process = Process::Open(stat.id);
    const Options options = process ? ParseOptions(process->Arguments()) : Options();
    if (options.listen_port != site.options.listen_port) continue;
    const std::string file = "/proc/" + std::to_string(stat.id.pid) + "/limits";
    const std::string limits = ReadFile(file).value_or("");
    const auto descriptors = LimitIn(limits, "Max open files");
    if (descriptors && *descriptors < kLeastDescriptors) {
      findings.push_back({"host.descriptors", Severity::kWarning, "", 0,
                          "the daemon, process " + std::to_string(stat.id.pid) + ", may have " +
                              std::to_string(*descriptors) + " descriptors",
                          "it ends when none is left, and simulators may have no more either",
                          "set LimitNOFILE= in the unit"});
    }
    const auto processes = LimitIn(limits, "Max processes");
    if (processes && *processes < kLeastProcesses) {
      findings.push_back(
          {"host.processes", Severity::kWarning, "", 0,
           "an account of a run may have " + std::to_string(*processes) + " processes and threads",
           "runs of that account are refused or fail beyond that", "set LimitNPROC= in the unit"});
    }
    return;
  }
}

void CheckKernel(Findings& findings) {
  const std::string links = "/proc/sys/fs/protected_symlinks";
  if (ReadFile(links).value_or("1").starts_with('0')) {
    findings.push_back({"host.protected-symlinks", Severity::kWarning, links, 0, "it is 0",
                        "programs of root and of users follow links that others plant in /tmp",
                        "sysctl fs.protected_symlinks=1"});
  }
  const std::string typing = "/proc/sys/dev/tty/legacy_tiocsti";
  if (ReadFile(typing).value_or("0").starts_with('1')) {
    findings.push_back({"host.terminal-typing", Severity::kWarning, typing, 0, "it is 1",
                        "what an account runs can type commands at a terminal that it shares",
                        "sysctl dev.tty.legacy_tiocsti=0"});
  }
}

void CheckFirewall(const Site& site, Findings& findings) {
  const std::string nft = CommandIn("/usr/sbin:/sbin:/usr/bin", "nft");
  const int port = site.options.listen_port;
  const auto rules = geteuid() != 0 || nft.empty() ? std::nullopt : Ask([&] {
    std::string text = "+";
    FILE* output = popen(("timeout 5 " + nft + " list ruleset 2>/dev/null").c_str(), "r");
    std::array<char, 4096> part{};
    while (output != nullptr && fgets(part.data(), part.size(), output) != nullptr) {
      text += part.data();
    }
    return output != nullptr && pclose(output) == 0 ? text : std::string();
  });
  if (!rules || rules->empty()) {
    findings.push_back({"host.firewall-unchecked", Severity::kUnchecked, "", 0,
                        nft.empty() ? "there is no nft, and other packet filters are not looked at"
                                    : "the packet filter can be read by root alone",
                        "everybody may reach port " + std::to_string(port), "check as root"});
  } else if (!Guards(*rules, port)) {
    findings.push_back({"host.open", Severity::kWarning, "", 0,
                        "no rule of the packet filter names port " + std::to_string(port),
                        "whoever reaches it can claim to be any user",
                        "load a packet filter; docs/security.md has one"});
  }
}

std::string OwnName() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "localhost";
}

}  // namespace

bool Guards(const std::string& rules, int port) {
  const std::string number = std::to_string(port);
  bool input = false;
  for (const std::string_view line : Lines(rules)) {
    if (line.find("hook input") != std::string_view::npos) {
      input = true;
      if (line.find("policy drop") != std::string_view::npos) return true;
    }
    for (std::size_t at = line.find(number); at != std::string_view::npos;
         at = line.find(number, at + 1)) {
      const auto digit = [&](std::size_t index) {
        return index < line.size() && line[index] >= '0' && line[index] <= '9';
      };
      if (input && (at == 0 || !digit(at - 1)) && !digit(at + number.size())) return true;
    }
  }
  return false;
}

Findings CheckHost(const Site& site) {
  Findings findings;
  const bool single = RealName(site.ScriptFile()).ends_with("/local");
  CheckName("localhost", "which the script for a single machine gives",
            single ? Severity::kError : Severity::kWarning, findings);
  CheckName(OwnName(), "that of this machine", Severity::kWarning, findings);
  CheckScheduler(site, findings);
  CheckClock(site, findings);
  CheckLogRoom(findings);
  CheckLimits(site, findings);
  CheckKernel(findings);
  CheckFirewall(site, findings);
  return findings;
}

}  // namespace inspect
