#include "tools/vkmaster/plans/plan.h"

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <string_view>

#include <fmt/format.h>
#include <toml++/toml.h>

#include "tools/vkmaster/commands/registry.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

/// Reads one plan; knows the file's name for what it has to complain about.
class Reader {
 public:
  explicit Reader(std::string file) : file_(std::move(file)) {}

  Plan Read() {
    const toml::table root = Parse();
    OnlyKeys(root, {"title", "launch", "advance", "record", "event"});
    Plan plan;
    if (const toml::node* node = root.get("launch")) plan.launch = ReadLaunch(TableOf(*node));
    const toml::node* advance = root.get("advance");
    if (advance == nullptr) throw UsageError(file_ + ": the table [advance] is missing");
    ReadAdvance(TableOf(*advance), plan);
    plan.directory = "results";
    if (const toml::node* node = root.get("record")) ReadRecord(TableOf(*node), plan);
    // The results lie beside the plan, wherever the program was started.
    plan.directory = (std::filesystem::path(file_).parent_path() / plan.directory).string();
    if (const toml::node* node = root.get("event")) ReadEvents(*node, plan);
    return plan;
  }

 private:
  toml::table Parse() const {
    try {
      return toml::parse_file(file_);
    } catch (const toml::parse_error& error) {
      throw UsageError(
          fmt::format("{}, line {}: {}", file_, error.source().begin.line, error.description()));
    }
  }

  [[noreturn]] void Fail(const toml::node& node, const std::string& text) const {
    throw UsageError(fmt::format("{}, line {}: {}", file_, node.source().begin.line, text));
  }

  // `read` with what it finds wrong set down to the node's line.
  template <typename Read>
  auto At(const toml::node& node, const Read& read) const {
    try {
      return read();
    } catch (const UsageError& error) {
      Fail(node, error.what());
    }
  }

  void OnlyKeys(const toml::table& table, std::initializer_list<std::string_view> known) const {
    for (const auto& [key, node] : table) {
      if (std::find(known.begin(), known.end(), key.str()) == known.end()) {
        Fail(node, "there is no key '" + std::string(key.str()) + "' here");
      }
    }
  }

  const toml::table& TableOf(const toml::node& node) const {
    if (!node.is_table()) Fail(node, "a table wanted");
    return *node.as_table();
  }

  // A text, or a number as its text: port = 5000 and port = "5000" are both understood.
  std::string Text(const toml::node& node) const {
    if (const auto* text = node.as_string()) return text->get();
    if (const auto* number = node.as_integer()) return fmt::format("{}", number->get());
    if (const auto* number = node.as_floating_point()) return fmt::format("{}", number->get());
    if (const auto* date = node.as_date()) {
      return FormatDate({date->get().day, date->get().month, date->get().year});
    }
    Fail(node, "a text or a number wanted");
  }

  std::optional<std::string> Text(const toml::table& table, std::string_view key) const {
    const toml::node* node = table.get(key);
    return node == nullptr ? std::nullopt : std::optional<std::string>(Text(*node));
  }

  Plan::Launch ReadLaunch(const toml::table& table) const {
    OnlyKeys(table,
             {"host", "port", "path", "root", "processes", "api", "user", "debug", "cluster"});
    Plan::Launch launch;
    launch.host = Text(table, "host");
    launch.path = Text(table, "path");
    launch.root = Text(table, "root");
    launch.processes = Text(table, "processes");
    launch.api = Text(table, "api");
    launch.user = Text(table, "user");
    launch.debug = Text(table, "debug");
    launch.cluster = Text(table, "cluster");
    if (const toml::node* port = table.get("port")) {
      const auto number = port->value<std::int64_t>();
      if (!number || *number < 1 || *number > 65535) Fail(*port, "a port is a number 1 to 65535");
      launch.port = static_cast<int>(*number);
    }
    return launch;
  }

  void ReadAdvance(const toml::table& table, Plan& plan) const {
    OnlyKeys(table, {"until", "step"});
    const toml::node* until = table.get("until");
    if (until == nullptr) Fail(table, "[advance] has no until");
    plan.until = At(*until, [&] { return ParseTarget(Text(*until)); });
    if (const toml::node* step = table.get("step")) {
      plan.step = At(*step, [&] { return ParseStep(Text(*step)); });
    }
  }

  void ReadRecord(const toml::table& table, Plan& plan) const {
    OnlyKeys(table, {"directory", "commands"});
    plan.directory = Text(table, "directory").value_or(plan.directory);
    if (const toml::node* node = table.get("commands")) plan.record = ReadCommands(*node);
  }

  std::vector<Command> ReadCommands(const toml::node& node) const {
    if (!node.is_array()) Fail(node, "a list of commands wanted");
    std::vector<Command> commands;
    for (const toml::node& line : *node.as_array()) {
      if (!line.is_string()) Fail(line, "a command wanted, as a text");
      for (Command& command :
           At(line, [&] { return ParseCommands(SplitWords(line.as_string()->get())); })) {
        CheckAllowed(line, command);
        commands.push_back(std::move(command));
      }
    }
    return commands;
  }

  // The plan itself says how far the run goes and when it ends.
  void CheckAllowed(const toml::node& node, const Command& command) const {
    const std::string name = command.text.substr(0, command.text.find(' '));
    for (const char* own :
         {"connect", "first-step", "until", "every", "shutdown", "quit", "help"}) {
      if (name == own) Fail(node, "'" + name + "' has no place in a plan");
    }
  }

  void ReadEvents(const toml::node& node, Plan& plan) const {
    if (!node.is_array()) Fail(node, "events are written as [[event]]");
    for (const toml::node& entry : *node.as_array()) {
      const toml::table& table = TableOf(entry);
      OnlyKeys(table, {"at", "commands"});
      const toml::node* at = table.get("at");
      const toml::node* commands = table.get("commands");
      if (at == nullptr || commands == nullptr) Fail(entry, "an event has at and commands");
      PlanEvent event{At(*at, [&] { return ParseTarget(Text(*at)); }), ReadCommands(*commands)};
      if (event.at.kind == Target::Kind::kRelative) Fail(*at, "days or a date wanted");
      plan.events.push_back(std::move(event));
    }
  }

  std::string file_;
};

}  // namespace

Plan ReadPlan(const std::string& file) {
  return Reader(file).Read();
}

}  // namespace vkmaster
