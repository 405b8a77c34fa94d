#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connector/v2016_2/connector.h"
#include "connector/v2017_2/connector.h"
#include "tests/support/generators.h"
#include "tests/support/scripted_simulator.h"
#include "tests/support/wire_bytes.h"

namespace {

using Names = std::vector<std::string>;
using Numbers = std::vector<double>;

const std::string kEnd = wire::Mess("END");
const std::string kReady = wire::Mess("READY") + kEnd;

// A connector that has found its simulator.
template <class Connector>
class Connected {
 public:
  Connected() {
    simulator_.AnswerNext({wire::Mess("STARTED") + wire::Cstr("ERRORS", {}) + kEnd,
                           wire::Mess("STEP") + wire::Cstr("POSITION", {"MODEL_DEFINITION"}) +
                               wire::Doub("TIME", {0}) + wire::Inte("DATE", {1900, 1, 1, 0, 0, 0}) +
                               kEnd});
    connector_.Connect("127.0.0.1", static_cast<int>(simulator_.Port()), 5);
  }
  ~Connected() { connector_.Shutdown(); }

  Connector* operator->() { return &connector_; }
  void AnswerSetter() { simulator_.AnswerNext({kReady}); }
  void AnswerQuery(const std::string& headers) {
    simulator_.AnswerNext({wire::Mess("REPLY") + headers + kEnd, kReady});
  }
  std::size_t Requests() const { return simulator_.Requests().size(); }
  std::string LastRequest() const { return simulator_.Requests().back(); }

 private:
  ScriptedSimulator simulator_{ScriptedSimulator::Link::kLoopback};
  Connector connector_;
};

// One well's constraints: as many values as names, but for one list in eight.
struct Constraints {
  Names names;
  Numbers values;
};
rc::Gen<Constraints> AnyConstraints() {
  return rc::gen::exec([] {
    Constraints constraints;
    constraints.names = *rc::gen::resize(6, rc::gen::container<Names>(any::Bytes()));
    const std::size_t extra = *rc::gen::inRange(0, 8) == 0 ? 1 : 0;
    constraints.values =
        *rc::gen::container<Numbers>(constraints.names.size() + extra, any::Double());
    return constraints;
  });
}

template <class Connector>
void CheckConstraints(Connected<Connector>& connector) {
  const Names wells = *any::Names();
  std::vector<Names> names;
  std::vector<Numbers> values;
  bool consistent = true;
  std::string request = wire::Mess("SET") + wire::Mess("SETWCONSTRAINTS");
  for (const std::string& well : wells) {
    const Constraints constraints = *AnyConstraints();
    names.push_back(constraints.names);
    values.push_back(constraints.values);
    consistent = consistent && constraints.names.size() == constraints.values.size();
    request += wire::Cstr("WELLNAME", {well}) + wire::Cstr("ITEMS", constraints.names) +
               wire::Doub("VALUES", constraints.values) +
               wire::Cstr("SETTERS", Names(constraints.names.size(), "USER"));
  }
  if (*rc::gen::inRange(0, 10) == 0) names.emplace_back();
  if (*rc::gen::inRange(0, 10) == 0) values.emplace_back();
  consistent = consistent && names.size() == wells.size() && values.size() == wells.size();

  const std::size_t before = connector.Requests();
  if (wells.empty()) {
    connector->SetWellConstraints(wells, names, values);
    RC_ASSERT(connector.Requests() == before);
  } else if (consistent) {
    connector.AnswerSetter();
    connector->SetWellConstraints(wells, names, values);
    RC_ASSERT(connector.Requests() == before + 1);
    RC_ASSERT(connector.LastRequest() == request + kEnd);
  } else {
    std::string complaint;
    try {
      connector->SetWellConstraints(wells, names, values);
    } catch (const std::runtime_error& failure) {
      complaint = failure.what();
    }
    RC_ASSERT(complaint == "Incorrect argument dimensions passed to SetWellConstraints");
    RC_ASSERT(connector.Requests() == before);
  }
}

// Fractions of any value reach the simulator with every bit: it, not we, judges them.
template <class Connector>
void CheckUptimes(Connected<Connector>& connector) {
  const Names wells = *any::Names();
  const auto fractions = *rc::gen::container<Numbers>(wells.size(), any::Double());
  const std::size_t before = connector.Requests();
  if (!wells.empty()) connector.AnswerSetter();
  connector->SetWellUptime(wells, fractions);
  RC_ASSERT(connector.Requests() == before + (wells.empty() ? 0 : 1));
  if (wells.empty()) return;
  RC_ASSERT(connector.LastRequest() == wire::Mess("SET") + wire::Mess("SETWELLS") +
                                           wire::Cstr("SETITEM", {"UPTIME_FRACTION"}) +
                                           wire::Cstr("WELNAMES", wells) +
                                           wire::Doub("VALUES", fractions) + kEnd);
}

const Names kAsked = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                      "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "UPTIME_FRACTION",
                      "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};

// The answer lists the wells in any order, some of them twice and some that nobody asked for: the
// records are those of the first row of each name, in the order asked.
template <class Connector>
void CheckOperatingPoints(Connected<Connector>& connector) {
  const Names wells = *any::Names();
  const auto answered = [&wells] {
    Names rows = wells;
    for (const std::string& more : *any::Names()) {
      rows.insert(rows.begin() + *rc::gen::inRange<std::ptrdiff_t>(
                                     0, static_cast<std::ptrdiff_t>(rows.size()) + 1),
                  more);
    }
    return rows;
  };
  const Names dataRows = answered();
  const Names statusRows = answered();
  std::vector<Numbers> data;
  std::string dataHeaders = wire::Cstr("QITEMS", kAsked);
  for (const std::string& well : dataRows) {
    data.push_back(*rc::gen::container<Numbers>(kAsked.size(), any::Double()));
    dataHeaders += wire::Cstr("WELLNAME", {well}) + wire::Doub("VALUES", data.back());
  }
  std::string statusHeaders = wire::Cstr("QITEMS", {"STATUS"});
  for (std::size_t i = 0; i < statusRows.size(); ++i) {
    statusHeaders +=
        wire::Cstr("WELLNAME", {statusRows[i]}) + wire::Cstr("VALUES", {"S" + std::to_string(i)});
  }
  connector.AnswerQuery(dataHeaders);
  connector.AnswerQuery(statusHeaders);
  std::vector<DynWellOpPt> points;
  connector->GetWellOpPtData(wells, points);
  RC_ASSERT(points.size() == wells.size());
  const auto first = [](const Names& names, const std::string& name) {
    std::size_t i = 0;
    while (names[i] != name) ++i;
    return i;
  };
  for (std::size_t i = 0; i < wells.size(); ++i) {
    const Numbers& row = data[first(dataRows, wells[i])];
    const DynWellOpPt& point = points[i];
    RC_ASSERT(point.status == "S" + std::to_string(first(statusRows, wells[i])));
    RC_ASSERT(any::Bits(Numbers{point.oil_rate, point.gas_rate, point.water_rate,
                                point.water_injection_rate, point.gas_injection_rate,
                                point.bottom_hole_pressure, point.tubing_head_pressure,
                                point.uptime_fraction}) ==
              any::Bits(Numbers{row[0], row[1], row[2], row[3], row[4], row[6], row[7], row[5]}));
  }
}

// One connection serves all cases of a property.
template <class Connector>
void CheckOverOneConnection(void (*check)(Connected<Connector>&)) {
  Connected<Connector> connector;
  rc::detail::checkGTest([&] { check(connector); });
}

TEST(WellsProperty, ConstraintsReachTheSimulatorAsGivenOrNotAtAll) {
  CheckOverOneConnection<v2016_2::Connector>(CheckConstraints);
  CheckOverOneConnection<v2017_2::Connector>(CheckConstraints);
}

TEST(WellsProperty, UptimeFractionsReachTheSimulatorWithEveryBit) {
  CheckOverOneConnection<v2016_2::Connector>(CheckUptimes);
  CheckOverOneConnection<v2017_2::Connector>(CheckUptimes);
}

TEST(WellsProperty, OperatingPointsAreTheFirstRowsOfTheirWellsInTheOrderAsked) {
  CheckOverOneConnection<v2016_2::Connector>(CheckOperatingPoints);
  CheckOverOneConnection<v2017_2::Connector>(CheckOperatingPoints);
}

}  // namespace
