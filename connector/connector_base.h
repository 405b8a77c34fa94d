// The folder has the master's operations on a run, in terms of the client of vk_ec.
// connector_base.h declares them; CommonConnector makes them for both versions of the simulator's
// protocol, whose connectors in v2016_2/ and v2017_2/ add the two operations that differ. The
// operation of many exchanges, GetWellIPRData, keeps its state in an InflowSurvey. The folder
// checks the shape of every answer and knows nothing of how the master packs its requests.
#pragma once

#include <string>
#include <vector>

#include "connector/records.h"

/// The operations of the master on a running simulation, whatever protocol version the simulator
/// speaks.
///
/// Connect() comes first, Shutdown() last, and nothing after it. GetTimeDays, GetDate and
/// SimulationEnded look at the simulator's last answer; every other operation asks the simulator
/// and blocks until it has answered.
///
/// Failures are exceptions. An answer that has not the expected shape is a `std::runtime_error`
/// with the sentence that stands in quotes at the operation; what the client throws passes
/// unchanged.
/// Before Connect() an operation that needs the client throws `std::runtime_error` "Not connected
/// to the simulator". Integers that are returned are never error codes. Nothing converts units.
class ConnectorBase {
 public:
  ConnectorBase() = default;
  ConnectorBase(const ConnectorBase&) = delete;
  ConnectorBase& operator=(const ConnectorBase&) = delete;
  virtual ~ConnectorBase() = default;

  /// Connects to the simulator, which has `timeout` seconds to begin to listen. A simulator that
  /// does not stand at the definition of its model is "Incorrect algorithmic position after
  /// connection". After a second call the operations go to the second simulator; the connection to
  /// the first stays open to the end of the process.
  virtual void Connect(const std::string& host, int port, int timeout) = 0;

  /// Shuts the simulator down and releases the connection, also when the simulator no longer
  /// answers. Always 0.
  virtual int Shutdown() = 0;

  /// The simulator's version; 0 when the version's text does not begin with a number. "Unexpected
  /// answer when querying the VARNOK version."
  virtual double GetVersion() = 0;

  /// Whether the run is in metric units. "Unexpected answer when querying the unit system."
  virtual bool IsMetric() = 0;

  /// Simulated days, as of the last step; 0 before the first.
  virtual double GetTimeDays() = 0;

  /// Simulated date, as of the last step; 1 January 1900 before the first.
  virtual void GetDate(int& day, int& month, int& year) = 0;

  /// Date of day 0. "Unexpected answer when querying the VARNOK start date."
  virtual void GetStartDate(int& day, int& month, int& year) = 0;

  /// Whether the field-management fluid model is compositional. "Unexpected answer when querying
  /// the fluid models."
  virtual bool IsCompositional() = 0;

  /// Replaces `eos` by the first reservoir fluid model; empties `eos` when the run has none.
  virtual void GetStaticComposition(EOS* eos) = 0;

  /// Attaches a gas source named `source` to `well`. Returns 1 when the simulator accepted it, else
  /// 0. Protocol version 2016.2 has no such sources: its connector does nothing and returns 0.
  virtual int SetWellInjectionSource(const std::string& well, const std::string& source) = 0;

  /// Sets the mole fractions of every source, one exchange each. Lists of different length:
  /// "Inconsistent data sent to SetWellInjectionComposition". The connector of protocol version
  /// 2016.2 does nothing.
  virtual void SetWellInjectionComposition(
      const std::vector<std::string>& sources,
      const std::vector<std::vector<double>>& compositions) = 0;

  /// Replaces `wells` by all wells of the model; on failure `wells` is empty. "Unexpected answer
  /// when querying the well statuses."
  virtual void GetWellStatus(std::vector<StaticWellDef>& wells) = 0;

  /// Appends the values of `properties` of one well to `values`. "Unexpected answer when querying
  /// the well data."; or "Unexpected answer when querying " and the name of the first property that
  /// the simulator left out, when the values of the properties before that one stay appended.
  virtual void GetWellVariables(const std::string& well, const std::vector<std::string>& properties,
                                std::vector<double>& values) = 0;

  /// Appends the operating points of `wells`, in their order. "Unexpected answer when querying the
  /// well data.", "... the well operating point data.", "... the well status data.", "... the well
  /// statuses." When the points of a well are missing, those of the wells before it stay appended.
  virtual void GetWellOpPtData(const std::vector<std::string>& wells,
                               std::vector<DynWellOpPt>& points) = 0;

  /// Builds the inflow table of each well from its full rate down, by opening all of them and
  /// lowering their rate limits from point to point; the wells are left open and with the last
  /// limits, for the master to restore. `skewness` above 1 crowds the points towards low rates.
  /// `tables` has to be empty. Returns the number of points. "Unexpected answer when querying the
  /// well status data.", "... the well IPR data." More than 100,000 components:
  /// `std::length_error`.
  virtual int GetWellIPRData(int ncomponents, const std::vector<std::string>& wells,
                             bool bottom_hole, double skewness,
                             std::vector<DynWellIPR>& tables) = 0;

  /// Both make the simulator answer for all wells, and drop the answer.
  virtual void GetWellConstraints() = 0;
  virtual void GetWellStatus() = 0;

  /// For an empty list of wells none of the three setters sends anything, whatever the other lists
  /// hold.
  virtual void SetWellUptime(const std::vector<std::string>& wells,
                             const std::vector<double>& fractions) = 0;
  virtual void SetWellStatus(const std::vector<std::string>& wells,
                             const std::vector<std::string>& statuses) = 0;

  /// Lists that do not match each other: "Incorrect argument dimensions passed to
  /// SetWellConstraints", and nothing is sent.
  virtual void SetWellConstraints(const std::vector<std::string>& wells,
                                  const std::vector<std::vector<std::string>>& properties,
                                  const std::vector<std::vector<double>>& values) = 0;

  /// Brings the simulation from the definition of its model to its first time step. When it stops
  /// elsewhere: "Incorrect algorithmic position after advancing to first timestep".
  virtual void Newton() = 0;

  /// Runs until `time`, in simulated days, or to the end of the simulation if that comes first.
  virtual void RunUntil(double time) = 0;

  virtual bool SimulationEnded() = 0;
};
