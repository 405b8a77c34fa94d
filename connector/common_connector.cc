#include "connector/common_connector.h"

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "connector/inflow_survey.h"
#include "connector/name_lookup.h"
#include "connector/well_table.h"
#include "net/master_link.h"
#include "vk_ec/constraint_setter.h"
#include "vk_ec/position_info.h"
#include "vk_ec/results.h"

namespace connector {
namespace {

using ::vk_ec::AlgPos;
using ::vk_ec::ConstraintSetter;
using ::vk_ec::ReservoirQueryResults;
using ::vk_ec::WellRows;
using Names = std::vector<std::string>;

// The word that goes with everything that the master sets. It says who has set a constraint, and it
// is the mode in which a well is closed.
constexpr const char* kUser = "USER";
constexpr const char* kAllWells = "*";

constexpr const char* kBadWellData = "Unexpected answer when querying the well data.";
constexpr const char* kBadWellStatuses = "Unexpected answer when querying the well statuses.";
constexpr const char* kBadPointData =
    "Unexpected answer when querying the well operating point data.";
constexpr const char* kBadStatusData = "Unexpected answer when querying the well status data.";

// The component properties that the master knows, by the simulator's words for them, which are not
// all in one case.
constexpr std::array<std::pair<std::string_view, std::vector<double> EOS::*>, 10> kFluidProperties{{
    {"Molecular weight", &EOS::molecular_weight},
    {"TCrit", &EOS::critical_temperature},
    {"PCrit", &EOS::critical_pressure},
    {"VCRIT", &EOS::critical_volume},
    {"Acentric factor", &EOS::acentric_factor},
    {"BP", &EOS::boiling_point},
    {"VSHIFT", &EOS::volume_shift},
    {"OMEGAA", &EOS::omega_a},
    {"OMEGAB", &EOS::omega_b},
    {"Parachor", &EOS::parachor},
}};

void Require(bool condition, const char* complaint) {
  if (!condition) throw std::runtime_error(complaint);
}

// The values in the answer to a query that asked for `item` alone.
template <class T>
const std::vector<T>& OnlyValues(const ReservoirQueryResults<T>& answer, const char* item,
                                 const char* complaint) {
  Require(answer.items.size() == 1 && answer.items[0] == item && answer.values.size() == 1,
          complaint);
  return answer.values[0];
}

// Makes a point, but for its status, of the values of GetWellOpPtData's properties in their order.
// The uptime is asked for as the sixth of them and is the last member.
DynWellOpPt PointOf(const std::vector<double>& row) {
  return {{}, row[0], row[1], row[2], row[3], row[4], row[6], row[7], row[5]};
}

// Returns the words of an answer that has one word for each well, and adds the wells' names to
// `wells`. An answer that names another item than `item` is refused, but is read to its end first,
// so that the simulator is ready for the next request.
Names TakeWords(WellRows<std::string> rows, const std::string& item, NameLookup::Answer& wells,
                const char* complaint) {
  Names words;
  while (rows.next(words)) {
    if (words.size() == 1) words.reserve(rows.estimated_count());
    wells.Add(std::move(rows.well()));
  }
  Require(rows.items() == Names{item}, complaint);
  return words;
}

// Makes the points of all wells of an answer and adds the wells' names to `wells`. Each row
// becomes a point at once: for a large field, to hold all values and all points side by side would
// take most of a controller's memory. An answer that names other items than `asked` is refused by
// the caller, but is read to its end first, so that the simulator is ready for the next request.
std::vector<DynWellOpPt> TakePoints(WellRows<double> rows, const Names& asked,
                                    NameLookup::Answer& wells) {
  const bool expected = rows.items() == asked;
  std::vector<DynWellOpPt> points;
  for (std::vector<double> row; rows.next(row); row.clear()) {
    if (!expected) continue;
    if (points.empty()) points.reserve(rows.estimated_count());
    points.push_back(PointOf(row));
    wells.Add(std::move(rows.well()));
  }
  Require(expected, kBadWellData);
  return points;
}

// Where the well at place `i` of a question stands in the answer. `rows` is what
// NameLookup::Answer::Positions() returned.
std::size_t RowOf(const std::vector<std::size_t>& rows, std::size_t i) {
  return rows.empty() ? i : rows[i];
}

// The points of the first `count` wells of the question.
std::vector<DynWellOpPt> InOrder(std::vector<DynWellOpPt>&& points,
                                 const std::vector<std::size_t>& rows, std::size_t count) {
  if (rows.empty()) {
    points.resize(count);
    return std::move(points);
  }
  std::vector<DynWellOpPt> ordered;
  ordered.reserve(count);
  for (std::size_t i = 0; i < count; ++i) ordered.push_back(points[rows[i]]);
  return ordered;
}

}  // namespace

::vk_ec::Client& CommonConnector::client() const {
  Require(client_ != nullptr, "Not connected to the simulator");
  return *client_;
}

// Only Shutdown() ends a connection. A client that was not shut down is given up, here and when
// another one takes its place: its memory and its connection last to the end of the process.
CommonConnector::~CommonConnector() {
  static_cast<void>(client_.release());
}

void CommonConnector::Connect(const std::string& host, int port, int timeout) {
  static_cast<void>(std::exchange(client_, NewClient()).release());
  client_->connect(host, static_cast<unsigned>(port), static_cast<unsigned>(timeout));
  Require(client_->position_info().position == AlgPos::MODEL_DEFINITION,
          "Incorrect algorithmic position after connection");
}

int CommonConnector::Shutdown() {
  if (client_ == nullptr) return 0;
  try {
    client_->do_shutdown();
  } catch (const std::exception&) {
    // The simulator has gone by itself, or its answer makes no sense. Either way the connection is
    // closed now.
  }
  client_.reset();
  return 0;
}

double CommonConnector::GetVersion() {
  constexpr const char* kComplaint = "Unexpected answer when querying the VARNOK version.";
  const auto answer = client().get_reservoir_properties<std::string>({"VK_VERSION"});
  const Names& values = OnlyValues(answer, "VK_VERSION", kComplaint);
  Require(!values.empty(), kComplaint);
  return strtod(values[0].c_str(), nullptr);
}

bool CommonConnector::IsMetric() {
  constexpr const char* kComplaint = "Unexpected answer when querying the unit system.";
  const auto answer = client().get_reservoir_properties<std::string>({"UNIT_SYSTEM"});
  const Names& values = OnlyValues(answer, "UNIT_SYSTEM", kComplaint);
  Require(values.size() == 1, kComplaint);
  return values[0] == "TOLMEN_METRIC";
}

double CommonConnector::GetTimeDays() {
  return client().position_info().time;
}

void CommonConnector::GetDate(int& day, int& month, int& year) {
  const auto& date = client().position_info().date;
  day = date[2];
  month = date[1];
  year = date[0];
}

void CommonConnector::GetStartDate(int& day, int& month, int& year) {
  constexpr const char* kComplaint = "Unexpected answer when querying the VARNOK start date.";
  const auto answer = client().get_reservoir_properties<int>({"START_DATE"});
  const std::vector<int>& date = OnlyValues(answer, "START_DATE", kComplaint);
  Require(date.size() == 6, kComplaint);
  day = date[2];
  month = date[1];
  year = date[0];
}

bool CommonConnector::IsCompositional() {
  constexpr const char* kComplaint = "Unexpected answer when querying the fluid models.";
  const auto answer =
      client().get_reservoir_properties<std::string>({"FM_FLUID_MODEL", "RES_FLUID_MODEL"});
  Require(answer.items.size() == 2 && answer.values.size() == 2 && answer.values[0].size() == 1 &&
              answer.values[1].size() == 1,
          kComplaint);
  const auto found = std::find(answer.items.begin(), answer.items.end(), "FM_FLUID_MODEL");
  Require(found != answer.items.end(), kComplaint);
  // Only the fluid model of field management decides; the reservoir's is not looked at.
  return answer.values[static_cast<std::size_t>(found - answer.items.begin())][0] ==
         "COMPOSITIONAL";
}

void CommonConnector::GetStaticComposition(EOS* eos) {
  eos->reset();
  auto models = client().get_reservoir_fluid_model_description();
  if (models.empty()) return;
  auto& model = models.front();
  eos->component_count = static_cast<std::int32_t>(model.component_names.size());
  eos->name = std::move(model.eos_name);
  eos->components = std::move(model.component_names);
  eos->binary_interaction = std::move(model.bic);
  const std::size_t count =
      std::min(model.eos_property_names.size(), model.eos_property_values.size());
  for (std::size_t i = 0; i < count; ++i) {
    for (const auto& [name, member] : kFluidProperties) {
      if (model.eos_property_names[i] == name) {
        eos->*member = std::move(model.eos_property_values[i]);
      }
    }
  }
}

void CommonConnector::GetWellStatus(std::vector<StaticWellDef>& wells) {
  wells.clear();
  std::vector<StaticWellDef> answered;  // becomes the result only when the answer is complete
  const Names asked = {"TYPE", "STATUS"};
  auto rows = client().query_wells<std::string>({kAllWells}, asked);
  const bool expected = rows.items() == asked;
  for (Names row; rows.next(row); row.clear()) {
    if (!expected) continue;  // the rest is read all the same, until the simulator is ready again
    if (answered.empty()) answered.reserve(rows.estimated_count());
    answered.push_back({std::move(rows.well()), std::move(row[0]), std::move(row[1])});
  }
  Require(expected, kBadWellStatuses);
  wells = std::move(answered);
}

void CommonConnector::GetWellStatus() {
  client().get_properties_for_wells<std::string>({kAllWells}, {"STATUS"});
}

void CommonConnector::GetWellConstraints() {
  client().get_constraints_for_wells({kAllWells});
}

void CommonConnector::GetWellVariables(const std::string& well, const Names& properties,
                                       std::vector<double>& values) {
  const auto answer = TakeTable(client().query_wells<double>({well}, properties));
  Require(!answer.wells.empty(), kBadWellData);
  const std::vector<std::size_t> positions = NameLookup(properties).PositionsIn(answer.items);
  const bool complete =
      std::find(positions.begin(), positions.end(), NameLookup::npos) == positions.end();
  Require(!complete || answer.items == properties, kBadWellData);
  const auto row = answer.row(0);
  for (std::size_t i = 0; i < properties.size(); ++i) {
    if (positions[i] == NameLookup::npos) {
      throw std::runtime_error("Unexpected answer when querying " + properties[i]);
    }
    values.push_back(row[positions[i]]);
  }
}

void CommonConnector::GetWellOpPtData(const Names& wells, std::vector<DynWellOpPt>& points) {
  static const Names kAsked = {"OIL_PRODUCTION_RATE",   "GAS_PRODUCTION_RATE",
                               "WATER_PRODUCTION_RATE", "WATER_INJECTION_RATE",
                               "GAS_INJECTION_RATE",    "UPTIME_FRACTION",
                               "BOTTOM_HOLE_PRESSURE",  "TUBING_HEAD_PRESSURE"};
  const NameLookup lookup(wells);
  NameLookup::Answer point_wells(lookup);
  std::vector<DynWellOpPt> answered =
      TakePoints(client().query_wells<double>(wells, kAsked), kAsked, point_wells);
  NameLookup::Answer status_wells(lookup);
  const Names statuses = TakeWords(client().query_wells<std::string>(wells, {"STATUS"}), "STATUS",
                                   status_wells, kBadWellStatuses);

  const std::vector<std::size_t> rows = point_wells.Positions();
  const std::vector<std::size_t> status_rows = status_wells.Positions();
  const auto missing = [&](std::size_t i) -> const char* {
    if (i >= answered.size()) return kBadWellData;
    if (RowOf(rows, i) == NameLookup::npos) return kBadPointData;
    if (RowOf(status_rows, i) == NameLookup::npos) return kBadStatusData;
    return nullptr;
  };
  std::size_t complete = 0;
  while (complete < wells.size() && missing(complete) == nullptr) ++complete;
  const char* complaint = complete < wells.size() ? missing(complete) : nullptr;

  std::vector<DynWellOpPt> ordered = InOrder(std::move(answered), rows, complete);
  for (std::size_t i = 0; i < complete; ++i) ordered[i].status = statuses[RowOf(status_rows, i)];
  if (points.empty()) {
    points = std::move(ordered);
  } else {
    points.insert(points.end(), ordered.begin(), ordered.end());
  }
  if (complaint != nullptr) throw std::runtime_error(complaint);
}

int CommonConnector::GetWellIPRData(int ncomponents, const Names& wells, bool bottom_hole,
                                    double skewness, std::vector<DynWellIPR>& tables) {
  InflowSurvey survey(wells, ncomponents, bottom_hole, IsMetric());
  SetWellStatus(wells, Names(wells.size(), "OPEN"));
  survey.TakeTypes(TakeTable(client().query_wells<std::string>(wells, {"TYPE"})), tables);
  ConstraintSetter setter(client(), wells, survey.constraints(), survey.limits(), survey.setters());
  for (int point = 1; point <= master_link::kTablePoints; ++point) {
    setter.send();
    survey.TakePoint(TakeTable(client().query_wells<double>(wells, survey.properties())), tables);
    survey.LowerLimits(point, skewness);
    setter.change(survey.limits());
  }
  return master_link::kTablePoints;
}

void CommonConnector::SetWellStatus(const Names& wells, const Names& statuses) {
  if (wells.empty()) return;
  client().set_status_for_wells(wells, statuses, kUser);
}

void CommonConnector::SetWellUptime(const Names& wells, const std::vector<double>& fractions) {
  if (wells.empty()) return;
  client().set_uptime_fractions_for_wells(wells, fractions);
}

void CommonConnector::SetWellConstraints(const Names& wells, const std::vector<Names>& properties,
                                         const std::vector<std::vector<double>>& values) {
  constexpr const char* kComplaint = "Incorrect argument dimensions passed to SetWellConstraints";
  if (wells.empty()) return;
  Require(properties.size() == wells.size(), kComplaint);
  Require(values.size() == wells.size(), kComplaint);
  std::vector<Names> setters;
  setters.reserve(wells.size());
  for (std::size_t i = 0; i < wells.size(); ++i) {
    Require(properties[i].size() == values[i].size(), kComplaint);
    setters.emplace_back(properties[i].size(), kUser);
  }
  client().set_constraints_for_wells(wells, properties, values, setters);
}

void CommonConnector::Newton() {
  client().do_continue();
  Require(client().position_info().position == AlgPos::BEGIN_NEWTON,
          "Incorrect algorithmic position after advancing to first timestep");
}

void CommonConnector::RunUntil(double time) {
  client().do_continue_until(time);
}

bool CommonConnector::SimulationEnded() {
  return client().position_info().position == AlgPos::END_SIMULATE;
}

}  // namespace connector
