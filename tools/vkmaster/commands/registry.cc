#include "tools/vkmaster/commands/registry.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

#include <fmt/format.h>

#include "tools/vkmaster/commands/advance.h"
#include "tools/vkmaster/commands/fluid.h"
#include "tools/vkmaster/commands/ipr.h"
#include "tools/vkmaster/commands/wells.h"
#include "tools/vkmaster/session/units.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

using Parser = std::function<Parsed(const Words&)>;

struct Entry {
  CommandHelp help;
  Parser parse;
  bool needs_run = true;
  bool sets = false;  // its whole purpose is to set something of the run
};

void RefuseArguments(const Words& arguments) {
  if (!arguments.empty()) throw UsageError("'" + arguments[0] + "': it takes no arguments");
}

// The parser of a command without arguments, whose result `make` gives.
Parser Plain(std::function<Result(Session&)> make) {
  return [make = std::move(make)](const Words& arguments) {
    RefuseArguments(arguments);
    return Showing(make);
  };
}

Result One(const std::string& command, Field field) {
  return {.command = command, .fields = {std::move(field)}};
}

// A second connect or first-step gets a note: a failure would end the run.
Result Connected(Session& session) {
  const bool before = session.connected() && !session.shut_down();
  if (!before) session.Connect();
  Result result =
      One("connect", {"simulator_host", "simulator on", session.launched().simulator_host, ""});
  if (before) result.notes.emplace_back("The daemon was connected to the simulator already");
  return result;
}

Result FirstStep(Session& session) {
  const bool before = session.first_step_done();
  if (!before) session.FirstStep();
  Result result = One("first-step", {"time_days", "day", session.TimeDays(), ""});
  if (before) result.notes.emplace_back("The first time step was taken already");
  return result;
}

Result Shutdown(Session& session) {
  session.Shutdown();
  return One("shutdown", {"shut_down", "shut down", true, ""});
}

Result Status(Session& session) {
  const Launched& launched = session.launched();
  master::Run& run = session.run();
  Result result{.command = "status"};
  const auto add = [&result](const char* key, const char* label, Value value,
                             const char* unit = "") {
    result.fields.push_back({key, label, std::move(value), unit});
  };
  add("daemon", "daemon", fmt::format("{}:{}", launched.daemon_host, launched.daemon_port));
  add("daemon_version", "protocol version", launched.daemon_version);
  add("path", "data path", launched.request.path);
  add("root", "model", launched.request.root);
  add("simulator_host", "simulator on", launched.simulator_host);
  add("interface", "version asked for", launched.request.version);
  add("version", "simulator version", run.GetVersion());
  add("unit_system", "unit system", UnitsOf(session.Metric()).system);
  add("compositional", "compositional", run.GetCompFlag());
  add("start_date", "start date", FormatDate(session.StartDate()));
  add("date", "date", FormatDate(run.GetDate()));
  add("time_days", "time", session.TimeDays(), "days");
  add("ended", "ended", session.Ended());
  const std::vector<master::WellStatus> wells = session.Wells();
  add("wells", "wells", static_cast<std::int64_t>(wells.size()));
  add("open_wells", "open wells",
      std::int64_t{std::count_if(wells.begin(), wells.end(),
                                 [](const auto& well) { return well.status == "OPEN"; })});
  return result;
}

Parsed ParseHelp(const Words& arguments) {
  const std::string name = arguments.empty() ? "" : arguments[0];
  const std::string text = HelpText(name);
  return {[text](Context& context) { context.output.Note(text); }};
}

Parsed ParseQuit(const Words& arguments) {
  RefuseArguments(arguments);
  return {[](Context& context) { context.quit = true; }};
}

Parsed Advancing(const AdvanceRequest& request) {
  return {[request](Context& context) { Advance(context, request); },
          [request](Session& session) { RefuseYear(request.target, session); }, request.target};
}

std::vector<Entry> MakeEntries() {
  return {
      {{"connect", "", "connect the daemon to the simulator; done at the start unless told not to"},
       Plain(Connected)},
      {{"status", "", "overview of the run: hosts, version, units, dates, time, wells"},
       Plain(Status)},
      {{"version", "", "version of the simulator"}, Plain([](Session& session) {
         return One("version", {"version", "simulator version", session.run().GetVersion(), ""});
       })},
      {{"units", "", "unit system of the run: metric or field"}, Plain([](Session& session) {
         return One("units", {"units", "unit system", UnitsOf(session.Metric()).system, ""});
       })},
      {{"compositional", "", "whether the fluid model is compositional"},
       Plain([](Session& session) {
         return One("compositional",
                    {"compositional", "compositional", session.run().GetCompFlag(), ""});
       })},
      {{"start-date", "", "date at which the simulation begins"}, Plain([](Session& session) {
         return One("start-date",
                    {"start_date", "start date", FormatDate(session.StartDate()), ""});
       })},
      {{"date", "", "simulated date"}, Plain([](Session& session) {
         return One("date", {"date", "date", FormatDate(session.run().GetDate()), ""});
       })},
      {{"time", "", "simulated time in days since the start"}, Plain([](Session& session) {
         return One("time", {"time_days", "time", session.TimeDays(), "days"});
       })},
      {{"ended", "", "whether the simulation has come to its end"}, Plain([](Session& session) {
         return One("ended", {"ended", "ended", session.Ended(), ""});
       })},
      {{"first-step", "", "to the first time step; until does it when it has not been done"},
       Plain(FirstStep)},
      {{"until", "TARGET [step STEP] [rates]",
        "run to day 3650, by +30 days or to date 2030-01-31; with step (days, daily, weekly, "
        "monthly, quarterly, yearly) a row for each; with rates the sums over all wells"},
       [](const Words& arguments) { return Advancing(ParseUntil(arguments)); }},
      {{"every", "STEP until TARGET [rates]", "the same with the step first"},
       [](const Words& arguments) { return Advancing(ParseEvery(arguments)); }},
      {{"wells", "[WELLS]", "wells with their type and status"}, ParseWells},
      {{"data", "[WELLS]", "operating points: rates, pressures, uptime"}, ParseData},
      {{"field", "",
        "sums over all wells, and totals: the rates that were read times the days since those "
        "before"},
       Plain(FieldResult)},
      {{"vars", "WELLS NAME... | ?",
        "properties of wells: oil, bhp, ... or the simulator's names; ? lists them with units"},
       ParseVars},
      {{"open", "WELLS", "open wells"},
       [](const Words& arguments) { return ParseStatusOf("open", "OPEN", arguments); },
       true,
       true},
      {{"shut", "WELLS", "shut wells"},
       [](const Words& arguments) { return ParseStatusOf("shut", "SHUT", arguments); },
       true,
       true},
      {{"set-status", "STATUS WELLS", "OPEN, SHUT, or as-is:NAME for another status"},
       ParseSetStatus,
       true,
       true},
      {{"uptime", "WELLS FRACTION", "the fraction of the time that wells are on"},
       ParseUptime,
       true,
       true},
      {{"constrain", "WELLS NAME=VALUE...",
        "limit rates and pressures, in the run's units: constrain P1 P2 oil=500 bhp=150 P3 "
        "gas=1e5; constrain ? lists what can be limited"},
       ParseConstrain,
       true,
       true},
      {{"unconstrain", "WELLS [NAME...]",
        "take limits off: those named, or all that were set in this session"},
       ParseUnconstrain,
       true,
       true},
      {{"ipr", "WELLS [bhp|thp] [skewness X] [components N|all] [lift|keep] [no-plot]",
        "inflow tables of ten points, which cut the wells back; lift lifts the rate limits that "
        "the model has, which nobody can read, and keep leaves the wells cut back"},
       ParseIPR},
      {{"eos", "", "equation of state: components and their properties"}, Plain(EOSResult)},
      {{"source", "WELL SOURCE", "attach an external gas source to a well"},
       ParseSource,
       true,
       true},
      {{"composition", "SOURCE FRACTION... | SOURCE NAME=FRACTION... [anyway]",
        "mole fractions of an external source, in component order or by component"},
       ParseComposition,
       true,
       true},
      {{"shutdown", "", "shut the simulator down and end the run"}, Plain(Shutdown)},
      {{"help", "[COMMAND]", "this text"}, ParseHelp, false},
      {{"quit", "", "leave, also exit and close; the run is shut down unless --leave was given"},
       ParseQuit},
  };
}

const std::vector<Entry>& Entries() {
  static const std::vector<Entry> kEntries = MakeEntries();
  return kEntries;
}

const Entry& EntryOf(const std::string& name) {
  std::vector<std::string> names;
  for (const Entry& entry : Entries()) {
    if (entry.help.name == name) return entry;
    names.push_back(entry.help.name);
  }
  const std::string alike = MaybeMeant(name, names);
  if (name.starts_with('-')) {
    throw UsageError("No such option: " + name + " (vkmaster --help lists them)");
  }
  throw UsageError("No such command: " + name +
                   (alike.empty() ? " (the command help lists them)" : alike));
}

std::string HelpLine(const CommandHelp& help) {
  const std::string head = "  " + help.name + (help.arguments.empty() ? "" : " " + help.arguments);
  return head.size() < 26 ? fmt::format("{:<26}{}\n", head, help.help)
                          : fmt::format("{}\n{:<26}{}\n", head, "", help.help);
}

}  // namespace

const std::vector<CommandHelp>& CommandList() {
  static const std::vector<CommandHelp> kList = [] {
    std::vector<CommandHelp> all;
    for (const Entry& entry : Entries()) all.push_back(entry.help);
    return all;
  }();
  return kList;
}

std::string HelpText(const std::string& name) {
  if (!name.empty()) return HelpLine(EntryOf(name).help);
  std::string text = "Commands:\n";
  for (const CommandHelp& help : CommandList()) text += HelpLine(help);
  return text + "Several commands are separated by then, or by a comma or semicolon of its own.\n";
}

Command ParseCommand(const Words& words) {
  // Other prompts have these words for quit. "close P1" is a wish to shut a well, not to leave.
  if (words == Words{"exit"} || words == Words{"close"}) return ParseCommand({"quit"});
  const Entry& entry = EntryOf(words.at(0));
  try {
    Parsed parsed = entry.parse(Words(words.begin() + 1, words.end()));
    return {Join(words),
            std::move(parsed.execute),
            entry.needs_run,
            std::move(parsed.check),
            parsed.target,
            entry.sets,
            words};
  } catch (const UsageError& error) {
    throw UsageError(words[0] + ": " + error.what());
  }
}

std::vector<Command> ParseCommands(const Words& words) {
  std::vector<Command> commands;
  for (const Words& command : SplitCommands(words)) commands.push_back(ParseCommand(command));
  return commands;
}

}  // namespace vkmaster
