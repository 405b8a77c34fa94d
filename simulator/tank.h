#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "simulator/deck.h"

namespace simulator {

/// What one reservoir phase brings to a well per unit of drawdown term, in standard volumes (sm3),
/// mass (kg) and the volume (m3) that it takes half way up the tubing.
struct Stream {
  double oil = 0;
  double gas = 0;
  double mass = 0;
  double tubing_volume = 0;
};

/// What the reservoir offers to its wells at this moment. A producer with drawdown term d (its
/// index times its drawdown, sm3/d) takes d of the oil phase, d times its gas mobility of the gas
/// phase, and d times its water mobility of the water. Scaled so that at the start of the run d is
/// the liquid rate of a well whose mobilities are 1.
struct FlowState {
  double pressure = 0;      ///< bar
  double bubble_point = 0;  ///< bar, not above `pressure`
  Stream oil_phase;
  Stream gas_phase;
  double water = 0;  ///< sm3 of water per unit of drawdown term
};

/// Rates of the whole field, constant over a step. The first three are sums of the producers'
/// drawdown terms, each with the well's uptime and mobility; injection is in sm3/d.
struct Exchange {
  double oil_phase = 0;
  double gas_phase = 0;
  double water = 0;
  double water_injected = 0;
  double gas_injected = 0;
  std::vector<double> moles_injected;  ///< kmol/d of each component; empty in black-oil runs
};

/// Amounts in standard volumes (sm3) and, in compositional runs, kmol of each component.
struct Amounts {
  double oil = 0;
  double gas = 0;
  double water = 0;
  std::vector<double> moles;
};

/// A step that a tank has taken.
struct Step {
  double days = 0;
  Exchange rates;    ///< that held over it
  Amounts produced;  ///< per day, at the surface; injection not counted
};

/// The reservoir as one tank: what is in it, and the one pressure at which it all fits.
class Tank {
 public:
  virtual ~Tank() = default;
  Tank(const Tank&) = delete;
  Tank& operator=(const Tank&) = delete;

  const FlowState& flow() const { return flow_; }

  /// Takes a step of at most `days`: less, but more than 0, where it would have moved the pressure
  /// or emptied the tank too far to stay valid. `rates_at` gives the wells' rates at a pressure of
  /// the tank. The rates are those at the pressure with which the step begins; where the wells
  /// answer to the pressure so strongly that it would overshoot, those at the pressure with which
  /// the step ends. `response` is by how much less the wells would exchange at 1 bar less if no
  /// limit held them. What leaves the tank is exactly rate times time.
  Step advance(const std::function<Exchange(double pressure)>& rates_at, const Exchange& response,
               double days);

  /// What the tank holds. In compositional runs `oil` and `gas` are what the two phases would
  /// give at the surface now.
  virtual Amounts in_place() const = 0;

  /// kg/m3 of a phase at `pressure` (bar) and reservoir temperature.
  virtual double oil_density(double pressure) const = 0;
  virtual double gas_density(double pressure) const = 0;
  double water_density(double pressure) const;

  /// Mole fractions of the stream of a producer with that gas mobility; empty in black-oil runs.
  virtual std::vector<double> stream_composition(double gas_mobility) const = 0;

 protected:
  explicit Tank(const Deck& deck);

  /// What an exchange takes out per day: sm3/d at the surface and, in compositional runs, kmol/d of
  /// each component. Injection is not counted.
  virtual Amounts produced(const Exchange& exchange) const = 0;

  /// m3/d of oil and gas in the reservoir by which an exchange empties it. Gas that dissolves is
  /// counted as gas.
  virtual double hydrocarbon_voidage(const Exchange& exchange) const = 0;

  /// Moves the amounts that `exchange` brings and takes in `days`. advance() tries steps this way:
  /// it calls save() first, and restore() after each trial.
  virtual void apply(const Exchange& exchange, double days) = 0;
  virtual void save() = 0;
  virtual void restore() = 0;

  /// The longest time for which `exchange` leaves at least half of everything in the tank.
  virtual double emptying_limit(const Exchange& exchange) const = 0;

  /// m3 that the contents without the water fill at `pressure`.
  virtual double hydrocarbon_volume(double pressure) const = 0;

  /// Works out flow_ at `pressure` from the contents.
  virtual void update_flow(double pressure) = 0;

  /// The pressure at which the contents fill the pores exactly.
  double find_pressure();
  void settle() { update_flow(find_pressure()); }

  double pore_volume(double pressure) const;
  double water_volume_factor(double pressure) const;

  /// Relative permeabilities over viscosities of the phases, from the volumes they fill.
  struct Mobilities {
    double oil = 0;
    double gas = 0;
    double water = 0;
  };
  Mobilities mobilities(double pressure, double oil_volume, double gas_volume) const;

  /// Makes the liquid rate 1 per unit of drawdown term; called once, with the initial contents.
  /// Throws DeckError when there is next to no liquid in what flows.
  void set_scale(const Deck& deck);

  double tubing_pressure(double pressure) const;

  FlowState flow_;
  double scale_ = 1;
  double water_ = 0;  // sm3
  double fluid_temperature_;

 private:
  double pressure_after(const Exchange& rates, double days);
  bool overshoots(const Exchange& response, double days) const;

  double volume_per_bar_ = 0;  // m3 that the contents give way when the pressure rises by 1 bar
  double initial_pressure_;
  double initial_pore_volume_;
  double rock_compressibility_;
  double water_density_;
  double water_volume_factor_;
  double water_compressibility_;
  RelativePermeability curves_;
  Viscosities viscosities_;
};

/// The tank that the deck describes, in its initial state.
std::unique_ptr<Tank> make_tank(const Deck& deck);

}  // namespace simulator
