#include "fuzz/support/connector_model.h"

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "fuzz/support/memory_stream.h"
#include "fuzz/support/wire.h"

namespace {

using Texts = std::vector<std::string>;
using Numbers = std::vector<double>;
using Views = std::vector<std::string_view>;
using Ending = ConnectorOutcome::Ending;

struct Failure {
  Ending ending;
  std::string text;
};

[[noreturn]] void Refuse(std::string text = {}) {
  throw Failure{Ending::kRefused, std::move(text)};
}

void Require(bool condition, const std::string& complaint) {
  if (!condition) throw Failure{Ending::kComplaint, complaint};
}

constexpr auto kNowhere = static_cast<std::size_t>(-1);

// Of equal names the first counts.
template <class Names>
std::size_t Find(const Names& names, std::string_view name) {
  const auto found = std::find(names.begin(), names.end(), name);
  return found == names.end() ? kNowhere : static_cast<std::size_t>(found - names.begin());
}

bool Same(const Views& answered, const Texts& asked) {
  return std::equal(answered.begin(), answered.end(), asked.begin(), asked.end());
}

// One message of the simulator, item by item.
class Message {
 public:
  explicit Message(std::string_view bytes) : rest_(bytes) {}

  // Reads the next header; false when it is the last.
  bool Next() {
    if (!wire::Take(rest_, header_)) Refuse();
    return !header_.Is("END", 0, "MESS");
  }
  void Finish() {
    if (!rest_.empty()) Refuse();
  }
  void Expect(std::string_view name, std::uint64_t count, std::string_view tag) {
    if (!Next() || !header_.Is(name, count, tag)) Refuse();
  }
  void Expect(std::string_view name, std::string_view tag) {
    if (!Next() || header_.name != name || header_.tag != tag) Refuse();
  }
  void ExpectEnd() {
    if (Next()) Refuse();
  }
  const wire::Header& header() const { return header_; }

  // The data of the header that was read last.
  Views TakeTexts() {
    Views texts;
    for (std::uint64_t i = 0; i < header_.count; ++i) texts.push_back(TakeText());
    return texts;
  }
  std::string_view TakeText() {
    std::string_view text;
    if (!wire::TakeString(rest_, text)) Refuse();
    return text;
  }
  template <class Number>
  std::vector<Number> TakeNumbers() {
    if (header_.count > rest_.size() / sizeof(Number)) Refuse();
    std::vector<Number> numbers(header_.count);
    for (Number& number : numbers) wire::Take(rest_, number);
    return numbers;
  }

 private:
  std::string_view rest_;
  wire::Header header_;
};

template <class T>
std::vector<T> TakeValues(Message& answer) {
  if constexpr (std::is_same_v<T, std::string_view>) {
    return answer.TakeTexts();
  } else {
    return answer.TakeNumbers<T>();
  }
}

template <class T>
constexpr std::string_view kTag = "CSTR";
template <>
constexpr std::string_view kTag<double> = "DOUB";
template <>
constexpr std::string_view kTag<int> = "INTE";

// Names with their values: those of a run's items, or of wells in the order of `items`.
template <class T>
struct Table {
  Views items;
  Views names;
  std::vector<std::vector<T>> values;

  const std::vector<T>* Row(std::string_view name) const {
    const std::size_t row = Find(names, name);
    return row == kNowhere ? nullptr : &values[row];
  }
};

// The simulator's end of the conversation.
class Simulator {
 public:
  Simulator(std::string_view answers, std::string& requests)
      : answers_(answers), requests_(requests) {}

  void Ask(std::string&& request) {
    request += wire::Mess("END");
    requests_ += wire::Framed(request);
  }
  Message Hear() {
    std::array<std::uint64_t, 2> lengths{};
    if (!wire::Take(answers_, lengths)) throw Failure{Ending::kGone, {}};
    const std::string_view message = answers_.substr(0, lengths[0]);
    answers_.remove_prefix(lengths[0]);
    return Message(message);
  }
  Message HearReply() {
    Message reply = Hear();
    reply.Expect("REPLY", 0, "MESS");
    return reply;
  }
  void HearReady() {
    Message ready = Hear();
    ready.Expect("READY", 0, "MESS");
    ready.ExpectEnd();
    ready.Finish();
  }
  void HearReady(Message& reply) {
    reply.Finish();
    HearReady();
  }

  template <class T>
  Table<T> HearRunItems() {
    Table<T> table;
    Message reply = HearReply();
    while (reply.Next()) {
      if (reply.header().name != "QITEM" || !IsText(reply)) Refuse();
      table.names.push_back(reply.TakeText());
      reply.Expect("VALUES", kTag<T>);
      table.values.push_back(TakeValues<T>(reply));
    }
    HearReady(reply);
    return table;
  }

  template <class T>
  Table<T> HearWells() {
    Table<T> table;
    Message reply = HearReply();
    if (reply.Next()) {
      if (reply.header().name != "QITEMS" || reply.header().tag != "CSTR") Refuse();
      table.items = reply.TakeTexts();
      while (reply.Next()) {
        if (reply.header().name != "WELLNAME" || !IsText(reply)) Refuse();
        table.names.push_back(reply.TakeText());
        reply.Expect("VALUES", table.items.size(), kTag<T>);
        table.values.push_back(TakeValues<T>(reply));
      }
    }
    HearReady(reply);
    return table;
  }

  static bool IsText(const Message& answer) {
    return answer.header().count == 1 && answer.header().tag == "CSTR";
  }

 private:
  std::string_view answers_;
  std::string& requests_;
};

std::string Begin(std::string_view kind, std::string_view name) {
  std::string request;
  request += wire::Mess(kind);
  if (!name.empty()) request += wire::Mess(name);
  return request;
}

template <class T>
Table<T> QueryRun(Simulator& simulator, std::string_view kind, const Texts& items) {
  std::string query = Begin("QUERY", kind);
  query += wire::Data("QITEMS", items);
  simulator.Ask(std::move(query));
  return simulator.HearRunItems<T>();
}

template <class T>
Table<T> QueryWells(Simulator& simulator, std::string_view kind, const Texts& wells,
                    const Texts& items) {
  std::string query = Begin("QUERY", kind);
  query += wire::Data("QITEMS", items);
  query += wire::Data("WELNAMES", wells);
  simulator.Ask(std::move(query));
  return simulator.HearWells<T>();
}

void Version(Simulator& simulator, ConnectorOutcome& outcome) {
  const auto table = QueryRun<std::string_view>(simulator, "QRESVR_STR", {"VK_VERSION"});
  Require(Same(table.names, {"VK_VERSION"}) && !table.values[0].empty(),
          "Unexpected answer when querying the VARNOK version.");
  outcome.numbers.push_back(strtod(std::string(table.values[0][0]).c_str(), nullptr));
}

bool IsMetric(Simulator& simulator) {
  const auto table = QueryRun<std::string_view>(simulator, "QRESVR_STR", {"UNIT_SYSTEM"});
  Require(Same(table.names, {"UNIT_SYSTEM"}) && table.values[0].size() == 1,
          "Unexpected answer when querying the unit system.");
  return table.values[0][0] == "TOLMEN_METRIC";
}

bool IsCompositional(Simulator& simulator) {
  const auto table =
      QueryRun<std::string_view>(simulator, "QRESVR_STR", {"FM_FLUID_MODEL", "RES_FLUID_MODEL"});
  const auto* model = table.Row("FM_FLUID_MODEL");
  Require(model != nullptr && table.names.size() == 2 && table.values[0].size() == 1 &&
              table.values[1].size() == 1,
          "Unexpected answer when querying the fluid models.");
  return (*model)[0] == "COMPOSITIONAL";
}

void StartDate(Simulator& simulator, ConnectorOutcome& outcome) {
  const auto table = QueryRun<int>(simulator, "QRESVR", {"START_DATE"});
  Require(Same(table.names, {"START_DATE"}) && table.values[0].size() == 6,
          "Unexpected answer when querying the VARNOK start date.");
  const std::vector<int>& date = table.values[0];
  for (const int number : {date[2], date[1], date[0]}) outcome.numbers.push_back(number);
}

Numbers* FluidList(EOS& eos, std::string_view property) {
  if (property == "Molecular weight") return &eos.molecular_weight;
  if (property == "TCrit") return &eos.critical_temperature;
  if (property == "PCrit") return &eos.critical_pressure;
  if (property == "VCRIT") return &eos.critical_volume;
  if (property == "Acentric factor") return &eos.acentric_factor;
  if (property == "BP") return &eos.boiling_point;
  if (property == "VSHIFT") return &eos.volume_shift;
  if (property == "OMEGAA") return &eos.omega_a;
  if (property == "OMEGAB") return &eos.omega_b;
  if (property == "Parachor") return &eos.parachor;
  return nullptr;
}

// Reads a model, whose first header was read, and the header after it. False at the end.
bool TakeModel(Message& reply, EOS& eos) {
  if (reply.header().name != "FLUIDMODELDNAME" || !Simulator::IsText(reply)) Refuse();
  reply.TakeText();
  reply.Expect("EOSNAME", 1, "CSTR");
  eos.name = reply.TakeText();
  reply.Expect("NCOMPS", "CSTR");
  for (const std::string_view name : reply.TakeTexts()) eos.components.emplace_back(name);
  eos.component_count = static_cast<std::int32_t>(eos.components.size());
  reply.Expect("BIC", "DOUB");
  eos.binary_interaction = reply.TakeNumbers<double>();
  while (reply.Next()) {
    if (reply.header().name != "EOSPROPNAME") return true;
    if (!Simulator::IsText(reply)) Refuse();
    Numbers* list = FluidList(eos, reply.TakeText());
    reply.Expect("VALUES", eos.components.size(), "DOUB");
    Numbers values = reply.TakeNumbers<double>();
    if (list != nullptr) *list = std::move(values);
  }
  return false;
}

// The first model is that of the master.
void Fluid(Simulator& simulator, ConnectorOutcome& outcome) {
  outcome.eos = EOS();
  simulator.Ask(Begin("QUERY", "QRFLUIDMODEL"));
  Message reply = simulator.HearReply();
  EOS first;
  if (reply.Next()) {
    bool more = TakeModel(reply, first);
    while (more) {
      EOS other;
      more = TakeModel(reply, other);
    }
  }
  simulator.HearReady(reply);
  outcome.eos = std::move(first);
}

void AllStatuses(Simulator& simulator, ConnectorOutcome& outcome) {
  outcome.wells.clear();
  const Texts items = {"TYPE", "STATUS"};
  const auto table = QueryWells<std::string_view>(simulator, "QWELLS_STR", {"*"}, items);
  Require(Same(table.items, items), "Unexpected answer when querying the well statuses.");
  for (std::size_t i = 0; i < table.names.size(); ++i) {
    const Views& row = table.values[i];
    outcome.wells.push_back(
        {std::string(table.names[i]), std::string(row[0]), std::string(row[1])});
  }
}

void Variables(Simulator& simulator, const Texts& properties, ConnectorOutcome& outcome) {
  const auto table = QueryWells<double>(simulator, "QWELLS", {"P1"}, properties);
  const std::string bad_data = "Unexpected answer when querying the well data.";
  Require(!table.names.empty(), bad_data);
  const bool left_out =
      std::any_of(properties.begin(), properties.end(),
                  [&](const auto& property) { return Find(table.items, property) == kNowhere; });
  Require(left_out || Same(table.items, properties), bad_data);
  for (const std::string& property : properties) {
    const std::size_t column = Find(table.items, property);
    Require(column != kNowhere, "Unexpected answer when querying " + property);
    outcome.numbers.push_back(table.values[0][column]);
  }
}

void Points(Simulator& simulator, const Texts& wells, ConnectorOutcome& outcome) {
  const Texts items = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                       "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "UPTIME_FRACTION",
                       "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};
  const std::string bad_data = "Unexpected answer when querying the well data.";
  const auto data = QueryWells<double>(simulator, "QWELLS", wells, items);
  Require(Same(data.items, items), bad_data);
  const auto statuses = QueryWells<std::string_view>(simulator, "QWELLS_STR", wells, {"STATUS"});
  Require(Same(statuses.items, {"STATUS"}), "Unexpected answer when querying the well statuses.");
  for (std::size_t i = 0; i < wells.size(); ++i) {
    Require(i < data.values.size(), bad_data);
    const Numbers* row = data.Row(wells[i]);
    Require(row != nullptr, "Unexpected answer when querying the well operating point data.");
    const Views* status = statuses.Row(wells[i]);
    Require(status != nullptr, "Unexpected answer when querying the well status data.");
    const auto value = [&](std::string_view item) { return (*row)[Find(data.items, item)]; };
    DynWellOpPt& point = outcome.points.emplace_back();
    point.status = (*status)[0];
    point.oil_rate = value("OIL_PRODUCTION_RATE");
    point.gas_rate = value("GAS_PRODUCTION_RATE");
    point.water_rate = value("WATER_PRODUCTION_RATE");
    point.water_injection_rate = value("WATER_INJECTION_RATE");
    point.gas_injection_rate = value("GAS_INJECTION_RATE");
    point.bottom_hole_pressure = value("BOTTOM_HOLE_PRESSURE");
    point.tubing_head_pressure = value("TUBING_HEAD_PRESSURE");
    point.uptime_fraction = value("UPTIME_FRACTION");
  }
}

void SetConstraints(Simulator& simulator, const Texts& wells, const std::vector<Texts>& items,
                    const std::vector<Numbers>& values) {
  std::string request = Begin("SET", "SETWCONSTRAINTS");
  for (std::size_t i = 0; i < wells.size(); ++i) {
    request += wire::Text("WELLNAME", wells[i]);
    request += wire::Data("ITEMS", items[i]);
    request += wire::Data("VALUES", values[i]);
    request += wire::Data("SETTERS", Texts(items[i].size(), "USER"));
  }
  simulator.Ask(std::move(request));
  simulator.HearReady();
}

std::string WrongSizes(std::string_view setter, std::size_t one, std::size_t other) {
  return "VarnokClient::" + std::string(setter) + ": inconsistent size of arguments 1 and 2 (" +
         std::to_string(one) + " vs " + std::to_string(other) + ")";
}

void SetStatuses(Simulator& simulator, const Texts& wells, const Texts& statuses) {
  if (wells.empty()) return;
  if (wells.size() != statuses.size()) {
    Refuse(WrongSizes("set_status_for_wells", wells.size(), statuses.size()));
  }
  std::string request = Begin("SET", "SETWSTATUS");
  request += wire::Text("WCLOSURE", "USER");
  request += wire::Text("SETITEM", "STATUS");
  request += wire::Data("WELNAMES", wells);
  request += wire::Data("VALUES", statuses);
  simulator.Ask(std::move(request));
  simulator.HearReady();
}

void SetUptimes(Simulator& simulator, const Texts& wells, const Numbers& fractions) {
  if (wells.empty()) return;
  if (wells.size() != fractions.size()) {
    Refuse(WrongSizes("set_uptime_fractions_for_wells", wells.size(), fractions.size()));
  }
  std::string request = Begin("SET", "SETWELLS");
  request += wire::Text("SETITEM", "UPTIME_FRACTION");
  request += wire::Data("WELNAMES", wells);
  request += wire::Data("VALUES", fractions);
  simulator.Ask(std::move(request));
  simulator.HearReady();
}

void SetOwnConstraints(Simulator& simulator, const ConnectorCall& call) {
  const std::string complaint = "Incorrect argument dimensions passed to SetWellConstraints";
  if (call.wells.empty()) return;
  Require(call.properties.size() == call.wells.size(), complaint);
  Require(call.values.size() == call.wells.size(), complaint);
  for (std::size_t i = 0; i < call.wells.size(); ++i) {
    Require(call.properties[i].size() == call.values[i].size(), complaint);
  }
  SetConstraints(simulator, call.wells, call.properties, call.values);
}

// The inflow survey of one well.
struct Survey {
  bool producer = false;
  Texts constraints;
  double base_liquid = 0;
  double base_gas = 0;

  Numbers Limits(double liquid, double gas) const {
    if (constraints.size() == 2) return {liquid, gas};
    return {constraints[0] == "WATER_INJECTION_RATE" ? liquid : gas};
  }
};

Survey SurveyOf(std::string_view type) {
  if (type == "PRODUCER") return {true, {"LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"}};
  if (type == "WATER_INJECTOR") return {false, {"WATER_INJECTION_RATE"}};
  return {false, {"GAS_INJECTION_RATE"}};
}

std::string Component(int number) {
  return "TOTAL_MOLE_FRACTION[" + std::to_string(number) + "]";
}

// Adds a point to a well's table.
void TakePoint(const ConnectorCall& call, const Table<double>& answer, const Numbers* row,
               bool first, Survey& survey, DynWellIPR& table) {
  const auto value = [&](std::string_view item) {
    const std::size_t column = Find(answer.items, item);
    Require(row != nullptr && column != kNowhere,
            "Unexpected answer when querying the well IPR data.");
    return (*row)[column];
  };
  const double oil = value("OIL_PRODUCTION_RATE");
  const double produced_gas = value("GAS_PRODUCTION_RATE");
  const double injected_gas = value("GAS_INJECTION_RATE");
  const double produced_water = value("WATER_PRODUCTION_RATE");
  const double injected_water = value("WATER_INJECTION_RATE");
  const double bottom_hole = value("BOTTOM_HOLE_PRESSURE");
  const double tubing_head = value("TUBING_HEAD_PRESSURE");
  const double temperature = value("TEMPERATURE");
  const double oil_density = value("OIL_DENSITY");
  const double gas_density = value("GAS_DENSITY");
  const double water_density = value("WATER_DENSITY");
  Numbers fractions;
  for (int i = 1; i <= call.components; ++i) fractions.push_back(value(Component(i)));

  table.oil_rate.push_back(oil);
  table.gas_rate.push_back(survey.producer ? produced_gas : injected_gas);
  table.water_rate.push_back(survey.producer ? produced_water : injected_water);
  table.pressure.push_back(call.bottom_hole ? bottom_hole : tubing_head);
  table.temperature.push_back(temperature);
  table.oil_density.push_back(oil_density);
  table.gas_density.push_back(gas_density);
  table.water_density.push_back(water_density);
  if (call.components > 0) table.mole_fractions.push_back(std::move(fractions));
  if (!first) return;
  survey.base_gas = survey.producer ? produced_gas : injected_gas;
  survey.base_liquid = survey.producer ? produced_water + oil : injected_water;
}

void Inflow(Simulator& simulator, const ConnectorCall& call, ConnectorOutcome& outcome) {
  const Texts& wells = call.wells;
  const bool metric = IsMetric(simulator);
  SetStatuses(simulator, wells, Texts(wells.size(), "OPEN"));
  const auto types = QueryWells<std::string_view>(simulator, "QWELLS_STR", wells, {"TYPE"});
  std::vector<Survey> surveys;
  std::vector<Texts> constraints;
  std::vector<Numbers> limits;
  for (const std::string& well : wells) {
    outcome.tables.emplace_back();
    const Views* row = types.Row(well);
    Require(row != nullptr && !row->empty(),
            "Unexpected answer when querying the well status data.");
    surveys.push_back(SurveyOf(row->front()));
    constraints.push_back(surveys.back().constraints);
    limits.push_back(surveys.back().Limits((metric ? 0.158987 : 1.0) * 100000.0,
                                           (metric ? 28174.0 : 1.0) * 100000.0));
  }
  Texts items = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                 "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "TEMPERATURE",
                 "GAS_DENSITY",          "WATER_DENSITY",       "OIL_DENSITY",
                 "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};
  for (int i = 1; i <= call.components; ++i) items.push_back(Component(i));
  for (int point = 1; point <= 10; ++point) {
    SetConstraints(simulator, wells, constraints, limits);
    const auto answer = QueryWells<double>(simulator, "QWELLS", wells, items);
    const double fraction = std::pow((10.0 - point) / 10.0, call.skewness);
    for (std::size_t i = 0; i < wells.size(); ++i) {
      TakePoint(call, answer, answer.Row(wells[i]), point == 1, surveys[i], outcome.tables[i]);
      limits[i] =
          surveys[i].Limits(surveys[i].base_liquid * fraction, surveys[i].base_gas * fraction);
    }
  }
  outcome.numbers.push_back(10);
}

// What the wells' constraints are is the simulator's affair, but it has to be told soundly.
void AllConstraints(Simulator& simulator) {
  std::string query = Begin("QUERY", "QWCONSTRAINTS");
  query += wire::Data("WELNAMES", Texts{"*"});
  simulator.Ask(std::move(query));
  Message reply = simulator.HearReply();
  while (reply.Next()) {
    if (reply.header().name != "WELLNAME" || !Simulator::IsText(reply)) Refuse();
    reply.TakeText();
    reply.Expect("ITEMS", "CSTR");
    const std::size_t count = reply.TakeTexts().size();
    reply.Expect("VALUES", count, "DOUB");
    reply.TakeNumbers<double>();
    reply.Expect("SETTERS", count, "CSTR");
    reply.TakeTexts();
  }
  simulator.HearReady(reply);
}

// Only the later version has fluid sources.
void AttachSource(Simulator& simulator, bool is2016, ConnectorOutcome& outcome) {
  bool accepted = false;
  if (!is2016) {
    std::string request = Begin("SET", "CREATE_FLDSRCEXT");
    request += wire::Text("WELLNAME", "I1");
    request += wire::Text("STNAME", "S");
    request += wire::Text("STPHASE", "GAS");
    simulator.Ask(std::move(request));
    Message reply = simulator.HearReply();
    reply.Expect("STRET", 1, "INTE");
    accepted = reply.TakeNumbers<int>()[0] != 0;
    reply.ExpectEnd();
    simulator.HearReady(reply);
  }
  outcome.numbers.push_back(accepted ? 1 : 0);
}

void SetCompositions(Simulator& simulator, const ConnectorCall& call) {
  if (call.is2016) return;
  Require(call.wells.size() == call.values.size(),
          "Inconsistent data sent to SetWellInjectionComposition");
  for (std::size_t i = 0; i < call.wells.size(); ++i) {
    Texts names;
    for (std::size_t k = 1; k <= call.values[i].size(); ++k) {
      names.push_back(Component(static_cast<int>(k)));
    }
    std::string request = Begin("SET", "SETWSTRE");
    request += wire::Text("STNAME", call.wells[i]);
    request += wire::Data("STCMPVALUES", call.values[i]);
    request += wire::Data("STCMPNAMES", names);
    request += wire::Text("STPHASE", "");
    simulator.Ask(std::move(request));
    simulator.HearReady();
  }
}

// Reads where the run stands now; each part counts from when it was read. The word for it.
std::string Step(Simulator& simulator, ConnectorOutcome& outcome) {
  Message answer = simulator.Hear();
  if (!answer.Next() || answer.header().tag != "MESS" || answer.header().count != 0) Refuse();
  const std::string name(answer.header().name);
  std::string position = "END_SIMULATE";
  if (name == "STEP") {
    answer.Expect("POSITION", 1, "CSTR");
    position = answer.TakeText();
    if (position != "MODEL_DEFINITION" && position != "BEGIN_NEWTON" &&
        position != "END_SIMULATE") {
      Refuse("Incorrect algorithmic position received (" + position + ")");
    }
    outcome.ended = position == "END_SIMULATE";
    answer.Expect("TIME", 1, "DOUB");
    outcome.time = answer.TakeNumbers<double>()[0];
    answer.Expect("DATE", 6, "INTE");
    const std::vector<int> date = answer.TakeNumbers<int>();
    outcome.year = date[0];
    outcome.month = date[1];
    outcome.day = date[2];
    answer.ExpectEnd();
  } else {
    if (name != "FINISHED") Refuse("Incorrect header received (" + name + ")");
    answer.ExpectEnd();
    outcome.ended = true;
  }
  answer.Finish();
  return position;
}

void Newton(Simulator& simulator, ConnectorOutcome& outcome) {
  simulator.Ask(Begin("CONTINUE", {}));
  Require(Step(simulator, outcome) == "BEGIN_NEWTON",
          "Incorrect algorithmic position after advancing to first timestep");
}

void RunUntil(Simulator& simulator, double time, ConnectorOutcome& outcome) {
  std::string request = Begin("CONTINUE_UNTIL", {});
  request += wire::Data("TIME", Numbers{time});
  simulator.Ask(std::move(request));
  Step(simulator, outcome);
}

void Carry(const ConnectorCall& call, Simulator& simulator, ConnectorOutcome& outcome) {
  switch (call.operation) {
    case 0:
      return Version(simulator, outcome);
    case 1:
      return outcome.numbers.push_back(IsMetric(simulator) ? 1 : 0);
    case 2:
      return outcome.numbers.push_back(IsCompositional(simulator) ? 1 : 0);
    case 3:
      return StartDate(simulator, outcome);
    case 4:
      return Fluid(simulator, outcome);
    case 5:
      return AllStatuses(simulator, outcome);
    case 6:
      return Variables(simulator, call.wells, outcome);
    case 7:
      return Points(simulator, call.wells, outcome);
    case 8:
      return Inflow(simulator, call, outcome);
    case 9:
      return AllConstraints(simulator);
    case 10:
      return SetStatuses(simulator, call.wells, call.statuses);
    case 11:
      return SetOwnConstraints(simulator, call);
    case 12:
      return AttachSource(simulator, call.is2016, outcome);
    case 13:
      return SetCompositions(simulator, call);
    case 14:
      return Newton(simulator, outcome);
    case 15:
      return RunUntil(simulator, call.fractions[0], outcome);
    case 16:
      return SetUptimes(simulator, call.wells, call.fractions);
    default:
      QueryWells<std::string_view>(simulator, "QWELLS_STR", {"*"}, {"STATUS"});
  }
}

const std::vector<Texts> kLists = {{},           {"P1"},       {"P1", "P2"},
                                   {"P2", "P1"}, {"P1", "P1"}, {"I1", "P1", "P2"}};
constexpr std::array<double, 6> kSkewnesses = {1.5, 1, 3, 0, -1, 0.1};

}  // namespace

ConnectorCall::ConnectorCall(int chosen, std::uint8_t mode, bool earlier)
    : operation(chosen),
      is2016(earlier),
      wells(kLists[(mode >> 3) % kLists.size()]),
      components(mode % 4 - 1),
      bottom_hole((mode & 4) != 0),
      skewness(kSkewnesses[(mode >> 3) / kLists.size()]) {
  const bool as_many = (mode & 1) != 0;
  if (operation == 10) statuses = as_many ? Texts(wells.size(), "SHUT") : Texts{"OPEN", "SHUT"};
  if (operation == 11) {
    properties = {{"A"}, {}};
    values = {{1}, {}};
    if (as_many) {
      properties[1] = {"B", "C"};
      values[1] = {2, 3};
    }
    if ((mode & 6) == 2) properties.pop_back();
    if ((mode & 6) == 4) values.pop_back();
    if ((mode & 6) == 6) values[0].push_back(4);
  }
  if (operation == 13) {
    values = {{0.5, 0.25}, {1}};
    if (as_many) values.assign(wells.size(), {0.75, 0.25});
  }
  if (operation == 15) fractions = {365.25 + mode};
  if (operation == 16) fractions = as_many ? Numbers(wells.size(), 0.75) : Numbers{0.5, 1};
}

EOS ConnectorOutcome::OldFluid() {
  EOS eos;
  eos.name = "old";
  eos.components = {"old"};
  eos.parachor = {1};
  eos.component_count = 1;
  return eos;
}

const std::string& ConnectionAnswers() {
  static const std::string answers = [] {
    const ConnectorOutcome fresh;
    std::string started;
    started += wire::Mess("STARTED");
    started += wire::Head("ERRORS", 0, "CSTR");
    started += wire::Mess("END");
    std::string step;
    step += wire::Mess("STEP");
    step += wire::Text("POSITION", "MODEL_DEFINITION");
    step += wire::Data("TIME", Numbers{fresh.time});
    step += wire::Data("DATE", std::vector<int>{fresh.year, fresh.month, fresh.day, 0, 0, 0});
    step += wire::Mess("END");
    std::string stream;
    stream += wire::Framed(started);
    stream += wire::Framed(step);
    return stream;
  }();
  return answers;
}

const std::string& ConnectionRequest() {
  static const std::string request = [] {
    std::string set_up;
    set_up += wire::Mess("SETUP");
    set_up += wire::Text("VERSION", "V2");
    set_up += wire::Mess("END");
    std::string stream;
    stream += wire::Framed(set_up);
    return stream;
  }();
  return request;
}

ConnectorOutcome ModelOf(const ConnectorCall& call, std::string_view answers,
                         std::string& requests) {
  requests.clear();
  Simulator simulator(answers, requests);
  ConnectorOutcome outcome;
  try {
    Carry(call, simulator, outcome);
  } catch (Failure& failure) {
    outcome.ending = failure.ending;
    outcome.text = std::move(failure.text);
  }
  return outcome;
}
