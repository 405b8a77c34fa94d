#include "tests/hostile/cases.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "sections/section.h"

namespace fs = std::filesystem;

namespace {

using sections::Section;
using sections::Value;
using Variables = std::map<std::string, std::string>;

const char* const kList = "a list is wanted";
const char* const kTable = "a table is wanted";

std::string Text(const Value& value) {
  if (auto text = value.Text()) return *text;
  value.place().Fail("a text is wanted");
}

std::vector<std::string> Texts(const Value& value) {
  if (const auto text = value.Text()) return {*text};
  std::vector<std::string> texts;
  for (const Value& each : value.List(kList)) texts.push_back(Text(each));
  return texts;
}

Variables Row(const Value& value) {
  Variables row;
  Section table = value.Table(kTable);
  for (const auto& [key, place] : table.Keys()) row.emplace(key, Text(*table.Find(key)));
  return row;
}

class File {
 public:
  explicit File(const fs::path& path)
      : file_(path.filename().string()), root_(Section::ReadFile(path.string())) {
    if (const auto let = root_.Find("let")) let_ = Row(*let);
    if (const auto defaults = root_.Find("default")) defaults_ = defaults->Table(kTable);
    if (const auto rows = root_.Find("rows")) rows_ = rows->Table(kTable);
  }

  void Read(std::vector<Case>& cases) {
    const auto tables = root_.Find("case");
    if (const auto unknown = root_.Unknown()) unknown->second.Fail("unknown: " + unknown->first);
    if (!tables) root_.place().Fail("no case");
    for (const Value& value : tables->List(kList)) {
      Section table = value.Table(kTable);
      for (const Variables& each : Rows(table, "each")) {
        for (const Variables& with : Rows(table, "with")) cases.push_back(Make(table, each, with));
      }
    }
  }

 private:
  // The rows of a table of cases: written down in the case, or under a name for several.
  std::vector<Variables> Rows(Section& table, const std::string& key) {
    auto value = table.Find(key);
    if (!value) return {{}};
    if (const auto name = value->Text()) {
      const auto named = rows_ ? rows_->Find(*name) : std::nullopt;
      if (!named) value->place().Fail("no rows " + *name);
      value = named;
    }
    std::vector<Variables> rows;
    for (const Value& row : value->List(kList)) rows.push_back(Row(row));
    return rows;
  }

  Case Make(Section& table, const Variables& each, const Variables& with) {
    Case made;
    made.file = file_;
    made.variables = each;
    made.variables.insert(with.begin(), with.end());
    made.variables.insert(let_.begin(), let_.end());
    try {
      if (defaults_) Take(*defaults_, made);
      Take(table, made);
    } catch (const std::exception& error) {
      throw std::runtime_error(made.name + ": " + error.what());
    }
    if (made.name.empty()) throw std::runtime_error("a case without a name");
    return made;
  }

  static void Take(Section& table, Case& made) {
    if (const auto name = table.Find("name")) made.name = Resolved(*name, made);
    for (const auto& [member, place] : table.Keys()) {
      if (member == "name" || member == "each" || member == "with") continue;
      const auto read = Members().find(member);
      if (read == Members().end()) place.Fail("unknown: " + member);
      read->second(*table.Find(member), made);
    }
  }

  // How each member of a case is read; README.md says what it is for.
  using Reading = std::function<void(const Value&, Case&)>;
  static const std::map<std::string, Reading>& Members() {
    static const std::map<std::string, Reading> members = {
        {"arguments", Lines(&Case::arguments, true)},
        {"steps", Lines(&Case::steps, false)},
        {"fields", Entries(&Case::fields)},
        {"files", Entries(&Case::files)},
        {"start", Line(&Case::start)},
        {"log", Line(&Case::log)},
        {"comms", Line(&Case::comms)},
        {"comms_file", Line(&Case::comms_file)},
        {"end", Line(&Case::end)},
        {"refusal", Line(&Case::refusal)},
        {"exit", Count(&Case::exit)},
        {"script_exit", Count(&Case::script_exit)},
        {"user", Count(&Case::user)},
        {"memory", Count(&Case::memory)},
        {"processor", Count(&Case::processor)},
    };
    return members;
  }

  static std::string Resolved(const Value& value, const Case& made) {
    return Replace(Text(value), made.variables);
  }
  template <class Member>
  static Reading Line(Member Case::*member) {
    return [member](const Value& value, Case& made) { made.*member = Resolved(value, made); };
  }
  template <class Member>
  static Reading Count(Member Case::*member) {
    return [member](const Value& value, Case& made) {
      const auto number = value.Integer();
      made.*member = number ? *number : std::stoll(Resolved(value, made));
    };
  }
  // Each of the texts, those that are empty only with `all`.
  static Reading Lines(std::vector<std::string> Case::*member, bool all) {
    return [member, all](const Value& value, Case& made) {
      (made.*member).clear();
      for (const std::string& text : Texts(value)) {
        const std::string line = Replace(text, made.variables);
        if (all || !line.empty()) (made.*member).push_back(line);
      }
    };
  }
  static Reading Entries(std::map<std::string, std::string> Case::*member) {
    return [member](const Value& value, Case& made) {
      Section texts = value.Table(kTable);
      for (const auto& [name, place] : texts.Keys()) {
        (made.*member)[name] = Resolved(*texts.Find(name), made);
      }
    };
  }

  std::string file_;
  Section root_;
  Variables let_;
  std::optional<Section> defaults_;
  std::optional<Section> rows_;
};

}  // namespace

std::string Replace(std::string text, const Variables& variables) {
  std::size_t at = 0;
  while ((at = text.find("${", at)) != std::string::npos) {
    const std::size_t end = text.find('}', at);
    if (end == std::string::npos) break;
    const auto found = variables.find(text.substr(at + 2, end - at - 2));
    if (found == variables.end()) {
      at += 2;  // what stands in these braces may hold another variable
    } else {
      text.replace(at, end - at + 1, found->second);
    }
  }
  return text;
}

std::string Case::Content() const {
  std::ostringstream out;
  const char* separator = "\x1f";
  for (const std::string& argument : arguments) out << argument << separator;
  out << start << separator;
  for (const std::string& step : steps) out << step << separator;
  for (const auto& [key, text] : fields) out << key << separator << text << separator;
  for (const auto& [key, text] : files) out << key << separator << text << separator;
  return out.str();
}

std::vector<Case> ReadCases(const std::string& directory) {
  std::vector<fs::path> paths;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    if (entry.path().extension() == ".toml") paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<Case> cases;
  for (const fs::path& path : paths) {
    try {
      File(path).Read(cases);
    } catch (const std::exception& error) {
      throw std::runtime_error(path.string() + ": " + error.what());
    }
  }
  std::set<std::string> names;
  std::map<std::string, std::string> contents;
  for (const Case& one : cases) {
    if (!names.insert(one.name).second) {
      throw std::runtime_error(one.file + ": second case " + one.name);
    }
    const auto [other, fresh] = contents.emplace(one.Content(), one.name);
    if (!fresh) throw std::runtime_error(one.name + " does what " + other->second + " does");
  }
  return cases;
}
