#include "tests/hostile/cases.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <toml++/toml.h>

namespace fs = std::filesystem;

namespace {

using Variables = std::map<std::string, std::string>;

std::string Text(const toml::node& node) {
  if (const auto text = node.value<std::string>()) return *text;
  throw std::runtime_error("a text is wanted");
}

std::vector<std::string> Texts(const toml::node& node) {
  std::vector<std::string> texts;
  if (!node.is_array()) return {Text(node)};
  for (const toml::node& element : *node.as_array()) texts.push_back(Text(element));
  return texts;
}

Variables Row(const toml::node& node) {
  Variables row;
  if (!node.is_table()) throw std::runtime_error("a table is wanted");
  for (const auto& [key, value] : *node.as_table()) row.emplace(key.str(), Text(value));
  return row;
}

class File {
 public:
  explicit File(const fs::path& path)
      : file_(path.filename().string()), root_(toml::parse_file(path.string())) {
    for (const auto& [key, value] : root_) {
      if (key == "let") let_ = Row(value);
      if (key == "default") defaults_ = value.as_table();
      static const std::set<std::string, std::less<>> known = {"let", "default", "rows", "case"};
      if (!known.contains(key.str())) throw std::runtime_error("unknown: " + std::string(key));
    }
  }

  void Read(std::vector<Case>& cases) {
    const toml::array* tables = root_["case"].as_array();
    if (tables == nullptr) throw std::runtime_error("no case");
    for (const toml::node& node : *tables) {
      const toml::table& table = *node.as_table();
      for (const Variables& each : Rows(table, "each")) {
        for (const Variables& with : Rows(table, "with")) cases.push_back(Make(table, each, with));
      }
    }
  }

 private:
  // The rows of a table of cases: written down in the case, or under a name for several.
  std::vector<Variables> Rows(const toml::table& table, const std::string& key) const {
    const toml::node* node = table.get(key);
    if (node == nullptr) return {{}};
    std::vector<std::string> names;
    if (const auto name = node->value<std::string>()) {
      node = root_["rows"][*name].node();
      if (node == nullptr) throw std::runtime_error("no rows " + *name);
    }
    std::vector<Variables> rows;
    for (const toml::node& row : *node->as_array()) rows.push_back(Row(row));
    return rows;
  }

  Case Make(const toml::table& table, const Variables& each, const Variables& with) const {
    Case made;
    made.file = file_;
    made.variables = each;
    made.variables.insert(with.begin(), with.end());
    made.variables.insert(let_.begin(), let_.end());
    try {
      if (defaults_ != nullptr) Take(*defaults_, made);
      Take(table, made);
    } catch (const std::exception& error) {
      throw std::runtime_error(made.name + ": " + error.what());
    }
    if (made.name.empty()) throw std::runtime_error("a case without a name");
    return made;
  }

  static void Take(const toml::table& table, Case& made) {
    const auto resolved = [&made](const toml::node& node) {
      return Replace(Text(node), made.variables);
    };
    if (const toml::node* name = table.get("name")) made.name = resolved(*name);
    for (const auto& [key, value] : table) {
      const std::string member(key.str());
      if (member == "steps") {
        made.steps.clear();
        for (const std::string& step : Texts(value)) {
          const std::string line = Replace(step, made.variables);
          if (!line.empty()) made.steps.push_back(line);
        }
      } else if (member == "arguments") {
        made.arguments = Texts(value);
        for (std::string& argument : made.arguments) argument = Replace(argument, made.variables);
      } else if (member == "fields" || member == "files") {
        auto& entries = member == "fields" ? made.fields : made.files;
        for (const auto& [name, text] : *value.as_table())
          entries[std::string(name.str())] = resolved(text);
      } else if (member == "start") {
        made.start = resolved(value);
      } else if (member == "log") {
        made.log = resolved(value);
      } else if (member == "comms") {
        made.comms = resolved(value);
      } else if (member == "comms_file") {
        made.commsFile = resolved(value);
      } else if (member == "end") {
        made.end = resolved(value);
      } else if (member == "refusal") {
        made.refusal = resolved(value);
      } else if (member == "exit") {
        made.exit = static_cast<int>(Number(value, made));
      } else if (member == "script_exit") {
        made.scriptExit = static_cast<int>(Number(value, made));
      } else if (member == "user") {
        made.user = Number(value, made);
      } else if (member == "memory") {
        made.memory = Number(value, made);
      } else if (member == "processor") {
        made.processor = Number(value, made);
      } else if (member != "name" && member != "each" && member != "with") {
        throw std::runtime_error("unknown: " + member);
      }
    }
  }

  static std::int64_t Number(const toml::node& node, const Case& made) {
    if (const auto number = node.value_exact<std::int64_t>()) return *number;
    return std::stoll(Replace(Text(node), made.variables));
  }

  std::string file_;
  toml::table root_;
  Variables let_;
  const toml::table* defaults_ = nullptr;
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
    if (!names.insert(one.name).second)
      throw std::runtime_error(one.file + ": second case " + one.name);
    const auto [other, fresh] = contents.emplace(one.Content(), one.name);
    if (!fresh) throw std::runtime_error(one.name + " does what " + other->second + " does");
  }
  return cases;
}
