#include "simulator/deck.h"

#include <errno.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <numeric>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

#include "sections/section.h"

namespace simulator {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string quoted(std::string_view text) {
  return '"' + std::string(text) + '"';
}

std::string plain(double value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

/// The bounds of a number, in the deck's own units.
struct Range {
  double low = -kInfinity;
  double high = kInfinity;
  bool low_excluded = false;
};
constexpr Range kAny{};
constexpr Range kPositive{0, kInfinity, true};
constexpr Range kNotNegative{0, kInfinity};
constexpr Range kFraction{0, 1};
constexpr Range kDays{0, 1e6, true};  // the calendar's years have four digits

std::string explain(const Range& range) {
  if (range.high < kInfinity) {
    return "must lie between " + plain(range.low) + " and " + plain(range.high);
  }
  return range.low_excluded ? "must be positive" : "must not be negative";
}

/// One table of the deck, whose numbers are read in the deck's units.
class Section : public sections::Section {
 public:
  Section(sections::Section table, std::string name, const Units& units)
      : sections::Section(std::move(table)), name_(std::move(name)), units_(units) {}

  sections::Value need(std::string_view key) {
    auto value = Find(key);
    if (!value) place().Fail(name_ + " lacks " + quoted(key));
    return *std::move(value);
  }

  double number(std::string_view key, Quantity quantity, const Range& range) {
    const sections::Value found = need(key);
    const auto value = found.Number();
    if (!value) found.place().Fail(quoted(key) + " must be a number");
    const bool low = range.low_excluded ? !(*value > range.low) : !(*value >= range.low);
    if (!std::isfinite(*value) || low || *value > range.high) {
      found.place().Fail(quoted(key) + " " + explain(range) + ", not " + plain(*value));
    }
    return units_.to_model(quantity, *value);
  }

  /// `otherwise` is in the model's units.
  double number(std::string_view key, Quantity quantity, const Range& range, double otherwise) {
    return Find(key) ? number(key, quantity, range) : otherwise;
  }

  std::string text(std::string_view key) {
    const sections::Value found = need(key);
    const auto value = found.Text();
    if (!value) found.place().Fail(quoted(key) + " must be a text");
    return *value;
  }

  std::string text(std::string_view key, const std::string& otherwise) {
    return Find(key) ? text(key) : otherwise;
  }

  /// What the text at `key` stands for. It must be one of `choices`.
  template <typename T>
  T choice(std::string_view key, std::initializer_list<std::pair<std::string_view, T>> choices) {
    const std::string given = text(key);
    std::string names;
    for (const auto& [name, value] : choices) {
      if (given == name) return value;
      const bool last = name == std::prev(choices.end())->first;
      names += (names.empty() ? "" : last ? " or " : ", ") + quoted(name);
    }
    PlaceOf(key).Fail(quoted(key) + " must be " + names + ", not " + quoted(given));
  }

  std::chrono::year_month_day date(std::string_view key) {
    const sections::Value found = need(key);
    const auto value = found.Date();
    if (!value) found.place().Fail(quoted(key) + " must be a date such as 2020-01-31");
    return *value;
  }

  std::vector<std::string> texts(std::string_view key) {
    std::vector<std::string> values;
    for (const sections::Value& each : list(key)) {
      const auto value = each.Text();
      if (!value) each.place().Fail(quoted(key) + " must be a list of texts");
      values.push_back(*value);
    }
    return values;
  }

  std::vector<double> numbers(std::string_view key) {
    std::vector<double> values;
    for (const sections::Value& each : list(key)) {
      const auto value = each.Number();
      if (!value || !std::isfinite(*value) || *value < 0) {
        each.place().Fail(quoted(key) + " must be a list of numbers that are not negative");
      }
      values.push_back(*value);
    }
    return values;
  }

  std::optional<Section> section(std::string_view key) {
    const auto value = Find(key);
    if (!value) return std::nullopt;
    return Section(value->Table(quoted(key) + " must be a section"),
                   "section [" + std::string(key) + "]", units_);
  }

  Section need_section(std::string_view key) {
    auto found = section(key);
    if (!found) place().Fail("missing section [" + std::string(key) + "]");
    return *std::move(found);
  }

  std::vector<Section> all_sections(std::string_view key) {
    std::vector<Section> all;
    const auto value = Find(key);
    if (!value) return all;
    const std::string written = "[[" + std::string(key) + "]]";
    const std::string complaint = quoted(key) + " must be written as " + written + " sections";
    for (const sections::Value& each : value->List(complaint)) {
      all.emplace_back(each.Table(complaint), written, units_);
    }
    if (all.empty()) value->place().Fail(complaint);
    return all;
  }

  void finish() const {
    if (const auto unknown = Unknown()) {
      unknown->second.Fail("unknown key " + quoted(unknown->first) + " in " + name_);
    }
  }

 private:
  std::vector<sections::Value> list(std::string_view key) {
    return need(key).List(quoted(key) + " must be a list");
  }

  std::string name_;
  Units units_;
};

double end_time(Section& run, std::chrono::year_month_day start) {
  if (!run.Find("end")) return run.number("end_time", Quantity::kNone, kDays);
  if (run.Find("end_time")) {
    run.PlaceOf("end_time").Fail("\"end_time\" and \"end\" exclude each other");
  }
  const auto days = (std::chrono::sys_days{run.date("end")} - std::chrono::sys_days{start}).count();
  if (days <= 0) run.PlaceOf("end").Fail("\"end\" must be later than \"start\"");
  return static_cast<double>(days);
}

bool read_run(Section run, Deck& deck) {
  const bool compositional =
      run.choice<bool>("fluid", {{"BLACK_OIL", false}, {"COMPOSITIONAL", true}});
  deck.title = run.text("title", "");
  deck.start = run.date("start");
  deck.end_time = end_time(run, deck.start);
  deck.max_step = run.number("max_step", Quantity::kNone, kPositive, 10);
  run.finish();
  return compositional;
}

void read_reservoir(Section section, Deck& deck) {
  deck.pressure = section.number("pressure", Quantity::kPressure, kPositive);
  deck.temperature = section.number("temperature", Quantity::kTemperature, kPositive);
  const double bulk = section.number("length", Quantity::kLength, kPositive) *
                      section.number("width", Quantity::kLength, kPositive) *
                      section.number("thickness", Quantity::kLength, kPositive);
  deck.pore_volume = bulk * section.number("porosity", Quantity::kNone, {0, 1, true});
  deck.rock_compressibility =
      section.number("rock_compressibility", Quantity::kCompressibility, kNotNegative, 6e-5);
  deck.water_saturation = section.number("water_saturation", Quantity::kNone, {0, 0.95});
  deck.fracture_pressure =
      section.number("fracture_pressure", Quantity::kPressure, kPositive, 1.5 * deck.pressure);
  if (deck.fracture_pressure <= deck.pressure) {
    section.PlaceOf("fracture_pressure")
        .Fail("\"fracture_pressure\" must be above the reservoir's \"pressure\"");
  }
  deck.injection_temperature =
      section.number("injection_temperature", Quantity::kTemperature, kAny, 20);
  section.finish();
}

void read_water(std::optional<Section> section, Deck& deck) {
  if (!section) return;
  deck.water_density =
      section->number("density", Quantity::kDensity, kPositive, deck.water_density);
  deck.water_volume_factor =
      section->number("volume_factor", Quantity::kNone, kPositive, deck.water_volume_factor);
  deck.water_compressibility = section->number("compressibility", Quantity::kCompressibility,
                                               kNotNegative, deck.water_compressibility);
  section->finish();
}

void read_flow(std::optional<Section> section, Deck& deck) {
  if (!section) return;
  RelativePermeability& curves = deck.relative_permeability;
  Viscosities& viscosities = deck.viscosities;
  constexpr Range kExponent{1, 10};
  const auto read = [&](const char* key, const Range& range, double& value) {
    value = section->number(key, Quantity::kNone, range, value);
  };
  read("connate_water", kFraction, curves.connate_water);
  read("residual_oil", kFraction, curves.residual_oil);
  read("critical_gas", kFraction, curves.critical_gas);
  read("water_end_point", kFraction, curves.water_end_point);
  read("gas_end_point", kFraction, curves.gas_end_point);
  read("oil_exponent", kExponent, curves.oil_exponent);
  read("water_exponent", kExponent, curves.water_exponent);
  read("gas_exponent", kExponent, curves.gas_exponent);
  read("oil_viscosity", kPositive, viscosities.oil);
  read("water_viscosity", kPositive, viscosities.water);
  read("gas_viscosity", kPositive, viscosities.gas);
  if (curves.connate_water + curves.residual_oil + curves.critical_gas >= 1) {
    section->place().Fail("\"connate_water\", \"residual_oil\" and \"critical_gas\" leave no room");
  }
  section->finish();
}

std::string written(const sections::Place& place) {
  return place.file + ":" + std::to_string(std::max<std::uint32_t>(place.line, 1));
}

void read_black_oil(Section section, Deck& deck) {
  BlackOil& oil = deck.black_oil;
  deck.fluid_place = written(section.place());
  oil.api = section.number("api", Quantity::kNone, {10, 60});
  oil.gas_gravity = section.number("gas_gravity", Quantity::kNone, {0.55, 1.5});
  oil.bubble_point = section.number("bubble_point", Quantity::kPressure, kPositive);
  if (oil.bubble_point > deck.pressure) {
    section.PlaceOf("bubble_point")
        .Fail("\"bubble_point\" must not be above the reservoir's \"pressure\"");
  }
  oil.oil_compressibility = section.number("oil_compressibility", Quantity::kCompressibility,
                                           kPositive, oil.oil_compressibility);
  section.finish();
}

Component read_component(Section section) {
  Component component;
  component.name = section.text("name");
  if (component.name.empty()) section.PlaceOf("name").Fail("\"name\" must not be empty");
  component.molecular_weight = section.number("molecular_weight", Quantity::kNone, kPositive);
  component.critical_temperature =
      section.number("critical_temperature", Quantity::kAbsolute, kPositive);
  component.critical_pressure = section.number("critical_pressure", Quantity::kPressure, kPositive);
  component.critical_volume = section.number("critical_volume", Quantity::kMolarVolume, kPositive);
  component.acentric_factor = section.number("acentric_factor", Quantity::kNone, {-0.5, 2});
  component.boiling_point = section.number("boiling_point", Quantity::kAbsolute, kPositive);
  component.volume_shift = section.number("volume_shift", Quantity::kNone, {-0.5, 0.5}, 0);
  component.omega_a = section.number("omega_a", Quantity::kNone, kPositive, kOmegaA);
  component.omega_b = section.number("omega_b", Quantity::kNone, kPositive, kOmegaB);
  component.parachor = section.number("parachor", Quantity::kNone, kNotNegative, 0);
  section.finish();
  return component;
}

std::vector<double> mole_fractions(Section& section, std::string_view key, std::size_t count) {
  std::vector<double> fractions = section.numbers(key);
  const sections::Place place = section.PlaceOf(key);
  if (fractions.size() != count) {
    place.Fail(quoted(key) + " has " + std::to_string(fractions.size()) + " values for " +
               std::to_string(count) + " components");
  }
  const double sum = std::accumulate(fractions.begin(), fractions.end(), 0.0);
  if (std::abs(sum - 1) > 0.001) {
    place.Fail(quoted(key) + " adds up to " + plain(sum) + ", not to 1");
  }
  for (double& each : fractions) each /= sum;
  return fractions;
}

void read_composition(Section section, const std::vector<Component>& own, Deck& deck) {
  Composition composition;
  const sections::Place place = section.PlaceOf("components");
  for (const std::string& name : section.texts("components")) {
    const auto same = [&](const Component& each) { return each.name == name; };
    if (std::any_of(composition.components.begin(), composition.components.end(), same)) {
      place.Fail("component " + quoted(name) + " is listed twice");
    }
    const auto defined = std::find_if(own.begin(), own.end(), same);
    const auto found = defined != own.end() ? std::optional(*defined) : find_component(name);
    if (!found) place.Fail("unknown component " + quoted(name));
    composition.components.push_back(*found);
  }
  const std::size_t count = composition.components.size();
  if (count < 2) place.Fail("\"components\" must name two components or more");
  composition.reservoir = mole_fractions(section, "composition", count);
  deck.fluid_place = written(section.PlaceOf("composition"));
  composition.injection_gas = mole_fractions(section, "injection_gas", count);
  section.finish();
  deck.composition = std::move(composition);
}

bool applies(Constraint constraint, WellType type) {
  switch (constraint) {
    case Constraint::kWaterInjectionRate:
      return type == WellType::kWaterInjector;
    case Constraint::kGasInjectionRate:
      return type == WellType::kGasInjector;
    case Constraint::kBottomHolePressure:
    case Constraint::kTubingHeadPressure:
      return true;
    default:
      return type == WellType::kProducer;
  }
}

void read_limits(std::optional<Section> section, WellDeck& well) {
  if (!section) return;
  for (const auto& [key, place] : section->Keys()) {
    const auto constraint = find_constraint(key);
    if (!constraint) place.Fail("unknown constraint " + quoted(key));
    if (!applies(*constraint, well.type)) {
      place.Fail(quoted(key) + " does not apply to a " + to_string(well.type));
    }
    well.limits[static_cast<std::size_t>(*constraint)] =
        section->number(key, quantity_of(*constraint), kNotNegative);
  }
}

WellDeck read_well(Section section) {
  WellDeck well;
  well.name = section.text("name");
  if (well.name.empty() || well.name == "*") {
    section.PlaceOf("name").Fail("\"name\" must be a well name, not " + quoted(well.name));
  }
  well.type = section.choice<WellType>("type", {{"PRODUCER", WellType::kProducer},
                                                {"WATER_INJECTOR", WellType::kWaterInjector},
                                                {"GAS_INJECTOR", WellType::kGasInjector}});
  well.open =
      !section.Find("status") || section.choice<bool>("status", {{"OPEN", true}, {"SHUT", false}});
  well.uptime = section.number("uptime", Quantity::kNone, kFraction, 1);
  const bool producer = well.type == WellType::kProducer;
  const bool gas = well.type == WellType::kGasInjector;
  well.index = section.number(producer ? "productivity_index" : "injectivity_index",
                              gas ? Quantity::kGasIndex : Quantity::kLiquidIndex, kPositive);
  well.depth = section.number("depth", Quantity::kLength, kPositive);
  well.tubing_diameter = section.number("tubing_diameter", Quantity::kDiameter, kPositive);
  if (producer) {
    well.lift = section.number("lift", Quantity::kPressure, kNotNegative, 0);
    well.water_mobility = section.number("water_mobility", Quantity::kNone, kNotNegative, 1);
    well.gas_mobility = section.number("gas_mobility", Quantity::kNone, kNotNegative, 1);
  }
  read_limits(section.section("constraints"), well);
  section.finish();
  return well;
}

void read_wells(Section& root, Deck& deck) {
  std::set<std::string> names;
  for (Section& section : root.all_sections("well")) {
    const sections::Place place = section.PlaceOf("name");
    deck.wells.push_back(read_well(std::move(section)));
    if (!names.insert(deck.wells.back().name).second) {
      place.Fail("duplicate well " + quoted(deck.wells.back().name));
    }
  }
  if (deck.wells.empty()) root.place().Fail("missing section [[well]]");
}

// A tank takes no step in which more than half of anything leaves it: a run of wells that empty it
// many times a day would not come to an end.
void refuse_tiny_reservoir(const Deck& deck, const sections::Place& place) {
  constexpr double kLeastDays = 0.1;
  double open_flow = 0;
  for (const WellDeck& well : deck.wells) {
    if (well.type == WellType::kProducer) open_flow += well.index * deck.pressure;
  }
  const double days = deck.pore_volume / open_flow;
  if (days >= kLeastDays) return;
  place.Fail("the reservoir is too small for its wells: fully open they would empty it in " +
             plain(days) + " days, and " + plain(kLeastDays) + " is the least");
}

Deck read_top(const sections::Section& top) {
  Deck deck;
  // The text "units" comes first: every number is read in these units.
  {
    Section root(top, "the deck", deck.units);
    Section run = root.need_section("run");
    deck.units = Units(run.choice<Units::System>(
        "units", {{"FIELD", Units::System::kField}, {"METRIC", Units::System::kMetric}}));
  }
  Section root(top, "the deck", deck.units);
  Section run = root.need_section("run");
  run.Find("units");
  const bool compositional = read_run(std::move(run), deck);
  read_reservoir(root.need_section("reservoir"), deck);
  read_water(root.section("water"), deck);
  read_flow(root.section("flow"), deck);
  if (compositional) {
    std::vector<Component> own;
    for (Section& section : root.all_sections("component")) {
      own.push_back(read_component(std::move(section)));
    }
    read_composition(root.need_section("composition"), own, deck);
  } else {
    read_black_oil(root.need_section("black_oil"), deck);
  }
  read_wells(root, deck);
  refuse_tiny_reservoir(deck, root.PlaceOf("reservoir"));
  root.finish();
  return deck;
}

}  // namespace

std::string to_string(WellType type) {
  switch (type) {
    case WellType::kProducer:
      return "PRODUCER";
    case WellType::kWaterInjector:
      return "WATER_INJECTOR";
    case WellType::kGasInjector:
      break;
  }
  return "GAS_INJECTOR";
}

const std::array<std::string_view, kConstraintCount>& constraint_names() {
  static constexpr std::array<std::string_view, kConstraintCount> kNames{
      "OIL_PRODUCTION_RATE",    "GAS_PRODUCTION_RATE",  "WATER_PRODUCTION_RATE",
      "LIQUID_PRODUCTION_RATE", "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",
      "BOTTOM_HOLE_PRESSURE",   "TUBING_HEAD_PRESSURE"};
  return kNames;
}

std::optional<Constraint> find_constraint(std::string_view name) {
  const auto& names = constraint_names();
  const auto* found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) return std::nullopt;
  return static_cast<Constraint>(found - names.begin());
}

Quantity quantity_of(Constraint constraint) {
  switch (constraint) {
    case Constraint::kGasProductionRate:
    case Constraint::kGasInjectionRate:
      return Quantity::kGas;
    case Constraint::kBottomHolePressure:
    case Constraint::kTubingHeadPressure:
      return Quantity::kPressure;
    default:
      return Quantity::kLiquid;
  }
}

Deck parse_deck(std::string_view text, const std::string& file) {
  try {
    return read_top(sections::Section::Parse(text, file));
  } catch (const sections::Error& error) {
    throw DeckError(written(error.place()) + ": " + error.what());
  }
}

Deck read_deck(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw DeckError(path + ":1: cannot be read: " + std::generic_category().message(errno));
  }
  std::ostringstream text;
  text << in.rdbuf();
  return parse_deck(text.str(), path);
}

std::string deck_path(const std::string& path, const std::string& root) {
  return path + "/" + root + ".afi";
}

}  // namespace simulator
