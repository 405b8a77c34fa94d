#include "inspect/environment_file.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <system_error>

#include "config/env_collection.h"
#include "inspect/access.h"
#include "inspect/file.h"
#include "inspect/probe.h"
#include "inspect/script.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongest = sizeof(CEnv::name) - 1;

struct Word {
  std::string text;
  std::int64_t line = 0;
};

std::vector<Word> WordsOf(const std::string& text) {
  std::vector<Word> words;
  std::int64_t line = 1;
  bool inside = false;
  for (const char c : text) {
    const bool blank = std::isspace(static_cast<unsigned char>(c)) != 0;
    if (!blank && !inside) words.push_back({.text = "", .line = line});
    if (!blank) words.back().text += c;
    inside = !blank;
    if (c == '\n') ++line;
  }
  return words;
}

bool Matches(const std::string& text, const char* pattern) {
  return std::regex_search(text, std::regex(pattern, std::regex::icase));
}

// Variables that hold a list with colons. A value in front of another is what they are for.
bool IsList(const std::string& name) {
  return Matches(name, "PATH$|DIRS$|LICENSE_FILE$");
}

// What reads a variable of this name before, or otherwise than, the program that it is meant for;
// null when nothing does.
const char* SpecialReader(const std::string& name) {
  static const std::set<std::string> shell = {"BASHOPTS",   "BASH_ENV", "CDPATH", "ENV",
                                              "GLOBIGNORE", "IFS",      "PS4",    "SHELLOPTS"};
  static const std::set<std::string> loader = {"GCONV_PATH", "GLIBC_TUNABLES", "LOCPATH"};
  static const std::set<std::string> account = {"HOME", "LOGNAME", "SHELL", "USER"};
  if (shell.contains(name) || name.starts_with("BASH_FUNC_")) return "every shell of a run";
  if (loader.contains(name) || (name.starts_with("LD_") && name != "LD_LIBRARY_PATH")) {
    return "the loader of every program of a run";
  }
  if (account.contains(name)) return "every program, as if it were set for the account of the run,";
  return nullptr;
}

// Whether a list of directories has one that is not absolute. An empty one counts as such: it
// stands for the working directory.
bool HasRelativeDirectory(const std::string& value) {
  const std::string all = value + ":";
  for (std::size_t begin = 0; begin < all.size(); begin = all.find(':', begin) + 1) {
    if (all[begin] != '/') return true;
  }
  return false;
}

bool LooksSecret(const std::string& name, const std::string& value) {
  if (Matches(value, "://[^/@:]*:[^/@]+@")) return true;
  return Matches(name,
                 "PASSW|PASSPHRASE|SECRET|TOKEN|CREDENTIAL|API_?KEY|ACCESS_?KEY|PRIVATE_?KEY") &&
         !Matches(name, "(PATH|FILE|DIR)$");
}

class EnvironmentFileCheck {
 public:
  EnvironmentFileCheck(const Site& site, Findings& findings)
      : site_(site),
        file_(site.BesideProgram(".vk_corvane_env")),
        name_(RealName(file_)),
        findings_(findings) {}

  void All() {
    const std::string edited = site_.NotLinked(".vk_corvane_env", "environment");
    if (!edited.empty()) {
      Add("environment.not-linked", Severity::kWarning, 0, "is not " + edited,
          "the daemon reads this file, if it is there, and what is changed in the other has no "
          "effect",
          "put a link to that file beside the daemon's executable");
    }
    const auto text = Read();
    if (!text) return;
    CheckWriters();
    CheckWords(WordsOf(*text));
    CheckShell();
  }

 private:
  void Add(const char* id, Severity severity, std::int64_t line, const std::string& what,
           const std::string& consequence, const std::string& remedy) {
    findings_.push_back({id, severity, name_, line, what, consequence, remedy});
  }

  // The text; nothing, with the reason among the findings, when there is none.
  std::optional<std::string> Read() {
    auto text = ReadFile(file_);
    if (text) return text;
    const int error = errno;
    std::error_code ignored;
    if (error == EACCES) {
      Add("environment.unchecked", Severity::kUnchecked, 0, "not checked: needs root",
          "nothing is known about the environment of the runs", "run jobmillctl as root");
    } else if (error != ENOENT || fs::is_symlink(file_, ignored)) {
      const std::string why = error == EINVAL ? "is no regular file" : strerror(error);
      Add("environment.unreadable", Severity::kError, 0, "cannot be read: " + why,
          "no variable is set, and nothing is said about that", "put a regular file in its place");
    }
    return std::nullopt;
  }

  void CheckWriters() {
    const std::string how = WritableBy(name_, !site_.options.run_as_root);
    if (how.empty()) return;
    Add("environment.writable", Severity::kError, 0, "can be changed by others than root: " + how,
        "whoever can write it can have every run load what they like",
        "give it to root, with the mode 0600");
  }

  // Where a value is missing, values stand in the place of names, and one may be a secret.
  std::string Shown(const std::string& name) const { return shifted_ ? "a variable" : name; }

  // Names and values in turn. The daemon's reader says which pairs count.
  void CheckWords(const std::vector<Word>& words) {
    const CEnvCollection read(file_.c_str());
    const CEnv* entry = read.first();
    shifted_ = words.size() % 2 != 0;
    for (std::size_t i = 0; i < words.size(); i += 2) {
      const Word& name = words[i];
      const bool alone = i + 1 == words.size();
      const std::string value = alone ? "" : words[i + 1].text;
      if (entry != nullptr && strcmp(name.text.c_str(), entry->name) == 0 &&
          strcmp(value.c_str(), entry->value) == 0) {
        CheckEntry(name, value);
        entry = entry->next;
      } else if (name.text[0] == '\0') {
        Add("environment.zero-byte", Severity::kError, name.line,
            "has a name that begins with a zero byte", "it ends the file: nothing after it is read",
            "write the file anew as plain text");
        return;
      } else {
        const std::string shown =
            name.text.size() > kLongest ? "a name" : "the value of " + name.text;
        Add("environment.too-long", Severity::kError, name.line,
            shown + " has more than " + std::to_string(kLongest) + " characters",
            "the variable is left out", "shorten it, or set it in the script");
      }
      if (alone) CheckAlone(name);
    }
  }

  void CheckAlone(const Word& name) {
    Add("environment.odd", Severity::kError, name.line,
        "has an odd number of words: the last name has no value",
        "it is empty; if a value is missing further up, names and values are interchanged from "
        "there on",
        "write names and values in turn");
  }

  void CheckEntry(const Word& word, const std::string& value) {
    const std::string& name = word.text;
    if (name.find('=') != std::string::npos) {
      Add("environment.equals-sign", Severity::kError, word.line,
          "has an equals sign in the name of " + Shown(name.substr(0, name.find('='))),
          "nothing is set by it, and the next word counts as its value",
          "write a blank in place of the equals sign");
      return;
    }
    if (name == "export") {
      Add("environment.odd-name", Severity::kError, word.line, "sets a variable named export",
          "nothing uses that, and the variable that is meant is not set",
          "export is no command here: write NAME VALUE");
    } else if (!Matches(name, "^[A-Z_][A-Z0-9_]*$")) {
      Add("environment.odd-name", Severity::kWarning, word.line, "has a name that no shell can use",
          "there are no comments and no quotes; names and values may be interchanged from here on",
          "write names and values in turn");
    }
    if (value.starts_with('"') || value.starts_with('\'')) {
      Add("environment.quotes", Severity::kWarning, word.line,
          "has quotes in the value of " + Shown(name), "they are part of it, and a blank ends it",
          "leave the quotes out");
    }
    CheckMeaning(word, value);
    CheckPresent(word);
  }

  void CheckMeaning(const Word& word, const std::string& value) {
    const std::string& name = word.text;
    if (const char* reader = SpecialReader(name)) {
      Add("environment.special", Severity::kWarning, word.line, "sets " + name,
          std::string(reader) + " heeds it, for every account",
          "set it in the script, for the simulator alone");
    }
    if ((name == "PATH" || name == "LD_LIBRARY_PATH") && HasRelativeDirectory(value)) {
      Add("environment.relative-directory", Severity::kWarning, word.line,
          "has a directory in " + name + " that does not begin with /",
          "programs or libraries are looked for in the data of a run, where others may write",
          "give all directories from / on");
    }
    if (LooksSecret(name, value)) {
      Add("environment.secret", Severity::kWarning, word.line,
          "has what looks like a secret in " + Shown(name),
          "names and values go into the daemon's log at every run",
          "keep it in a file that the account can read, and name that file");
    }
  }

  // Whether the variable is set already, further up or in the environment that the daemon gets.
  void CheckPresent(const Word& word) {
    const auto [former, fresh] = set_.try_emplace(word.text, word.line);
    const bool at_start = site_.environment.contains(word.text);
    if (IsList(word.text) || (fresh && !at_start)) return;
    Add("environment.prefixed", Severity::kWarning, word.line,
        "sets " + Shown(word.text) + ", which is set already, " +
            (fresh ? "in the daemon's environment" : "on line " + std::to_string(former->second)),
        "its value, a colon and the former value are joined", "set it in one place only");
  }

  // Why bash, with nothing to execute, does not start as `account`, or as this process's if that is
  // null; empty when it starts, nothing when that cannot be found out.
  std::optional<std::string> TryShell(const Account* account, bool in_environment) const {
    return Ask(
        [&] {
          if (in_environment) TakeEnvironment(site_);
          // A shell executes the files that these name.
          unsetenv("BASH_ENV");
          unsetenv("ENV");
          if (account != nullptr) Become(*account);
          const auto shell = RunCommand({"/bin/bash", "-c", ":"}, Complaints::kIncluded);
          if (!shell) return std::string("it does not end within 10 s");
          if (shell->status == 0) return std::string();
          return "status " + std::to_string(shell->status) + ": " +
                 shell->output.substr(0, shell->output.find('\n'));
        },
        std::chrono::seconds(15));
  }

  void CheckShell() {
    const bool mapped = site_.options.run_as_root;
    const auto accounts =
        mapped && geteuid() == 0 ? AccountsOf(site_) : std::map<std::string, Account>();
    if (mapped && accounts.empty()) return;
    const Account* account = mapped ? &accounts.begin()->second : nullptr;
    const auto why = TryShell(account, true);
    // A shell that never starts is not the environment's fault.
    if (!why || why->empty() || TryShell(account, false) != "") return;
    Add("environment.no-shell", Severity::kError, 0,
        "makes an environment in which bash does not start: " + *why,
        "every run is refused with 'No host detected'",
        "correct it, above all LD_LIBRARY_PATH and other variables of the loader");
  }

  const Site& site_;
  std::string file_;
  std::string name_;
  bool shifted_ = false;
  std::map<std::string, std::int64_t> set_;  // names, and the line of the first entry of each
  Findings& findings_;
};

}  // namespace

Findings CheckEnvironmentFile(const Site& site) {
  Findings findings;
  EnvironmentFileCheck(site, findings).All();
  return findings;
}

}  // namespace inspect
