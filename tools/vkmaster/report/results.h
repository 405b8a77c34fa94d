#pragma once

#include <string>
#include <vector>

namespace vkmaster {

/// A column of results: "oil_rate", "sm3/d".
struct Heading {
  std::string id;
  std::string unit;  ///< empty for none

  bool operator==(const Heading&) const = default;
};

/// Values in columns of equal length; NaN where there is none.
using Columns = std::vector<std::vector<float>>;

struct WellResults {
  std::string name;
  std::string type;    ///< empty when it was not recorded
  std::string status;  ///< at the last stop; empty when it was not recorded there
  Columns values;      ///< by quantity, one for each time
};

/// The inflow tables of a well, one after the other.
struct WellInflow {
  struct Part {
    double day;
    std::size_t points;
  };
  std::string well;
  std::vector<Part> tables;
  Columns values;
};

struct ResultEvent {
  double day;
  std::string command;
};

/// A stop of the run, and the wall time; NaN where it was not recorded.
struct ResultStop {
  double day;
  double elapsed;    ///< seconds since the run began
  double computing;  ///< seconds that the simulator took for the step
};

/// What a plan has left in its directory.
struct Results {
  std::string directory;
  std::string run;         ///< run.json as it stands there; empty without it
  std::string start_date;  ///< of the simulation, as 2020-01-31; empty when it is not known

  /// When wells were recorded, in days and ascending. A time stands there twice when a well was
  /// recorded before and after an event; wells that were not have the same values twice.
  std::vector<double> days;
  std::vector<Heading> quantities;
  std::vector<WellResults> wells;

  /// The field's rates: those of field.csv when it has them at all stops, else sums over the wells
  /// without gaps.
  std::vector<Heading> field_quantities;
  Columns field;
  bool field_recorded = false;

  std::vector<ResultStop> stops;
  std::vector<ResultEvent> events;
  std::vector<Heading> inflow_columns;
  std::vector<WellInflow> inflow;
};

/// Reads run.json and those of the CSV files that can be drawn. Throws UsageError when the
/// directory has no results, and for a file that cannot be read.
Results ReadResults(const std::string& directory);

/// The day of the last stop, NaN without any.
double LastDay(const Results& results);

/// Whether the rates of wells, or of the field, were recorded at all stops.
bool CoversStops(const Results& results);

/// Whether the well has rates, and each at all times of the results since its first value. A well
/// that comes later was added by the model, unless its first values are those of the last stop.
bool IsWithoutGaps(const Results& results, const WellResults& well);

std::vector<const WellResults*> WellsWithoutGaps(const Results& results);

/// What a rate without gaps adds up to: each value holds for the days since the time before. NaN
/// for a rate without any value.
double AddedUp(const std::vector<double>& days, const std::vector<float>& rates);

/// Whether the column is a rate, which can be summed over wells and added up over time.
bool IsRate(const std::string& id);

}  // namespace vkmaster
