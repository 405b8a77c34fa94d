#pragma once

#include <string>
#include <vector>

namespace vk_ec {

/// Properties of wells; T is `double` or `std::string`.
template <typename T>
struct WellQueryResults {
  std::vector<std::string> wells;
  /// The names of the properties, as the simulator has repeated them.
  std::vector<std::string> items;
  /// A row per well, with a value per item.
  std::vector<std::vector<T>> values;
};

/// Properties of the whole run; T is `int` or `std::string`.
template <typename T>
struct ReservoirQueryResults {
  std::vector<std::string> items;
  /// A row per item, of any length.
  std::vector<std::vector<T>> values;
};

/// The three lists of a well are of the same length: one entry per constraint.
struct WellConstraintResults {
  std::vector<std::string> wells;
  std::vector<std::vector<std::string>> items;
  std::vector<std::vector<double>> values;
  /// Who has set the constraint ("USER", ...).
  std::vector<std::vector<std::string>> setters;
};

/// Inflow-performance curves; all curves of a well have the same number of points.
struct IPRDataResults {
  std::vector<std::string> wells;
  /// Per well, the names of its curves.
  std::vector<std::vector<std::string>> items;
  /// Per well and curve, the points.
  std::vector<std::vector<std::vector<double>>> values;
};

struct ReservoirFluidModelDescription {
  std::string fluid_model_name;
  std::string eos_name;
  std::vector<std::string> component_names;
  /// Binary interaction coefficients, as many as the simulator sends.
  std::vector<double> bic;
  std::vector<std::string> eos_property_names;
  /// Per property, one value per component.
  std::vector<std::vector<double>> eos_property_values;
};

}  // namespace vk_ec
