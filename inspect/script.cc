#include "inspect/script.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <string_view>
#include <utility>
#include <vector>

#include "base/number.h"
#include "config/env_collection.h"
#include "inspect/access.h"
#include "inspect/file.h"
#include "inspect/probe.h"
#include "log/flog.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRefused = "every run is refused with 'No host detected'";
constexpr std::string_view kProgramMark = "\177ELF";

// What the machine's own `shell`, "bash" or "sh", says against the syntax of `file`; empty when it
// says nothing. It reads the commands and executes none.
std::string SyntaxError(const std::string& shell, const std::string& file) {
  // Nothing in the environment, such as a file that the shell reads first, has a say.
  std::vector<std::string> words{"/usr/bin/env", "-i", "PATH=/usr/bin:/bin", "LC_ALL=C", shell};
  // A script that uses these patterns turns them on by a command, which is not executed here.
  if (shell == "bash") words.insert(words.end(), {"-O", "extglob"});
  words.insert(words.end(), {"-n", file});
  const auto answer = RunCommand(words, Complaints::kIncluded);
  // From 125 on the status is that of env, which could not start the shell.
  const bool refused = answer && answer->status > 0 && answer->status < 125;
  return refused ? answer->output.substr(0, answer->output.find('\n')) : std::string();
}

// The program that the first line of a script, which begins with "#!", names, and the first word
// after it. The kernel passes all that follows the program as one argument; what is looked for
// here, the program that env is to run, is one word.
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
                        file_,
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
    Excluded excluded = FindExcluded(site_, needs_);
    if (!excluded.all_asked) {
      Add("script.accounts-unchecked", Severity::kUnchecked, 0,
          "not checked: whether the accounts can execute it, which only root can find out",
          "runs of an account that cannot are refused with 'No host detected'",
          "run jobmillctl as root");
      // What this process cannot execute is told all the same, but for the script.
      excluded.names.front().clear();
    }
    AddExcluded(needs_, excluded, findings_);
  }

  // Looks for carriage returns in a file that a shell reads, and tells of the first.
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
                      file_,
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
    needs_.push_back(
        {id, file_, line, whose + "needs " + programs[0] + ", which ", programs, X_OK});
  }

  // The shipped scripts share a file, which lies beside the script itself, not beside links to it.
  void CheckCommon(const std::string& text) {
    if (!IsPackagedScript(text)) return;
    const std::string common = fs::path(file_).parent_path() / "common.sh";
    const auto beside = ReadFile(common);
    if (!beside) {
      Add("script.no-common", Severity::kError, 0, "has no common.sh beside it",
          "it ends at once, and " + std::string(kRefused),
          "link to the packaged script, or copy common.sh as well");
      return;
    }
    needs_.push_back(
        {"script.no-common", file_, 0, "has a common.sh beside it that ", {common}, R_OK});
    HasCarriageReturns(RealName(common), *beside);
    const std::string packaged = PackagedScripts(site_);
    if (packaged.empty() || *beside == ReadFile(packaged + "/common.sh")) return;
    Add("script.other-common", Severity::kWarning, 0,
        "has a common.sh beside it that is not the one of " +
            fs::path(packaged).lexically_normal().string(),
        "what upgrades mend is not mended here", "link to the packaged script, or copy both again");
  }

  // Scripts for clusters start the simulator elsewhere: it may be there and not here.
  void CheckSimulator(const std::string& text) {
    if (!IsPackagedScript(text) || fs::path(file_).filename() != "local") return;
    std::string missing;
    const auto simulators = Simulators(missing);
    if (simulators.empty()) {
      Add("script.no-simulator", Severity::kError, 0, "has no simulator to start: " + missing,
          kRefused, "set JOBMILL_SIMULATOR in the environment file to the path of a program");
      return;
    }
    needs_.push_back({"script.no-simulator", file_, 0,
                      "has a simulator to start, " + simulators[0] + ", that ", simulators, X_OK});
    const auto program = std::ranges::find_if(
        simulators, [](const auto& file) { return access(file.c_str(), X_OK) == 0; });
    if (program != simulators.end()) CheckSimulatorText(*program);
  }

  void CheckSimulatorText(const std::string& simulator) {
    std::ifstream in(simulator);
    std::string text(256, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (in.bad()) return;
    text.resize(static_cast<std::size_t>(in.gcount()));
    if (text.starts_with(kProgramMark)) {
      CheckLibraries(simulator);
      return;
    }
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

  // The loader says which libraries it does not find, in the environment of a run and as an account
  // of one. The simulator itself is not started.
  void CheckLibraries(const std::string& simulator) {
    const auto accounts = site_.options.run_as_root && geteuid() == 0
                              ? AccountsOf(site_)
                              : std::map<std::string, Account>();
    const auto answer = Ask([&] {
      TakeEnvironment(site_);
      if (!accounts.empty()) Become(accounts.begin()->second);
      const auto listed = RunCommand({"/usr/bin/ldd", simulator});
      return listed ? listed->output : std::string();
    });
    std::string missing;
    for (const std::string_view line : Lines(answer ? *answer : std::string_view())) {
      const std::size_t arrow = line.find(" => not found");
      if (arrow == std::string_view::npos) continue;
      const std::size_t name = line.find_first_not_of(" \t");
      missing.append(missing.empty() ? "" : ", ").append(line.substr(name, arrow - name));
    }
    if (missing.empty()) return;
    Add("script.no-library", Severity::kError, 0,
        "has a simulator to start, " + simulator + ", that does not find " + missing, kRefused,
        "install it, or set LD_LIBRARY_PATH in the environment file");
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

bool IsPackagedScript(std::string_view text) {
  return text.find("\nsource \"$here/common.sh\"") != std::string_view::npos;
}

bool IsForCluster(const Site& site) {
  const std::string text = ReadFile(RealName(site.ScriptFile())).value_or("");
  return IsPackagedScript(text) && text.find("\nneeded='") != std::string::npos;
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
