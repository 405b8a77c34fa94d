#pragma once

#include <fcntl.h>

#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "connector/v2016_2/connector.h"
#include "connector/v2017_2/connector.h"
#include "tests/support/scripted_simulator.h"
#include "tests/support/wire_bytes.h"

/// Both connectors behave alike in all but the injection sources; one suite serves both.
using ConnectorTypes = testing::Types<v2016_2::Connector, v2017_2::Connector>;

/// A connector over a simulator whose answers the test has prepared.
template <class Connector>
class ConnectorTest : public testing::Test {
 protected:
  using Names = std::vector<std::string>;
  using Numbers = std::vector<double>;

  static std::string End() { return wire::Mess("END"); }
  static std::string Ready() { return wire::Mess("READY") + End(); }
  static std::string Finished() { return wire::Mess("FINISHED") + End(); }
  static std::string Started() { return wire::Mess("STARTED") + wire::Cstr("ERRORS", {}) + End(); }
  static std::string ModelDefinition() {
    return Step("MODEL_DEFINITION", 0, {1900, 1, 1, 0, 0, 0});
  }

  static std::string Step(const std::string& position, double time, const std::vector<int>& date) {
    return wire::Mess("STEP") + wire::Cstr("POSITION", {position}) + wire::Doub("TIME", {time}) +
           wire::Inte("DATE", date) + End();
  }

  /// Prepares the answer to one step: the simulator then stands at `position`.
  void AnswerStep(const std::string& position, double time = 0,
                  const std::vector<int>& date = {2026, 1, 1, 0, 0, 0}) {
    simulator_.AnswerNext({Step(position, time, date)});
  }

  /// Prepares the answer to one query: "REPLY", these headers, "END", then "READY".
  void AnswerQuery(const std::string& headers) {
    simulator_.AnswerNext({wire::Mess("REPLY") + headers + End(), Ready()});
  }

  /// Prepares the answer to one setter.
  void AnswerSetter() { simulator_.AnswerNext({Ready()}); }

  /// Headers of an answer to a query of the whole run.
  static std::string Item(const std::string& name, const Names& values) {
    return wire::Cstr("QITEM", {name}) + wire::Cstr("VALUES", values);
  }
  static std::string Dates(const std::string& name, const std::vector<int>& values) {
    return wire::Cstr("QITEM", {name}) + wire::Inte("VALUES", values);
  }

  /// Headers of one well's row in an answer to a query of wells.
  static std::string Row(const std::string& well, const Numbers& values) {
    return wire::Cstr("WELLNAME", {well}) + wire::Doub("VALUES", values);
  }
  static std::string Words(const std::string& well, const Names& values) {
    return wire::Cstr("WELLNAME", {well}) + wire::Cstr("VALUES", values);
  }

  static std::string WellQuery(const std::string& kind, const Names& items, const Names& wells) {
    return wire::Mess("QUERY") + wire::Mess(kind) + wire::Cstr("QITEMS", items) +
           wire::Cstr("WELNAMES", wells) + End();
  }
  static std::string RunQuery(const std::string& kind, const Names& items) {
    return wire::Mess("QUERY") + wire::Mess(kind) + wire::Cstr("QITEMS", items) + End();
  }

  /// Connects; the simulator stands at the definition of its model.
  void Connect() {
    AnswerSetUp();
    ConnectToSimulator();
  }
  void AnswerSetUp() { simulator_.AnswerNext({Started(), ModelDefinition()}); }
  void ConnectToSimulator() {
    connector_.Connect("127.0.0.1", static_cast<int>(simulator_.Port()), 5);
  }

  /// The requests since the set-up, up to now.
  std::vector<std::string> Requests() const {
    std::vector<std::string> requests = simulator_.Requests();
    if (!requests.empty()) requests.erase(requests.begin());
    return requests;
  }

  /// The text of the std::runtime_error that `operation` throws.
  template <class Operation>
  static std::string FailureOf(Operation operation) {
    try {
      operation();
    } catch (const std::runtime_error& failure) {
      return failure.what();
    }
    return "no failure";
  }

  /// The descriptors of the whole process, the simulator's among them.
  static std::set<int> OpenDescriptors() {
    std::set<int> descriptors;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
      if (fcntl(descriptor, F_GETFD) >= 0) descriptors.insert(descriptor);
    }
    return descriptors;
  }

  /// Only a shutdown releases the connection.
  void TearDown() override { connector_.Shutdown(); }

  ScriptedSimulator simulator_{ScriptedSimulator::Link::kLoopback};
  Connector connector_;
};
