#include "inspect/site.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "inspect/file.h"
#include "inspect/process.h"
#include "inspect/script_arguments.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kLineEnds = "\r\n";

bool IsOneOf(char c, std::string_view characters) {
  return characters.find(c) != std::string_view::npos;
}

// The characters of a text, one after the other, with the number of the line.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : text_(text) {}

  bool AtEnd() const { return position_ == text_.size(); }
  std::int64_t line() const { return line_; }
  char Peek() const { return text_[position_]; }
  char Next() {
    const char c = text_[position_++];
    if (c == '\n') ++line_;
    return c;
  }

 private:
  std::string_view text_;
  std::size_t position_ = 0;
  std::int64_t line_ = 1;
};

// A comment goes on after a line end that a backslash stands before.
void SkipComment(Cursor& in) {
  while (!in.AtEnd()) {
    const char c = in.Next();
    if (IsOneOf(c, kLineEnds)) return;
    if (c == '\\' && !in.AtEnd()) in.Next();
  }
}

void AppendQuoted(Cursor& in, char quote, std::string& value) {
  while (!in.AtEnd()) {
    char c = in.Next();
    if (c == quote) return;
    if (c == '\\' && quote == '"' && !in.AtEnd()) {
      c = in.Next();
      if (c == '\n') continue;
      if (!IsOneOf(c, "\"\\`$")) value += '\\';
    }
    value += c;
  }
}

// Quotes count at the beginning of the value and after a quoted part, blanks at its ends do not.
std::string ReadValue(Cursor& in) {
  std::string value;
  bool bare = false;       // in a part without quotes
  std::size_t counts = 0;  // so many characters of it: blanks at its end do not count
  while (!in.AtEnd()) {
    const char c = in.Next();
    if (IsOneOf(c, kLineEnds)) break;
    if (!bare && (c == '"' || c == '\'')) {
      AppendQuoted(in, c, value);
      counts = value.size();
    } else if (c == '\\') {
      bare = true;
      if (in.AtEnd()) break;
      const char escaped = in.Next();
      if (!IsOneOf(escaped, kLineEnds)) value += escaped;
      counts = value.size();
    } else if (bare || !IsOneOf(c, kBlanks)) {
      bare = true;
      value += c;
      if (!IsOneOf(c, kBlanks)) counts = value.size();
    }
  }
  value.resize(counts);
  return value;
}

// The parts of a text that each end with a zero byte, as the kernel shows arguments and variables.
std::vector<std::string> Parts(const std::string& text) {
  std::vector<std::string> parts;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\0', begin), text.size());
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

// Adds the variables of "NAME=VALUE".
void AddVariables(const std::vector<std::string>& texts, std::map<std::string, std::string>& to) {
  for (const std::string& text : texts) {
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos) to.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
}

// Takes the environment of a daemon of this site, if one runs and this process may see it.
void TakeEnvironmentOfDaemon(Site& site) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator("/proc", ignored)) {
    const std::string executable = fs::read_symlink(entry.path() / "exe", ignored);
    // After the name of a file that an upgrade has replaced comes " (deleted)".
    if (ignored || !executable.starts_with(site.program)) continue;
    auto words = Parts(ReadFile(entry.path() / "cmdline").value_or(""));
    if (words.empty()) continue;
    words.erase(words.begin());
    const auto environment = ReadFile(entry.path() / "environ");
    if (words != site.words || !environment) continue;
    site.environment.clear();
    AddVariables(Parts(*environment), site.environment);
    return;
  }
}

void ReadOptions(Site& site) {
  std::vector<std::string> words{std::string(kDaemonProgram)};
  words.insert(words.end(), site.words.begin(), site.words.end());
  site.options = ParseOptions(words);
  site.script = ScriptOf(site.options);
}

}  // namespace

std::string Site::ProgramDirectory() const {
  return fs::path(program).parent_path();
}

std::string Site::BesideProgram(const std::string& file) const {
  return ProgramDirectory() + "/" + file;
}

std::string Site::NotLinked(const std::string& file, const std::string& configured) const {
  if (configuration.empty()) return "";
  const fs::path edited = fs::path(configuration).parent_path() / configured;
  std::error_code ignored;
  if (!fs::is_regular_file(edited, ignored) ||
      fs::equivalent(BesideProgram(file), edited, ignored)) {
    return "";
  }
  return edited;
}

std::string Site::ScriptFile() const {
  return (fs::path(directory) / script).lexically_normal();
}

std::map<std::string, Assignment> ReadAssignments(const std::string& text) {
  std::map<std::string, Assignment> assignments;
  Cursor in(text);
  while (!in.AtEnd()) {
    if (IsOneOf(in.Peek(), kBlanks)) {
      in.Next();
      continue;
    }
    if (IsOneOf(in.Peek(), "#;")) {
      SkipComment(in);
      continue;
    }
    const std::int64_t line = in.line();
    std::string name;
    while (!in.AtEnd() && !IsOneOf(in.Peek(), "=\r\n")) name += in.Next();
    if (in.AtEnd() || in.Next() != '=') continue;
    name.resize(name.find_last_not_of(kBlanks) + 1);
    if (!name.empty()) assignments[name] = {.value = ReadValue(in), .line = line};
  }
  return assignments;
}

std::vector<std::string> SplitWords(const std::string& value) {
  std::vector<std::string> words;
  std::optional<std::string> word;
  char quote = '\0';
  const auto add = [&word](char c) { word = word.value_or("") + c; };
  for (std::size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    if (c == '\\') {
      if (++i < value.size()) add(value[i]);
    } else if (quote != '\0') {
      if (c == quote) {
        quote = '\0';
      } else {
        add(c);
      }
    } else if (c == '"' || c == '\'') {
      quote = c;
      word = word.value_or("");
    } else if (!IsOneOf(c, kBlanks)) {
      add(c);
    } else if (word) {
      words.push_back(*std::exchange(word, std::nullopt));
    }
  }
  if (word) words.push_back(*word);
  return words;
}

Site SiteOf(const std::vector<std::string>& words, const std::string& program,
            const std::string& directory) {
  Site site;
  site.others = directory;
  site.words = words;
  site.program = RealName(program);
  site.directory = fs::current_path();
  std::vector<std::string> variables;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    variables.emplace_back(*variable);
  }
  AddVariables(variables, site.environment);
  ReadOptions(site);
  return site;
}

Site SiteOf(const std::string& directory, const std::string& name, const std::string& program) {
  Site site;
  site.name = name;
  site.configuration = directory + "/" + name + ".conf";
  site.others = directory;
  site.program = RealName(program);
  site.directory = "/";
  site.environment = {
      {"PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin"},
      {"LOGS_DIRECTORY", "/var/log/jobmill"},
  };
  const auto text = ReadFile(site.configuration);
  if (!text) site.error = errno;
  const std::string beside = site.BesideProgram("vkmpi_dir.sh");
  std::error_code ignored;
  if (site.error == ENOENT && name == "jobmill" && fs::exists(beside, ignored)) {
    // What the unit of an installation from the sources has in itself.
    site.error = 0;
    site.words = {"-p", "5000", "-s", beside};
  } else if (text) {
    for (const auto& [variable, assignment] : ReadAssignments(*text)) {
      if (variable == "OPTIONS") {
        site.words = SplitWords(assignment.value);
        site.line = assignment.line;
      } else {
        site.environment[variable] = assignment.value;
      }
    }
  }
  ReadOptions(site);
  if (!site.words.empty()) TakeEnvironmentOfDaemon(site);
  return site;
}

}  // namespace inspect
