// The master's side of the link as a library. A Launch makes the handshake on a connection, and a
// Run has a call for every request. FrameChannel moves whole frames for both and does all the
// waiting, so that each wait has its limits and can be interrupted. RequestWriter and ReplyReader
// lay values out.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "master/frame_channel.h"
#include "master/records.h"
#include "net/master_link.h"

namespace master {

class ReplyReader;
class RequestWriter;

using master_link::Code;

/// For example "request 8 (RunUntil)".
std::string NameOf(Code code);

/// A launched run, one call per request. Each call sends its request and blocks for the answer
/// without a limit: a step may take hours.
///
/// A request that the daemon cannot serve ends the run: the daemon reports it by closing the
/// connection, which here is RequestFailed with the request's name. Every call may also throw
/// LinkLost and ProtocolError, after which the link is of no use either, and Interrupted, after
/// which only ShutdownWithin() may be called. Lists too long for the daemon's buffer
/// (master_link::kMaxFrame) throw RequestTooLong before anything is sent.
///
/// Well names, statuses and property names are the simulator's; values are in the run's units,
/// times in days since the start date.
class Run {
 public:
  /// `channel` is the connection after a launch.
  explicit Run(FrameChannel channel) : channel_(std::move(channel)) {}

  FrameChannel& channel() { return channel_; }

  /// From now on asks for the record of each well only when that of the well before has come, as
  /// earlier versions did: a round trip a well.
  void AskOneByOne() { one_by_one_ = true; }

  /// Lets the daemon connect to the simulator; before it no other request but Shutdown() succeeds.
  void Connect();
  Date GetDate();
  bool GetMetricFlag();
  double GetTimeDays();
  bool GetCompFlag();
  std::vector<WellStatus> GetWellStatus();

  /// To the first time step; once, before the first RunUntil().
  void Newton();

  /// Returns when the simulator has reached `days` or the end of the run; GetTermFlag() tells.
  void RunUntil(double days);
  bool GetTermFlag();

  /// One record per well, in order. Two round trips, however many wells: the requests for the
  /// records go out ahead of the answers. More wells than a frame can name are asked for in groups,
  /// of which each takes a round trip more.
  std::vector<WellData> GetWellData(const std::vector<std::string>& wells);

  /// The lists are parallel. The daemon does not compare their lengths; the simulator may refuse.
  void SetWellStatus(const std::vector<std::string>& wells,
                     const std::vector<std::string>& statuses);
  void SetWellUptime(const std::vector<std::string>& wells, const std::vector<double>& fractions);
  void SetWellConstraints(const std::vector<WellConstraints>& wells);

  EOSProps GetEOSProps();
  std::vector<double> GetWellVariables(const std::string& well,
                                       const std::vector<std::string>& names);

  /// The same of many wells, in order. Two round trips, however many wells: when the first well's
  /// values have come, which shows that the simulator knows the names, the other requests go out
  /// ahead of the answers.
  std::vector<std::vector<double>> GetVariablesOfWells(const std::vector<std::string>& wells,
                                                       const std::vector<std::string>& names);

  /// Two round trips, and no groups: the tables of one request are cut back together, which those
  /// of two would not be. Opens the wells and leaves them limited to a tenth or so of their rate:
  /// whoever goes on with the run sets statuses and constraints again.
  IPRTables GetWellIPRData(const IPRRequest& asked);

  double GetVersion();

  /// The low 8 bits of the simulator's result; always 0 with version 2016.2, which has no external
  /// sources.
  int SetWellInjectionSource(const std::string& well, const std::string& source);

  /// `compositions[i]` are the mole fractions of `sources[i]`, component 1 first.
  void SetWellInjectionComposition(const std::vector<std::string>& sources,
                                   const std::vector<std::vector<double>>& compositions);
  Date GetStartDate();

  /// Shuts the simulator down. The daemon then closes the connection.
  void Shutdown();

  /// Shuts down also after Interrupted, when the answer of a request is still due. The shutdown
  /// request waits after that one, whose answer is read and dropped. Returns whether the shutdown
  /// was acknowledged before the deadline; if not, the daemon still serves it when it gets there.
  /// Throws as the other calls do.
  bool ShutdownWithin(const Deadline& deadline);

 private:
  std::string Exchange(Code code, const RequestWriter& request);
  std::string Await(Code code);
  void Check(Code code, const RequestWriter& request);
  void Send(Code code, const RequestWriter& request);
  void ExpectRecords(Code code, std::size_t count);
  void AskForRecords();
  std::string NextRecord();
  void Simple(Code code);
  Date DateOf(Code code);
  bool FlagOf(Code code);
  double DoubleOf(Code code);
  std::vector<double> NextVariables();

  FrameChannel channel_;
  bool one_by_one_ = false;
  // How many requests of this code, for records, the daemon waits for that have not been sent.
  // Until they come it serves nothing else.
  Code record_code_ = Code::kWellDataRecord;
  std::size_t records_due_ = 0;
};

}  // namespace master
