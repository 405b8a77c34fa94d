#pragma once

#include <string>
#include <vector>

#include "connector/name_lookup.h"
#include "connector/records.h"
#include "connector/well_table.h"

namespace connector {

/// The working state of one survey of the inflow of wells: what to ask the simulator next, and
/// what its answers mean. It talks to nobody itself.
///
/// Ten points are taken. At the first the rate limits are so high that they do not bind; at point
/// k they are ((11 - k) / 10)^skewness of the rates of the first. Producers are limited in liquid
/// and gas together, water injectors in water, all other wells in gas.
class InflowSurvey {
 public:
  static constexpr int kMostComponents = 100000;

  /// `wells` stays the caller's and must outlive the object. No mole fractions are surveyed when
  /// `components` is not positive. Throws `std::length_error` above kMostComponents.
  InflowSurvey(const std::vector<std::string>& wells, int components, bool bottom_hole,
               bool metric);
  InflowSurvey(const InflowSurvey&) = delete;
  InflowSurvey& operator=(const InflowSurvey&) = delete;

  /// Learns the wells' types and appends an empty table for each of them. Throws "Unexpected
  /// answer when querying the well status data."
  void TakeTypes(const WellTable<std::string>& types, std::vector<DynWellIPR>& tables);

  /// Per well the names of its limits, the limits of the next point, and who sets them.
  const std::vector<std::vector<std::string>>& constraints() const { return constraints_; }
  const std::vector<std::vector<double>>& limits() const { return limits_; }
  const std::vector<std::vector<std::string>>& setters() const { return setters_; }

  /// The properties to ask of every well at every point.
  const std::vector<std::string>& properties() const { return properties_; }

  /// Appends one point to the tables, the first of which is that of the first well. Throws
  /// "Unexpected answer when querying the well IPR data."
  void TakePoint(const WellTable<double>& answer, std::vector<DynWellIPR>& tables);

  /// Sets the limits of point `taken` + 1.
  void LowerLimits(int taken, double skewness);

 private:
  enum class Type { kProducer, kWaterInjector, kOther };

  // Rates in surface volumes per day: oil and water together, or water injected; gas.
  struct Rates {
    double liquid;
    double gas;
  };

  static std::vector<std::string> ConstraintsOf(Type type);
  static void SetLimits(Type type, Rates rates, std::vector<double>& limits);
  static void ReservePoints(DynWellIPR& table);
  static Type TypeOf(const std::string& word);

  const std::vector<std::string>& wells_;
  NameLookup well_lookup_;
  bool bottom_hole_;
  Rates first_limits_;
  std::vector<std::string> properties_;
  NameLookup property_lookup_;
  std::vector<Type> types_;
  std::vector<std::vector<std::string>> constraints_;
  std::vector<std::vector<std::string>> setters_;
  std::vector<std::vector<double>> limits_;
  std::vector<Rates> base_;  // the rates of the first point
};

}  // namespace connector
