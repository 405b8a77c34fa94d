#include "inspect/account_places.h"

#include <errno.h>
#include <pwd.h>
#include <shadow.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string_view>

#include "base/number.h"
#include "inspect/access.h"
#include "inspect/file.h"
#include "inspect/probe.h"
#include "inspect/script.h"
#include "inspect/user_file.h"

namespace inspect {
namespace {

constexpr long kSecondsOfADay = 86400;
constexpr unsigned long kLeastRoom = 1UL << 20;

// The home directory of accounts that have none.
constexpr std::string_view kNoHome = "/nonexistent";

// A line "1" when the account has expired, otherwise "0"; when it cannot enter its home directory,
// a line with that directory and one with the reason. This process is the account's then.
std::string LookAt(const std::string& name, const Account& account) {
  const spwd* shadow = getspnam(name.c_str());
  const bool expired = shadow != nullptr && shadow->sp_expire > 0 &&
                       shadow->sp_expire <= time(nullptr) / kSecondsOfADay;
  const passwd* entry = getpwnam(name.c_str());
  const std::string home = entry == nullptr ? "" : entry->pw_dir;
  std::string answer = expired ? "1\n" : "0\n";
  Become(account);
  if (!home.empty() && home != kNoHome && chdir(home.c_str()) != 0) {
    answer += home + "\n" + strerror(errno) + "\n";
  }
  return answer;
}

// The line of the first record that leads to an account.
std::int64_t LineOf(const UserFile& file, const std::string& account) {
  for (std::size_t i = 0; i < file.records().size(); ++i) {
    const CVKUser& user = *file.records()[i];
    const bool same = strcmp(user.linux_name, "*") == 0;
    if (user.allow != 0 && account == (same ? user.windows_name : user.linux_name)) {
      return static_cast<std::int64_t>(i) + 1;
    }
  }
  return 0;
}

bool CanAsk(const Site& site) {
  return site.error == 0 && site.options.run_as_root && geteuid() == 0;
}

// Each obstacle, and the names of the accounts that meet it.
using Met = std::map<std::string, std::string>;

template <class Look>
Met AskAll(const std::map<std::string, Account>& accounts, const Look& look) {
  Met met;
  for (const auto& [name, account] : accounts) {
    const auto answer = Ask([&look, &account = account] {
      Become(account);
      return look();
    });
    if (!answer) return met;  // a file system that does not answer is told elsewhere
    if (answer->empty()) continue;
    std::string& names = met[*answer];
    names.append(names.empty() ? "" : ", ").append(name);
  }
  return met;
}

std::string ObstacleOfTemporary(const std::string& directory) {
  if (access(directory.c_str(), W_OK | X_OK) != 0) {
    return std::string("cannot be written by them: ") + strerror(errno);
  }
  struct statvfs status {};
  if (statvfs(directory.c_str(), &status) != 0) return "";
  const bool inodes = status.f_files == 0 || status.f_favail > 0;
  return inodes && status.f_bavail * status.f_frsize >= kLeastRoom ? "" : "is full";
}

std::string ObstacleOfNull(const std::string& null) {
  struct stat status {};
  if (stat(null.c_str(), &status) != 0) return strerror(errno);
  if (!S_ISCHR(status.st_mode)) return "is no device";
  return access(null.c_str(), R_OK | W_OK) == 0 ? "" : "cannot be read and written by them";
}

}  // namespace

Findings CheckAccounts(const Site& site) {
  Findings findings;
  if (!CanAsk(site)) return findings;
  const UserFile file(site.ProgramDirectory());
  for (const auto& [name, account] : AccountsOf(site)) {
    const auto answer = Ask([&name = name, &account = account] { return LookAt(name, account); });
    const auto lines = Lines(answer ? *answer : std::string_view());
    if (lines.empty()) continue;
    const std::int64_t line = LineOf(file, name);
    if (lines[0] == "1") {
      findings.push_back({"users.expired", Severity::kWarning, file.name(), line,
                          "leads to the account '" + name + "', which has expired",
                          "its runs are started all the same: the daemon does not ask for that",
                          "deny the user, or set another date with 'chage -E'"});
    }
    if (lines.size() < 3) continue;
    findings.push_back({"users.no-home", Severity::kWarning, file.name(), line,
                        "leads to the account '" + name +
                            "', which cannot enter its home directory " + std::string(lines[1]) +
                            ": " + std::string(lines[2]),
                        "programs of its runs do not find settings, keys or licences there",
                        "make the directory, or correct it with 'usermod -d'"});
  }
  return findings;
}

Findings CheckAccountPlaces(const Site& site, const std::string& null) {
  Findings findings;
  if (!CanAsk(site)) return findings;
  const auto accounts = AccountsOf(site);
  const std::string variable = RunVariable(site, "TMPDIR");
  const std::string directory = variable.empty() ? "/tmp" : variable;
  for (const auto& [obstacle, names] :
       AskAll(accounts, [&] { return ObstacleOfTemporary(directory); })) {
    findings.push_back({"host.temporary", Severity::kError, directory, 0,
                        std::string("is where runs of ")
                            .append(names)
                            .append(" make temporary files, and ")
                            .append(obstacle),
                        "scripts for clusters refuse the run, and simulators may fail",
                        "give it the mode 1777, and room"});
  }
  for (const auto& [obstacle, names] : AskAll(accounts, [&] { return ObstacleOfNull(null); })) {
    findings.push_back(
        {"host.null-device", Severity::kError, null, 0,
         std::string("is used by every script of ").append(names).append(", and ").append(obstacle),
         "every run is refused with 'No host detected'",
         "make it again, with 'mknod -m 666 FILE c 1 3'"});
  }
  return findings;
}

}  // namespace inspect
