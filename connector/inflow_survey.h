#pragma once

#include <string>
#include <vector>

#include "connector/name_lookup.h"
#include "connector/records.h"
#include "connector/well_table.h"

namespace connector {

/// The state of one survey that builds the inflow tables of wells: what to ask the simulator next,
/// and what its answers mean. The caller does the asking.
///
/// Ten points are taken. At the first point the rate limits are so high that no well reaches them;
/// at point k the limits are ((11 - k) / 10)^skewness of the rates that the wells had at the first.
/// Producers are limited in liquid and gas together, water injectors in water, all other wells in
/// gas.
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

  /// The limits of the next point: per well the names of its constraints, their values, and the
  /// words for who sets them.
  const std::vector<std::vector<std::string>>& constraints() const { return constraints_; }
  const std::vector<std::vector<double>>& limits() const { return limits_; }
  const std::vector<std::vector<std::string>>& setters() const { return setters_; }

  /// The properties to ask of every well at every point.
  const std::vector<std::string>& properties() const { return properties_; }

  /// Appends one point to every table. The tables are those of the wells, in the wells' order.
  /// Throws "Unexpected answer when querying the well IPR data."
  void TakePoint(const WellTable<double>& answer, std::vector<DynWellIPR>& tables);

  /// Sets the limits for the point that follows `taken` points.
  void LowerLimits(int taken, double skewness);

 private:
  enum class Type { kProducer, kWaterInjector, kOther };

  // Surface volumes per day. The liquid is oil and water of a producer, water of an injector.
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
