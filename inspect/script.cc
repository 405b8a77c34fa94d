#include "inspect/script.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "config/env_collection.h"
#include "inspect/account.h"
#include "inspect/file.h"
#include "inspect/probe.h"
#include "inspect/user_file.h"
#include "log/flog.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRefused = "every run is refused with 'No host detected'";

// The accounts as which the site's users run, as far as they exist and are known.
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

// The names of those who may not execute `file`, one a line. Only root can find that out.
std::string Excluded(const std::string& file, const std::map<std::string, Account>& accounts) {
  std::string excluded;
  if (setgroups(0, nullptr) != 0) throw std::runtime_error("not root");
  for (const auto& [name, account] : accounts) {
    if (setegid(account.group) != 0 || seteuid(account.user) != 0) {
      throw std::runtime_error("not root");
    }
    if (faccessat(AT_FDCWD, file.c_str(), X_OK, AT_EACCESS) != 0) excluded += name + "\n";
    if (seteuid(0) != 0) throw std::runtime_error("not root any more");
  }
  return excluded;
}

// Where the packaged scripts are that belong to a daemon; empty when they are not found.
std::string PackagedScripts(const Site& site) {
  const fs::path programs = site.ProgramDirectory();
  const std::array<fs::path, 3> places = {
      programs / "../share/jobmill/scripts", programs / "../../share/jobmill/scripts",
      fs::path(RealName(programs / "vkmpi_dir.sh")).parent_path()};
  std::error_code ignored;
  for (const fs::path& place : places) {
    if (fs::exists(place / "common.sh", ignored)) return place;
  }
  return "";
}

class ScriptCheck {
 public:
  ScriptCheck(const Site& site, Findings& findings)
      : site_(site), file_(RealName(site.ScriptFile())), findings_(findings) {}

  void All() {
    const auto text = Read();
    CheckWriters();
    CheckExecutable();
    if (!text) return;
    CheckInterpreter(*text);
    CheckCommon(*text);
    CheckSimulator(*text);
  }

 private:
  void Add(const char* id, Severity severity, std::int64_t line, const std::string& what,
           const std::string& consequence, const std::string& remedy) {
    findings_.push_back({.id = id,
                         .severity = severity,
                         .file = file_,
                         .line = line,
                         .what = what,
                         .consequence = consequence,
                         .remedy = remedy});
  }

  std::optional<std::string> Read() {
    auto text = ReadFile(file_);
    if (text) return text;
    switch (errno) {
      case ENOENT:
      case ENOTDIR:
        Add("script.missing", Severity::kError, 0, "is not there", kRefused,
            "correct -s, or what it leads to");
        break;
      case EINVAL:
        Add("script.no-file", Severity::kError, 0, "is no regular file", kRefused,
            "correct -s, or what it leads to");
        break;
      default:
        Add("script.unchecked", Severity::kUnchecked, 0,
            std::string("not checked: cannot be read: ") + strerror(errno),
            "nothing is known about how runs are started", "run jobmillctl as root");
    }
    return std::nullopt;
  }

  void CheckWriters() {
    const std::string how = WritableBy(file_, !site_.options.run_as_root);
    if (how.empty()) return;
    Add("script.writable", Severity::kError, 0, "can be changed by others than root: " + how,
        "whoever can write it can run as every account", "give it to root, with the mode 0755");
  }

  void CheckExecutable() {
    std::error_code error;
    if (!fs::is_regular_file(file_, error)) return;
    std::string excluded;
    if (!site_.options.run_as_root) {
      if (access(file_.c_str(), X_OK) != 0) excluded = "its own account";
    } else {
      const auto accounts = AccountsOf(site_);
      const auto answer = Ask([&] { return Excluded(file_, accounts); });
      if (!answer) {
        Add("script.accounts-unchecked", Severity::kUnchecked, 0,
            "not checked: whether the accounts can execute it, which only root can find out",
            "runs of an account that cannot are refused with 'No host detected'",
            "run jobmillctl as root");
        return;
      }
      for (const std::string_view name : Lines(*answer)) {
        excluded.append(excluded.empty() ? "" : ", ").append(name);
      }
    }
    if (excluded.empty()) return;
    Add("script.not-executable", Severity::kError, 0, "cannot be executed by " + excluded,
        "their runs are refused with 'No host detected'",
        "give it the mode 0755, and the directories above it x for all");
  }

  void CheckInterpreter(const std::string& text) {
    if (text.starts_with("\x7f"
                         "ELF"))
      return;
    const auto lines = Lines(text);
    const auto returns =
        std::ranges::find_if(lines, [](auto line) { return line.ends_with('\r'); });
    if (returns != lines.end()) {
      Add("script.carriage-return", Severity::kError, returns - lines.begin() + 1,
          "has a carriage return at the end of a line",
          "it is part of the interpreter's name on the first line, of a word further down",
          "convert the file, with 'sed -i \"s/\\r$//\" FILE'");
      return;
    }
    if (!text.starts_with("#!")) {
      Add("script.no-interpreter", Severity::kError, 1, "does not begin with #!",
          "the system cannot execute it, and " + std::string(kRefused),
          "begin it with #!/bin/bash");
      return;
    }
    std::istringstream words{std::string(lines[0].substr(2))};
    std::string interpreter;
    std::string argument;
    words >> interpreter >> argument;
    CheckProgram(interpreter);
    if (fs::path(interpreter).filename() != "env" || argument.empty() || argument[0] == '-') return;
    if (!IsInPath(argument)) {
      Add("script.interpreter-missing", Severity::kError, 1,
          "needs " + argument + ", which is not in the daemon's PATH", kRefused,
          "install it, or name it with its path");
    }
  }

  void CheckProgram(const std::string& interpreter) {
    if (IsProgram(interpreter)) return;
    Add("script.interpreter-missing", Severity::kError, 1,
        "needs the interpreter '" + interpreter + "', which cannot be executed", kRefused,
        "install it, or correct the first line");
  }

  bool IsInPath(const std::string& program) const {
    const auto path = site_.environment.find("PATH");
    if (path == site_.environment.end()) return true;  // there is no telling
    std::istringstream directories(path->second);
    for (std::string directory; std::getline(directories, directory, ':');) {
      if (IsProgram(directory.append("/").append(program))) return true;
    }
    return false;
  }

  static bool IsPackaged(const std::string& text) {
    return text.find("\nsource \"$here/common.sh\"") != std::string::npos;
  }

  // The shipped scripts share a file, which lies beside the script itself, not beside links to it.
  void CheckCommon(const std::string& text) {
    if (!IsPackaged(text)) return;
    const std::string common = fs::path(file_).parent_path() / "common.sh";
    const auto beside = ReadFile(common);
    if (!beside) {
      Add("script.no-common", Severity::kError, 0, "has no common.sh beside it",
          "it ends with a complaint, and " + std::string(kRefused),
          "link to the packaged script, or copy common.sh as well");
      return;
    }
    const std::string packaged = PackagedScripts(site_);
    if (packaged.empty() || *beside == ReadFile(packaged + "/common.sh")) return;
    Add("script.other-common", Severity::kWarning, 0,
        "has a common.sh beside it that is not the one of " +
            fs::path(packaged).lexically_normal().string(),
        "what upgrades mend is not mended here", "link to the packaged script, or copy both again");
  }

  // Those for clusters start it elsewhere, where it may be and is not here.
  void CheckSimulator(const std::string& text) {
    if (!IsPackaged(text) || fs::path(file_).filename() != "local") return;
    const auto missing = Ask([this] { return MissingSimulator(); });
    if (!missing || missing->empty()) return;
    Add("script.no-simulator", Severity::kError, 0, "has no simulator to start: " + *missing,
        kRefused, "set JOBMILL_SIMULATOR in the environment file to the path of a program");
  }

  // Why the script for a single machine finds no simulator; empty when it finds one.
  std::string MissingSimulator() const {
    TakeEnvironment(site_);
    const char* value = getenv("JOBMILL_SIMULATOR");
    if (value != nullptr && *value == '\0') value = nullptr;
    if (value != nullptr && strchr(value, '/') != nullptr) {
      return IsProgram(value) ? "" : "JOBMILL_SIMULATOR is no absolute path of a program";
    }
    const char* path = getenv("PATH");
    std::string places = path == nullptr ? "" : path;
    if (value == nullptr) {
      const fs::path here = fs::path(file_).parent_path();
      places += ":" + fs::path(site_.ScriptFile()).parent_path().string() + ":" + here.string() +
                ":" + (here / "../../../bin").string();
    }
    const std::string name = value == nullptr ? "vksim" : value;
    std::istringstream directories(places);
    for (std::string directory; std::getline(directories, directory, ':');) {
      if (IsProgram(directory.append("/").append(name))) return "";
    }
    return value == nullptr ? "JOBMILL_SIMULATOR is not set, and there is no vksim"
                            : "JOBMILL_SIMULATOR is not in PATH";
  }

  static bool IsProgram(const std::string& file) {
    std::error_code error;
    return file.starts_with('/') && fs::is_regular_file(file, error) &&
           access(file.c_str(), X_OK) == 0;
  }

  const Site& site_;
  std::string file_;
  Findings& findings_;
};

}  // namespace

Findings CheckScript(const Site& site) {
  Findings findings;
  // Without options nobody knows which script.
  if (site.error == 0 && !site.words.empty()) ScriptCheck(site, findings).All();
  return findings;
}

void TakeEnvironment(const Site& site) {
  clearenv();
  for (const auto& [name, value] : site.environment) setenv(name.c_str(), value.c_str(), 1);
  flog silent("", false);
  std::array<char, CEnvCollection::kErrorSize> error{};
  CEnvCollection(site.BesideProgram(".vk_corvane_env").c_str()).Apply(error.data(), &silent);
}

}  // namespace inspect
