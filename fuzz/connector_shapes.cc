// What the connectors make of answers whose headers are sound but whose shape may be any: a result
// has the shape that the master relies on, or the operation fails with a sentence of its own.

#include <algorithm>
#include <array>
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

void CheckDate(int day, int month, int year) {
  // The script's numbers, none of which is this.
  PROMISE(day != -1 && month != -1 && year != -1);
}

void SurveyInflow(ConnectorBase& connector, const Texts& wells, std::uint8_t mode) {
  const int components = mode % 4 - 1;
  std::vector<DynWellIPR> tables;
  PROMISE(connector.GetWellIPRData(components, wells, (mode & 4) != 0, 1.5, tables) == 10);
  PROMISE(tables.size() == wells.size());
  for (const DynWellIPR& table : tables) {
    CheckTable(table, static_cast<std::size_t>(std::max(components, 0)));
  }
}

void Run(ConnectorBase& connector, int operation, std::uint8_t mode, const Texts& wells) {
  int day = -1;
  int month = -1;
  int year = -1;
  switch (operation) {
    case 0:
      connector.GetVersion();
      return;
    case 1:
      connector.IsMetric();
      return;
    case 2:
      connector.IsCompositional();
      return;
    case 3:
      connector.GetStartDate(day, month, year);
      return CheckDate(day, month, year);
    case 4: {
      EOS eos;
      connector.GetStaticComposition(&eos);
      PROMISE(eos.component_count == static_cast<int>(eos.components.size()));
      PROMISE(eos.reserved.empty());
      for (const Numbers* values : {&eos.molecular_weight, &eos.acentric_factor, &eos.parachor}) {
        PROMISE(values->empty() || values->size() == eos.components.size());
      }
      return;
    }
    case 5: {
      std::vector<StaticWellDef> all = {{"old", "", ""}};
      connector.GetWellStatus(all);
      PROMISE(all.empty() || all[0].name != "old");
      return;
    }
    case 6: {
      Numbers values = {7};
      connector.GetWellVariables("P1", wells, values);
      PROMISE(values.size() == 1 + wells.size() && values[0] == 7);
      return;
    }
    case 7: {
      std::vector<DynWellOpPt> points;
      connector.GetWellOpPtData(wells, points);
      PROMISE(points.size() == wells.size());
      return;
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
      return CheckDate(day, month, year);
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
