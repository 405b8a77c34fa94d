#include "inspect/script.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "base/number.h"
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
constexpr std::string_view kProgramMark = "\177ELF";

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

// Something that every run opens.
struct Need {
  const char* id;                  // of the finding
  std::int64_t line;               // of the script; 0 without one
  std::string what;                // in front of "cannot be executed"
  std::vector<std::string> files;  // one of them is enough, the first of them is named
  int mode;                        // as for access(2)
};

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

// What keeps this process from a file, as far as something else than its own mode does.
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

// For each need the names of those who cannot do what it asks for, by what keeps them from it.
using Excluded = std::vector<std::map<std::string, std::string>>;

// What this process cannot do, as lines of the need's number, `name` and the obstacle.
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

// Who cannot do what; nothing when that cannot be found out. One process tries all of it, as each
// of the accounts in turn, which only root can; as itself, under the name `own`, without any.
std::optional<Excluded> Try(const std::vector<Need>& needs,
                            const std::map<std::string, Account>& accounts,
                            const std::string& own) {
  const auto answer = Ask([&] {
    std::vector<std::vector<std::string>> directories;
    directories.reserve(needs.size());
    for (const Need& need : needs) directories.push_back(DirectoriesTo(need.files[0]));
    if (accounts.empty()) return Refused(needs, directories, own);
    std::string refused;
    if (setgroups(0, nullptr) != 0) throw std::runtime_error("not root");
    for (const auto& [name, account] : accounts) {
      if (setegid(account.group) != 0 || seteuid(account.user) != 0) {
        throw std::runtime_error("not root");
      }
      refused += Refused(needs, directories, name);
      if (seteuid(0) != 0) throw std::runtime_error("not root any more");
    }
    return refused;
  });
  if (!answer) return std::nullopt;
  Excluded excluded(needs.size());
  std::istringstream parts(*answer);
  for (std::string i, name, why; std::getline(parts, i, '\0') && std::getline(parts, name, '\0') &&
                                 std::getline(parts, why, '\0');) {
    std::string& names = excluded[std::stoul(i)][why];
    names.append(names.empty() ? "" : ", ").append(name);
  }
  return excluded;
}

// What the machine's own `shell`, "bash" or "sh", says against the syntax of `file`; empty when it
// says nothing. It reads the commands and executes none.
std::string SyntaxError(const std::string& shell, const std::string& file) {
  const auto answer = Ask([&] {
    // Nothing in the environment, such as a file that the shell reads first, has a say.
    clearenv();
    setenv("PATH", "/usr/bin:/bin", 1);
    setenv("LC_ALL", "C", 1);
    setenv("SHELL_TO_ASK", shell.c_str(), 1);
    // A script can turn these patterns on, which is not executed here either.
    setenv("PATTERNS", shell == "bash" ? "-O extglob" : "", 1);
    setenv("FILE_TO_READ", file.c_str(), 1);
    FILE* output = popen(
        "exec timeout --kill-after=1 5 \"$SHELL_TO_ASK\" $PATTERNS -n \"$FILE_TO_READ\" 2>&1 "
        "</dev/null",
        "r");
    if (output == nullptr) throw std::runtime_error("no process");
    std::array<char, 1024> line{};
    std::string first;
    while (fgets(line.data(), line.size(), output) != nullptr) {
      if (first.empty()) first = line.data();
    }
    const int status = pclose(output);
    // More says timeout, of itself.
    const bool refused = WIFEXITED(status) && WEXITSTATUS(status) > 0 && WEXITSTATUS(status) < 124;
    return refused ? first : std::string();
  });
  return answer.value_or("");
}

// The program that the first line of a script names and the argument that stands there, as the
// kernel takes them apart.
std::pair<std::string, std::string> InterpreterIn(std::string_view text) {
  std::string_view line = text.substr(2, text.find('\n') - 2);
  const auto word = [&line] {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    const std::string_view first = line.substr(0, line.find_first_of(" \t"));
    line.remove_prefix(first.size());
    return std::string(first);
  };
  std::string interpreter = word();
  return {interpreter, word()};
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
    std::error_code error;
    if (fs::is_regular_file(file_, error)) {
      // The name that the daemon uses may lead through other directories than the one without
      // links. An interpreter has to read the script as well.
      needs_.push_back({"script.not-executable",
                        0,
                        "",
                        {site_.ScriptFile()},
                        text && text->starts_with("#!") ? X_OK | R_OK : X_OK});
    }
    if (text) {
      CheckInterpreter(*text);
      CheckCommon(*text);
      CheckSimulator(*text);
    }
    CheckNeeds();
  }

 private:
  void Add(const char* id, Severity severity, std::int64_t line, const std::string& what,
           const std::string& consequence, const std::string& remedy) {
    findings_.push_back({id, severity, file_, line, what, consequence, remedy});
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

  void CheckNeeds() {
    if (needs_.empty()) return;
    const bool mapped = site_.options.run_as_root;
    std::optional<Excluded> excluded;
    if (!mapped) {
      excluded = Try(needs_, {}, "its own account");
    } else if (geteuid() == 0) {
      excluded = Try(needs_, AccountsOf(site_), "any account");
    }
    if (!excluded) {
      Add("script.accounts-unchecked", Severity::kUnchecked, 0,
          "not checked: whether the accounts can execute it, which only root can find out",
          "runs of an account that cannot are refused with 'No host detected'",
          "run jobmillctl as root");
      // What this process cannot execute is told all the same, but for the script.
      excluded = Try(needs_, {}, "this account");
      if (!excluded) return;
      excluded->front().clear();
    }
    for (std::size_t i = 0; i < needs_.size(); ++i) {
      for (const auto& [why, names] : (*excluded)[i]) AddExcluded(needs_[i], why, names);
    }
  }

  void AddExcluded(const Need& need, const std::string& why, const std::string& names) {
    const bool program = (need.mode & X_OK) != 0;
    Add(need.id, Severity::kError, need.line,
        need.what + (program ? "cannot be executed by " : "cannot be read by ") + names +
            (why.empty() ? "" : ": " + why),
        "their runs are refused with 'No host detected'",
        why.ends_with("noexec") ? "move it, or mount that file system without noexec"
                                : std::string("give it the mode ") + (program ? "0755" : "0644") +
                                      ", and the directories above it x for all");
  }

  // In a file that the shell reads.
  bool HasCarriageReturns(const std::string& file, const std::string& text) {
    const auto lines = Lines(text);
    const auto first = std::ranges::find_if(lines, [](auto line) { return line.ends_with('\r'); });
    if (first == lines.end()) return false;
    Add("script.carriage-return", Severity::kError, first - lines.begin() + 1,
        "has a carriage return at the end of a line",
        "it is part of the interpreter's name on the first line, of a word further down",
        "convert the file, with 'sed -i \"s/\\r$//\" FILE'");
    findings_.back().file = file;
    return true;
  }

  void CheckInterpreter(const std::string& text) {
    if (text.starts_with(kProgramMark)) return;
    if (HasCarriageReturns(file_, text)) return;
    if (!text.starts_with("#!")) {
      Add("script.no-interpreter", Severity::kError, 1, "does not begin with #!",
          "the system cannot execute it, and " + std::string(kRefused),
          "begin it with #!/bin/bash");
      return;
    }
    CheckProgram("script.interpreter-missing", 1, "", text);
    CheckSyntax(text);
  }

  void CheckSyntax(const std::string& text) {
    const auto [interpreter, argument] = InterpreterIn(text);
    std::string shell = fs::path(interpreter).filename();
    if (shell == "env") shell = argument;
    if (shell != "bash" && shell != "sh") return;
    std::smatch found;
    const std::string error = SyntaxError(shell, file_);
    // "FILE: line 4: syntax error near ..." says bash, without "line" the others.
    if (!std::regex_search(error, found, std::regex(R"(: (?:line )?([0-9]+): (.*))"))) return;
    Add("script.syntax", Severity::kError, NumberIn(found[1].str().c_str()),
        "is not understood by " + shell + ": " + found[2].str(), kRefused, "correct it");
  }

  // Whether what the first line of `text` names is there and can be executed.
  void CheckProgram(const char* id, std::int64_t line, const std::string& whose,
                    const std::string& text) {
    const auto [interpreter, argument] = InterpreterIn(text);
    if (!interpreter.starts_with('/') || RegularFiles({interpreter}).empty()) {
      Add(id, Severity::kError, line,
          whose + "needs the interpreter '" + interpreter + "', which is not there", kRefused,
          "install it, or correct the first line");
      return;
    }
    needs_.push_back({id,
                      line,
                      whose + "needs the interpreter " + interpreter + ", which ",
                      {interpreter},
                      X_OK});
    if (fs::path(interpreter).filename() != "env" || argument.empty() || argument[0] == '-') return;
    const std::string path = RunVariable(site_, "PATH");
    if (path.empty()) return;  // there is no telling
    const auto programs = RegularFiles(InDirectories(path, argument));
    if (programs.empty()) {
      Add(id, Severity::kError, line,
          whose + "needs " + argument + ", which is not in the daemon's PATH", kRefused,
          "install it, or name it with its path");
      return;
    }
    needs_.push_back({id, line, whose + "needs " + programs[0] + ", which ", programs, X_OK});
  }

  // Those of `files` that are there. Their file systems may not answer.
  static std::vector<std::string> RegularFiles(const std::vector<std::string>& files) {
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

  // The absolute names that a program can have in the directories of a search path.
  static std::vector<std::string> InDirectories(const std::string& path,
                                                const std::string& program) {
    std::vector<std::string> names;
    std::istringstream directories(path);
    for (std::string directory; std::getline(directories, directory, ':');) {
      if (directory.starts_with('/')) names.push_back(directory.append("/").append(program));
    }
    return names;
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
          "it ends at once, and " + std::string(kRefused),
          "link to the packaged script, or copy common.sh as well");
      return;
    }
    needs_.push_back({"script.no-common", 0, "has a common.sh beside it that ", {common}, R_OK});
    HasCarriageReturns(RealName(common), *beside);
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
    std::string missing;
    const auto simulators = Simulators(missing);
    if (simulators.empty()) {
      Add("script.no-simulator", Severity::kError, 0, "has no simulator to start: " + missing,
          kRefused, "set JOBMILL_SIMULATOR in the environment file to the path of a program");
      return;
    }
    needs_.push_back({"script.no-simulator", 0,
                      "has a simulator to start, " + simulators[0] + ", that ", simulators, X_OK});
    const auto program =
        std::ranges::find_if(simulators, [](const auto& file) { return May(file, X_OK); });
    if (program != simulators.end()) CheckSimulatorText(*program);
  }

  void CheckSimulatorText(const std::string& simulator) {
    std::ifstream in(simulator);
    std::string text(256, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (in.bad()) return;
    text.resize(static_cast<std::size_t>(in.gcount()));
    if (text.starts_with(kProgramMark)) return;
    const std::string whose = "has a simulator to start, " + simulator + ", that ";
    if (text.starts_with("#!")) {
      CheckProgram("script.no-simulator", 0, whose, text);
      return;
    }
    Add("script.no-simulator", Severity::kError, 0,
        whose + "neither is an ELF program nor begins with #!",
        "a shell that nobody has chosen reads it, and " + std::string(kRefused) +
            " if that finds no commands of its own",
        "name a program, or begin the script with #!/bin/bash");
  }

  // The files that the script for a single machine can take for the simulator, in its order.
  // Without any, `missing` says why.
  std::vector<std::string> Simulators(std::string& missing) const {
    const std::string value = RunVariable(site_, "JOBMILL_SIMULATOR");
    if (value.find('/') != std::string::npos) {
      missing = "JOBMILL_SIMULATOR is no absolute path of a program";
      return value[0] == '/' ? RegularFiles({value}) : std::vector<std::string>();
    }
    const std::string path = RunVariable(site_, "PATH");
    if (!value.empty()) {
      missing = "JOBMILL_SIMULATOR is not in PATH";
      return RegularFiles(InDirectories(path, value));
    }
    missing = "JOBMILL_SIMULATOR is not set, and there is no vksim";
    const fs::path here = fs::path(file_).parent_path();
    return RegularFiles(
        InDirectories(fs::path(site_.ScriptFile()).parent_path().string() + ":" + here.string() +
                          ":" + (here / "../../../bin").lexically_normal().string() + ":" + path,
                      "vksim"));
  }

  const Site& site_;
  std::string file_;
  std::vector<Need> needs_;  // the script first
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

std::string RunVariable(const Site& site, const char* name) {
  return Ask([&] {
           TakeEnvironment(site);
           const char* value = getenv(name);
           return std::string(value == nullptr ? "" : value);
         })
      .value_or("");
}

}  // namespace inspect
