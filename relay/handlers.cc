// The handlers, one per request code. A reply that could not be sent is noticed when the next
// request is received, so nobody looks at what ReturnWithAck() returns.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "connector/connector_base.h"
#include "log/flog.h"
#include "net/getbuf.h"
#include "net/master_link.h"
#include "net/sendbuf.h"
#include "relay/connector_socket_wrapper.h"
#include "relay/corvane_comms_exception.h"
#include "relay/packing.h"

namespace {

using master_link::Code;
using master_link::kAckSize;

// Where the master's frames that ask for the record of one well are received. This is not the
// buffer of the requests: the fields of a request that is too short are read from what earlier
// requests have left there, and these frames must not change that.
std::array<unsigned char, master_link::kMaxFrame> sub_request_buffer;

// The fields of a request. `body` points to the bytes after the code, and the receive buffer ends
// where a getbuf must not read on.
getbuf FieldsOf(const unsigned char* body) {
  return getbuf(body, master_link::kMaxFrame - static_cast<std::int64_t>(sizeof(unsigned)));
}

}  // namespace

int ConnectorSocketWrapper::ReturnWithAck(sendbuf& reply, int ack, int code) {
  reply.Pack(ack);
  return reply.Send(master_, static_cast<unsigned>(code));
}

// The whole reply to a request that returns no values.
void ConnectorSocketWrapper::Acknowledge(int code) {
  sendbuf reply;
  ReturnWithAck(reply, 0, code);
}

void ConnectorSocketWrapper::Connect(const unsigned char* /*body*/) {
  *log_ << "Connect on host: " << host_ << ", port: " << port_ << ", timeout: " << timeout_ << "\n";
  connector_->Connect(host_, port_, timeout_);
  Acknowledge(Code::kConnect);
}

void ConnectorSocketWrapper::Shutdown() {
  *log_ << "Shutting down\n";
  connector_->Shutdown();
  Acknowledge(Code::kShutdown);
}

void ConnectorSocketWrapper::GetVersion(const unsigned char* /*body*/) {
  const double simulator = connector_->GetVersion();
  sendbuf reply;
  reply.Pack(simulator);
  ReturnWithAck(reply, 0, Code::kGetVersion);
}

void ConnectorSocketWrapper::GetMetricFlag(const unsigned char* /*body*/) {
  const bool metric = connector_->IsMetric();
  sendbuf reply;
  reply.Pack(metric ? 1 : 0);
  ReturnWithAck(reply, 0, Code::kGetMetricFlag);
}

void ConnectorSocketWrapper::GetCompFlag(const unsigned char* /*body*/) {
  const bool compositional = connector_->IsCompositional();
  sendbuf reply;
  reply.Pack(compositional ? 1 : 0);
  ReturnWithAck(reply, 0, Code::kGetCompFlag);
}

void ConnectorSocketWrapper::GetStartDate(const unsigned char* /*body*/) {
  int day = 0;
  int month = 0;
  int year = 0;
  connector_->GetStartDate(day, month, year);
  *log_ << "Getting start date: " << day << ", " << month << ", " << year << "\n";
  ReturnDate(day, month, year, Code::kGetStartDate);
}

void ConnectorSocketWrapper::GetDate(const unsigned char* /*body*/) {
  int day = 0;
  int month = 0;
  int year = 0;
  connector_->GetDate(day, month, year);
  *log_ << "Getting date: " << day << ", " << month << ", " << year << "\n";
  ReturnDate(day, month, year, Code::kGetDate);
}

void ConnectorSocketWrapper::ReturnDate(int day, int month, int year, int code) {
  sendbuf reply;
  reply.Pack(day);
  reply.Pack(month);
  reply.Pack(year);
  ReturnWithAck(reply, 0, code);
}

void ConnectorSocketWrapper::GetTimeDays(const unsigned char* /*body*/) {
  const double days = connector_->GetTimeDays();
  *log_ << "GetTimeDays: " << days << "\n";
  sendbuf reply;
  reply.Pack(days);
  ReturnWithAck(reply, 0, Code::kGetTimeDays);
}

void ConnectorSocketWrapper::Newton(const unsigned char* /*body*/) {
  *log_ << "Newton\n";
  connector_->Newton();
  Acknowledge(Code::kNewton);
}

void ConnectorSocketWrapper::RunUntil(const unsigned char* body) {
  getbuf fields = FieldsOf(body);
  const auto time = UnPack<double>(fields);
  *log_ << "Running until " << time << "\n";
  connector_->RunUntil(time);
  Acknowledge(Code::kRunUntil);
}

void ConnectorSocketWrapper::GetTermFlag(const unsigned char* /*body*/) {
  const bool ended = connector_->SimulationEnded();
  sendbuf reply;
  reply.Pack(ended ? 1 : 0);
  ReturnWithAck(reply, 0, Code::kGetTermFlag);
}

void ConnectorSocketWrapper::GetWellStatus(const unsigned char* /*body*/) {
  std::vector<StaticWellDef> wells;
  connector_->GetWellStatus(wells);
  std::int64_t size = kPackedSize<int> + kAckSize;
  const bool logged = log_->status() == 0;
  for (const StaticWellDef& well : wells) {
    if (logged) {
      *log_ << "Well status: " << well.name << ", " << well.type << ", " << well.status << "\n";
    }
    size += PackedSize(well.name) + PackedSize(well.type) + PackedSize(well.status);
  }
  sendbuf reply;
  MakeRoom(reply, size);
  reply.Pack(static_cast<int>(wells.size()));
  for (const StaticWellDef& well : wells) {
    reply.Pack(well.name);
    reply.Pack(well.type);
    reply.Pack(well.status);
  }
  ReturnWithAck(reply, 0, Code::kGetWellStatus);
}

void ConnectorSocketWrapper::GetWellData(const unsigned char* body) {
  getbuf fields = FieldsOf(body);
  const std::vector<std::string> wells = UnPackTexts(fields, UnPack<int>(fields));
  std::vector<DynWellOpPt> points;
  connector_->GetWellOpPtData(wells, points);
  if (points.size() != wells.size()) {
    throw corvane_comms_exception(
        "Discrepancy returned in well data from Corvane: well count in routine VK_GETWELLDATA");
  }
  sendbuf count;
  count.Pack(static_cast<int>(points.size()));
  ReturnWithAck(count, 0, Code::kGetWellData);
  *log_ << "GetWellData for " << static_cast<int>(points.size()) << " wells"
        << "\n";
  for (const DynWellOpPt& point : points) {
    AwaitSubRequest(Code::kWellDataRecord,
                    "Unexpected data received from Corvane, routine VK_GETWELLDATA_SUB");
    sendbuf reply;
    MakeRoom(reply, PackedSize(point.status) + 8 * kPackedSize<double> + kAckSize);
    reply.Pack(point.status);
    for (const double value :
         {point.oil_rate, point.gas_rate, point.water_rate, point.water_injection_rate,
          point.gas_injection_rate, point.bottom_hole_pressure, point.tubing_head_pressure,
          point.uptime_fraction}) {
      reply.Pack(value);
    }
    ReturnWithAck(reply, 0, Code::kWellDataRecord);
  }
}

void ConnectorSocketWrapper::GetWellIPRData(const unsigned char* body) {
  getbuf fields = FieldsOf(body);
  const auto components = UnPack<int>(fields);
  const std::vector<std::string> wells = UnPackTexts(fields, UnPack<int>(fields));
  const auto bottom_hole = UnPack<bool>(fields);
  const auto skewness = UnPack<double>(fields);
  std::vector<DynWellIPR> tables;
  const int points = connector_->GetWellIPRData(components, wells, bottom_hole, skewness, tables);
  if (tables.size() != wells.size()) {
    throw corvane_comms_exception(
        "Discrepancy returned in well data from Corvane: well count in routine "
        "VK_GETWELLIPRDATA");
  }
  sendbuf counts;
  counts.Pack(static_cast<int>(tables.size()));
  counts.Pack(points);
  ReturnWithAck(counts, 0, Code::kGetWellIPRData);
  for (const DynWellIPR& table : tables) {
    AwaitSubRequest(Code::kWellIPRRecord,
                    "Unexpected data received from Corvane, routine VK_GETWELLIPRDATA_SUB");
    ReturnTable(table, components > 0);
  }
}

void ConnectorSocketWrapper::ReturnTable(const DynWellIPR& table, bool with_mole_fractions) {
  std::vector<const std::vector<double>*> series = {
      &table.pressure,    &table.oil_rate,    &table.water_rate,  &table.gas_rate,
      &table.temperature, &table.gas_density, &table.oil_density, &table.water_density};
  if (with_mole_fractions) {
    // The master reads this many series, so a point without mole fractions sends an empty one.
    static const std::vector<double> none;
    for (std::size_t point = 0; point < master_link::kTablePoints; ++point) {
      series.push_back(point < table.mole_fractions.size() ? &table.mole_fractions[point] : &none);
    }
  }
  std::int64_t size = kAckSize;
  for (const std::vector<double>* values : series) size += PackedSize(*values);
  sendbuf reply;
  MakeRoom(reply, size);
  for (const std::vector<double>* values : series) PackSeries(reply, *values);
  ReturnWithAck(reply, 0, Code::kWellIPRRecord);
}

void ConnectorSocketWrapper::AwaitSubRequest(unsigned code, const char* complaint) {
  unsigned received = 0;
  if (ReceiveFrame(sub_request_buffer.data())) getbuf(sub_request_buffer.data()).UnPack(received);
  if (received != code) throw corvane_comms_exception(complaint);
}

void ConnectorSocketWrapper::SetWellStatus(const unsigned char* body) {
  getbuf fields = FieldsOf(body);
  const auto n = UnPack<int>(fields);
  const auto m = UnPack<int>(fields);
  const std::vector<std::string> wells = UnPackTexts(fields, n);
  const std::vector<std::string> statuses = UnPackTexts(fields, m);
  connector_->SetWellStatus(wells, statuses);
  Acknowledge(Code::kSetWellStatus);
}

void ConnectorSocketWrapper::SetWellUptime(const unsigned char* body) {
  getbuf fields = FieldsOf(body);
  const auto n = UnPack<int>(fields);
  const auto m = UnPack<int>(fields);
  const std::vector<std::string> wells = UnPackTexts(fields, n);
  const std::vector<double> fractions = UnPackNumbers(fields, m);
  connector_->SetWellUptime(wells, fractions);
  Acknowledge(Code::kSetWellUptime);
}

void ConnectorSocketWrapper::SetWellConstraints(const unsigned char* body) {
  getbuf fields = FieldsOf(body);
  const std::vector<std::string> wells = UnPackTexts(fields, UnPack<int>(fields));
  const auto properties = UnPackGroups(fields, UnPackTexts);
  const auto values = UnPackGroups(fields, UnPackNumbers);
  connector_->SetWellConstraints(wells, properties, values);
  Acknowledge(Code::kSetWellConstraints);
}

void ConnectorSocketWrapper::GetEOSProps(const unsigned char* /*body*/) {
  *log_ << "Getting EOS props\n";
  EOS eos;
  connector_->GetStaticComposition(&eos);
  const std::array<const std::vector<double>*, 12> lists = {
      &eos.molecular_weight,  &eos.critical_temperature,
      &eos.critical_pressure, &eos.critical_volume,
      &eos.acentric_factor,   &eos.reserved,
      &eos.boiling_point,     &eos.volume_shift,
      &eos.omega_a,           &eos.omega_b,
      &eos.parachor,          &eos.binary_interaction};
  std::int64_t size = PackedSize(eos.name) + kPackedSize<int> + kAckSize;
  for (const std::string& component : eos.components) size += PackedSize(component);
  for (const auto* values : lists) size += PackedSize(*values);
  sendbuf reply;
  MakeRoom(reply, size);
  reply.Pack(eos.name);
  reply.Pack(static_cast<int>(eos.components.size()));
  for (const std::string& component : eos.components) reply.Pack(component);
  for (const auto* values : lists) PackSeries(reply, *values);
  ReturnWithAck(reply, 0, Code::kGetEOSProps);
}

void ConnectorSocketWrapper::GetWellVariables(const unsigned char* body) {
  getbuf fields = FieldsOf(body);
  const auto well = UnPack<std::string>(fields);
  const std::vector<std::string> names = UnPackTexts(fields, UnPack<int>(fields));
  std::vector<double> values;
  connector_->GetWellVariables(well, names, values);
  sendbuf reply;
  MakeRoom(reply, PackedSize(values) + kAckSize);
  PackSeries(reply, values);
  ReturnWithAck(reply, 0, Code::kGetWellVariables);
}

void ConnectorSocketWrapper::SetWellInjectionSource(const unsigned char* body) {
  getbuf fields = FieldsOf(body);
  std::string well;
  std::string source;
  fields.UnPack(well);
  fields.UnPack(source);
  *log_ << "SetWellInjectionSource\n";
  const int result = connector_->SetWellInjectionSource(well, source);
  sendbuf reply;
  reply.Pack(result & 0xff);  // the protocol returns the lowest byte, in a field of four
  ReturnWithAck(reply, 0, Code::kSetWellInjectionSource);
}

void ConnectorSocketWrapper::SetWellInjectionComposition(const unsigned char* body) {
  getbuf fields = FieldsOf(body);
  const std::vector<std::string> sources = UnPackTexts(fields, UnPack<int>(fields));
  const auto compositions = UnPackGroups(fields, UnPackNumbers);
  *log_ << "SetWellInjectionComposition\n";
  connector_->SetWellInjectionComposition(sources, compositions);
  Acknowledge(Code::kSetWellInjectionComposition);
}
