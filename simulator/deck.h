#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/components.h"
#include "simulator/units.h"

namespace simulator {

/// A deck that cannot be run. what() is "file:line: message".
class DeckError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class WellType { kProducer, kWaterInjector, kGasInjector };

/// "PRODUCER", "WATER_INJECTOR" or "GAS_INJECTOR".
std::string to_string(WellType type);

/// The limits that a well can carry, in the order of constraint_names().
enum class Constraint {
  kOilProductionRate,
  kGasProductionRate,
  kWaterProductionRate,
  kLiquidProductionRate,
  kWaterInjectionRate,
  kGasInjectionRate,
  kBottomHolePressure,
  kTubingHeadPressure,
};
inline constexpr std::size_t kConstraintCount = 8;

/// "OIL_PRODUCTION_RATE" and so on.
const std::array<std::string_view, kConstraintCount>& constraint_names();

/// The constraint of that name, or nothing.
std::optional<Constraint> find_constraint(std::string_view name);

/// What the constraint's value measures.
Quantity quantity_of(Constraint constraint);

/// One well of the deck. All numbers in the model's units (see Quantity).
struct WellDeck {
  std::string name;
  WellType type = WellType::kProducer;
  bool open = true;
  double uptime = 1;
  double index = 0;  ///< of productivity or injectivity: liquid, water or gas, sm3/d/bar
  double depth = 0;
  double tubing_diameter = 0;
  double lift = 0;            ///< pressure that a pump adds in the tubing, bar
  double water_mobility = 1;  ///< times the field's; more for a well near water injectors
  double gas_mobility = 1;    ///< times the field's; more for a well near gas injectors
  std::array<std::optional<double>, kConstraintCount> limits;
};

struct RelativePermeability {
  double connate_water = 0.2;
  double residual_oil = 0.2;
  double critical_gas = 0.05;
  double water_end_point = 0.35;
  double gas_end_point = 0.8;
  double oil_exponent = 2;
  double water_exponent = 2.5;
  double gas_exponent = 2.5;
};

struct Viscosities {  // cP
  double oil = 1;
  double water = 0.4;
  double gas = 0.02;
};

struct BlackOil {
  double api = 0;
  double gas_gravity = 0;  ///< over air
  double bubble_point = 0;
  double oil_compressibility = 1.5e-4;  ///< above the bubble point
};

struct Composition {
  std::vector<Component> components;
  std::vector<double> reservoir;      ///< mole fractions, adding up to 1
  std::vector<double> injection_gas;  ///< mole fractions, adding up to 1
};

/// A model as its deck describes it, checked, in the model's units (see Quantity).
struct Deck {
  std::string title;
  Units units{Units::System::kMetric};
  std::chrono::year_month_day start{};
  double end_time = 0;  ///< days after the start
  double max_step = 0;  ///< days

  double pressure = 0;
  double temperature = 0;
  double pore_volume = 0;  ///< m3 at `pressure`
  double rock_compressibility = 0;
  double water_saturation = 0;
  double fracture_pressure = 0;  ///< no injector's bottom-hole pressure goes above
  double injection_temperature = 0;

  double water_density = 1030;  ///< at standard conditions
  double water_volume_factor = 1.02;
  double water_compressibility = 4.5e-5;

  RelativePermeability relative_permeability;
  Viscosities viscosities;
  /// "file:line" of what describes the fluid, for complaints about what follows from it.
  std::string fluid_place;
  BlackOil black_oil;                      ///< has a meaning in black-oil decks only
  std::optional<Composition> composition;  ///< present in compositional decks
  std::vector<WellDeck> wells;
};

/// Reads the deck at `path`. Throws DeckError, also when the file cannot be read.
Deck read_deck(const std::string& path);

/// Reads a deck from text; `file` stands for its name in messages. Throws DeckError.
Deck parse_deck(std::string_view text, const std::string& file);

/// "<path>/<root>.afi".
std::string deck_path(const std::string& path, const std::string& root);

}  // namespace simulator
