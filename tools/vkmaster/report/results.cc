#include "tools/vkmaster/report/results.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <numeric>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tools/vkmaster/report/csv.h"
#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/calendar.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

namespace fs = std::filesystem;

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
constexpr float kNoValue = std::numeric_limits<float>::quiet_NaN();

double NumberOf(std::string_view cell) {
  double value = 0;
  const auto [end, error] = std::from_chars(cell.data(), cell.data() + cell.size(), value);
  return error == std::errc() && end == cell.data() + cell.size() ? value : kNone;
}

// "oil_rate [sm3/d]" with its parts. What vars records under the simulator's name is what data
// records under ours: OIL_PRODUCTION_RATE is oil_rate.
Heading HeadingOf(const std::string& text) {
  const std::size_t bracket = text.rfind(" [");
  Heading heading{text, ""};
  if (bracket != std::string::npos && text.ends_with(']')) {
    heading = {text.substr(0, bracket), text.substr(bracket + 2, text.size() - bracket - 3)};
  }
  const bool capitals = std::all_of(heading.id.begin(), heading.id.end(),
                                    [](char c) { return c == '_' || (c >= 'A' && c <= 'Z'); });
  if (!capitals) return heading;
  std::transform(heading.id.begin(), heading.id.end(), heading.id.begin(),
                 [](char c) { return c == '_' ? c : static_cast<char>(c - 'A' + 'a'); });
  constexpr std::string_view kProduction = "_production";
  if (const std::size_t at = heading.id.find(kProduction); at != std::string::npos) {
    heading.id.erase(at, kProduction.size());
  }
  return heading;
}

// The place of a heading in the list, to which it is added when it is new. Of several with one id
// the unit of the first stays.
std::size_t PlaceOf(std::vector<Heading>& list, const Heading& heading) {
  const auto found = std::find_if(list.begin(), list.end(),
                                  [&](const Heading& known) { return known.id == heading.id; });
  if (found != list.end()) return static_cast<std::size_t>(found - list.begin());
  list.push_back(heading);
  return list.size() - 1;
}

float& At(Columns& columns, std::size_t column, std::size_t row) {
  if (columns.size() <= column) columns.resize(column + 1);
  if (columns[column].size() <= row) columns[column].resize(row + 1, kNoValue);
  return columns[column][row];
}

// Which columns of a file hold what; those that are not among the texts hold quantities.
struct Layout {
  Layout(const CsvFile& file, std::vector<std::string> texts, std::vector<Heading>& headings) {
    for (const std::string& title : file.header()) {
      const bool is_text = std::find(texts.begin(), texts.end(), title) != texts.end();
      place.push_back(is_text ? -1 : static_cast<int>(PlaceOf(headings, HeadingOf(title))));
      if (is_text) column[title] = static_cast<int>(place.size()) - 1;
    }
  }

  std::string_view Text(const std::vector<std::string_view>& cells, std::string_view name) const {
    const auto found = column.find(name);
    return found == column.end() ? "" : cells[static_cast<std::size_t>(found->second)];
  }

  double Day(const CsvFile& file, const std::vector<std::string_view>& cells) const {
    const std::string_view text = Text(cells, "time_days");
    const double day = NumberOf(text);
    if (!std::isfinite(day)) file.Refuse(fmt::format("'{}' is no number of days", text));
    return day;
  }

  std::vector<int> place;  // of each column among the headings, -1 for a text
  std::map<std::string, int, std::less<>> column;  // of the texts
};

class Reader {
 public:
  explicit Reader(const std::string& directory) { results_.directory = directory; }

  Results Read() {
    const std::map<std::string, fs::path> files = Files();
    ReadRunFile();
    for (const auto& [name, path] : files) {
      if (name == "steps") ReadSteps(path.string());
      if (name == "events") ReadEvents(path.string());
    }
    for (const auto& [name, path] : files) {
      if (IsOf(name, "data") || IsOf(name, "vars")) ReadWells(path.string());
    }
    for (const auto& [name, path] : files) {
      if (IsOf(name, "field")) ReadField(path.string());
      if (IsOf(name, "ipr")) ReadInflow(path.string());
      if (IsOf(name, "wells")) ReadTypes(path.string());
    }
    Order();
    for (std::size_t i = 0; i < results_.wells.size(); ++i) {
      results_.wells[i].status = StatusOf(i);
      Complete(results_.wells[i].values, results_.quantities.size());
    }
    if (results_.field_recorded) {
      Complete(results_.field, results_.field_quantities.size());
    } else {
      SumUp();
    }
    return std::move(results_);
  }

 private:
  // A time, and which of the records of one well at that time.
  using Moment = std::pair<double, int>;

  // The last status of a well in some files, and how often it has changed on its day.
  struct Status {
    double day = kNone;
    int changes = -1;
    std::string text;
  };
  using Statuses = std::unordered_map<std::size_t, Status>;  // by well

  std::map<std::string, fs::path> Files() const {
    std::map<std::string, fs::path> files;
    std::error_code error;
    for (const fs::directory_entry& entry :
         fs::directory_iterator(PathOf(results_.directory), error)) {
      if (entry.path().extension() == ".csv") files[entry.path().stem().string()] = entry.path();
    }
    if (!files.contains("steps")) {
      throw UsageError("'" + results_.directory +
                       "' has no results of a plan: there is no steps.csv");
    }
    return files;
  }

  // "data" and "data_2" are of the command data.
  static bool IsOf(const std::string& name, const std::string& command) {
    if (name == command) return true;
    return name.starts_with(command + "_") &&
           name.find_first_not_of("0123456789", command.size() + 1) == std::string::npos;
  }

  void ReadRunFile() {
    std::ifstream in(PathOf(results_.directory) / "run.json", std::ios::binary);
    if (!in) return;
    results_.run.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    const auto run = nlohmann::json::parse(results_.run, nullptr, false);
    if (!run.is_object()) {
      throw UsageError("'" + results_.directory + "' has a run.json that is not understood");
    }
    const auto start = run.find("start_date");
    if (start != run.end() && start->is_string()) results_.start_date = start->get<std::string>();
  }

  void ReadSteps(const std::string& path) {
    CsvFile file(path);
    std::vector<Heading> headings;
    const Layout layout(file, {"time_days", "date", "ended", "elapsed [s]", "computing [s]"},
                        headings);
    while (const auto* cells = file.Next()) {
      results_.stops.push_back({layout.Day(file, *cells),
                                NumberOf(layout.Text(*cells, "elapsed [s]")),
                                NumberOf(layout.Text(*cells, "computing [s]"))});
      if (!results_.start_date.empty()) continue;
      // The date of day 0, when the run's own file does not say it.
      const auto date = ParseDate(std::string(layout.Text(*cells, "date")));
      if (date && results_.stops.back().day < 1) results_.start_date = FormatDate(*date);
    }
  }

  void ReadEvents(const std::string& path) {
    CsvFile file(path);
    std::vector<Heading> headings;
    const Layout layout(file, {"time_days", "date", "command"}, headings);
    while (const auto* cells = file.Next()) {
      results_.events.push_back(
          {layout.Day(file, *cells), std::string(layout.Text(*cells, "command"))});
    }
  }

  void ReadWells(const std::string& path) {
    CsvFile file(path);
    const Layout layout(file, {"time_days", "date", "well", "status"}, results_.quantities);
    std::unordered_map<std::size_t, Moment> last;  // of each well
    while (const auto* cells = file.Next()) {
      const double day = layout.Day(file, *cells);
      const std::size_t well = WellOf(layout.Text(*cells, "well"));
      const auto [before, first] = last.emplace(well, Moment(day, 0));
      if (!first) {
        before->second = {day, before->second.first == day ? before->second.second + 1 : 0};
      }
      Keep(data_statuses_[well], day, layout.Text(*cells, "status"));
      Columns& values = results_.wells[well].values;
      if (before->second.second > 0 &&
          IsSame(layout, *cells, values, RowOf({day, before->second.second - 1}))) {
        --before->second.second;
        continue;
      }
      Take(layout, *cells, values, RowOf(before->second));
    }
  }

  static bool IsSame(const Layout& layout, const std::vector<std::string_view>& cells,
                     Columns& values, std::size_t row) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
      if (layout.place[i] < 0) continue;
      const float value = static_cast<float>(NumberOf(cells[i]));
      const float known = At(values, static_cast<std::size_t>(layout.place[i]), row);
      if (!(value == known || (std::isnan(value) && std::isnan(known)))) return false;
    }
    return true;
  }

  // Adds the values of a line to a row. What an earlier file has given for that row stays.
  static void Take(const Layout& layout, const std::vector<std::string_view>& cells,
                   Columns& values, std::size_t row) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
      if (layout.place[i] < 0) continue;
      float& value = At(values, static_cast<std::size_t>(layout.place[i]), row);
      if (std::isnan(value)) value = static_cast<float>(NumberOf(cells[i]));
    }
  }

  void ReadField(const std::string& path) {
    CsvFile file(path);
    const Layout layout(file, {"time_days", "date"}, results_.field_quantities);
    std::size_t rows = 0;
    double day = kNone;
    while (const auto* cells = file.Next()) {
      if (layout.Day(file, *cells) == day) continue;
      day = layout.Day(file, *cells);
      Take(layout, *cells, results_.field, RowOf({day, 0}));
      ++rows;
    }
    results_.field_recorded = rows > 0 && (rows >= results_.stops.size() || results_.wells.empty());
    if (results_.field_recorded) {
      for (const Heading& heading : results_.field_quantities) {
        if (IsRate(heading.id)) PlaceOf(results_.quantities, heading);
      }
    }
  }

  void ReadInflow(const std::string& path) {
    CsvFile file(path);
    const Layout layout(file, {"time_days", "date", "well", "point"}, results_.inflow_columns);
    while (const auto* cells = file.Next()) {
      WellInflow& inflow = InflowOf(layout.Text(*cells, "well"));
      if (layout.Text(*cells, "point") == "1") {
        inflow.tables.push_back({layout.Day(file, *cells), 0});
      }
      if (inflow.tables.empty()) continue;
      ++inflow.tables.back().points;
      const std::size_t row = RowsOf(inflow) - 1;
      Take(layout, *cells, inflow.values, row);
    }
    for (WellInflow& inflow : results_.inflow) {
      inflow.values.resize(results_.inflow_columns.size());
      for (auto& column : inflow.values) column.resize(RowsOf(inflow), kNoValue);
    }
  }

  static std::size_t RowsOf(const WellInflow& inflow) {
    return std::accumulate(inflow.tables.begin(), inflow.tables.end(), std::size_t{0},
                           [](std::size_t sum, const auto& table) { return sum + table.points; });
  }

  void ReadTypes(const std::string& path) {
    CsvFile file(path);
    std::vector<Heading> headings;
    const Layout layout(file, {"time_days", "date", "well", "type", "status"}, headings);
    while (const auto* cells = file.Next()) {
      const auto found = places_.find(std::string(layout.Text(*cells, "well")));
      if (found == places_.end()) continue;
      results_.wells[found->second].type = layout.Text(*cells, "type");
      Keep(listed_statuses_[found->second], layout.Day(file, *cells),
           layout.Text(*cells, "status"));
    }
  }

  static void Keep(Status& last, double day, std::string_view text) {
    if (text.empty() || day < last.day) return;
    const int changes = day == last.day ? last.changes + (text == last.text ? 0 : 1) : 0;
    last = {day, changes, std::string(text)};
  }

  // The status at the last stop. The files do not say which of two records of one stop is the newer
  // one: it is that which has seen the status change more often.
  std::string StatusOf(std::size_t well) {
    const auto now = [&](Statuses& statuses) {
      const Status& status = statuses[well];
      return status.day == LastDay(results_) ? status : Status{};
    };
    const Status data = now(data_statuses_);
    const Status listed = now(listed_statuses_);
    if (data.text == listed.text || data.changes > listed.changes) return data.text;
    return listed.changes > data.changes ? listed.text : "";
  }

  std::size_t WellOf(std::string_view name) {
    const auto [found, fresh] = places_.emplace(name, results_.wells.size());
    if (fresh) results_.wells.push_back({std::string(name), "", "", {}});
    return found->second;
  }

  WellInflow& InflowOf(std::string_view name) {
    const auto [found, fresh] = inflow_places_.emplace(name, results_.inflow.size());
    if (fresh) results_.inflow.push_back({std::string(name), {}, {}});
    return results_.inflow[found->second];
  }

  // The row of a moment, in the order in which the files have them.
  std::size_t RowOf(const Moment& moment) {
    if (!moments_.empty() && moments_[last_row_] == moment) return last_row_;
    const auto [found, fresh] = rows_.emplace(moment, moments_.size());
    if (fresh) moments_.push_back(moment);
    return last_row_ = found->second;
  }

  void Order() {
    order_.resize(moments_.size());
    std::iota(order_.begin(), order_.end(), std::size_t{0});
    std::sort(order_.begin(), order_.end(), [this](std::size_t one, std::size_t other) {
      return moments_[one] < moments_[other];
    });
    for (const std::size_t row : order_) results_.days.push_back(moments_[row].first);
  }

  // Brings the rows into the order of time. Between two records of one time a well that was
  // recorded once has not changed.
  void Complete(Columns& columns, std::size_t count) const {
    columns.resize(count);
    for (std::vector<float>& column : columns) {
      column.resize(moments_.size(), kNoValue);
      std::vector<float> ordered;
      ordered.reserve(column.size());
      for (const std::size_t row : order_) {
        const bool repeated = moments_[row].second > 0 && std::isnan(column[row]);
        ordered.push_back(repeated ? ordered.back() : column[row]);
      }
      column = std::move(ordered);
    }
  }

  void SumUp() {
    results_.field_quantities.clear();
    results_.field.clear();
    const std::vector<const WellResults*> wells = WellsWithoutGaps(results_);
    if (wells.empty()) return;
    for (std::size_t i = 0; i < results_.quantities.size(); ++i) {
      if (!IsRate(results_.quantities[i].id)) continue;
      std::vector<double> sums(results_.days.size(), kNone);
      for (const WellResults* well : wells) {
        for (std::size_t row = 0; row < sums.size(); ++row) {
          const double rate = well->values[i][row];
          if (!std::isnan(rate)) sums[row] = std::isnan(sums[row]) ? rate : sums[row] + rate;
        }
      }
      results_.field_quantities.push_back(results_.quantities[i]);
      results_.field.emplace_back(sums.begin(), sums.end());
    }
  }

  Results results_;
  std::unordered_map<std::string, std::size_t> places_;
  std::unordered_map<std::string, std::size_t> inflow_places_;
  std::vector<Moment> moments_;
  std::map<Moment, std::size_t> rows_;
  std::size_t last_row_ = 0;
  std::vector<std::size_t> order_;
  Statuses data_statuses_;
  Statuses listed_statuses_;  // by the command wells
};

}  // namespace

bool IsRate(const std::string& id) {
  return id.ends_with("_rate");
}

double LastDay(const Results& results) {
  double last = results.stops.empty() ? kNone : results.stops.back().day;
  if (!results.days.empty() && !(results.days.back() <= last)) last = results.days.back();
  return last;
}

bool CoversStops(const Results& results) {
  return std::all_of(results.stops.begin(), results.stops.end(), [&](const ResultStop& stop) {
    return std::binary_search(results.days.begin(), results.days.end(), stop.day);
  });
}

bool IsWithoutGaps(const Results& results, const WellResults& well) {
  bool any = false;
  for (std::size_t i = 0; i < well.values.size(); ++i) {
    if (!IsRate(results.quantities[i].id)) continue;
    const std::vector<float>& rates = well.values[i];
    const auto none = [](float rate) { return std::isnan(rate); };
    const auto first = std::find_if_not(rates.begin(), rates.end(), none);
    if (first == rates.end()) continue;
    const double day = results.days[static_cast<std::size_t>(first - rates.begin())];
    if (day > results.days.front() && day == results.days.back()) return false;
    if (std::any_of(first, rates.end(), none)) return false;
    any = true;
  }
  return any;
}

std::vector<const WellResults*> WellsWithoutGaps(const Results& results) {
  std::vector<const WellResults*> wells;
  for (const WellResults& well : results.wells) {
    if (IsWithoutGaps(results, well)) wells.push_back(&well);
  }
  return wells;
}

double AddedUp(const std::vector<double>& days, const std::vector<float>& rates) {
  double sum = 0;
  bool any = false;
  for (std::size_t i = 0; i < rates.size(); ++i) {
    if (std::isnan(rates[i])) continue;
    if (i > 0) sum += static_cast<double>(rates[i]) * (days[i] - days[i - 1]);
    any = true;
  }
  return any ? sum : kNone;
}

Results ReadResults(const std::string& directory) {
  return Reader(directory).Read();
}

}  // namespace vkmaster
