#include "simulator/deck.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <limits>
#include <numeric>
#include <set>
#include <sstream>
#include <system_error>

#include <toml++/toml.h>

namespace simulator {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// Where in the deck something stands.
struct Place {
  std::string file;
  std::uint32_t line = 1;

  [[noreturn]] void fail(const std::string& message) const {
    throw DeckError(file + ":" + std::to_string(std::max<std::uint32_t>(line, 1)) + ": " + message);
  }
};

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

/// One table of the deck. Every key that is asked for counts as known; finish() refuses others.
class Section {
 public:
  Section(const toml::table& table, std::string name, const Place& parent, const Units& units)
      : table_(table), name_(std::move(name)), units_(units) {
    place_.file = parent.file;
    place_.line = table.source().begin.line;
  }

  [[nodiscard]] const Place& place() const { return place_; }

  [[nodiscard]] Place place_of(std::string_view key) const {
    const toml::node* node = table_.get(key);
    return {place_.file, node ? node->source().begin.line : place_.line};
  }

  const toml::node* find(std::string_view key) {
    known_.emplace(key);
    return table_.get(key);
  }

  const toml::node& need(std::string_view key) {
    const toml::node* node = find(key);
    if (!node) place_.fail(name_ + " lacks " + quoted(key));
    return *node;
  }

  double number(std::string_view key, Quantity quantity, const Range& range) {
    const toml::node& node = need(key);
    const auto value = node.is_number() ? node.value<double>() : std::nullopt;
    if (!value) place_of(key).fail(quoted(key) + " must be a number");
    const bool low = range.low_excluded ? !(*value > range.low) : !(*value >= range.low);
    if (!std::isfinite(*value) || low || *value > range.high) {
      place_of(key).fail(quoted(key) + " " + explain(range) + ", not " + plain(*value));
    }
    return units_.to_model(quantity, *value);
  }

  /// `otherwise` is in the model's units.
  double number(std::string_view key, Quantity quantity, const Range& range, double otherwise) {
    return find(key) ? number(key, quantity, range) : otherwise;
  }

  std::string text(std::string_view key) {
    const auto value = need(key).value_exact<std::string>();
    if (!value) place_of(key).fail(quoted(key) + " must be a text");
    return *value;
  }

  std::string text(std::string_view key, const std::string& otherwise) {
    return find(key) ? text(key) : otherwise;
  }

  std::chrono::year_month_day date(std::string_view key) {
    const auto value = need(key).value_exact<toml::date>();
    if (!value) place_of(key).fail(quoted(key) + " must be a date such as 2020-01-31");
    return {std::chrono::year{value->year}, std::chrono::month{value->month},
            std::chrono::day{value->day}};
  }

  std::vector<std::string> texts(std::string_view key) {
    std::vector<std::string> values;
    for (const toml::node& each : list(key)) {
      const auto value = each.value_exact<std::string>();
      if (!value) at(each).fail(quoted(key) + " must be a list of texts");
      values.push_back(*value);
    }
    return values;
  }

  std::vector<double> numbers(std::string_view key) {
    std::vector<double> values;
    for (const toml::node& each : list(key)) {
      const auto value = each.is_number() ? each.value<double>() : std::nullopt;
      if (!value || !std::isfinite(*value) || *value < 0) {
        at(each).fail(quoted(key) + " must be a list of numbers that are not negative");
      }
      values.push_back(*value);
    }
    return values;
  }

  std::optional<Section> section(std::string_view key) {
    const toml::node* node = find(key);
    if (!node) return std::nullopt;
    if (!node->is_table()) place_of(key).fail(quoted(key) + " must be a section");
    return Section(*node->as_table(), "section [" + std::string(key) + "]", place_, units_);
  }

  Section need_section(std::string_view key) {
    auto found = section(key);
    if (!found) place_.fail("missing section [" + std::string(key) + "]");
    return *std::move(found);
  }

  std::vector<Section> sections(std::string_view key) {
    std::vector<Section> all;
    const toml::node* node = find(key);
    if (!node) return all;
    const toml::array* array = node->as_array();
    if (!array || !array->is_array_of_tables()) {
      place_of(key).fail(quoted(key) + " must be written as [[" + std::string(key) + "]] sections");
    }
    for (const toml::node& each : *array) {
      all.emplace_back(*each.as_table(), "[[" + std::string(key) + "]]", place_, units_);
    }
    return all;
  }

  /// The names of all keys, each with its place.
  [[nodiscard]] std::vector<std::pair<std::string, Place>> keys() const {
    std::vector<std::pair<std::string, Place>> all;
    for (const auto& [key, node] : table_) {
      all.emplace_back(std::string(key.str()), Place{place_.file, key.source().begin.line});
    }
    // The library keeps keys in alphabetical order; the first mistake is the topmost one.
    std::stable_sort(all.begin(), all.end(),
                     [](const auto& a, const auto& b) { return a.second.line < b.second.line; });
    return all;
  }

  void finish() const {
    for (const auto& [key, where] : keys()) {
      if (!known_.contains(key)) where.fail("unknown key " + quoted(key) + " in " + name_);
    }
  }

 private:
  [[nodiscard]] Place at(const toml::node& node) const {
    return {place_.file, node.source().begin.line};
  }

  const toml::array& list(std::string_view key) {
    const toml::array* array = need(key).as_array();
    if (!array) place_of(key).fail(quoted(key) + " must be a list");
    return *array;
  }

  const toml::table& table_;
  std::string name_;
  Units units_;
  Place place_;
  std::set<std::string, std::less<>> known_;
};

Units::System unit_system(Section& run) {
  const std::string units = run.text("units");
  if (units == "FIELD") return Units::System::kField;
  if (units == "METRIC") return Units::System::kMetric;
  run.place_of("units").fail("\"units\" must be \"FIELD\" or \"METRIC\", not " + quoted(units));
}

bool is_compositional(Section& run) {
  const std::string fluid = run.text("fluid");
  if (fluid == "COMPOSITIONAL") return true;
  if (fluid == "BLACK_OIL") return false;
  run.place_of("fluid").fail("\"fluid\" must be \"BLACK_OIL\" or \"COMPOSITIONAL\", not " +
                             quoted(fluid));
}

double end_time(Section& run, std::chrono::year_month_day start) {
  if (!run.find("end")) return run.number("end_time", Quantity::kNone, kDays);
  if (run.find("end_time")) {
    run.place_of("end_time").fail("\"end_time\" and \"end\" exclude each other");
  }
  const auto days = (std::chrono::sys_days{run.date("end")} - std::chrono::sys_days{start}).count();
  if (days <= 0) run.place_of("end").fail("\"end\" must be later than \"start\"");
  return static_cast<double>(days);
}

bool read_run(Section run, Deck& deck) {
  const bool compositional = is_compositional(run);
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
    section.place_of("fracture_pressure")
        .fail("\"fracture_pressure\" must be above the reservoir's \"pressure\"");
  }
  deck.injection_temperature =
      section.number("injection_temperature", Quantity::kTemperature, kAny, 20);
  section.finish();
}

void read_water(std::optional<Section> section, Deck& deck) {
  deck.water_density = 1030;
  deck.water_volume_factor = 1.02;
  deck.water_compressibility = 4.5e-5;
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
  const auto fraction = [&](const char* key, double& value) {
    value = section->number(key, Quantity::kNone, kFraction, value);
  };
  fraction("connate_water", curves.connate_water);
  fraction("residual_oil", curves.residual_oil);
  fraction("critical_gas", curves.critical_gas);
  fraction("water_end_point", curves.water_end_point);
  fraction("gas_end_point", curves.gas_end_point);
  curves.oil_exponent =
      section->number("oil_exponent", Quantity::kNone, kExponent, curves.oil_exponent);
  curves.water_exponent =
      section->number("water_exponent", Quantity::kNone, kExponent, curves.water_exponent);
  curves.gas_exponent =
      section->number("gas_exponent", Quantity::kNone, kExponent, curves.gas_exponent);
  viscosities.oil = section->number("oil_viscosity", Quantity::kNone, kPositive, viscosities.oil);
  viscosities.water =
      section->number("water_viscosity", Quantity::kNone, kPositive, viscosities.water);
  viscosities.gas = section->number("gas_viscosity", Quantity::kNone, kPositive, viscosities.gas);
  if (curves.connate_water + curves.residual_oil + curves.critical_gas >= 1) {
    section->place().fail("\"connate_water\", \"residual_oil\" and \"critical_gas\" leave no room");
  }
  section->finish();
}

void read_black_oil(Section section, Deck& deck) {
  BlackOil& oil = deck.black_oil;
  oil.api = section.number("api", Quantity::kNone, {10, 60});
  oil.gas_gravity = section.number("gas_gravity", Quantity::kNone, {0.55, 1.5});
  oil.bubble_point = section.number("bubble_point", Quantity::kPressure, kPositive);
  if (oil.bubble_point > deck.pressure) {
    section.place_of("bubble_point")
        .fail("\"bubble_point\" must not be above the reservoir's \"pressure\"");
  }
  oil.oil_compressibility = section.number("oil_compressibility", Quantity::kCompressibility,
                                           kPositive, oil.oil_compressibility);
  section.finish();
}

Component read_component(Section section) {
  Component component;
  component.name = section.text("name");
  if (component.name.empty()) section.place_of("name").fail("\"name\" must not be empty");
  component.molecular_weight = section.number("molecular_weight", Quantity::kNone, kPositive);
  component.critical_temperature =
      section.number("critical_temperature", Quantity::kAbsolute, kPositive);
  component.critical_pressure = section.number("critical_pressure", Quantity::kPressure, kPositive);
  component.critical_volume = section.number("critical_volume", Quantity::kMolarVolume, kPositive);
  component.acentric_factor = section.number("acentric_factor", Quantity::kNone, {-0.5, 2});
  component.boiling_point = section.number("boiling_point", Quantity::kAbsolute, kPositive);
  component.volume_shift = section.number("volume_shift", Quantity::kNone, {-0.5, 0.5}, 0);
  component.omega_a = section.number("omega_a", Quantity::kNone, kPositive, 0.45724);
  component.omega_b = section.number("omega_b", Quantity::kNone, kPositive, 0.07780);
  component.parachor = section.number("parachor", Quantity::kNone, kNotNegative, 0);
  section.finish();
  return component;
}

std::vector<double> mole_fractions(Section& section, std::string_view key, std::size_t count) {
  std::vector<double> fractions = section.numbers(key);
  const Place place = section.place_of(key);
  if (fractions.size() != count) {
    place.fail(quoted(key) + " has " + std::to_string(fractions.size()) + " values for " +
               std::to_string(count) + " components");
  }
  const double sum = std::accumulate(fractions.begin(), fractions.end(), 0.0);
  if (std::abs(sum - 1) > 0.001) {
    place.fail(quoted(key) + " adds up to " + plain(sum) + ", not to 1");
  }
  for (double& each : fractions) each /= sum;
  return fractions;
}

void read_composition(Section section, const std::vector<Component>& own, Deck& deck) {
  Composition composition;
  const Place place = section.place_of("components");
  for (const std::string& name : section.texts("components")) {
    const auto same = [&](const Component& each) { return each.name == name; };
    if (std::any_of(composition.components.begin(), composition.components.end(), same)) {
      place.fail("component " + quoted(name) + " is listed twice");
    }
    const auto defined = std::find_if(own.begin(), own.end(), same);
    const auto found = defined != own.end() ? std::optional(*defined) : find_component(name);
    if (!found) place.fail("unknown component " + quoted(name));
    composition.components.push_back(*found);
  }
  const std::size_t count = composition.components.size();
  if (count < 2) place.fail("\"components\" must name two components or more");
  composition.reservoir = mole_fractions(section, "composition", count);
  composition.injection_gas = mole_fractions(section, "injection_gas", count);
  section.finish();
  deck.composition = std::move(composition);
}

WellType well_type(Section& section) {
  const std::string type = section.text("type");
  for (const WellType each :
       {WellType::kProducer, WellType::kWaterInjector, WellType::kGasInjector}) {
    if (type == to_string(each)) return each;
  }
  section.place_of("type").fail(
      "\"type\" must be \"PRODUCER\", \"WATER_INJECTOR\" or \"GAS_INJECTOR\", not " + quoted(type));
}

bool is_open(Section& section) {
  const std::string status = section.text("status", "OPEN");
  if (status != "OPEN" && status != "SHUT") {
    section.place_of("status").fail("\"status\" must be \"OPEN\" or \"SHUT\", not " +
                                    quoted(status));
  }
  return status == "OPEN";
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
  for (const auto& [key, place] : section->keys()) {
    const auto constraint = find_constraint(key);
    if (!constraint) place.fail("unknown constraint " + quoted(key));
    if (!applies(*constraint, well.type)) {
      place.fail(quoted(key) + " does not apply to a " + to_string(well.type));
    }
    well.limits[static_cast<std::size_t>(*constraint)] =
        section->number(key, quantity_of(*constraint), kNotNegative);
  }
}

WellDeck read_well(Section section) {
  WellDeck well;
  well.name = section.text("name");
  if (well.name.empty() || well.name == "*") {
    section.place_of("name").fail("\"name\" must be a well name, not " + quoted(well.name));
  }
  well.type = well_type(section);
  well.open = is_open(section);
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
  for (Section& section : root.sections("well")) {
    const Place place = section.place_of("name");
    deck.wells.push_back(read_well(std::move(section)));
    if (!names.insert(deck.wells.back().name).second) {
      place.fail("duplicate well " + quoted(deck.wells.back().name));
    }
  }
  if (deck.wells.empty()) root.place().fail("missing section [[well]]");
}

Deck read_table(const toml::table& table, const std::string& file) {
  const Place top{file, 1};
  Deck deck;
  // The units of every other number depend on this one text.
  {
    Section root(table, "the deck", top, deck.units);
    Section run = root.need_section("run");
    deck.units = Units(unit_system(run));
  }
  Section root(table, "the deck", top, deck.units);
  Section run = root.need_section("run");
  run.find("units");
  const bool compositional = read_run(std::move(run), deck);
  read_reservoir(root.need_section("reservoir"), deck);
  read_water(root.section("water"), deck);
  read_flow(root.section("flow"), deck);
  if (compositional) {
    std::vector<Component> own;
    for (Section& section : root.sections("component")) {
      own.push_back(read_component(std::move(section)));
    }
    read_composition(root.need_section("composition"), own, deck);
  } else {
    read_black_oil(root.need_section("black_oil"), deck);
  }
  read_wells(root, deck);
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
    return read_table(toml::parse(text, file), file);
  } catch (const toml::parse_error& error) {
    Place{file, error.source().begin.line}.fail(std::string(error.description()));
  }
}

Deck read_deck(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  if (!in) {
    Place{path, 1}.fail("cannot be read: " + std::generic_category().message(errno));
  }
  text << in.rdbuf();
  return parse_deck(text.str(), path);
}

std::string deck_path(const std::string& path, const std::string& root) {
  return path + "/" + root + ".afi";
}

}  // namespace simulator
