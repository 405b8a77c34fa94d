#pragma once

#include <vector>

#include "simulator/equation_of_state.h"
#include "simulator/tank.h"

namespace simulator {

/// A tank of oil with dissolved gas, free gas and water: three conserved surface volumes. Gas
/// solubility and oil volume after Standing, gas volume from the Peng-Robinson equation for a gas
/// with Sutton's pseudo-critical constants.
class BlackOilTank : public Tank {
 public:
  explicit BlackOilTank(const Deck& deck);

  Amounts in_place() const override;
  double oil_density(double pressure) const override;
  double gas_density(double pressure) const override;
  std::vector<double> stream_composition(double gas_mobility) const override;

 protected:
  Amounts produced(const Exchange& exchange) const override;
  double hydrocarbon_voidage(const Exchange& exchange) const override;
  void apply(const Exchange& exchange, double days) override;
  void save() override;
  void restore() override;
  double emptying_limit(const Exchange& exchange) const override;
  double hydrocarbon_volume(double pressure) const override;
  void update_flow(double pressure) override;

 private:
  struct Contents {
    double oil = 0;  // sm3
    double gas = 0;  // sm3, free and dissolved
    double water = 0;
  };
  double solution_ratio(double pressure) const;
  double bubble_point(double solution_ratio) const;
  double dissolved(double pressure) const;
  double oil_volume_factor(double pressure) const;
  double gas_volume_factor(double pressure) const;

  EquationOfState gas_equation_;
  double oil_gravity_;  // over water
  double gas_gravity_;  // over air
  double api_;
  double oil_compressibility_;
  double oil_ = 0;
  double gas_ = 0;
  Contents saved_;
};

}  // namespace simulator
