#include "inspect/access.h"

#include <fcntl.h>
#include <string.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

#include "inspect/file.h"
#include "inspect/probe.h"
#include "inspect/user_file.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

// The directories on the way to a file, by its name and by the one without links.
std::vector<std::string> DirectoriesTo(const std::string& file) {
  std::vector<std::string> directories;
  for (const fs::path& name : {fs::path(file), fs::path(RealName(file))}) {
    fs::path directory;
    for (const fs::path& part : name.parent_path()) {
      directory /= part;
      directories.push_back(directory);
    }
  }
  return directories;
}

bool May(const std::string& file, int mode) {
  return faccessat(AT_FDCWD, file.c_str(), mode, AT_EACCESS) == 0;
}

// What beside its own mode keeps this process from the need's first file; empty when nothing does.
std::string Obstacle(const Need& need, const std::vector<std::string>& directories) {
  for (const std::string& directory : directories) {
    if (!May(directory, X_OK)) return "the directory " + directory + " cannot be entered";
  }
  struct statvfs status {};
  const bool no_programs = (need.mode & X_OK) != 0 &&
                           statvfs(need.files[0].c_str(), &status) == 0 &&
                           (status.f_flag & ST_NOEXEC) != 0;
  return no_programs ? "its file system is mounted noexec" : "";
}

using Names = std::vector<std::map<std::string, std::string>>;

// The index of each need that this process cannot have, `name` and the obstacle, all with a zero
// byte after them.
std::string Refused(const std::vector<Need>& needs,
                    const std::vector<std::vector<std::string>>& directories,
                    const std::string& name) {
  std::string refused;
  for (std::size_t i = 0; i < needs.size(); ++i) {
    const Need& need = needs[i];
    if (std::ranges::any_of(need.files, [&](auto& file) { return May(file, need.mode); })) continue;
    refused += std::to_string(i) + '\0' + name + '\0' + Obstacle(need, directories[i]) + '\0';
  }
  return refused;
}

// Who cannot have which need; nothing when that cannot be found out. One process tries all needs as
// each account in turn, which only root can, or without accounts as itself, under the name `own`.
std::optional<Names> Try(const std::vector<Need>& needs,
                         const std::map<std::string, Account>& accounts, const std::string& own) {
  const auto answer = Ask([&] {
    std::vector<std::vector<std::string>> directories;
    directories.reserve(needs.size());
    for (const Need& need : needs) directories.push_back(DirectoriesTo(need.files[0]));
    if (accounts.empty()) return Refused(needs, directories, own);
    std::string refused;
    for (const auto& [name, account] : accounts) {
      ActAs(account);
      refused += Refused(needs, directories, name);
    }
    return refused;
  });
  if (!answer) return std::nullopt;
  Names excluded(needs.size());
  std::istringstream parts(*answer);
  for (std::string i, name, why; std::getline(parts, i, '\0');) {
    std::getline(parts, name, '\0');
    std::getline(parts, why, '\0');
    std::string& names = excluded[std::stoul(i)][why];
    names.append(names.empty() ? "" : ", ").append(name);
  }
  return excluded;
}

}  // namespace

std::map<std::string, Account> AccountsOf(const Site& site) {
  const UserFile file(site.ProgramDirectory());
  std::set<std::string> names;
  for (const CVKUser* user : file.records()) {
    const bool same = strcmp(user->linux_name, "*") == 0;
    if (user->allow != 0) names.insert(same ? user->windows_name : user->linux_name);
  }
  auto accounts = FindAccounts(names).value_or(std::map<std::string, Account>());
  std::erase_if(accounts, [](const auto& account) { return !account.second.exists; });
  return accounts;
}

Excluded FindExcluded(const Site& site, const std::vector<Need>& needs) {
  std::optional<Names> names;
  if (!site.options.run_as_root) {
    names = Try(needs, {}, "its own account");
  } else if (geteuid() == 0) {
    names = Try(needs, AccountsOf(site), "any account");
  }
  const bool all_asked = names.has_value();
  if (!all_asked) names = Try(needs, {}, "this account");
  return {names.value_or(Names(needs.size())), all_asked};
}

void AddExcluded(const std::vector<Need>& needs, const Excluded& excluded, Findings& findings) {
  for (std::size_t i = 0; i < needs.size(); ++i) {
    const Need& need = needs[i];
    const bool program = (need.mode & X_OK) != 0;
    for (const auto& [why, names] : excluded.names[i]) {
      findings.push_back({need.id, Severity::kError, need.file, need.line,
                          need.what + (program ? "cannot be executed by " : "cannot be read by ") +
                              names + (why.empty() ? "" : ": " + why),
                          "their runs are refused with 'No host detected'",
                          why.ends_with("noexec")
                              ? "move it, or mount that file system without noexec"
                              : std::string("give it the mode ") + (program ? "0755" : "0644") +
                                    ", and the directories above it x for all"});
    }
  }
}

std::vector<std::string> RegularFiles(const std::vector<std::string>& files) {
  const auto answer = Ask([&files] {
    std::string found;
    std::error_code error;
    for (const std::string& file : files) {
      if (fs::is_regular_file(file, error)) found += file + "\n";
    }
    return found;
  });
  const auto lines = Lines(answer ? *answer : std::string_view());
  return {lines.begin(), lines.end()};
}

std::vector<std::string> InDirectories(const std::string& path, const std::string& program) {
  std::vector<std::string> names;
  std::istringstream directories(path);
  for (std::string directory; std::getline(directories, directory, ':');) {
    if (directory.starts_with('/')) names.push_back(directory.append("/").append(program));
  }
  return names;
}

}  // namespace inspect
