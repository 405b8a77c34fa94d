#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "simulator/deck.h"
#include "simulator/tank.h"

namespace simulator {

/// Where a well stands, in the model's units. Rates are averages over the day, so they count the
/// uptime; pressures are those while it flows.
struct OperatingPoint {
  double drawdown_term = 0;  ///< producers, while flowing; see FlowState
  double oil = 0;
  double gas = 0;
  double water = 0;
  double water_injection = 0;
  double gas_injection = 0;
  double bottom_hole_pressure = 0;
  double tubing_head_pressure = 0;
  /// The name of the binding constraint, "SHUT", or "RESERVOIR" when no constraint binds.
  std::string_view limited_by;
};

/// What all wells need to know about the reservoir to find their operating point.
struct Surroundings {
  const FlowState& flow;
  double water_density;      ///< kg/m3 at reservoir pressure
  double gas_density;        ///< kg/m3 at reservoir pressure
  double fracture_pressure;  ///< bar
};

/// One well: its inflow, its tubing and its limits. The operating point is the largest rate that no
/// limit forbids.
class Well {
 public:
  struct Limit {
    double value = 0;
    std::string setter;  ///< who set it: "DECK" or the word that the controller sent
  };

  explicit Well(const WellDeck& deck);

  const WellDeck& deck() const { return deck_; }
  bool is_open() const { return open_; }
  double uptime() const { return uptime_; }
  const std::array<std::optional<Limit>, kConstraintCount>& limits() const { return limits_; }

  void set_open(bool open) { open_ = open; }
  /// `fraction` is cut to 0 ... 1.
  void set_uptime(double fraction);
  void set_limit(Constraint constraint, std::optional<Limit> limit);

  /// The largest allowed operating point. Constant time.
  OperatingPoint solve(const Surroundings& around) const;

  /// The operating point at this bottom-hole pressure, whatever the limits say. A producer's rates
  /// never rise with the pressure, an injector's never fall.
  OperatingPoint at_bottom_hole_pressure(const Surroundings& around, double pressure) const;

 private:
  struct Column;  // the fluid in the tubing
  struct Mix;     // what flows per unit of a producer's drawdown term

  Column column(const Surroundings& around, const Mix& mix) const;
  Mix mix(const FlowState& flow) const;
  OperatingPoint solve_producer(const Surroundings& around) const;
  OperatingPoint solve_injector(const Surroundings& around) const;
  OperatingPoint producing(const Surroundings& around, double drawdown_term) const;
  OperatingPoint injecting(const Surroundings& around, double rate) const;
  const std::optional<Limit>& limit(Constraint constraint) const;

  WellDeck deck_;
  bool open_;
  double uptime_;
  std::array<std::optional<Limit>, kConstraintCount> limits_;
};

/// The drawdown term of a producer with index 1: a straight line above the bubble point, Vogel's
/// curve below. Falls as `bottom_hole` rises; 0 from the reservoir pressure on.
double inflow(double reservoir, double bubble_point, double bottom_hole);

/// The bottom-hole pressure that gives this inflow.
double inverse_inflow(double reservoir, double bubble_point, double inflow);

}  // namespace simulator
