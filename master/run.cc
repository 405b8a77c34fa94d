#include "master/run.h"

#include <string.h>

#include <array>
#include <iterator>
#include <optional>
#include <span>

#include "master/errors.h"
#include "master/reply_reader.h"
#include "master/request_writer.h"

namespace master {
namespace {

// The bytes of an empty string, the least that a string takes.
constexpr std::size_t kLengthField = 4;

std::uint32_t Number(Code code) {
  return static_cast<std::uint32_t>(code);
}

RequestWriter Request(Code code) {
  return RequestWriter(Number(code));
}

ReplyReader Reply(const std::string& body, Code code) {
  return {body, Number(code), NameOf(code)};
}

WellData ReadWellData(const std::string& body) {
  ReplyReader reply = Reply(body, Code::kWellDataRecord);
  WellData data;
  data.status = reply.String();
  for (double* value :
       {&data.oil_rate, &data.gas_rate, &data.water_rate, &data.water_injection_rate,
        &data.gas_injection_rate, &data.bottom_hole_pressure, &data.tubing_head_pressure,
        &data.uptime_fraction}) {
    *value = reply.Double();
  }
  reply.End();
  return data;
}

WellIPR ReadWellIPR(const std::string& body, bool with_components) {
  ReplyReader reply = Reply(body, Code::kWellIPRRecord);
  WellIPR table;
  for (std::vector<double>* list :
       {&table.pressure, &table.oil_rate, &table.water_rate, &table.gas_rate, &table.temperature,
        &table.gas_density, &table.oil_density, &table.water_density}) {
    *list = reply.Series();
  }
  if (with_components) {
    for (int point = 0; point < master_link::kTablePoints; ++point) {
      table.mole_fractions.push_back(reply.Series());
    }
  }
  reply.End();
  return table;
}

using Names = std::span<const std::string>;

// The wells in groups that one GetWellData can name; one group without any wells.
std::vector<Names> GroupsOf(const std::vector<std::string>& wells) {
  constexpr std::size_t kHead = sizeof(std::uint32_t) + kLengthField;  // code and count
  std::vector<Names> groups;
  std::size_t begin = 0;
  std::size_t size = kHead;
  for (std::size_t i = 0; i < wells.size(); ++i) {
    const std::size_t more = kLengthField + wells[i].size();
    if (i > begin && size + more > master_link::kMaxFrame) {
      groups.push_back(Names(wells).subspan(begin, i - begin));
      begin = i;
      size = kHead;
    }
    size += more;
  }
  groups.push_back(Names(wells).subspan(begin));
  return groups;
}

RequestWriter VariablesRequest(const std::string& well, const std::vector<std::string>& names) {
  RequestWriter request = Request(Code::kGetWellVariables);
  request.String(well);
  request.Count(names.size());
  request.Strings(names);
  return request;
}

// The daemon announces as many records as there were wells in the request. With another number both
// sides would wait for each other.
void CheckRecordCount(int got, std::size_t wanted, Code code) {
  if (got < 0 || static_cast<std::size_t>(got) != wanted) {
    throw ProtocolError("Bad answer to " + NameOf(code) + ": " + std::to_string(got) +
                        " records for " + std::to_string(wanted) + " wells");
  }
}

}  // namespace

std::string NameOf(Code code) {
  static constexpr std::array<std::pair<Code, const char*>, 23> kNames{{
      {Code::kConnect, "Connect"},
      {Code::kGetDate, "GetDate"},
      {Code::kGetMetricFlag, "GetMetricFlag"},
      {Code::kGetTimeDays, "GetTimeDays"},
      {Code::kGetCompFlag, "GetCompFlag"},
      {Code::kGetWellStatus, "GetWellStatus"},
      {Code::kNewton, "Newton"},
      {Code::kRunUntil, "RunUntil"},
      {Code::kGetTermFlag, "GetTermFlag"},
      {Code::kGetWellData, "GetWellData"},
      {Code::kSetWellStatus, "SetWellStatus"},
      {Code::kSetWellUptime, "SetWellUptime"},
      {Code::kSetWellConstraints, "SetWellConstraints"},
      {Code::kGetEOSProps, "GetEOSProps"},
      {Code::kGetWellVariables, "GetWellVariables"},
      {Code::kGetWellIPRData, "GetWellIPRData"},
      {Code::kGetVersion, "GetVersion"},
      {Code::kSetWellInjectionSource, "SetWellInjectionSource"},
      {Code::kSetWellInjectionComposition, "SetWellInjectionComposition"},
      {Code::kGetStartDate, "GetStartDate"},
      {Code::kWellDataRecord, "well record of GetWellData"},
      {Code::kWellIPRRecord, "well record of GetWellIPRData"},
      {Code::kShutdown, "Shutdown"},
  }};
  for (const auto& [known, name] : kNames) {
    if (known == code) return "request " + std::to_string(Number(code)) + " (" + name + ")";
  }
  return "request " + std::to_string(Number(code));
}

void Run::Connect() {
  Simple(Code::kConnect);
}

Date Run::GetDate() {
  return DateOf(Code::kGetDate);
}

bool Run::GetMetricFlag() {
  return FlagOf(Code::kGetMetricFlag);
}

double Run::GetTimeDays() {
  return DoubleOf(Code::kGetTimeDays);
}

bool Run::GetCompFlag() {
  return FlagOf(Code::kGetCompFlag);
}

std::vector<WellStatus> Run::GetWellStatus() {
  const std::string body = Exchange(Code::kGetWellStatus, Request(Code::kGetWellStatus));
  ReplyReader reply = Reply(body, Code::kGetWellStatus);
  std::vector<WellStatus> wells(reply.Count(3 * kLengthField));
  for (WellStatus& well : wells) {
    well.name = reply.String();
    well.type = reply.String();
    well.status = reply.String();
  }
  reply.End();
  return wells;
}

void Run::Newton() {
  Simple(Code::kNewton);
}

void Run::RunUntil(double days) {
  RequestWriter request = Request(Code::kRunUntil);
  request.Double(days);
  Reply(Exchange(Code::kRunUntil, request), Code::kRunUntil).End();
}

bool Run::GetTermFlag() {
  return FlagOf(Code::kGetTermFlag);
}

std::vector<WellData> Run::GetWellData(const std::vector<std::string>& wells) {
  const std::vector<Names> groups = GroupsOf(wells);
  const auto request_of = [](const Names& names) {
    RequestWriter request = Request(Code::kGetWellData);
    request.Count(names.size());
    for (const std::string& name : names) request.String(name);
    return request;
  };
  for (const Names& names : groups) Check(Code::kGetWellData, request_of(names));

  std::vector<WellData> records;
  records.reserve(wells.size());
  for (auto group = groups.begin(); group != groups.end(); ++group) {
    // Those of the later groups have been sent after the requests for the records of the former.
    if (group == groups.begin() || one_by_one_) {
      ExpectRecords(Code::kWellDataRecord, group->size());
      Send(Code::kGetWellData, request_of(*group));
    }
    const std::string body = Await(Code::kGetWellData);
    ReplyReader reply = Reply(body, Code::kGetWellData);
    CheckRecordCount(reply.Int(), group->size(), Code::kGetWellData);
    reply.End();
    if (!one_by_one_) {
      AskForRecords();
      if (const auto next = std::next(group); next != groups.end()) {
        channel_.SendAhead(request_of(*next).body());
        ExpectRecords(Code::kWellDataRecord, next->size());
      }
    }
    for (std::size_t i = 0; i < group->size(); ++i) records.push_back(ReadWellData(NextRecord()));
  }
  return records;
}

void Run::SetWellStatus(const std::vector<std::string>& wells,
                        const std::vector<std::string>& statuses) {
  RequestWriter request = Request(Code::kSetWellStatus);
  request.Count(wells.size());
  request.Count(statuses.size());
  request.Strings(wells);
  request.Strings(statuses);
  Reply(Exchange(Code::kSetWellStatus, request), Code::kSetWellStatus).End();
}

void Run::SetWellUptime(const std::vector<std::string>& wells,
                        const std::vector<double>& fractions) {
  RequestWriter request = Request(Code::kSetWellUptime);
  request.Count(wells.size());
  request.Count(fractions.size());
  request.Strings(wells);
  request.Doubles(fractions);
  Reply(Exchange(Code::kSetWellUptime, request), Code::kSetWellUptime).End();
}

void Run::SetWellConstraints(const std::vector<WellConstraints>& wells) {
  RequestWriter request = Request(Code::kSetWellConstraints);
  request.Count(wells.size());
  for (const WellConstraints& well : wells) request.String(well.well);
  request.Count(wells.size());
  for (const WellConstraints& well : wells) {
    request.Count(well.names.size());
    request.Strings(well.names);
  }
  request.Count(wells.size());
  for (const WellConstraints& well : wells) {
    request.Count(well.values.size());
    request.Doubles(well.values);
  }
  Reply(Exchange(Code::kSetWellConstraints, request), Code::kSetWellConstraints).End();
}

EOSProps Run::GetEOSProps() {
  const std::string body = Exchange(Code::kGetEOSProps, Request(Code::kGetEOSProps));
  ReplyReader reply = Reply(body, Code::kGetEOSProps);
  EOSProps eos;
  eos.name = reply.String();
  eos.components = reply.Strings(reply.Count(kLengthField));
  for (std::vector<double>* list :
       {&eos.molecular_weight, &eos.critical_temperature, &eos.critical_pressure,
        &eos.critical_volume, &eos.acentric_factor, &eos.reserved, &eos.boiling_point,
        &eos.volume_shift, &eos.omega_a, &eos.omega_b, &eos.parachor, &eos.binary_interaction}) {
    *list = reply.Series();
  }
  reply.End();
  return eos;
}

std::vector<double> Run::GetWellVariables(const std::string& well,
                                          const std::vector<std::string>& names) {
  Send(Code::kGetWellVariables, VariablesRequest(well, names));
  return NextVariables();
}

std::vector<std::vector<double>> Run::GetVariablesOfWells(const std::vector<std::string>& wells,
                                                          const std::vector<std::string>& names) {
  for (const std::string& well : wells) {
    Check(Code::kGetWellVariables, VariablesRequest(well, names));
  }
  // What is under way at a time: more would only take memory here.
  constexpr std::size_t kMostAhead = std::size_t{256} * 1024;
  const std::size_t rest = VariablesRequest("", names).body().size();  // of a request, but its well
  std::vector<std::vector<double>> values;
  values.reserve(wells.size());
  std::size_t asked = 0;
  std::size_t ahead = 0;  // bytes
  for (std::size_t i = 0; i < wells.size(); ++i) {
    if (i == 0 || one_by_one_) {
      values.push_back(GetWellVariables(wells[i], names));
      asked = i + 1;
      continue;
    }
    while (asked < wells.size() && (asked == i || ahead < kMostAhead)) {
      channel_.SendAhead(VariablesRequest(wells[asked], names).body());
      ahead += rest + wells[asked++].size();
    }
    try {
      values.push_back(NextVariables());
    } catch (const LinkReset&) {
      throw RequestFailed("The daemon ended the connection while waiting for the answer of " +
                          NameOf(Code::kGetWellVariables) + " for " + wells[i] +
                          " or a well after it");
    }
    ahead -= rest + wells[i].size();
  }
  return values;
}

std::vector<double> Run::NextVariables() {
  const std::string body = Await(Code::kGetWellVariables);
  ReplyReader reply = Reply(body, Code::kGetWellVariables);
  std::vector<double> values = reply.Series();
  reply.End();
  return values;
}

IPRTables Run::GetWellIPRData(const IPRRequest& asked) {
  RequestWriter request = Request(Code::kGetWellIPRData);
  request.Int(asked.components);
  request.Count(asked.wells.size());
  request.Strings(asked.wells);
  request.FlagByte(asked.bottom_hole);
  request.Double(asked.skewness);
  Check(Code::kGetWellIPRData, request);
  ExpectRecords(Code::kWellIPRRecord, asked.wells.size());
  const std::string body = Exchange(Code::kGetWellIPRData, request);
  ReplyReader reply = Reply(body, Code::kGetWellIPRData);
  CheckRecordCount(reply.Int(), asked.wells.size(), Code::kGetWellIPRData);
  IPRTables tables;
  tables.points = reply.Int();
  reply.End();

  if (!one_by_one_) AskForRecords();
  for (std::size_t i = 0; i < asked.wells.size(); ++i) {
    tables.wells.push_back(ReadWellIPR(NextRecord(), asked.components > 0));
  }
  return tables;
}

double Run::GetVersion() {
  return DoubleOf(Code::kGetVersion);
}

int Run::SetWellInjectionSource(const std::string& well, const std::string& source) {
  RequestWriter request = Request(Code::kSetWellInjectionSource);
  request.String(well);
  request.String(source);
  const std::string body = Exchange(Code::kSetWellInjectionSource, request);
  ReplyReader reply = Reply(body, Code::kSetWellInjectionSource);
  const int result = reply.Int();
  reply.End();
  return result;
}

void Run::SetWellInjectionComposition(const std::vector<std::string>& sources,
                                      const std::vector<std::vector<double>>& compositions) {
  RequestWriter request = Request(Code::kSetWellInjectionComposition);
  request.Count(sources.size());
  request.Strings(sources);
  request.Count(compositions.size());
  for (const std::vector<double>& composition : compositions) {
    request.Count(composition.size());
    request.Doubles(composition);
  }
  const Code code = Code::kSetWellInjectionComposition;
  Reply(Exchange(code, request), code).End();
}

Date Run::GetStartDate() {
  return DateOf(Code::kGetStartDate);
}

void Run::Shutdown() {
  Simple(Code::kShutdown);
}

bool Run::ShutdownWithin(const Deadline& deadline) {
  // In the middle of a record exchange the daemon takes nothing but requests for records. All that
  // are due go out at once; the daemon reads them one by one, and at last the shutdown.
  AskForRecords();
  channel_.SendAhead(Request(Code::kShutdown).body());
  try {
    while (true) {
      const std::optional<std::string> body = channel_.Receive(deadline);
      if (!body) {
        throw RequestFailed("The daemon ended the connection while waiting for the answer of " +
                            NameOf(Code::kShutdown));
      }
      const std::uint32_t shutdown = Number(Code::kShutdown);
      if (body->size() >= sizeof(shutdown) &&
          memcmp(body->data(), &shutdown, sizeof(shutdown)) == 0) {
        return true;
      }
    }
  } catch (const TimedOut&) {
    return false;
  }
}

std::string Run::Exchange(Code code, const RequestWriter& request) {
  Send(code, request);
  return Await(code);
}

void Run::Check(Code code, const RequestWriter& request) {
  if (request.body().size() > master_link::kMaxFrame) {
    throw RequestTooLong(NameOf(code) + " would be " + std::to_string(request.body().size()) +
                         " bytes long; the daemon reads no more than " +
                         std::to_string(master_link::kMaxFrame));
  }
}

void Run::Send(Code code, const RequestWriter& request) {
  Check(code, request);
  channel_.Send(request.body());
}

void Run::ExpectRecords(Code code, std::size_t count) {
  record_code_ = code;
  records_due_ = count;
}

// The requests for all records that are due. They are no more than one frame has room for names,
// 105 KB for the shortest names, and the daemon's answers are read while they go out.
void Run::AskForRecords() {
  for (; records_due_ > 0; --records_due_) channel_.SendAhead(Request(record_code_).body());
}

std::string Run::NextRecord() {
  if (one_by_one_) {
    Send(record_code_, Request(record_code_));
    --records_due_;
  }
  return Await(record_code_);
}

std::string Run::Await(Code code) {
  std::optional<std::string> body = channel_.Receive();
  if (!body) {
    throw RequestFailed("The daemon ended the connection while waiting for the answer of " +
                        NameOf(code));
  }
  return *std::move(body);
}

void Run::Simple(Code code) {
  Reply(Exchange(code, Request(code)), code).End();
}

Date Run::DateOf(Code code) {
  const std::string body = Exchange(code, Request(code));
  ReplyReader reply = Reply(body, code);
  Date date;
  date.day = reply.Int();
  date.month = reply.Int();
  date.year = reply.Int();
  reply.End();
  return date;
}

bool Run::FlagOf(Code code) {
  const std::string body = Exchange(code, Request(code));
  ReplyReader reply = Reply(body, code);
  const bool value = reply.Flag();
  reply.End();
  return value;
}

double Run::DoubleOf(Code code) {
  const std::string body = Exchange(code, Request(code));
  ReplyReader reply = Reply(body, code);
  const double value = reply.Double();
  reply.End();
  return value;
}

}  // namespace master
