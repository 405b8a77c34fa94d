#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "connector/records.h"

/// One operation of a connector with its arguments.
struct ConnectorCall {
  static constexpr int kOperations = 18;

  /// Operation `chosen` of the `earlier` version's connector or the later one's. The arguments are
  /// chosen by the bits of `mode`; most of them go together.
  ConnectorCall(int chosen, std::uint8_t mode, bool earlier);

  int operation;
  bool is2016;
  const std::vector<std::string>& wells;  ///< or properties, or fluid sources
  std::vector<std::string> statuses;
  std::vector<double> fractions;
  std::vector<std::vector<std::string>> properties;
  std::vector<std::vector<double>> values;
  int components;
  bool bottom_hole;
  double skewness;
};

/// What an operation gave, whichever of these members are its own, and how it ended.
struct ConnectorOutcome {
  enum class Ending {
    kDone,
    kGone,       ///< the simulator had gone
    kRefused,    ///< an answer or the arguments make no sense to the client
    kComplaint,  ///< an answer or the arguments make no sense to the connector
  };

  Ending ending = Ending::kDone;
  std::string text;  ///< of the failure

  // Filled with something to see what is cleared and what is added to.
  std::vector<double> numbers = {7};
  std::vector<StaticWellDef> wells = {{"old", "", ""}};
  std::vector<DynWellOpPt> points;
  std::vector<DynWellIPR> tables;
  EOS eos = OldFluid();

  bool ended = false;  ///< where the run stands afterwards
  double time = 0;
  int day = 3, month = 2, year = 2020;

 private:
  static EOS OldFluid();
};

/// What the simulator answers when a connector connects; the run stands as in a fresh
/// ConnectorOutcome then. Framed.
const std::string& ConnectionAnswers();

/// What a connector sends when it connects. Framed.
const std::string& ConnectionRequest();

/// How `call` has to end when the simulator answers with the framed `answers` and goes. `requests`
/// becomes what has to be sent, framed. Without a text in the outcome the failure may have any.
ConnectorOutcome ModelOf(const ConnectorCall& call, std::string_view answers,
                         std::string& requests);
