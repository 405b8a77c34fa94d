#include "tools/vkmaster/commands/ipr.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "tools/vkmaster/commands/wells.h"
#include "tools/vkmaster/output/plot.h"
#include "tools/vkmaster/session/quantities.h"
#include "tools/vkmaster/session/units.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

constexpr int kMostComponents = 100000;  // the daemon refuses more
constexpr std::size_t kMostPlots = 4;

// The rate limits that the tables overwrite on a well of this type.
Words RatesOf(const std::string& type) {
  if (type == "PRODUCER") return {"LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"};
  if (type == "WATER_INJECTOR") return {"WATER_INJECTION_RATE"};
  return {"GAS_INJECTION_RATE"};
}

// The constraints that lift the limits that the tables have set on the well.
master::WellConstraints FreeRates(const master::WellStatus& well, bool metric) {
  master::WellConstraints free{well.name, RatesOf(well.type), {}};
  for (const std::string& rate : free.names) {
    free.values.push_back(NoLimit(rate, well.type, metric));
  }
  return free;
}

// A well on which the tables would lift, for good, rate limits that this session does not know.
struct Lifted {
  std::string well;
  Words rates;   // by their short names
  Words others;  // limits of other rates that were set in this session
};

std::vector<Lifted> LiftedFor(const Session& session, const Words& names, const WellsByName& wells,
                              bool planned) {
  std::vector<Lifted> all;
  for (const std::string& name : names) {
    const std::string& type = wells.at(name).type;
    const Words overwritten = RatesOf(type);
    Lifted lifted{name, {}, {}};
    for (const Quantity& quantity : Quantities()) {
      const std::string& property = quantity.property;
      const bool known = session.Knows(name, property, planned);
      if (std::count(overwritten.begin(), overwritten.end(), property) > 0) {
        if (!known) lifted.rates.push_back(quantity.name);
      } else if (known && property.ends_with("_RATE")) {
        lifted.others.push_back(quantity.name);
      }
    }
    if (!lifted.rates.empty()) all.push_back(std::move(lifted));
  }
  return all;
}

std::string Joined(const Words& words, const std::string& between) {
  return fmt::format("{}", fmt::join(words, between));
}

std::string ListOf(const std::vector<Lifted>& all) {
  Words texts;
  for (const Lifted& one : all) texts.push_back(one.well + " (" + Joined(one.rates, ", ") + ")");
  return Listed(texts);
}

// Refuses tables that would lift limits of the model and so, unnoticed, change the forecast.
void CheckLimits(const IPROrder& order, const std::vector<Lifted>& lifted) {
  if (order.keep || order.lift || lifted.empty()) return;
  const Lifted& first = lifted.front();
  std::string text =
      "The tables would lift rate limits that the model may have and that cannot be asked for: " +
      ListOf(lifted) + ". ";
  if (!first.others.empty()) {
    text += "Limits that were set on " + Joined(first.others, ", ") + " are others, and stay. ";
  }
  throw UsageError(text +
                   fmt::format("Say what holds, constrain {0} {1}=..., or that nothing does, "
                               "unconstrain {0} {2}; lift lifts what the model has for good, "
                               "and keep leaves the wells cut back",
                               first.well, Joined(first.rates, "=... "), Joined(first.rates, " ")));
}

void Restore(Session& session, const std::vector<std::string>& names, const WellsByName& before) {
  std::vector<master::WellConstraints> constraints;
  std::vector<std::string> statuses;
  for (const std::string& name : names) {
    const master::WellStatus& well = before.at(name);
    master::WellConstraints free = FreeRates(well, session.Metric());
    const master::WellConstraints known = session.Remembered(name);
    for (std::size_t i = 0; i < known.names.size(); ++i) {
      SetConstraint(free, known.names[i], known.values[i]);
    }
    constraints.push_back(std::move(free));
    statuses.push_back(well.status);
  }
  SetConstraints(session, constraints);
  SetStatuses(session, names, statuses);
}

Value At(const std::vector<double>& list, std::size_t point) {
  return point < list.size() ? Value(list[point]) : Value();
}

// `components` are the names of those whose mole fractions the table has.
Table TableOf(const Units& units, bool bottom_hole, const Words& components) {
  Table table{"points",
              "",
              {{"well", "well", ""},
               {"point", "point", ""},
               {"pressure", bottom_hole ? "bhp" : "thp", units.pressure,
                bottom_hole ? "bottom_hole_pressure" : "tubing_head_pressure"},
               {"oil_rate", "oil", units.liquid_rate},
               {"water_rate", "water", units.liquid_rate},
               {"gas_rate", "gas", units.gas_rate},
               {"temperature", "temp", units.temperature},
               {"oil_density", "oil dens", units.density},
               {"gas_density", "gas dens", units.density},
               {"water_density", "water dens", units.density}},
              {}};
  for (std::size_t i = 0; i < components.size(); ++i) {
    table.columns.push_back({fmt::format("mole_fraction_{}", i + 1), "x " + components[i], "",
                             "mole_fraction_" + components[i]});
  }
  return table;
}

void AddRows(Table& table, const std::string& name, const master::WellIPR& ipr, int components) {
  for (std::size_t point = 0; point < ipr.pressure.size(); ++point) {
    std::vector<Value> row{name, static_cast<std::int64_t>(point + 1)};
    for (const auto* list :
         {&ipr.pressure, &ipr.oil_rate, &ipr.water_rate, &ipr.gas_rate, &ipr.temperature,
          &ipr.oil_density, &ipr.gas_density, &ipr.water_density}) {
      row.push_back(At(*list, point));
    }
    static const std::vector<double> kNone;
    const auto& fractions = point < ipr.mole_fractions.size() ? ipr.mole_fractions[point] : kNone;
    for (std::size_t i = 0; i < static_cast<std::size_t>(components); ++i) {
      row.push_back(At(fractions, i));
    }
    table.rows.push_back(std::move(row));
  }
}

// Pressure over liquid rate, or over gas rate for a well without liquid.
std::string PlotOf(const master::WellStatus& well, const master::WellIPR& ipr, const Units& units,
                   bool bottom_hole) {
  Plot plot{well.name, "", (bottom_hole ? "bhp " : "thp ") + units.pressure, {}, ipr.pressure};
  std::vector<double> liquid = ipr.oil_rate;
  for (std::size_t i = 0; i < std::min(liquid.size(), ipr.water_rate.size()); ++i) {
    liquid[i] += ipr.water_rate[i];
  }
  const bool no_liquid =
      std::all_of(liquid.begin(), liquid.end(), [](double rate) { return rate == 0; });
  plot.x = no_liquid ? ipr.gas_rate : liquid;
  plot.x_label = no_liquid ? "gas " + units.gas_rate : "liquid " + units.liquid_rate;
  return Draw(plot);
}

// The simulator ends a run that is asked for more components than it has.
void CheckComponents(Session& session, const IPROrder& order) {
  if (order.components == 0) return;
  const std::size_t known = session.Components().size();
  if (static_cast<std::size_t>(order.components) <= known) return;
  throw UsageError(
      known == 0 ? "The model is black oil and has no components"
                 : fmt::format("The model has {} components, not {}", known, order.components));
}

int WholeNumber(const std::string& word) {
  const double value = ParseNumber(word, "A number of components");
  if (value < 0 || value > kMostComponents || value != static_cast<int>(value)) {
    throw UsageError("'" + word + "' is no number of components");
  }
  return static_cast<int>(value);
}

Result OptionsResult() {
  Table table{"options", "", {{"option", "option", ""}, {"meaning", "meaning", ""}}, {}};
  table.rows = {
      {"bhp", "pressures at the bottom of the well; this is the default"},
      {"thp", "pressures at the head of the tubing"},
      {"skewness X", "how the points lie: rates fall to ((11 - k) / 10) ^ X at point k; default 1"},
      {"components N|all", "mole fractions of the first N components, or of all; default none"},
      {"lift", "lift rate limits of the model that cannot be asked for, for good"},
      {"keep", "leave the wells open and cut back, as the tables do"},
      {"no-plot", "the table alone"}};
  return {.command = "ipr", .tables = {std::move(table)}};
}

}  // namespace

IPROrder ParseIPROrder(const Words& arguments) {
  IPROrder order;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    const bool more = i + 1 < arguments.size();
    if (word == "bhp" || word == "thp") {
      order.bottom_hole = word == "bhp";
    } else if (word == "skewness" && more) {
      order.skewness = ParseNumber(arguments[++i], "A number after skewness");
      if (order.skewness <= 0) throw UsageError("The skewness is above 0");
    } else if (word == "components" && more) {
      order.all_components = arguments[++i] == "all";
      order.components = order.all_components ? 0 : WholeNumber(arguments[i]);
    } else if (word == "keep" || word == "--keep") {
      order.keep = true;
    } else if (word == "lift") {
      order.lift = true;
    } else if (word == "no-plot") {
      order.plot = false;
    } else {
      order.wells.push_back(word);
    }
  }
  if (order.wells.empty()) throw UsageError("Of which wells?");
  return order;
}

Parsed ParseIPR(const Words& arguments) {
  if (arguments == Words{"?"}) {
    return Showing([](Session& /*session*/) { return OptionsResult(); });
  }
  const IPROrder order = ParseIPROrder(arguments);
  return Showing([order](Session& session) { return BuildIPR(session, order); },
                 [order](Session& session) {
                   session.CheckWells(order.wells);
                   CheckComponents(session, order);
                   if (std::any_of(order.wells.begin(), order.wells.end(), Session::IsLater)) {
                     return;
                   }
                   const Words names = session.Resolve(order.wells);
                   CheckLimits(order,
                               LiftedFor(session, names, ByName(session.KnownWells()), true));
                 });
}

Result BuildIPR(Session& session, const IPROrder& order) {
  const std::vector<std::string> names = session.Resolve(order.wells);
  CheckComponents(session, order);
  const WellsByName before = ByName(session.Wells());
  const std::vector<Lifted> lifted = LiftedFor(session, names, before, false);
  CheckLimits(order, lifted);
  const Units& units = UnitsOf(session.Metric());
  const int components =
      order.all_components ? static_cast<int>(session.Components().size()) : order.components;
  // A request has its code, two counts, a byte and the skewness besides the names.
  const std::vector<std::vector<std::string>> groups = Parts(names, 21, 0);

  Result result{.command = "ipr"};
  const Words names_of_components =
      components == 0
          ? Words()
          : Words(session.Components().begin(), session.Components().begin() + components);
  result.tables.push_back(TableOf(units, order.bottom_hole, names_of_components));
  std::size_t drawn = 0;
  for (const std::vector<std::string>& group : groups) {
    const master::IPRTables tables = session.run().GetWellIPRData({.wells = group,
                                                                   .components = components,
                                                                   .bottom_hole = order.bottom_hole,
                                                                   .skewness = order.skewness});
    for (std::size_t i = 0; i < group.size(); ++i) {
      AddRows(result.tables[0], group[i], tables.wells[i], components);
      if (order.plot && drawn < kMostPlots) {
        result.drawing += (drawn++ > 0 ? "\n" : "") +
                          PlotOf(before.at(group[i]), tables.wells[i], units, order.bottom_hole);
      }
    }
    if (order.keep) {
      session.cut_back().insert(group.begin(), group.end());
    } else {
      Restore(session, group, before);
    }
  }
  if (groups.size() > 1) {
    result.notes.push_back(
        fmt::format("These are more wells than one request can name: they were cut back in {} "
                    "groups, each beside the others as they are",
                    groups.size()));
  }
  result.lasting = order.keep || !lifted.empty();
  if (order.keep) {
    result.notes.push_back(
        "The wells are open and limited to the last point's rates: " + Listed(names) +
        "; set their statuses and constraints before the run goes on");
  } else if (lifted.empty()) {
    result.notes.emplace_back("The wells have their statuses and rate limits again");
  } else {
    result.notes.push_back(
        "The wells have their statuses again, and the rate limits of this session. Lifted for "
        "good, in case the model had any: " +
        ListOf(lifted));
  }
  return result;
}

}  // namespace vkmaster
