// Each operation of both connectors over a script of sound answers of any shape, beside a simple
// model of it: what was sent, every value of the result, and how the operation ends are the
// model's.

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
#include "fuzz/support/connector_model.h"
#include "fuzz/support/input.h"
#include "fuzz/support/memory_stream.h"
#include "fuzz/support/promise.h"
#include "fuzz/support/wire.h"

namespace {

using Numbers = std::vector<double>;
using Ending = ConnectorOutcome::Ending;

// As bits: what is not a number is not equal to itself.
bool Same(double a, double b) {
  return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
}
bool Same(const std::string& a, const std::string& b) {
  return a == b;
}

bool Same(const StaticWellDef& a, const StaticWellDef& b) {
  return a.name == b.name && a.type == b.type && a.status == b.status;
}

bool Same(const DynWellOpPt& a, const DynWellOpPt& b) {
  return a.status == b.status && Same(a.oil_rate, b.oil_rate) && Same(a.gas_rate, b.gas_rate) &&
         Same(a.water_rate, b.water_rate) && Same(a.water_injection_rate, b.water_injection_rate) &&
         Same(a.gas_injection_rate, b.gas_injection_rate) &&
         Same(a.bottom_hole_pressure, b.bottom_hole_pressure) &&
         Same(a.tubing_head_pressure, b.tubing_head_pressure) &&
         Same(a.uptime_fraction, b.uptime_fraction);
}

bool Same(const DynWellIPR& a, const DynWellIPR& b);

template <class T>
bool Same(const std::vector<T>& a, const std::vector<T>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const T& one, const T& other) { return Same(one, other); });
}

bool Same(const DynWellIPR& a, const DynWellIPR& b) {
  return Same(a.pressure, b.pressure) && Same(a.oil_rate, b.oil_rate) &&
         Same(a.water_rate, b.water_rate) && Same(a.gas_rate, b.gas_rate) &&
         Same(a.temperature, b.temperature) && Same(a.gas_density, b.gas_density) &&
         Same(a.oil_density, b.oil_density) && Same(a.water_density, b.water_density) &&
         Same(a.mole_fractions, b.mole_fractions);
}

bool Same(const EOS& a, const EOS& b) {
  return a.name == b.name && Same(a.components, b.components) &&
         Same(a.molecular_weight, b.molecular_weight) &&
         Same(a.critical_temperature, b.critical_temperature) &&
         Same(a.critical_pressure, b.critical_pressure) &&
         Same(a.critical_volume, b.critical_volume) && Same(a.acentric_factor, b.acentric_factor) &&
         Same(a.reserved, b.reserved) && Same(a.boiling_point, b.boiling_point) &&
         Same(a.volume_shift, b.volume_shift) && Same(a.omega_a, b.omega_a) &&
         Same(a.omega_b, b.omega_b) && Same(a.parachor, b.parachor) &&
         Same(a.binary_interaction, b.binary_interaction) && a.component_count == b.component_count;
}

// Whether the double at the front of both is none; nobody has to say which bits such a sum has.
bool BothUndefined(std::string_view a, std::string_view b) {
  double one = 0;
  double other = 0;
  return wire::Take(a, one) && wire::Take(b, other) && one != one && other != other;
}

bool SameMessage(std::string_view a, std::string_view b) {
  wire::Header header;
  wire::Header other;
  while (wire::Take(a, header) && wire::Take(b, other) &&
         header.Is(other.name, other.count, other.tag)) {
    for (std::uint64_t i = 0; i < header.count; ++i) {
      std::size_t size = sizeof(double);
      if (header.tag == "INTE") size = sizeof(int);
      if (header.tag == "CSTR") {
        std::uint64_t length = 0;
        std::string_view rest = a;
        PROMISE(wire::Take(rest, length));
        size += length;
      }
      const bool same = a.substr(0, size) == b.substr(0, size);
      if (!same && (header.tag != "DOUB" || !BothUndefined(a, b))) return false;
      PROMISE(size <= a.size() && size <= b.size());
      a.remove_prefix(size);
      b.remove_prefix(size);
    }
  }
  return a.empty() && b.empty();
}

bool SameRequests(std::string_view a, std::string_view b) {
  if (a == b) return true;
  while (!a.empty() && a.size() == b.size()) {
    std::array<std::uint64_t, 2> lengths{};
    std::array<std::uint64_t, 2> others{};
    if (!wire::Take(a, lengths) || !wire::Take(b, others) || lengths != others) return false;
    if (!SameMessage(a.substr(0, lengths[0]), b.substr(0, lengths[0]))) return false;
    a.remove_prefix(lengths[0]);
    b.remove_prefix(lengths[0]);
  }
  return a.empty() && b.empty();
}

void Carry(ConnectorBase& connector, const ConnectorCall& call, ConnectorOutcome& outcome) {
  const auto add = [&](double number) { outcome.numbers.push_back(number); };
  switch (call.operation) {
    case 0:
      return add(connector.GetVersion());
    case 1:
      return add(connector.IsMetric() ? 1 : 0);
    case 2:
      return add(connector.IsCompositional() ? 1 : 0);
    case 3: {
      int day = 0;
      int month = 0;
      int year = 0;
      connector.GetStartDate(day, month, year);
      for (const int number : {day, month, year}) add(number);
      return;
    }
    case 4:
      return connector.GetStaticComposition(&outcome.eos);
    case 5:
      return connector.GetWellStatus(outcome.wells);
    case 6:
      return connector.GetWellVariables("P1", call.wells, outcome.numbers);
    case 7:
      return connector.GetWellOpPtData(call.wells, outcome.points);
    case 8:
      return add(connector.GetWellIPRData(call.components, call.wells, call.bottom_hole,
                                          call.skewness, outcome.tables));
    case 9:
      return connector.GetWellConstraints();
    case 10:
      return connector.SetWellStatus(call.wells, call.statuses);
    case 11:
      return connector.SetWellConstraints(call.wells, call.properties, call.values);
    case 12:
      return add(connector.SetWellInjectionSource("I1", "S"));
    case 13:
      return connector.SetWellInjectionComposition(call.wells, call.values);
    case 14:
      return connector.Newton();
    case 15:
      return connector.RunUntil(call.fractions[0]);
    case 16:
      return connector.SetWellUptime(call.wells, call.fractions);
    default:
      return connector.GetWellStatus();
  }
}

void Fail(ConnectorOutcome& outcome, Ending ending, const std::exception& failure) {
  outcome.ending = ending;
  outcome.text = failure.what();
}

// Anything else than these exceptions is a finding.
ConnectorOutcome OutcomeOf(ConnectorBase& connector, const ConnectorCall& call) {
  ConnectorOutcome outcome;
  try {
    Carry(connector, call, outcome);
  } catch (const std::length_error& failure) {
    Fail(outcome, Ending::kRefused, failure);
  } catch (const std::invalid_argument& failure) {
    Fail(outcome, Ending::kRefused, failure);
  } catch (const boost::system::system_error& failure) {
    Fail(outcome, Ending::kGone, failure);
  } catch (const std::runtime_error& failure) {
    Fail(outcome, Ending::kComplaint, failure);
  }
  outcome.ended = connector.SimulationEnded();
  outcome.time = connector.GetTimeDays();
  connector.GetDate(outcome.day, outcome.month, outcome.year);
  return outcome;
}

void Compare(const ConnectorOutcome& outcome, const ConnectorOutcome& expected) {
  PROMISE(outcome.ending == expected.ending);
  // An exception's text ends at the first zero that a name in it has.
  PROMISE(expected.text.empty() ||
          outcome.text == expected.text.substr(0, expected.text.find('\0')));
  PROMISE(Same(outcome.numbers, expected.numbers));
  PROMISE(Same(outcome.points, expected.points));
  PROMISE(Same(outcome.tables, expected.tables));
  PROMISE(Same(outcome.eos, expected.eos));
  PROMISE(Same(outcome.wells, expected.wells));
  PROMISE(outcome.ended == expected.ended && Same(outcome.time, expected.time));
  PROMISE(outcome.day == expected.day && outcome.month == expected.month);
  PROMISE(outcome.year == expected.year);
}

void Converse(ConnectorBase& connector, bool is2016, Input& input) {
  static std::string stream;
  static std::string requests;
  const int operation = input.Byte() % ConnectorCall::kOperations;
  const ConnectorCall call(operation, input.Byte(), is2016);
  stream = ConnectionAnswers();
  WriteAnswers(input, stream);
  const ConnectorOutcome expected =
      ModelOf(call, std::string_view(stream).substr(ConnectionAnswers().size()), requests);

  memory_stream.Begin(stream);
  connector.Connect("host", 9001, 60);
  PROMISE(memory_stream.sent == ConnectionRequest());
  memory_stream.sent.clear();
  Compare(OutcomeOf(connector, call), expected);
  PROMISE(SameRequests(memory_stream.sent, requests));
  memory_stream.Begin({});
  PROMISE(connector.Shutdown() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  if ((input.Byte() & 1) != 0) {
    v2016_2::Connector connector;
    Converse(connector, true, input);
  } else {
    v2017_2::Connector connector;
    Converse(connector, false, input);
  }
  return 0;
}
