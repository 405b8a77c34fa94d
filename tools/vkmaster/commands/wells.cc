#include "tools/vkmaster/commands/wells.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "master/errors.h"
#include "net/master_link.h"
#include "tools/vkmaster/session/quantities.h"
#include "tools/vkmaster/session/units.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

// Bytes in front of the two lists of a request: its code and their counts.
constexpr std::size_t kBeforeLists = 12;

// Asks for the list of what a command takes.
const Words kQuestion{"?"};

Words OrAll(const Words& arguments) {
  return arguments.empty() ? Words{"all"} : arguments;
}

Result WellsResult(Session& session, const Words& patterns) {
  WellsByName by_name = ByName(session.Wells());
  Table table{
      "wells", "", {{"well", "well", ""}, {"type", "type", ""}, {"status", "status", ""}}, {}};
  // In a model without wells Resolve() would call "all" a mistake; the list of wells is just empty.
  if (!by_name.empty()) {
    for (const std::string& name : session.Resolve(OrAll(patterns))) {
      table.rows.push_back({name, by_name[name].type, by_name[name].status});
    }
  }
  return {.command = "wells", .tables = {std::move(table)}};
}

Result DataResult(Session& session, const Words& patterns) {
  const std::vector<std::string> names = session.Resolve(OrAll(patterns));
  const Units& units = UnitsOf(session.Metric());
  Table table{"wells",
              "",
              {{"well", "well", ""},
               {"status", "status", ""},
               {"oil_rate", "oil", units.liquid_rate},
               {"water_rate", "water", units.liquid_rate},
               {"gas_rate", "gas", units.gas_rate},
               {"water_injection_rate", "water in", units.liquid_rate},
               {"gas_injection_rate", "gas in", units.gas_rate},
               {"bottom_hole_pressure", "bhp", units.pressure},
               {"tubing_head_pressure", "thp", units.pressure},
               {"uptime_fraction", "uptime", ""}},
              {}};
  const std::vector<master::WellData> records = session.run().GetWellData(names);
  if (session.totals().since && names.size() == session.KnownWells().size()) {
    session.totals().Add(session.last_days(), SumOf(records));
  }
  for (std::size_t i = 0; i < records.size(); ++i) {
    const master::WellData& data = records[i];
    table.rows.push_back({names[i], data.status, data.oil_rate, data.water_rate, data.gas_rate,
                          data.water_injection_rate, data.gas_injection_rate,
                          data.bottom_hole_pressure, data.tubing_head_pressure,
                          data.uptime_fraction});
  }
  return {.command = "data", .tables = {std::move(table)}};
}

// The quantities that are known here, with `limits` those that can be limited.
Result NamesResult(Session& session, const std::string& command, bool limits) {
  const Units& units = UnitsOf(session.Metric());
  Table table{"names",
              "",
              {{"name", "name", ""},
               {"property", "the simulator's name", ""},
               {"unit", "unit", ""},
               {"meaning", "meaning", ""}},
              {}};
  for (const Quantity& quantity : Quantities()) {
    if (limits && quantity.limits == Limits::kNone) continue;
    table.rows.push_back(
        {quantity.name, quantity.property, UnitOf(quantity.property, units), quantity.meaning});
  }
  Result result{.command = command};
  if (!limits && !session.Components().empty()) {
    table.rows.push_back({"", "TOTAL_MOLE_FRACTION[n]", "", "part of component n, from 1 on"});
  }
  result.tables.push_back(std::move(table));
  return result;
}

// The simulator ends a run that is asked for a component it lacks.
void CheckComponent(Session& session, const std::string& property) {
  const int component = ComponentOf(property);
  if (component == 0) return;
  const std::size_t known = session.Components().size();
  if (known == 0) throw UsageError(property + ": the model is black oil and has no components");
  if (static_cast<std::size_t>(component) > known) {
    throw UsageError(fmt::format("{}: the model has {} components", property, known));
  }
}

Result VarsResult(Session& session, const Words& patterns,
                  const std::vector<std::string>& properties) {
  const std::vector<std::string> wells = session.Resolve(patterns);
  const Units& units = UnitsOf(session.Metric());
  Table table{"wells", "", {{"well", "well", ""}}, {}};
  for (const std::string& property : properties) CheckComponent(session, property);
  for (const std::string& property : properties) {
    table.columns.push_back({property, ShortName(property), UnitOf(property, units)});
    if (const int component = ComponentOf(property); component > 0) {
      const std::string& name = session.Components().at(static_cast<std::size_t>(component) - 1);
      table.columns.back().label = "x " + name;
      table.columns.back().recorded = "TOTAL_MOLE_FRACTION[" + name + "]";
    }
  }
  const std::vector<std::vector<double>> values =
      session.run().GetVariablesOfWells(wells, properties);
  for (std::size_t i = 0; i < wells.size(); ++i) {
    if (values[i].size() != properties.size()) {
      throw master::ProtocolError(fmt::format("Bad answer to {}: {} values for {} names",
                                              master::NameOf(master::Code::kGetWellVariables),
                                              values[i].size(), properties.size()));
    }
    table.rows.push_back({wells[i]});
    for (const double value : values[i]) table.rows.back().emplace_back(value);
  }
  return {.command = "vars", .tables = {std::move(table)}};
}

Table SameForAll(const Words& wells, const Column& column, const Value& value) {
  Table table{"wells", "", {{"well", "well", ""}, column}, {}};
  for (const std::string& well : wells) table.rows.push_back({well, value});
  return table;
}

// Values that differ by less than this share of them differ by rounding.
constexpr double kSameValue = 1e-6;

// The simulator acknowledges also what it does not do. `wells` has phrases such as "P1 is SHUT".
void NoteWithoutEffect(const Words& wells, Result& result) {
  if (wells.empty()) return;
  result.notes.push_back("The simulator has acknowledged it, but " + Listed(wells));
  result.lasting = true;
}

Result StatusResult(Session& session, const std::string& command, const std::string& status,
                    const Words& patterns) {
  const std::vector<std::string> wells = session.Resolve(patterns);
  SetStatuses(session, wells, std::vector<std::string>(wells.size(), status));
  Result result{.command = command,
                .tables = {SameForAll(wells, {"status", "status asked for", ""}, status)}};
  const WellsByName now = ByName(session.Wells());
  Words unchanged;
  for (const std::string& well : wells) {
    const auto found = now.find(well);
    if (found != now.end() && found->second.status != status) {
      unchanged.push_back(well + " is " + found->second.status);
    }
  }
  NoteWithoutEffect(unchanged, result);
  return result;
}

Result UptimeResult(Session& session, const Words& patterns, double fraction) {
  const std::vector<std::string> wells = session.Resolve(patterns);
  for (const auto& part : Parts(wells, kBeforeLists, 8)) {
    session.run().SetWellUptime(part, std::vector<double>(part.size(), fraction));
  }
  Result result{.command = "uptime",
                .tables = {SameForAll(wells, {"uptime_fraction", "uptime", ""}, fraction)}};
  const std::vector<master::WellData> now = session.run().GetWellData(wells);
  Words unchanged;
  for (std::size_t i = 0; i < wells.size(); ++i) {
    if (std::abs(now[i].uptime_fraction - fraction) > kSameValue) {
      unchanged.push_back(fmt::format("{} is on for {:.6g}", wells[i], now[i].uptime_fraction));
    }
  }
  NoteWithoutEffect(unchanged, result);
  return result;
}

struct Resolution {
  std::vector<master::WellConstraints> wells;
  std::vector<std::string> notes;
};

// The constraints by well. Where a well is named twice, the later value of a constraint counts. A
// limit that does not concern a well is left out for it, and refused when it concerns none of them.
Resolution Resolved(Session& session, const std::vector<ConstraintGroup>& groups) {
  Resolution all;
  std::map<std::string, std::size_t> place;
  for (const ConstraintGroup& group : groups) {
    const std::vector<std::string> names = session.Resolve(group.wells);
    const WellsByName known = ByName(session.KnownWells());
    for (std::size_t i = 0; i < group.names.size(); ++i) {
      Words others;
      for (const std::string& name : names) {
        const std::string& type = known.at(name).type;
        if (!IsLimitFor(group.names[i], type)) {
          others.push_back(std::string(name).append(" (").append(type).append(")"));
          continue;
        }
        const auto [found, fresh] = place.emplace(name, all.wells.size());
        if (fresh) all.wells.push_back({name, {}, {}});
        SetConstraint(all.wells[found->second], group.names[i], group.values[i]);
      }
      if (others.empty()) continue;
      const std::string what = ShortName(group.names[i]) + " does not limit " + Listed(others);
      if (others.size() == names.size()) throw UsageError(what);
      all.notes.push_back(what + ": left out there");
    }
  }
  return all;
}

bool AnyLater(const std::vector<ConstraintGroup>& groups) {
  return std::any_of(groups.begin(), groups.end(), [](const ConstraintGroup& group) {
    return std::any_of(group.wells.begin(), group.wells.end(), Session::IsLater);
  });
}

double RateOf(const master::WellData& data, const std::string& property) {
  if (property == "OIL_PRODUCTION_RATE") return data.oil_rate;
  if (property == "WATER_PRODUCTION_RATE") return data.water_rate;
  if (property == "LIQUID_PRODUCTION_RATE") return data.oil_rate + data.water_rate;
  if (property == "GAS_PRODUCTION_RATE") return data.gas_rate;
  if (property == "WATER_INJECTION_RATE") return data.water_injection_rate;
  if (property == "GAS_INJECTION_RATE") return data.gas_injection_rate;
  return 0;
}

// Limits hold at once, without a step. A rate beyond its limit shows that the simulator has not
// taken the limit. Pressures do not show that: a well that does not flow may have any.
void NoteRatesBeyond(Session& session, const std::vector<master::WellConstraints>& wells,
                     Result& result) {
  std::vector<std::string> names;
  names.reserve(wells.size());
  for (const master::WellConstraints& well : wells) names.push_back(well.well);
  const std::vector<master::WellData> now = session.run().GetWellData(names);
  Words beyond;
  for (std::size_t i = 0; i < wells.size(); ++i) {
    for (std::size_t k = 0; k < wells[i].names.size(); ++k) {
      const double rate = RateOf(now[i], wells[i].names[k]);
      if (rate <= wells[i].values[k] * (1 + kSameValue) + kSameValue) continue;
      beyond.push_back(
          fmt::format("{} has {} {:.6g}", names[i], ShortName(wells[i].names[k]), rate));
    }
  }
  NoteWithoutEffect(beyond, result);
}

Result ConstrainResult(Session& session, const std::vector<ConstraintGroup>& groups) {
  const Resolution resolved = Resolved(session, groups);
  SetConstraints(session, resolved.wells);
  const Units& units = UnitsOf(session.Metric());
  Table table{"constraints",
              "",
              {{"well", "well", ""},
               {"constraint", "constraint", ""},
               {"value", "value", ""},
               {"unit", "unit", ""}},
              {}};
  for (const master::WellConstraints& well : resolved.wells) {
    for (std::size_t i = 0; i < well.names.size(); ++i) {
      table.rows.push_back(
          {well.well, well.names[i], well.values[i], UnitOf(well.names[i], units)});
    }
  }
  Result result{.command = "constrain", .tables = {std::move(table)}, .notes = resolved.notes};
  NoteRatesBeyond(session, resolved.wells, result);
  return result;
}

// Whether `read` takes the word for a name.
bool IsRead(std::string (*read)(const std::string&), const std::string& word) {
  try {
    read(word);
    return true;
  } catch (const UsageError&) {
    return false;
  }
}

// The limits that this session has set on the well, with `planned` also those that it will set,
// without those that NoLimit() has put out of reach.
Words LimitsInForce(Session& session, const std::string& well, const std::string& type,
                    bool planned) {
  const master::WellConstraints known = session.Remembered(well, planned);
  if (session.cut_back().contains(well)) return known.names;
  const bool metric = session.Metric();
  Words names;
  for (std::size_t i = 0; i < known.names.size(); ++i) {
    if (known.values[i] != NoLimit(known.names[i], type, metric)) names.push_back(known.names[i]);
  }
  return names;
}

// The constraints that take the limits `names` off the wells; without names, all that are in force.
std::vector<master::WellConstraints> FreeLimits(Session& session, const Words& patterns,
                                                const Words& names, bool planned) {
  const Words wells = session.Resolve(patterns);
  const WellsByName known = ByName(session.KnownWells());
  std::vector<master::WellConstraints> free;
  for (const std::string& well : wells) {
    const std::string& type = known.at(well).type;
    master::WellConstraints limits{well, {}, {}};
    for (const std::string& name :
         names.empty() ? LimitsInForce(session, well, type, planned) : names) {
      if (!IsLimitFor(name, type)) continue;
      SetConstraint(limits, name, NoLimit(name, type, session.Metric()));
    }
    if (!limits.names.empty()) free.push_back(std::move(limits));
  }
  if (free.empty()) {
    throw UsageError(names.empty()
                         ? "No limit of this session is in force; name those of the model, for "
                           "example unconstrain P1 oil bhp"
                         : "These limits do not concern these wells");
  }
  return free;
}

Result UnconstrainResult(Session& session, const Words& patterns, const Words& names) {
  const auto free = FreeLimits(session, patterns, names, false);
  SetConstraints(session, free);
  Table table{
      "constraints", "", {{"well", "well", ""}, {"constraint", "constraint taken off", ""}}, {}};
  for (const master::WellConstraints& well : free) {
    session.cut_back().erase(well.well);
    for (const std::string& name : well.names) table.rows.push_back({well.well, name});
  }
  Result result{.command = "unconstrain", .tables = {std::move(table)}};
  result.notes.emplace_back(
      "No limit of these kinds is in force on these wells now: one that the model had is gone, "
      "too");
  return result;
}

bool IsProperty(const std::string& word) {
  return IsRead(PropertyOf, word);
}

std::size_t SizeOf(const master::WellConstraints& well) {
  std::size_t size = 4 + well.well.size() + 4 + 4 + 8 * well.values.size();
  for (const std::string& name : well.names) size += 4 + name.size();
  return size;
}

}  // namespace

std::string Listed(const Words& words) {
  constexpr std::size_t kMostNamed = 5;
  std::string text;
  for (std::size_t i = 0; i < std::min(words.size(), kMostNamed); ++i) {
    text += (i > 0 ? ", " : "") + words[i];
  }
  if (words.size() > kMostNamed) text += fmt::format(" and {} more", words.size() - kMostNamed);
  return text;
}

double NoLimit(const std::string& property, const std::string& well_type, bool metric) {
  // The daemon begins its inflow tables with the same limits: 100,000 in field units, and in metric
  // runs that times these factors.
  constexpr double kFreeRate = 100000;
  constexpr double kMetricLiquid = 0.158987;
  constexpr double kMetricGas = 28174;
  if (property == "GAS_PRODUCTION_RATE" || property == "GAS_INJECTION_RATE") {
    return kFreeRate * (metric ? kMetricGas : 1);
  }
  if (property == "BOTTOM_HOLE_PRESSURE" || property == "TUBING_HEAD_PRESSURE") {
    // The least that a producer and the most that an injector may have.
    return well_type == "PRODUCER" ? 0 : 100000;
  }
  return kFreeRate * (metric ? kMetricLiquid : 1);
}

WellsByName ByName(const std::vector<master::WellStatus>& wells) {
  WellsByName by_name;
  for (const master::WellStatus& well : wells) by_name.emplace(well.name, well);
  return by_name;
}

Parsed ParseWells(const Words& arguments) {
  return Showing([arguments](Session& session) { return WellsResult(session, arguments); },
                 WellsExist(arguments));
}

Parsed ParseData(const Words& arguments) {
  return Showing([arguments](Session& session) { return DataResult(session, arguments); },
                 WellsExist(arguments));
}

Parsed ParseVars(const Words& arguments) {
  if (arguments == kQuestion) {
    return Showing([](Session& session) { return NamesResult(session, "vars", false); });
  }
  if (arguments.size() < 2) throw UsageError("Of which wells, and what? vars WELLS NAME...");
  // Names come last; a well may be called like one only in first place.
  auto first = std::find_if(arguments.begin() + 1, arguments.end(), IsProperty);
  if (first == arguments.end()) first = arguments.begin() + 1;
  const Words wells(arguments.begin(), first);
  std::vector<std::string> properties;
  std::transform(first, arguments.end(), std::back_inserter(properties), PropertyOf);
  return Showing(
      [wells, properties](Session& session) { return VarsResult(session, wells, properties); },
      [wells, properties](Session& session) {
        session.CheckWells(wells);
        for (const std::string& property : properties) CheckComponent(session, property);
      });
}

Parsed ParseStatusOf(const std::string& command, const std::string& status,
                     const Words& arguments) {
  if (arguments.empty()) throw UsageError("Which wells?");
  return Showing(
      [command, status, arguments](Session& session) {
        return StatusResult(session, command, status, arguments);
      },
      WellsExist(arguments));
}

Parsed ParseSetStatus(const Words& arguments) {
  if (arguments == kQuestion) {
    return Showing([](Session& /*session*/) {
      Table table{"names", "", {{"status", "status", ""}}, {}};
      for (const std::string& status : Statuses()) table.rows.push_back({status});
      return Result{.command = "set-status", .tables = {std::move(table)}};
    });
  }
  if (arguments.size() < 2) throw UsageError("Which status, and of which wells? STATUS WELLS");
  return ParseStatusOf("set-status", StatusOf(arguments[0]),
                       Words(arguments.begin() + 1, arguments.end()));
}

Parsed ParseUptime(const Words& arguments) {
  if (arguments.size() < 2) throw UsageError("Of which wells, and how much? uptime WELLS FRACTION");
  const double fraction = ParseNumber(arguments.back(), "A fraction of the time, 0 to 1,");
  if (fraction < 0 || fraction > 1) {
    throw UsageError("A fraction of the time is 0 to 1, not " + arguments.back());
  }
  const Words wells(arguments.begin(), arguments.end() - 1);
  return Showing(
      [wells, fraction](Session& session) { return UptimeResult(session, wells, fraction); },
      WellsExist(wells));
}

std::vector<ConstraintGroup> ParseConstraints(const Words& arguments) {
  std::vector<ConstraintGroup> groups;
  for (const std::string& word : arguments) {
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos) {
      if (groups.empty() || !groups.back().names.empty()) groups.emplace_back();
      groups.back().wells.push_back(word);
    } else {
      if (groups.empty()) throw UsageError("'" + word + "': of which well?");
      if (equals == 0 || equals + 1 == word.size()) {
        throw UsageError("'" + word + "': no blanks around =, as in P1 oil=500");
      }
      const std::string name = ConstraintOf(word.substr(0, equals));
      const Words& before = groups.back().names;
      if (std::find(before.begin(), before.end(), name) != before.end()) {
        throw UsageError(fmt::format("'{}': {} stands twice for the same wells", word, name));
      }
      groups.back().names.push_back(name);
      const double value =
          ParseNumber(word.substr(equals + 1), "A number after " + word.substr(0, equals + 1));
      if (value < 0 && !IsMarked(word)) {
        throw UsageError("'" + word + "': no limit is below 0");
      }
      groups.back().values.push_back(value);
    }
  }
  if (groups.empty() || groups.back().names.empty()) {
    throw UsageError("To what? constrain WELLS NAME=VALUE..., for example P1 oil=500 bhp=150");
  }
  return groups;
}

Parsed ParseConstrain(const Words& arguments) {
  if (arguments == kQuestion) {
    return Showing([](Session& session) { return NamesResult(session, "constrain", true); });
  }
  const std::vector<ConstraintGroup> groups = ParseConstraints(arguments);
  return Showing([groups](Session& session) { return ConstrainResult(session, groups); },
                 [groups](Session& session) {
                   for (const ConstraintGroup& group : groups) session.CheckWells(group.wells);
                   if (AnyLater(groups)) return;
                   for (const auto& well : Resolved(session, groups).wells) session.Plan(well);
                 });
}

Parsed ParseUnconstrain(const Words& arguments) {
  Words wells;
  Words names;
  for (const std::string& word : arguments) {
    // Names come last; a well may be called like one only in first place.
    const bool known = !wells.empty() && IsRead(ConstraintOf, word);
    if (known) {
      names.push_back(ConstraintOf(word));
    } else if (names.empty()) {
      wells.push_back(word);
    } else {
      throw UsageError("'" + word + "' comes after the names: unconstrain WELLS [NAME...]");
    }
  }
  if (wells.empty()) throw UsageError("Of which wells? unconstrain WELLS [NAME...]");
  return Showing(
      [wells, names](Session& session) { return UnconstrainResult(session, wells, names); },
      [wells, names](Session& session) {
        session.CheckWells(wells);
        if (std::any_of(wells.begin(), wells.end(), Session::IsLater)) return;
        for (const auto& well : FreeLimits(session, wells, names, true)) session.Plan(well);
      });
}

void SetConstraints(Session& session, const std::vector<master::WellConstraints>& wells) {
  std::vector<master::WellConstraints> part;
  constexpr std::size_t kHead = 16;  // the request's code and three counts
  std::size_t size = kHead;
  for (const master::WellConstraints& well : wells) {
    if (!part.empty() && size + SizeOf(well) > master_link::kMaxFrame) {
      session.run().SetWellConstraints(part);
      part.clear();
      size = kHead;
    }
    size += SizeOf(well);
    part.push_back(well);
  }
  session.run().SetWellConstraints(part);
  for (const master::WellConstraints& well : wells) session.Remember(well);
}

void SetStatuses(Session& session, const std::vector<std::string>& wells,
                 const std::vector<std::string>& statuses) {
  std::size_t longest = 0;
  for (const std::string& status : statuses) longest = std::max(longest, status.size());
  auto next = statuses.begin();
  for (const auto& part : Parts(wells, kBeforeLists, 4 + longest)) {
    const auto end = next + std::ssize(part);
    session.run().SetWellStatus(part, {next, end});
    next = end;
  }
}

}  // namespace vkmaster
