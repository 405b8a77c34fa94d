// The stand-in simulator as a library. A Deck describes a model, and a Reservoir runs it: a Tank,
// of black oil or of components, and its Wells. ControllerLink answers a controller from a
// Reservoir; the model itself knows nothing of the link. docs/stand-in-simulator.md has the
// equations' sources.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "simulator/calendar.h"
#include "simulator/deck.h"
#include "simulator/tank.h"
#include "simulator/well.h"

namespace simulator {

/// Field totals in the deck's units: of rates, or of amounts since the start.
struct FieldTotals {
  double oil = 0;
  double gas = 0;
  double water = 0;
  double water_injection = 0;
  double gas_injection = 0;
};

/// An inflow curve of a well in the deck's units: one list of values per named item.
struct InflowCurve {
  std::vector<std::string> items;
  std::vector<std::vector<double>> values;
};

/// A running simulation: one tank, its wells, and the time. All numbers that go in and out are in
/// the deck's units. A change to a well shows in the next answer at once; only advancing moves the
/// reservoir. Not thread-safe.
class Reservoir {
 public:
  explicit Reservoir(Deck deck);

  const Deck& deck() const { return deck_; }

  // Time.

  double time() const { return time_; }  ///< days since the start
  DateTime date() const { return date_after(deck_.start, time_); }
  DateTime start_date() const { return date_after(deck_.start, 0); }
  bool ended() const { return time_ >= end_time_; }

  /// Runs to exactly `days`, or to the end of the run where that is earlier. A time that has passed
  /// already changes nothing. `interrupted` is asked between the steps that this takes; once it
  /// says yes, the run stays where it is.
  void advance_to(double days, const std::function<bool()>& interrupted = nullptr);

  /// Ends the run early: at `days`, if that is before the deck's end.
  void limit_end_time(double days);

  // The field.

  double pressure() const;
  FieldTotals rates() const;
  const FieldTotals& cumulative() const { return cumulative_; }
  /// What the reservoir holds, in the deck's units; kmol of each component in compositional runs.
  Amounts in_place() const;
  /// kmol of each component taken out and put in since the start; empty in black-oil runs.
  const std::vector<double>& moles_produced() const { return moles_produced_; }
  const std::vector<double>& moles_injected() const { return moles_injected_; }

  // Wells. Positions count from 0 in the deck's order.

  std::size_t well_count() const { return wells_.size(); }
  std::optional<std::size_t> find_well(const std::string& name) const;
  const Well& well(std::size_t position) const { return wells_[position]; }

  /// A property by name, to be looked up once for many wells.
  struct Property;
  /// The number-valued property of that name, or nullptr. See docs/stand-in-simulator.md.
  const Property* find_property(const std::string& name) const;
  double value(std::size_t well, const Property& property) const;
  /// The text-valued property of that name ("TYPE", "STATUS", "CONTROL_MODE"), or nothing.
  std::optional<std::string> text(std::size_t well, const std::string& name) const;

  /// The property of a well, both by name. Throws std::out_of_range for an unknown name.
  double well_property(const std::string& well, const std::string& property) const;

  /// The curve in `points` points from the fully opened well down: point k, from 0, has the share
  /// ((points - k) / points)^skewness of the open well's rate. The first item is `pressure_type`,
  /// "BOTTOM_HOLE_PRESSURE" or "TUBING_HEAD_PRESSURE"; for another text there is no curve. The
  /// well's limits and status play no part.
  std::optional<InflowCurve> inflow_curve(std::size_t well, const std::string& pressure_type,
                                          int points, double skewness) const;

  // Setters. They return false, and change nothing, where a name or a value makes no sense.

  bool set_status(const std::string& well, const std::string& status);
  bool set_uptime(const std::string& well, double fraction);
  /// Sets or replaces one limit of a well; the others stay. A negative or non-finite value removes
  /// it: that is how a controller takes a limit off.
  bool set_constraint(const std::string& well, const std::string& constraint, double value,
                      const std::string& setter);
  /// Attaches an external source of `phase` to a gas injector of a compositional run. Until its
  /// composition is set it delivers the deck's injection gas.
  bool create_source(const std::string& well, const std::string& source, const std::string& phase);
  /// Sets what a source delivers. `names` are "TOTAL_MOLE_FRACTION[n]" or component names; those
  /// not named count as 0; values are scaled to add up to 1.
  bool set_source_composition(const std::string& source, const std::vector<std::string>& names,
                              const std::vector<double>& values);

 private:
  const OperatingPoint& point(std::size_t well) const;
  Surroundings surroundings(const FlowState& flow) const;
  const std::vector<double>& injected_composition(std::size_t well) const;
  /// The rates of all wells if the tank had `pressure` (bar).
  Exchange exchange(double pressure) const;
  /// By how much less the wells would exchange if the tank had 1 bar less and no limit held them.
  Exchange response() const;
  static void add_production(Exchange& sum, const Well& well, double drawdown_term);
  void add_gas_injection(Exchange& sum, std::size_t well, double rate) const;
  double mole_fraction(std::size_t well, std::size_t component) const;
  std::optional<std::size_t> component_position(const std::string& name) const;
  void account(const Step& step);
  void forget_points();
  void build_properties();
  double shown(Quantity quantity, double value) const {
    return deck_.units.from_model(quantity, value);
  }

  Deck deck_;
  std::unique_ptr<Tank> tank_;
  std::vector<Well> wells_;
  std::unordered_map<std::string, std::size_t> positions_;
  std::unordered_map<std::string, std::shared_ptr<const Property>> properties_;
  double time_ = 0;
  double end_time_;
  FieldTotals cumulative_;
  std::vector<double> moles_produced_;
  std::vector<double> moles_injected_;
  std::map<std::string, std::vector<double>> sources_;
  std::unordered_map<std::size_t, std::string> attached_;  // well to source

  // An operating point is worked out when it is first asked for: a controller that builds inflow
  // tables changes a few wells of thousands and asks for these only.
  mutable std::vector<std::optional<OperatingPoint>> points_;
};

/// Fetches one number of a well. Opaque to callers.
struct Reservoir::Property {
  Quantity quantity = Quantity::kNone;
  double (*read)(const Reservoir&, std::size_t well, std::size_t index) = nullptr;
  std::size_t index = 0;
};

}  // namespace simulator
