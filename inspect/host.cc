#include "inspect/host.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "base/descriptor.h"
#include "base/number.h"
#include "inspect/access.h"
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
constexpr std::size_t kMostAccounts = 16;
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

// A name that has to have an address.
struct HostName {
  std::string name;
  std::string whose;
  Severity severity;  // when it has none
};

// What the resolver reads. An account that may not read these resolves no names, or only some.
constexpr std::array kResolverFiles = {"/etc/nsswitch.conf", "/etc/hosts", "/etc/host.conf",
                                       "/etc/resolv.conf"};

// HasAddress() as an account sees it: the controller of a run has changed its account when it looks
// for the host. After a "0" come the resolver's files that the account cannot read.
std::string HasAddressAs(const Account& account, const std::string& name) {
  Become(account);
  std::string answer = HasAddress(name);
  for (const char* file : kResolverFiles) {
    if (answer[0] == '0' && access(file, R_OK) != 0 && errno == EACCES) {
      answer.append(" ").append(file);
    }
  }
  return answer;
}

void CheckNameAs(const std::map<std::string, Account>& accounts, const HostName& name,
                 Findings& findings) {
  std::string without;
  std::string files;
  std::size_t asked = 0;
  for (const auto& [account, ids] : accounts) {
    if (++asked > kMostAccounts) break;
    const auto answer =
        Ask([&ids = ids, &name] { return HasAddressAs(ids, name.name); }, kPatience);
    if (answer == "1") continue;
    without.append(without.empty() ? "" : ", ").append(account);
    files = answer.value_or("0").substr(1);
    if (!answer) break;
  }
  if (without.empty()) return;
  findings.push_back({"host.no-address", name.severity, "", 0,
                      "the name '" + name.name + "', " + name.whose +
                          ", has an IPv4 address for root, and none for " + without +
                          (files.empty() ? "" : ", who cannot read" + files),
                      "a run of that account whose script names that host ends when its master "
                      "connects",
                      "let all accounts read the files of the resolver, and ask the name service"});
}

void CheckName(const std::map<std::string, Account>& accounts, const HostName& name,
               Findings& findings) {
  const auto begin = Clock::now();
  const auto answer = Ask([&] { return HasAddress(name.name); }, kPatience);
  const auto taken = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin);
  const std::string what = "the name '" + name.name + "', " + name.whose + ",";
  if (!answer) {
    findings.push_back(
        {"host.name-silent", Severity::kError, "", 0,
         what + " was not resolved within " + std::to_string(kPatience.count()) + " s",
         "a run on that host waits, and fails", "see to the name service"});
    return;
  }
  if (*answer != "1") {
    findings.push_back({"host.no-address", name.severity, "", 0, what + " has no IPv4 address here",
                        "a run whose script names that host ends when its master connects",
                        "add the host to /etc/hosts or the name service"});
    return;
  }
  if (taken >= kSlow) {
    findings.push_back({"host.name-slow", Severity::kWarning, "", 0,
                        what + " took " + std::to_string(taken.count()) + " s to resolve",
                        "each start of a run on that host takes as long",
                        "see to the name service"});
  }
  CheckNameAs(accounts, name, findings);
}

// Tries a connection to a listening socket of its own, as an account, by the name that the script
// for a single machine gives. Says why it does not arrive; the port is a free one, not of a run.
std::string TryLoopback(const Account* account) {
  if (account != nullptr) Become(*account);
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo("localhost", nullptr, &hints, &found) != 0) return "";  // told elsewhere
  sockaddr_in address{};
  memcpy(&address, found->ai_addr, sizeof(address));
  freeaddrinfo(found);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  socklen_t size = sizeof(any);
  const Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const Descriptor near(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval patience{2, 0};
  auto* bound = reinterpret_cast<sockaddr*>(&any);
  if (bind(listener.get(), bound, size) != 0 || listen(listener.get(), 1) != 0 ||
      getsockname(listener.get(), bound, &size) != 0 ||
      setsockopt(near.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience)) != 0) {
    return "";
  }
  address.sin_port = any.sin_port;
  if (connect(near.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return "";
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
  const std::string why = errno == EINPROGRESS ? "nothing answers within 2 s" : strerror(errno);
  return std::string(text.data()) + ", does not arrive: " + why;
}

void CheckLoopback(const std::map<std::string, Account>& accounts, Findings& findings) {
  const Account* account = accounts.empty() ? nullptr : &accounts.begin()->second;
  const std::string why = Ask([account] { return TryLoopback(account); }, kPatience).value_or("");
  if (why.empty()) return;
  findings.push_back({"host.no-loopback", Severity::kError, "", 0,
                      "a connection of this machine to itself, by the name 'localhost', " + why,
                      "no run of the script for a single machine reaches its simulator",
                      "see to the interface lo, to /etc/hosts and to the packet filter"});
}

std::string OwnName() {
  std::array<char, 256> name{};
  gethostname(name.data(), name.size() - 1);
  return name.data();
}

void CheckNames(const Site& site, Findings& findings) {
  const std::string script = RealName(site.ScriptFile());
  const bool single = script.ends_with("/local");
  const bool mapped = site.options.run_as_root && geteuid() == 0;
  const auto accounts = mapped ? AccountsOf(site) : std::map<std::string, Account>();
  CheckName(accounts,
            {"localhost", "which the script for a single machine gives",
             single ? Severity::kError : Severity::kWarning},
            findings);
  if (single) CheckLoopback(accounts, findings);
  CheckName({}, {OwnName(), "that of this machine", Severity::kWarning}, findings);
  if (!script.ends_with("/ssh")) return;
  std::istringstream nodes(RunVariable(site, "JOBMILL_NODES"));
  for (std::string node; std::getline(nodes, node, ',');) {
    if (node.empty()) continue;
    // A warning, since the configuration of ssh may know such a name all the same.
    CheckName(accounts, {node, "of JOBMILL_NODES", Severity::kWarning}, findings);
  }
}

// A file from the future was written by another machine, or before this one's clock was set back.
void CheckClock(const Site& site, Findings& findings) {
  std::string first;
  long most = 0;
  std::size_t count = 0;
  for (const std::string& file : std::set<std::string>{
           site.configuration, site.ScriptFile(), site.BesideProgram(".vk_corvane_users"),
           site.BesideProgram(".vk_corvane_env"), "/var/log"}) {
    const auto answer = Ask([&] {
      struct stat status {};
      if (stat(file.c_str(), &status) != 0) return std::string("0");
      return std::to_string(status.st_mtime - time(nullptr));
    });
    if (!answer) {
      findings.push_back({"host.file-silent", Severity::kError, file, 0,
                          "its file system does not answer", "daemon and runs wait for it",
                          "see to the file system"});
      continue;
    }
    const long ahead = NumberIn(answer->c_str());
    if (ahead > kClockTolerance) {
      if (++count == 1) first = file;
      most = std::max(most, ahead);
    }
  }
  if (count == 0) return;
  const std::string others = count == 1 ? "" : ", like " + std::to_string(count - 1) + " others,";
  findings.push_back(
      {"host.clock", Severity::kWarning, first, 0,
       "it was changed" + others + " up to " + std::to_string(most) + " s in the future",
       "times in the logs of this machine and of others do not fit together",
       "set the clock, here or where the file lies"});
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
    if (stat.name != kDaemonProgram) continue;
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

}  // namespace

Findings CheckHost(const Site& site) {
  Findings findings;
  CheckNames(site, findings);
  CheckClock(site, findings);
  CheckLimits(site, findings);
  CheckKernel(findings);
  return findings;
}

}  // namespace inspect
