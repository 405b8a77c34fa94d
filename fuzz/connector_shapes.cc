// What the connectors make of answers whose headers are sound but whose shape may be any: a result
// has the shape that the master relies on, or the operation fails with a sentence of its own.

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/system/system_error.hpp>

#include "connector/v2016_2/connector.h"
#include "connector/v2017_2/connector.h"
#include "fuzz/support/answer_script.h"
#include "fuzz/support/input.h"
#include "fuzz/support/memory_stream.h"
#include "fuzz/support/promise.h"
#include "fuzz/support/wire.h"

namespace {

using Texts = std::vector<std::string>;
using Numbers = std::vector<double>;

const std::string& SetUpAnswers() {
  static const std::string answers = [] {
    std::string started;
    wire::AppendMess(started, "STARTED");
    wire::AppendHeader(started, "ERRORS", 0, "CSTR");
    wire::AppendMess(started, "END");
    std::string step;
    wire::AppendMess(step, "STEP");
    wire::AppendText(step, "POSITION", "MODEL_DEFINITION");
    wire::Append(step, "TIME", Numbers{0});
    wire::Append(step, "DATE", std::vector<int>{2020, 2, 3, 0, 0, 0});
    wire::AppendMess(step, "END");
    std::string stream;
    AppendFramed(stream, started);
    AppendFramed(stream, step);
    return stream;
  }();
  return answers;
}

constexpr std::array<std::string_view, 13> kComplaints = {
    "Incorrect algorithmic position after connection",
    "Incorrect algorithmic position after advancing to first timestep",
    "Unexpected answer when querying the VARNOK version.",
    "Unexpected answer when querying the unit system.",
    "Unexpected answer when querying the fluid models.",
    "Unexpected answer when querying the VARNOK start date.",
    "Unexpected answer when querying the well statuses.",
    "Unexpected answer when querying the well data.",
    "Unexpected answer when querying the well operating point data.",
    "Unexpected answer when querying the well status data.",
    "Unexpected answer when querying the well IPR data.",
    "Incorrect argument dimensions passed to SetWellConstraints",
    "Inconsistent data sent to SetWellInjectionComposition"};

bool IsComplaint(std::string_view text, const Texts& properties) {
  if (std::find(kComplaints.begin(), kComplaints.end(), text) != kComplaints.end()) return true;
  return std::any_of(properties.begin(), properties.end(), [text](const std::string& property) {
    return text == "Unexpected answer when querying " + property;
  });
}

// The messages of the conversation behind the set-up.
std::vector<std::string_view> messages;

void FindMessages(std::string_view stream) {
  messages.clear();
  std::uint64_t lengths[2] = {};
  while (wire::Take(stream, lengths)) {
    messages.push_back(stream.substr(0, lengths[0]));
    stream.remove_prefix(lengths[0]);
  }
}

// An answer that the connector has accepted, read again.
struct Answer {
  std::vector<std::string_view> items;
  std::vector<std::string_view> names;  // of the wells, or of the run's items
  std::vector<Numbers> numbers;         // per name
  std::vector<std::vector<std::string_view>> texts;

  // Of equal names the first counts.
  static std::size_t Find(const std::vector<std::string_view>& names, std::string_view name) {
    const auto found = std::find(names.begin(), names.end(), name);
    PROMISE(found != names.end());
    return static_cast<std::size_t>(found - names.begin());
  }
  double Number(std::string_view name, std::string_view item) const {
    return numbers.at(Find(names, name)).at(Find(items, item));
  }
};

std::vector<std::string_view> TakeTexts(std::string_view& bytes, std::uint64_t count) {
  std::vector<std::string_view> texts(count);
  for (std::string_view& text : texts) PROMISE(wire::TakeString(bytes, text));
  return texts;
}

void TakeValues(std::string_view& bytes, const wire::Header& header, Answer& answer) {
  Numbers& numbers = answer.numbers.emplace_back();
  auto& texts = answer.texts.emplace_back();
  if (header.tag == "CSTR") texts = TakeTexts(bytes, header.count);
  for (std::uint64_t i = 0; i < header.count && header.tag != "CSTR"; ++i) {
    double number = 0;
    int integer = 0;
    PROMISE(header.tag == "DOUB" ? wire::Take(bytes, number) : wire::Take(bytes, integer));
    numbers.push_back(header.tag == "DOUB" ? number : integer);
  }
}

Answer Read(std::size_t message) {
  PROMISE(message < messages.size());
  std::string_view bytes = messages[message];
  Answer answer;
  wire::Header header;
  PROMISE(wire::Take(bytes, header) && header.Is("REPLY", 0, "MESS"));
  while (wire::Take(bytes, header) && !header.Is("END", 0, "MESS")) {
    if (header.name == "QITEMS" && answer.names.empty()) {
      answer.items = TakeTexts(bytes, header.count);
    } else if (header.name == "VALUES") {
      TakeValues(bytes, header, answer);
    } else {
      answer.names.push_back(TakeTexts(bytes, header.count).at(0));
    }
  }
  return answer;
}

bool Same(const std::vector<std::string_view>& a, const Texts& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// As bytes: what is not a number is not equal to itself.
bool Same(double a, double b) {
  return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
}

const Texts kPointItems = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                           "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "UPTIME_FRACTION",
                           "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};

void CheckPoints(const Texts& wells, const std::vector<DynWellOpPt>& points) {
  PROMISE(points.size() == wells.size());
  const Answer data = Read(0);
  const Answer statuses = Read(2);
  PROMISE(Same(data.items, kPointItems));
  PROMISE(Same(statuses.items, {"STATUS"}));
  for (std::size_t i = 0; i < wells.size(); ++i) {
    const DynWellOpPt& point = points[i];
    const Numbers values = {point.oil_rate,
                            point.gas_rate,
                            point.water_rate,
                            point.water_injection_rate,
                            point.gas_injection_rate,
                            point.uptime_fraction,
                            point.bottom_hole_pressure,
                            point.tubing_head_pressure};
    for (std::size_t item = 0; item < values.size(); ++item) {
      PROMISE(Same(values[item], data.Number(wells[i], kPointItems[item])));
    }
    const std::size_t row = Answer::Find(statuses.names, wells[i]);
    PROMISE(statuses.texts[row].size() == 1 && statuses.texts[row][0] == point.status);
  }
}

void CheckStatuses(const std::vector<StaticWellDef>& wells) {
  const Answer answer = Read(0);
  PROMISE(Same(answer.items, {"TYPE", "STATUS"}));
  PROMISE(wells.size() == answer.names.size());
  for (std::size_t i = 0; i < wells.size(); ++i) {
    PROMISE(wells[i].name == answer.names[i]);
    PROMISE(Same(answer.texts[i], {wells[i].type, wells[i].status}));
  }
}

void CheckVariables(const Texts& properties, const Numbers& values) {
  PROMISE(values.size() == 1 + properties.size() && values[0] == 7);
  const Answer answer = Read(0);
  PROMISE(Same(answer.items, properties));
  for (std::size_t i = 0; i < properties.size(); ++i) {
    PROMISE(
        Same(values[i + 1], answer.numbers.at(0).at(Answer::Find(answer.items, properties[i]))));
  }
}

// One point of a well's table.
void CheckPoint(const DynWellIPR& table, std::size_t point, const Answer& answer,
                const std::string& well, std::string_view type, bool bottomHole,
                std::size_t components) {
  const bool producer = type == "PRODUCER";
  const auto is = [&](const Numbers& values, std::string_view item) {
    return Same(values.at(point), answer.Number(well, item));
  };
  for (const std::string_view item :
       {"GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE", "WATER_INJECTION_RATE",
        "GAS_INJECTION_RATE", "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"}) {
    Answer::Find(answer.items, item);
  }
  PROMISE(is(table.oil_rate, "OIL_PRODUCTION_RATE"));
  PROMISE(is(table.gas_rate, producer ? "GAS_PRODUCTION_RATE" : "GAS_INJECTION_RATE"));
  PROMISE(is(table.water_rate, producer ? "WATER_PRODUCTION_RATE" : "WATER_INJECTION_RATE"));
  PROMISE(is(table.pressure, bottomHole ? "BOTTOM_HOLE_PRESSURE" : "TUBING_HEAD_PRESSURE"));
  PROMISE(is(table.temperature, "TEMPERATURE"));
  PROMISE(is(table.oil_density, "OIL_DENSITY"));
  PROMISE(is(table.gas_density, "GAS_DENSITY"));
  PROMISE(is(table.water_density, "WATER_DENSITY"));
  for (std::size_t component = 0; component < components; ++component) {
    const std::string item = "TOTAL_MOLE_FRACTION[" + std::to_string(component + 1) + "]";
    PROMISE(Same(table.mole_fractions.at(point).at(component), answer.Number(well, item)));
  }
}

void CheckTable(const DynWellIPR& table, std::size_t components) {
  constexpr std::size_t points = 10;
  for (const Numbers* values :
       {&table.pressure, &table.oil_rate, &table.water_rate, &table.gas_rate, &table.temperature,
        &table.gas_density, &table.oil_density, &table.water_density}) {
    PROMISE(values->size() == points);
  }
  PROMISE(table.mole_fractions.size() == (components > 0 ? points : 0));
  for (const Numbers& fractions : table.mole_fractions) PROMISE(fractions.size() == components);
}

void SurveyInflow(ConnectorBase& connector, const Texts& wells, std::uint8_t mode) {
  const auto components = static_cast<std::size_t>(std::max(mode % 4 - 1, 0));
  const bool bottomHole = (mode & 4) != 0;
  std::vector<DynWellIPR> tables;
  PROMISE(connector.GetWellIPRData(mode % 4 - 1, wells, bottomHole, 1.5, tables) == 10);
  PROMISE(tables.size() == wells.size());
  if (wells.empty()) return;
  // Behind the unit system and the opening of the wells; each answer has its READY.
  constexpr std::size_t types = 3;
  constexpr std::size_t firstPoint = 6;
  const Answer typeAnswer = Read(types);
  for (const DynWellIPR& table : tables) CheckTable(table, components);
  for (std::size_t point = 0; point < 10; ++point) {
    const Answer answer = Read(firstPoint + 3 * point);
    for (std::size_t i = 0; i < wells.size(); ++i) {
      const auto& type = typeAnswer.texts.at(Answer::Find(typeAnswer.names, wells[i]));
      CheckPoint(tables[i], point, answer, wells[i], type.at(0), bottomHole, components);
    }
  }
}

void CheckVersion(double version) {
  const Answer answer = Read(0);
  PROMISE(Same(answer.names, {"VK_VERSION"}));
  PROMISE(Same(version, strtod(std::string(answer.texts[0].at(0)).c_str(), nullptr)));
}

void CheckMetric(bool metric) {
  const Answer answer = Read(0);
  PROMISE(Same(answer.names, {"UNIT_SYSTEM"}) && answer.texts[0].size() == 1);
  PROMISE(metric == (answer.texts[0][0] == "TOLMEN_METRIC"));
}

void CheckCompositional(bool compositional) {
  const Answer answer = Read(0);
  PROMISE(answer.names.size() == 2 && answer.texts[0].size() == 1 && answer.texts[1].size() == 1);
  const std::size_t model = Answer::Find(answer.names, "FM_FLUID_MODEL");
  PROMISE(compositional == (answer.texts[model][0] == "COMPOSITIONAL"));
}

void CheckStartDate(int day, int month, int year) {
  const Answer answer = Read(0);
  PROMISE(Same(answer.names, {"START_DATE"}) && answer.numbers[0].size() == 6);
  PROMISE(answer.numbers[0][0] == year && answer.numbers[0][1] == month);
  PROMISE(answer.numbers[0][2] == day);
}

// A step that ended the run leaves the date as it was.
void CheckDate(int day, int month, int year, bool ended) {
  PROMISE(day != -1 && month != -1 && year != -1);
  std::string_view bytes = messages.at(0);
  wire::Header header;
  PROMISE(wire::Take(bytes, header));
  if (header.name == "FINISHED") PROMISE(ended && day == 3 && month == 2 && year == 2020);
}

void CheckFluid(const EOS& eos) {
  PROMISE(eos.component_count == static_cast<int>(eos.components.size()));
  PROMISE(eos.reserved.empty());
  for (const Numbers* values :
       {&eos.molecular_weight, &eos.critical_temperature, &eos.critical_pressure,
        &eos.critical_volume, &eos.acentric_factor, &eos.boiling_point, &eos.volume_shift,
        &eos.omega_a, &eos.omega_b, &eos.parachor}) {
    PROMISE(values->empty() || values->size() == eos.components.size());
  }
}

void Run(ConnectorBase& connector, int operation, std::uint8_t mode, const Texts& wells) {
  int day = -1;
  int month = -1;
  int year = -1;
  switch (operation) {
    case 0:
      return CheckVersion(connector.GetVersion());
    case 1:
      return CheckMetric(connector.IsMetric());
    case 2:
      return CheckCompositional(connector.IsCompositional());
    case 3:
      connector.GetStartDate(day, month, year);
      return CheckStartDate(day, month, year);
    case 4: {
      EOS eos;
      connector.GetStaticComposition(&eos);
      return CheckFluid(eos);
    }
    case 5: {
      std::vector<StaticWellDef> all = {{"old", "", ""}};
      connector.GetWellStatus(all);
      return CheckStatuses(all);
    }
    case 6: {
      Numbers values = {7};
      connector.GetWellVariables("P1", wells, values);
      return CheckVariables(wells, values);
    }
    case 7: {
      std::vector<DynWellOpPt> points;
      connector.GetWellOpPtData(wells, points);
      return CheckPoints(wells, points);
    }
    case 8:
      return SurveyInflow(connector, wells, mode);
    case 9:
      return connector.GetWellConstraints();
    case 10:
      return connector.SetWellStatus(wells, {"OPEN", "SHUT"});
    case 11:
      return connector.SetWellConstraints(wells, {{"A"}, {}}, {{1}, {}});
    case 12: {
      const int result = connector.SetWellInjectionSource("I1", "S");
      PROMISE(result == 0 || result == 1);
      return;
    }
    case 13:
      return connector.SetWellInjectionComposition(wells, {{0.5, 0.5}, {1}});
    case 14:
      connector.Newton();
      PROMISE(!connector.SimulationEnded());
      return;
    default:
      connector.RunUntil(365.25);
      connector.GetDate(day, month, year);
      return CheckDate(day, month, year, connector.SimulationEnded());
  }
}

// Fails as operations may; anything else is a finding.
void RunGuarded(ConnectorBase& connector, int operation, std::uint8_t mode, const Texts& wells) {
  try {
    Run(connector, operation, mode, wells);
  } catch (const std::length_error&) {
  } catch (const std::invalid_argument&) {
  } catch (const boost::system::system_error&) {
  } catch (const std::runtime_error& failure) {
    PROMISE(IsComplaint(failure.what(), wells));
  }
}

void Converse(ConnectorBase& connector, Input& input) {
  static std::string stream;
  static const std::vector<Texts> lists = {{},           {"P1"},       {"P1", "P2"},
                                           {"P2", "P1"}, {"P1", "P1"}, {"I1", "P1", "P2"}};
  const int operation = input.Byte() % 16;
  const std::uint8_t mode = input.Byte();
  stream = SetUpAnswers();
  WriteAnswers(input, stream);
  memoryStream.Begin(stream);
  FindMessages(std::string_view(stream).substr(SetUpAnswers().size()));
  connector.Connect("host", 9001, 60);
  RunGuarded(connector, operation, mode, lists[(mode >> 3) % lists.size()]);
  memoryStream.Begin({});
  PROMISE(connector.Shutdown() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  if ((input.Byte() & 1) != 0) {
    v2016_2::Connector connector;
    Converse(connector, input);
  } else {
    v2017_2::Connector connector;
    Converse(connector, input);
  }
  return 0;
}
