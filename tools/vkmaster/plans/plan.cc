#include "tools/vkmaster/plans/plan.h"

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <string_view>

#include <fmt/format.h>
#include <toml++/toml.h>

#include "tools/vkmaster/output/recorder.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

constexpr double kSameTime = 1e-5;

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

/// One plan being carried out.
class Course {
 public:
  Course(const Plan& plan, Context& context)
      : plan_(plan),
        context_(context),
        session_(context.session),
        recorder_(plan.directory, stderr),
        recording_{session_, recorder_, context.progress, {}} {
    recorder_.BeforeWriting([this] { context_.progress.Hide(); });
  }

  void Run() {
    session_.FirstStep();
    double now = session_.TimeDays();
    target_ = DaysOf(plan_.until, session_);
    if (target_ - now < kSameTime) {
      throw UsageError(fmt::format("The run is at day {:.6g}, beyond the plan's end", now));
    }
    SortEvents();
    context_.progress.BeginAdvance(now, target_);
    Stop(now, true);
    while (target_ - now >= kSameTime && !session_.has_ended()) {
      now = NextStop(now);
      session_.run().RunUntil(now);
      Stop(now, false);
    }
    context_.progress.End();
  }

 private:
  struct Timed {
    double at;
    const PlanEvent* event;
  };

  void SortEvents() {
    for (const PlanEvent& event : plan_.events) {
      events_.push_back({DaysOf(event.at, session_), &event});
    }
    std::stable_sort(events_.begin(), events_.end(),
                     [](const Timed& a, const Timed& b) { return a.at < b.at; });
  }

  double NextStop(double now) {
    double next = target_;
    if (plan_.step) next = std::min(next, EndOfStep(*plan_.step, session_.StartDate(), now));
    if (next_event_ < events_.size()) next = std::min(next, events_[next_event_].at);
    return target_ - next < kSameTime ? target_ : next;
  }

  void Stop(double planned, bool start) {
    if (start) CarryOutEvents(planned);
    const Result state = StateRow(session_, "steps", false);
    recorder_.SetTime(session_.last_days(), std::get<std::string>(state.fields[1].value));
    recorder_.Write(state);
    for (const Command& command : plan_.record) command.execute(recording_);
    context_.progress.Reached(session_.last_days());
    context_.output.Write(state);
    if (!start && !session_.has_ended()) CarryOutEvents(planned);
  }

  void CarryOutEvents(double now) {
    for (; next_event_ < events_.size() && events_[next_event_].at - now < kSameTime;
         ++next_event_) {
      recorder_.SetTime(session_.TimeDays(), FormatDate(session_.run().GetDate()));
      for (const Command& command : events_[next_event_].event->commands) {
        Result done{.command = "events"};
        done.fields.push_back({"command", "command", command.text, ""});
        command.execute(recording_);
        recorder_.Write(done);
      }
    }
  }

  const Plan& plan_;
  Context& context_;
  Session& session_;
  Recorder recorder_;
  Context recording_;
  double target_ = 0;
  std::vector<Timed> events_;
  std::size_t next_event_ = 0;
};

}  // namespace

Plan ReadPlan(const std::string& file) {
  return Reader(file).Read();
}

void ApplyLaunch(const Plan& plan, Options& options, const std::set<std::string>& given) {
  const auto apply = [&given](const char* option, auto& to, const auto& from) {
    if (from && !given.contains(option)) to = *from;
  };
  const Plan::Launch& launch = plan.launch;
  apply("--host", options.host, launch.host);
  apply("--port", options.port, launch.port);
  apply("--path", options.run.path, launch.path);
  apply("--root", options.run.root, launch.root);
  apply("--processes", options.run.processes, launch.processes);
  apply("--api", options.run.api, launch.api);
  apply("--user", options.run.user, launch.user);
  apply("--debug", options.run.debug, launch.debug);
  apply("--cluster", options.run.cluster, launch.cluster);
}

void CarryOut(const Plan& plan, Context& context) {
  Course(plan, context).Run();
}

}  // namespace vkmaster
