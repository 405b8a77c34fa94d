#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "connector/connector_base.h"

/// A connector that answers what the test gave it and writes down what it was called with.
struct StubConnector : ConnectorBase {
  // Answers.
  double version = 0;
  bool metric = false;
  bool compositional = false;
  bool ended = false;
  double days = 0;
  int date[3] = {0, 0, 0};
  int start_date[3] = {0, 0, 0};
  int source_result = 0;
  int points = 10;
  EOS eos;
  std::vector<StaticWellDef> wells;
  std::vector<DynWellOpPt> operating_points;
  std::vector<DynWellIPR> tables;
  std::vector<double> variables;
  std::function<void()> fail = [] {};  ///< called by every operation

  // Calls, as "Operation(arguments)".
  std::vector<std::string> calls;

  void Connect(const std::string& host, int port, int timeout) override {
    Call("Connect(" + host + "," + std::to_string(port) + "," + std::to_string(timeout) + ")");
  }
  int Shutdown() override {
    Call("Shutdown()");
    return 0;
  }
  double GetVersion() override {
    Call("GetVersion()");
    return version;
  }
  bool IsMetric() override {
    Call("IsMetric()");
    return metric;
  }
  double GetTimeDays() override {
    Call("GetTimeDays()");
    return days;
  }
  void GetDate(int& day, int& month, int& year) override {
    Call("GetDate()");
    day = date[0];
    month = date[1];
    year = date[2];
  }
  void GetStartDate(int& day, int& month, int& year) override {
    Call("GetStartDate()");
    day = start_date[0];
    month = start_date[1];
    year = start_date[2];
  }
  bool IsCompositional() override {
    Call("IsCompositional()");
    return compositional;
  }
  void GetStaticComposition(EOS* target) override {
    Call("GetStaticComposition()");
    *target = eos;
  }
  int SetWellInjectionSource(const std::string& well, const std::string& source) override {
    Call("SetWellInjectionSource(" + well + "," + source + ")");
    return source_result;
  }
  void SetWellInjectionComposition(const std::vector<std::string>& sources,
                                   const std::vector<std::vector<double>>& compositions) override {
    Call("SetWellInjectionComposition(" + Text(sources) + "," + Text(compositions) + ")");
  }
  void GetWellStatus(std::vector<StaticWellDef>& target) override {
    Call("GetWellStatus(wells)");
    target = wells;
  }
  void GetWellVariables(const std::string& well, const std::vector<std::string>& properties,
                        std::vector<double>& values) override {
    Call("GetWellVariables(" + well + "," + Text(properties) + ")");
    values = variables;
  }
  void GetWellOpPtData(const std::vector<std::string>& names,
                       std::vector<DynWellOpPt>& target) override {
    Call("GetWellOpPtData(" + Text(names) + ")");
    target = operating_points;
  }
  int GetWellIPRData(int ncomponents, const std::vector<std::string>& names, bool bottom_hole,
                     double skewness, std::vector<DynWellIPR>& target) override {
    Call("GetWellIPRData(" + std::to_string(ncomponents) + "," + Text(names) + "," +
         (bottom_hole ? "bottom" : "top") + "," + std::to_string(skewness) + ")");
    target = tables;
    return points;
  }
  void GetWellConstraints() override { Call("GetWellConstraints()"); }
  void GetWellStatus() override { Call("GetWellStatus()"); }
  void SetWellUptime(const std::vector<std::string>& names,
                     const std::vector<double>& fractions) override {
    Call("SetWellUptime(" + Text(names) + "," + Text(fractions) + ")");
  }
  void SetWellStatus(const std::vector<std::string>& names,
                     const std::vector<std::string>& statuses) override {
    Call("SetWellStatus(" + Text(names) + "," + Text(statuses) + ")");
  }
  void SetWellConstraints(const std::vector<std::string>& names,
                          const std::vector<std::vector<std::string>>& properties,
                          const std::vector<std::vector<double>>& values) override {
    Call("SetWellConstraints(" + Text(names) + "," + Text(properties) + "," + Text(values) + ")");
  }
  void Newton() override { Call("Newton()"); }
  void RunUntil(double time) override { Call("RunUntil(" + std::to_string(time) + ")"); }
  bool SimulationEnded() override {
    Call("SimulationEnded()");
    return ended;
  }

 private:
  void Call(const std::string& text) {
    calls.push_back(text);
    fail();
  }
  static std::string Text(const std::string& text) { return text; }
  static std::string Text(double value) {
    std::string text = std::to_string(value);
    text.erase(text.find_last_not_of('0') + 1);
    return text;
  }
  template <class T>
  static std::string Text(const std::vector<T>& list) {
    std::string text = "[";
    for (const T& element : list) text += (text.size() > 1 ? " " : "") + Text(element);
    return text + "]";
  }
};
