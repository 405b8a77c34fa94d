#include "tools/vkmaster/commands/fluid.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "tools/vkmaster/commands/wells.h"
#include "tools/vkmaster/session/quantities.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

constexpr double kSumTolerance = 1e-6;

// Fractions that were typed with three digits may add up to that much more or less.
constexpr double kSumOfRounded = 0.005;

const char* const kAnyway = "; anyway at the end sends them as they are";

std::string TextOfSum(const SourceComposition& given) {
  return fmt::format("The mole fractions of {} add up to {:.6g}", WithoutMark(given.source),
                     given.Sum());
}

// Says that fractions are missing; empty when none are.
std::string Missing(const SourceComposition& given, std::size_t components) {
  if (!given.names.empty() || given.fractions.size() >= components) return "";
  return fmt::format("{} has {} of the model's {} mole fractions", WithoutMark(given.source),
                     given.fractions.size(), components);
}

bool IsNumber(const std::string& word) {
  try {
    ParseNumber(word, "");
    return true;
  } catch (const UsageError&) {
    return false;
  }
}

Table ComponentTable(const master::EOSProps& eos) {
  const std::vector<std::pair<Column, const std::vector<double>*>> lists{
      {{"molecular_weight", "mol weight", ""}, &eos.molecular_weight},
      {{"critical_temperature", "Tc", ""}, &eos.critical_temperature},
      {{"critical_pressure", "Pc", ""}, &eos.critical_pressure},
      {{"critical_volume", "Vc", ""}, &eos.critical_volume},
      {{"acentric_factor", "acentric", ""}, &eos.acentric_factor},
      {{"boiling_point", "Tb", ""}, &eos.boiling_point},
      {{"volume_shift", "vol shift", ""}, &eos.volume_shift},
      {{"omega_a", "omega a", ""}, &eos.omega_a},
      {{"omega_b", "omega b", ""}, &eos.omega_b},
      {{"parachor", "parachor", ""}, &eos.parachor}};
  Table table{"components", "", {{"number", "no", ""}, {"component", "component", ""}}, {}};
  for (const auto& [column, list] : lists) table.columns.push_back(column);
  for (std::size_t i = 0; i < eos.components.size(); ++i) {
    std::vector<Value> row{static_cast<std::int64_t>(i + 1), eos.components[i]};
    for (const auto& [column, list] : lists) {
      Value& value = row.emplace_back();
      if (i < list->size()) value = (*list)[i];
    }
    table.rows.push_back(std::move(row));
  }
  return table;
}

// The simulator sends a flat list of coefficients. One that fills a square is shown as a square,
// any other as a list.
Table InteractionTable(const master::EOSProps& eos) {
  const std::size_t n = eos.components.size();
  Table table{"binary_interaction", "binary interaction", {}, {}};
  if (eos.binary_interaction.size() == n * n) {
    table.columns.push_back({"component", "component", ""});
    for (const std::string& name : eos.components) table.columns.push_back({name, name, ""});
    for (std::size_t i = 0; i < n; ++i) {
      table.rows.push_back({eos.components[i]});
      for (std::size_t j = 0; j < n; ++j) {
        table.rows.back().emplace_back(eos.binary_interaction[i * n + j]);
      }
    }
    return table;
  }
  table.columns = {{"number", "no", ""}, {"coefficient", "coefficient", ""}};
  for (std::size_t i = 0; i < eos.binary_interaction.size(); ++i) {
    table.rows.push_back({static_cast<std::int64_t>(i + 1), eos.binary_interaction[i]});
  }
  return table;
}

void NoteMissingSources(const Session& session, Result& result) {
  if (session.launched().request.version != "2016.2") return;
  result.notes.emplace_back("Version 2016.2 (--api) has no external sources: nothing was changed");
}

// The well that `word` means. Throws UsageError when no source can be attached to it.
std::string GasInjectorOf(Session& session, const std::string& word) {
  const std::vector<std::string> wells = session.Resolve({word});
  if (wells.size() != 1) throw UsageError("One well wanted, not " + word);
  const std::string type = ByName(session.KnownWells()).at(wells[0]).type;
  if (type == "PRODUCER" || type == "WATER_INJECTOR") {
    throw UsageError(wells[0] + " is a " + type + ": only gas injectors take a source of gas");
  }
  if (session.Components().empty()) {
    throw UsageError("The model is black oil: sources of gas need components");
  }
  return wells[0];
}

Result SourceResult(Session& session, const std::string& word, const std::string& source) {
  const std::string well = GasInjectorOf(session, word);
  const int answer = session.run().SetWellInjectionSource(well, source);
  Result result{.command = "source"};
  result.fields.push_back({"well", "well", well, ""});
  result.fields.push_back({"source", "gas source", source, ""});
  result.fields.push_back({"result", "simulator's result", std::int64_t{answer}, ""});
  NoteMissingSources(session, result);
  session.RememberSource(source);
  if (answer == 0 && result.notes.empty()) {
    result.notes.emplace_back("The simulator has refused the source: nothing was changed");
  }
  return result;
}

// The name of the source `word`. Throws UsageError when it was not attached: the simulator
// acknowledges the composition of a source that it does not know, without effect.
std::string SourceOf(const Session& session, const std::string& word, bool planned) {
  if (IsMarked(word) || session.KnowsSource(word, planned)) return WithoutMark(word);
  const std::set<std::string>& known = session.sources();
  throw UsageError("No source '" + word + "' was attached in this run" +
                   MaybeMeant(word, {known.begin(), known.end()}) + ": source WELL " + word +
                   " does it, and " + kAsIs + word + " is sent as it stands");
}

// The fractions in component order.
std::vector<double> InOrder(const SourceComposition& given, const std::vector<std::string>& all) {
  if (given.names.empty()) {
    if (given.fractions.size() > all.size()) {
      throw UsageError(fmt::format("{} has {} fractions, but the model {} components", given.source,
                                   given.fractions.size(), all.size()));
    }
    const std::string missing = Missing(given, all.size());
    if (!missing.empty() && !given.anyway) throw UsageError(missing + kAnyway);
    return given.fractions;
  }
  std::vector<double> fractions(all.size(), 0);
  for (std::size_t i = 0; i < given.names.size(); ++i) {
    const auto found = std::find_if(all.begin(), all.end(), [&](const std::string& name) {
      return EqualIgnoringCase(name, given.names[i]);
    });
    if (found == all.end()) {
      throw UsageError("The model has no component '" + given.names[i] + "'" +
                       MaybeMeant(given.names[i], all) + " (the command eos lists them)");
    }
    fractions[static_cast<std::size_t>(found - all.begin())] += given.fractions[i];
  }
  return fractions;
}

Result CompositionResult(Session& session, const std::vector<SourceComposition>& given) {
  const std::vector<std::string>& components = session.Components();
  if (components.empty()) throw UsageError("The model is black oil and has no components");
  std::vector<std::string> sources;
  std::vector<std::vector<double>> compositions;
  Result result{.command = "composition"};
  Table table{"sources",
              "",
              {{"source", "source", ""},
               {"component", "component", ""},
               {"mole_fraction", "mole fraction", ""}},
              {}};
  for (const SourceComposition& one : given) {
    sources.push_back(SourceOf(session, one.source, false));
    compositions.push_back(InOrder(one, components));
    for (std::size_t i = 0; i < compositions.back().size(); ++i) {
      table.rows.push_back({sources.back(), components[i], compositions.back()[i]});
    }
    if (std::abs(one.Sum() - 1) > kSumTolerance) result.notes.push_back(TextOfSum(one));
    const std::string missing = Missing(one, components.size());
    if (!missing.empty()) result.notes.push_back(missing);
  }
  session.run().SetWellInjectionComposition(sources, compositions);
  result.tables.push_back(std::move(table));
  NoteMissingSources(session, result);
  return result;
}

void AddFraction(SourceComposition& to, const std::string& word, const std::string& number) {
  const double fraction = ParseNumber(number, "A mole fraction");
  if (fraction < 0 || fraction > 1) throw UsageError("A mole fraction is 0 to 1, not " + word);
  to.fractions.push_back(fraction);
}

}  // namespace

double SourceComposition::Sum() const {
  return std::accumulate(fractions.begin(), fractions.end(), 0.0);
}

Result EOSResult(Session& session) {
  const master::EOSProps eos = session.run().GetEOSProps();
  Result result{.command = "eos"};
  result.fields.push_back({"name", "equation of state", eos.name, ""});
  result.fields.push_back(
      {"component_count", "components", static_cast<std::int64_t>(eos.components.size()), ""});
  if (eos.components.empty()) {
    result.notes.emplace_back("The model has no equation of state");
    return result;
  }
  result.tables.push_back(ComponentTable(eos));
  if (!eos.binary_interaction.empty()) result.tables.push_back(InteractionTable(eos));
  return result;
}

Parsed ParseSource(const Words& arguments) {
  if (arguments.size() != 2) throw UsageError("Which well, and which source? source WELL SOURCE");
  return Showing(
      [arguments](Session& session) { return SourceResult(session, arguments[0], arguments[1]); },
      [arguments](Session& session) {
        session.CheckWells({arguments[0]});
        if (!Session::IsLater(arguments[0])) GasInjectorOf(session, arguments[0]);
        session.PlanSource(arguments[1]);
      });
}

std::vector<SourceComposition> ParseCompositions(const Words& arguments) {
  std::vector<SourceComposition> sources;
  const bool anyway = arguments.size() > 2 && arguments.back() == "anyway";
  for (const std::string& word : arguments) {
    if (anyway && &word == &arguments.back()) break;
    const std::size_t equals = word.find('=');
    const bool named = equals != std::string::npos;
    if (!named && (sources.empty() || !IsNumber(word))) {
      if (!sources.empty() && sources.back().fractions.empty()) break;
      sources.push_back({word, {}, {}});
      continue;
    }
    if (sources.empty()) throw UsageError("'" + word + "': of which source?");
    SourceComposition& source = sources.back();
    if (!source.fractions.empty() && named == source.names.empty()) {
      throw UsageError("The fractions of " + source.source +
                       " come all in order or all by component, not mixed");
    }
    if (named) source.names.push_back(word.substr(0, equals));
    AddFraction(source, word, named ? word.substr(equals + 1) : word);
  }
  if (sources.empty() || sources.back().fractions.empty()) {
    throw UsageError("Of what? composition SOURCE FRACTION..., for example S1 CO2=0.9 C1=0.1");
  }
  for (SourceComposition& source : sources) {
    source.anyway = anyway;
    if (!anyway && std::abs(source.Sum() - 1) > kSumOfRounded) {
      throw UsageError(TextOfSum(source) + kAnyway);
    }
  }
  return sources;
}

Parsed ParseComposition(const Words& arguments) {
  const std::vector<SourceComposition> given = ParseCompositions(arguments);
  return Showing([given](Session& session) { return CompositionResult(session, given); },
                 [given](Session& session) {
                   if (session.Components().empty()) {
                     throw UsageError("The model is black oil and has no components");
                   }
                   for (const SourceComposition& one : given) {
                     SourceOf(session, one.source, true);
                     InOrder(one, session.Components());
                   }
                 });
}

}  // namespace vkmaster
