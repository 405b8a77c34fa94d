#pragma once

#include <optional>
#include <vector>

#include "simulator/equation_of_state.h"
#include "simulator/tank.h"

namespace simulator {

/// A tank of hydrocarbon components and water: the moles of each component are conserved, a flash
/// calculation splits them into oil and gas, and another one at standard conditions turns what a
/// phase delivers into surface volumes.
class CompositionalTank : public Tank {
 public:
  explicit CompositionalTank(const Deck& deck);

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
  struct Asked {
    double pressure = 0;
    Flash phases;
  };
  double total_moles() const;
  Flash phases_at(double pressure) const;
  const Flash& asked(double pressure) const;
  std::vector<double> fractions() const;
  Stream surface_stream(const std::vector<double>& mixture, double moles, double pressure) const;
  std::vector<double> moles_out(const Exchange& exchange) const;

  EquationOfState reservoir_equation_;
  EquationOfState surface_equation_;
  std::vector<double> moles_;  // kmol of each component
  Flash phases_;               // at the tank's pressure
  // The last other pressure at which phases were asked for: both densities of a well are at one.
  mutable std::optional<Asked> asked_;
  double oil_moles_ = 0;  // kmol of the oil phase per unit of drawdown term
  double gas_moles_ = 0;
  std::vector<double> saved_moles_;
  double saved_water_ = 0;
};

}  // namespace simulator
