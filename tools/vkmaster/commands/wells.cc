#include "tools/vkmaster/commands/wells.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include <fmt/format.h>

#include "master/errors.h"
#include "net/master_link.h"
#include "tools/vkmaster/session/quantities.h"
#include "tools/vkmaster/session/units.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

Words OrAll(const Words& arguments) {
  return arguments.empty() ? Words{"all"} : arguments;
}

Result WellsResult(Session& session, const Words& patterns) {
  std::map<std::string, master::WellStatus> by_name;
  for (master::WellStatus& well : session.Wells()) by_name.emplace(well.name, well);
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
  for (std::size_t i = 0; i < records.size(); ++i) {
    const master::WellData& data = records[i];
    table.rows.push_back({names[i], data.status, data.oil_rate, data.water_rate, data.gas_rate,
                          data.water_injection_rate, data.gas_injection_rate,
                          data.bottom_hole_pressure, data.tubing_head_pressure,
                          data.uptime_fraction});
  }
  return {.command = "data", .tables = {std::move(table)}};
}

Result VarsResult(Session& session, const Words& patterns,
                  const std::vector<std::string>& properties) {
  const std::vector<std::string> wells = session.Resolve(patterns);
  const Units& units = UnitsOf(session.Metric());
  Table table{"wells", "", {{"well", "well", ""}}, {}};
  for (const std::string& property : properties) {
    table.columns.push_back({property, ShortName(property), UnitOf(property, units)});
  }
  for (const std::string& well : wells) {
    const std::vector<double> values = session.run().GetWellVariables(well, properties);
    if (values.size() != properties.size()) {
      throw master::ProtocolError(fmt::format("Bad answer to {}: {} values for {} names",
                                              master::NameOf(master::Code::kGetWellVariables),
                                              values.size(), properties.size()));
    }
    table.rows.push_back({well});
    for (const double value : values) table.rows.back().emplace_back(value);
  }
  return {.command = "vars", .tables = {std::move(table)}};
}

Table SameForAll(const Words& wells, const Column& column, const Value& value) {
  Table table{"wells", "", {{"well", "well", ""}, column}, {}};
  for (const std::string& well : wells) table.rows.push_back({well, value});
  return table;
}

Result StatusResult(Session& session, const std::string& command, const std::string& status,
                    const Words& patterns) {
  const std::vector<std::string> wells = session.Resolve(patterns);
  SetStatuses(session, wells, std::vector<std::string>(wells.size(), status));
  return {.command = command,
          .tables = {SameForAll(wells, {"status", "status asked for", ""}, status)}};
}

Result UptimeResult(Session& session, const Words& patterns, double fraction) {
  const std::vector<std::string> wells = session.Resolve(patterns);
  for (const auto& part : Parts(wells, 12, 8)) {
    session.run().SetWellUptime(part, std::vector<double>(part.size(), fraction));
  }
  return {.command = "uptime",
          .tables = {SameForAll(wells, {"uptime_fraction", "uptime", ""}, fraction)}};
}

// The constraints by well. Where a well is named twice, the later value of a constraint counts.
std::vector<master::WellConstraints> Resolved(Session& session,
                                              const std::vector<ConstraintGroup>& groups) {
  std::vector<master::WellConstraints> all;
  std::map<std::string, std::size_t> place;
  for (const ConstraintGroup& group : groups) {
    for (const std::string& well : session.Resolve(group.wells)) {
      const auto [found, fresh] = place.emplace(well, all.size());
      if (fresh) all.push_back({well, {}, {}});
      for (std::size_t i = 0; i < group.names.size(); ++i) {
        SetConstraint(all[found->second], group.names[i], group.values[i]);
      }
    }
  }
  return all;
}

Result ConstrainResult(Session& session, const std::vector<ConstraintGroup>& groups) {
  const std::vector<master::WellConstraints> wells = Resolved(session, groups);
  SetConstraints(session, wells);
  const Units& units = UnitsOf(session.Metric());
  Table table{"constraints",
              "",
              {{"well", "well", ""},
               {"constraint", "constraint", ""},
               {"value", "value", ""},
               {"unit", "unit", ""}},
              {}};
  for (const master::WellConstraints& well : wells) {
    for (std::size_t i = 0; i < well.names.size(); ++i) {
      table.rows.push_back(
          {well.well, well.names[i], well.values[i], UnitOf(well.names[i], units)});
    }
  }
  return {.command = "constrain", .tables = {std::move(table)}};
}

std::size_t SizeOf(const master::WellConstraints& well) {
  std::size_t size = 4 + well.well.size() + 4 + 4 + 8 * well.values.size();
  for (const std::string& name : well.names) size += 4 + name.size();
  return size;
}

}  // namespace

Action ParseWells(const Words& arguments) {
  return Showing([arguments](Session& session) { return WellsResult(session, arguments); });
}

Action ParseData(const Words& arguments) {
  return Showing([arguments](Session& session) { return DataResult(session, arguments); });
}

Action ParseVars(const Words& arguments) {
  if (arguments.size() < 2) throw UsageError("Of which wells, and what? vars WELLS NAME...");
  std::vector<std::string> properties;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    properties.push_back(PropertyOf(arguments[i]));
  }
  return Showing([wells = Words{arguments[0]}, properties](Session& session) {
    return VarsResult(session, wells, properties);
  });
}

Action ParseStatusOf(const std::string& command, const std::string& status,
                     const Words& arguments) {
  if (arguments.empty()) throw UsageError("Which wells?");
  return Showing([command, status, arguments](Session& session) {
    return StatusResult(session, command, status, arguments);
  });
}

Action ParseSetStatus(const Words& arguments) {
  if (arguments.size() < 2) throw UsageError("Which status, and of which wells? STATUS WELLS");
  return ParseStatusOf("set-status", arguments[0], Words(arguments.begin() + 1, arguments.end()));
}

Action ParseUptime(const Words& arguments) {
  if (arguments.size() < 2) throw UsageError("Of which wells, and how much? uptime WELLS FRACTION");
  const double fraction = ParseNumber(arguments.back(), "A fraction of the time, 0 to 1,");
  if (fraction < 0 || fraction > 1) {
    throw UsageError("A fraction of the time is 0 to 1, not " + arguments.back());
  }
  return Showing([wells = Words(arguments.begin(), arguments.end() - 1),
                  fraction](Session& session) { return UptimeResult(session, wells, fraction); });
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
      groups.back().names.push_back(PropertyOf(word.substr(0, equals)));
      groups.back().values.push_back(
          ParseNumber(word.substr(equals + 1), "A number behind " + word.substr(0, equals + 1)));
    }
  }
  if (groups.empty() || groups.back().names.empty()) {
    throw UsageError("To what? constrain WELLS NAME=VALUE..., for example P1 oil=500 bhp=150");
  }
  return groups;
}

Action ParseConstrain(const Words& arguments) {
  return Showing([groups = ParseConstraints(arguments)](Session& session) {
    return ConstrainResult(session, groups);
  });
}

void SetConstraints(Session& session, const std::vector<master::WellConstraints>& wells) {
  std::vector<master::WellConstraints> part;
  std::size_t size = 16;
  for (const master::WellConstraints& well : wells) {
    if (!part.empty() && size + SizeOf(well) > master_link::kMaxFrame) {
      session.run().SetWellConstraints(part);
      part.clear();
      size = 16;
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
  for (const auto& part : Parts(wells, 12, 4 + longest)) {
    const auto end = next + std::ssize(part);
    session.run().SetWellStatus(part, {next, end});
    next = end;
  }
}

}  // namespace vkmaster
