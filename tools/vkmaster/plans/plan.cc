#include "tools/vkmaster/plans/plan.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <regex>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "sections/section.h"
#include "tools/vkmaster/commands/registry.h"
#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/usage_error.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {
namespace {

using sections::Section;
using sections::Value;

const char* const kDateForm = "a date is written 2022-01-01";
const char* const kTable = "a table wanted";

void RefuseUnknownKeys(const Section& section) {
  if (const auto unknown = section.Unknown()) {
    unknown->second.Fail("there is no key '" + unknown->first + "' here");
  }
}

// What `read` returns. A UsageError that it throws becomes a complaint about `value`.
template <typename Read>
auto At(const Value& value, const Read& read) {
  try {
    return read();
  } catch (const UsageError& error) {
    value.place().Fail(error.what());
  }
}

// A text, or a number or date as its text: processes = 8 and processes = "8" are both understood.
std::string Text(const Value& value) {
  if (auto text = value.Text()) return *text;
  if (const auto number = value.Integer()) return fmt::format("{}", *number);
  if (const auto number = value.Number()) return fmt::format("{}", *number);
  if (const auto date = value.Date()) {
    return FormatDate({static_cast<int>(static_cast<unsigned>(date->day())),
                       static_cast<int>(static_cast<unsigned>(date->month())),
                       static_cast<int>(date->year())});
  }
  if (value.HasTime()) value.place().Fail(std::string(kDateForm) + ", without a time");
  value.place().Fail("a text or a number wanted");
}

std::optional<std::string> Text(Section& section, std::string_view key) {
  const auto value = section.Find(key);
  return value ? std::optional(Text(*value)) : std::nullopt;
}

Target TargetOf(const Value& value) {
  // A decimal point tells the day 2022.0 from 2022, which may be a year.
  const bool point = value.Number() && !value.Integer();
  return At(value, [&] {
    return ParseTarget(point ? fmt::format("{:#}", *value.Number()) : Text(value));
  });
}

void CheckLowest(Section& section, const char* key, std::int64_t lowest) {
  const auto value = section.Find(key);
  if (!value) return;
  const std::string text = Text(*value);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number >= lowest) return;
  value->place().Fail(fmt::format("a number from {} up", lowest));
}

Plan::Launch ReadLaunch(Section section) {
  Plan::Launch launch;
  for (const char* key : {"host", "path", "root", "processes", "api", "user", "debug", "cluster"}) {
    if (const auto text = Text(section, key)) launch.texts.emplace(key, *text);
  }
  CheckLowest(section, "processes", 1);
  CheckLowest(section, "cluster", 0);
  if (const auto port = section.Find("port")) {
    const auto number = port->Integer();
    if (!number || *number < 1 || *number > 65535) {
      port->place().Fail("a port is a number 1 to 65535");
    }
    launch.port = static_cast<int>(*number);
  }
  RefuseUnknownKeys(section);
  return launch;
}

void ReadAdvance(Section section, Plan& plan) {
  const auto until = section.Find("until");
  const auto step = section.Find("step");
  RefuseUnknownKeys(section);
  if (!until) section.place().Fail("[advance] has no until");
  plan.until = TargetOf(*until);
  if (plan.until.kind == Target::Kind::kDays && plan.until.days < kSameTime) {
    until->place().Fail("the plan would end where the run begins");
  }
  if (step) plan.step = At(*step, [&] { return ParseStep(Text(*step)); });
}

// The plan itself says how far the run goes and when it ends.
void CheckAllowed(const Value& value, const Command& command) {
  const std::string& name = command.words.front();
  for (const char* own : {"connect", "first-step", "until", "every", "shutdown", "quit", "help"}) {
    if (name == own) value.place().Fail("'" + name + "' has no place in a plan");
  }
}

bool IsIn(const std::string& word, const Words& words) {
  return std::count(words.begin(), words.end(), word) > 0;
}

// Records are for looking on. Inflow tables at every stop would change what the next stop records.
void RefuseChange(const Value& value, const Command& command) {
  const Words& words = command.words;
  if (command.sets) {
    value.place().Fail("'" + words.front() +
                       "' in [record] would change the run at every stop: give it to an [[event]]");
  }
  if (words.front() == "ipr" && !IsIn("lift", words)) {
    value.place().Fail(
        "ipr in [record] would open and cut back the wells at every stop, and lift limits of the "
        "model: give it to an [[event]], or say lift");
  }
}

bool IsOfAllWells(const Words& words) {
  return words.size() == 1 || (words.size() == 2 && words[1] == "all");
}

// Nor would the sums over a table be right whose rows are there twice.
void RefuseRepetition(const Value& value, const std::vector<Command>& earlier,
                      const Command& command) {
  const Words& words = command.words;
  for (const Command& one : earlier) {
    const Words& others = one.words;
    const bool all_wells = IsOfAllWells(words) || IsOfAllWells(others);
    if (words == others || (words.front() == others.front() && all_wells)) {
      value.place().Fail("'" + command.text + "' in [record] writes rows that '" + one.text +
                         "' writes, too: one of them is enough");
    }
  }
}

std::vector<Command> ReadCommands(const Value& value, bool record) {
  std::vector<Command> commands;
  for (const Value& line : value.List("a list of commands wanted")) {
    const auto text = line.Text();
    if (!text) line.place().Fail("a command wanted, as a text");
    for (Command& command : At(line, [&] { return ParseCommands(SplitWords(*text)); })) {
      CheckAllowed(line, command);
      if (record) {
        RefuseChange(line, command);
        RefuseRepetition(line, commands, command);
      }
      commands.push_back(std::move(command));
    }
  }
  return commands;
}

void ReadRecord(Section section, Plan& plan) {
  plan.directory = Text(section, "directory").value_or(plan.directory);
  if (const auto commands = section.Find("commands")) {
    plan.record = ReadCommands(*commands, true);
  }
  RefuseUnknownKeys(section);
}

PlanEvent ReadEvent(Section section, const Target& until) {
  const auto at = section.Find("at");
  const auto commands = section.Find("commands");
  RefuseUnknownKeys(section);
  if (!at || !commands) section.place().Fail("an event has at and commands");
  PlanEvent event{TargetOf(*at), ReadCommands(*commands, false)};
  if (event.at.kind == Target::Kind::kRelative) at->place().Fail("days or a date wanted");
  const auto left = DaysBetween(event.at, until);
  if (left && *left < 0) {
    at->place().Fail(fmt::format("{} is after the end of the plan, {}", FormatTarget(event.at),
                                 FormatTarget(until)));
  }
  return event;
}

// Days and dates cannot be compared before the run has said when it starts.
bool AreOfOneKind(const std::vector<PlanEvent>& events) {
  return std::all_of(events.begin(), events.end(), [&events](const PlanEvent& event) {
    return event.at.kind == events[0].at.kind;
  });
}

// The limits of a model cannot be asked for. Where no earlier command of the plan sets any, an ipr
// that does not say what becomes of them is sure to be refused. Whether limits have been set on the
// right wells only the run can say.
void RefuseBareInflowTables(const Plan& plan) {
  bool limits = false;
  for (const PlanEvent& event : plan.events) {
    for (const Command& command : event.commands) {
      const Words& words = command.words;
      limits |= IsIn(words.front(), {"constrain", "unconstrain"});
      if (limits || words.front() != "ipr") continue;
      if (IsIn("lift", words) || IsIn("keep", words) || IsIn("--keep", words)) continue;
      throw UsageError(
          fmt::format("{}: {}, {}: The tables would lift the rate limits of the model. Set or take "
                      "off limits before, or say lift or keep",
                      plan.file, FormatTarget(event.at), command.text));
    }
  }
}

Plan ReadTop(Section top, const std::string& file) {
  const auto title = Text(top, "title");
  const auto launch = top.Find("launch");
  const auto advance = top.Find("advance");
  const auto record = top.Find("record");
  const auto events = top.Find("event");
  RefuseUnknownKeys(top);
  Plan plan;
  plan.file = file;
  plan.title = title.value_or("");
  if (launch) plan.launch = ReadLaunch(launch->Table(kTable));
  if (!advance) throw UsageError(file + ": the table [advance] is missing");
  ReadAdvance(advance->Table(kTable), plan);
  plan.directory = "results";
  if (record) ReadRecord(record->Table(kTable), plan);
  // The results lie beside the plan, wherever the program was started.
  plan.directory = (PathOf(file).parent_path() / PathOf(plan.directory)).string();
  if (!events) return plan;
  for (const Value& event : events->List("events are written as [[event]]")) {
    plan.events.push_back(ReadEvent(event.Table(kTable), plan.until));
  }
  if (!AreOfOneKind(plan.events)) return plan;
  std::stable_sort(
      plan.events.begin(), plan.events.end(),
      [](const PlanEvent& a, const PlanEvent& b) { return DaysBetween(a.at, b.at) > 0; });
  RefuseBareInflowTables(plan);
  return plan;
}

// Whether the line gives a date in another form, such as 01.01.2022. TOML takes that for a number,
// and its complaint would be about the number.
bool HasOtherDate(const sections::Place& place) {
  static const std::regex kOther(R"([^=]*=\s*(\d{1,2}[./-]\d{1,2}[./-]\d{2,4}|)"
                                 R"(\d{4}([./]\d{1,2}[./]\d{1,2}|-\d-\d{1,2}|-\d\d-\d))\s*(#.*)?)");
  std::ifstream lines(PathOf(place.file), std::ios::binary);
  std::string line;
  for (std::uint32_t i = 0; i < place.line; ++i) std::getline(lines, line);
  while (!line.empty() && line.back() == '\r') line.pop_back();
  return std::regex_match(line, kOther);
}

}  // namespace

std::string TextOf(const std::vector<Command>& commands) {
  std::string text;
  for (const Command& command : commands) text += (text.empty() ? "" : "; ") + command.text;
  return text;
}

std::string NoteOfNothing(const Plan& plan) {
  const auto asks = [](const PlanEvent& event) {
    return std::any_of(event.commands.begin(), event.commands.end(),
                       [](const Command& command) { return !command.sets; });
  };
  if (!plan.record.empty() || std::any_of(plan.events.begin(), plan.events.end(), asks)) return "";
  return "The plan records nothing but its stops: [record] has no commands, such as data or field";
}

Result Preview(const Plan& plan) {
  Result result{.command = "check"};
  const auto add = [&result](const char* key, const char* label, const std::string& value) {
    if (!value.empty()) result.fields.push_back({key, label, value, ""});
  };
  add("plan", "plan", plan.file);
  add("title", "title", plan.title);
  for (const auto& [name, text] : plan.launch.texts) add(name.c_str(), name.c_str(), text);
  if (plan.launch.port) add("port", "port", fmt::format("{}", *plan.launch.port));
  add("until", "until", FormatTarget(plan.until));
  add("step", "steps", plan.step ? FormatStep(*plan.step) : "from event to event");
  add("record", "at every stop", TextOf(plan.record));
  add("directory", "results in", plan.directory);
  Table table{"course", "", {{"at", "at", ""}, {"does", "does", ""}}, {}};
  table.rows.push_back({"start", plan.record.empty() ? "begins" : "begins, records"});
  for (const PlanEvent& event : plan.events) {
    table.rows.push_back({FormatTarget(event.at), TextOf(event.commands)});
  }
  table.rows.push_back({FormatTarget(plan.until), plan.record.empty() ? "ends" : "records, ends"});
  result.tables.push_back(std::move(table));
  const auto note_year = [&result](const Target& target) {
    if (!MayBeYear(target)) return;
    result.notes.push_back(fmt::format(
        "{0} may be a year or a day, and is refused when it is a year of the run, before its first "
        "step: write {0}-01-01 for the year, {0}.0 for the day",
        target.days));
  };
  for (const PlanEvent& event : plan.events) note_year(event.at);
  note_year(plan.until);
  for (const PlanEvent& event : plan.events) {
    if (DaysBetween(event.at, plan.until)) continue;
    result.notes.emplace_back(
        "The plan has days and dates: which of them comes first is known when the run has started, "
        "and checked before its first step");
    break;
  }
  const std::string nothing = NoteOfNothing(plan);
  if (!nothing.empty()) result.notes.push_back(nothing);
  return result;
}

Plan ReadPlan(const std::string& file) {
  try {
    return ReadTop(Section::ReadFile(file), file);
  } catch (const sections::Error& error) {
    const std::string complaint = HasOtherDate(error.place()) ? kDateForm : error.what();
    throw UsageError(fmt::format("{}, line {}: {}", file, error.place().line, complaint));
  }
}

}  // namespace vkmaster
