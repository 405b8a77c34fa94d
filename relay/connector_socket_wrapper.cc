#include "relay/connector_socket_wrapper.h"

#include <malloc.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "connector/v2016_2/connector.h"
#include "connector/v2017_2/connector.h"
#include "log/flog.h"
#include "net/getbuf.h"
#include "net/master_link.h"
#include "net/sendbuf.h"
#include "net/socket.h"
#include "relay/corvane_comms_exception.h"
#include "relay/packing.h"

namespace {

using master_link::Code;

// Room for the usual reasons of a failure, taken while there is memory.
constexpr std::size_t kReasonRoom = 512;

// How much of a receive buffer is cleared before each frame.
constexpr int kCleared = 2048;

std::unique_ptr<ConnectorBase> NewConnector(int version) {
  if (version == 20162) return std::make_unique<v2016_2::Connector>();
  return std::make_unique<v2017_2::Connector>();
}

// Where requests are received, and the frames that ask for the records of one. They belong to the
// program's image, so that their pages are taken as they are used: most requests are short, and
// there may be many controllers that wait.
std::array<unsigned char, master_link::kMaxFrame> receive_buffer;
std::array<unsigned char, master_link::kMaxFrame> sub_request_buffer;

// A heap that has grown by more than this since the first request holds what a large answer has
// left there. The status of 50,000 wells, whose memory would take longer to get anew each time than
// to fill, makes it grow by 5 MiB.
constexpr std::ptrdiff_t kMuchGrowth = 8 << 20;

// The end of the heap; it is known without asking the system.
char* HeapEnd() {
  return static_cast<char*>(sbrk(0));
}

// After a large answer the heap is many small freed blocks between live ones. The next request may
// take hours, so the pages go back to the system now.
void ReturnFreeMemory() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

// Fields of a request: behind the code, to the end of the receive buffer.
getbuf FieldsOf(const unsigned char* body) {
  return getbuf(body, master_link::kMaxFrame - static_cast<std::int64_t>(sizeof(unsigned)));
}

}  // namespace

ConnectorSocketWrapper::ConnectorSocketWrapper(int version, const std::string& host, Socket* master,
                                               int port, int timeout, flog& log)
    : ConnectorSocketWrapper(NewConnector(version), host, master, port, timeout, log) {
  version_ = version;
}

ConnectorSocketWrapper::ConnectorSocketWrapper(std::unique_ptr<ConnectorBase> connector,
                                               const std::string& host, Socket* master, int port,
                                               int timeout, flog& log)
    : host_(host),
      master_(master),
      connector_(std::move(connector)),
      log_(&log),
      port_(port),
      timeout_(timeout),
      version_(0) {}

ConnectorSocketWrapper::~ConnectorSocketWrapper() = default;

int ConnectorSocketWrapper::ProcessRequests(std::string& error) {
  std::string reason;
  reason.reserve(kReasonRoom);
  error.reserve(kReasonRoom);
  const char* const usual_heap_end = HeapEnd();
  while (true) {
    int length = 0;
    auto* buffer = reinterpret_cast<char*>(receive_buffer.data());
    if (master_->ReceiveLine(buffer, kCleared, length) != 0) {
      Fail("No or unexpected data received from Corvane", "", error);
      return 1;
    }
    getbuf header(receive_buffer.data());
    const auto code = UnPack<unsigned>(header);
    *log_ << "Received header: " << static_cast<unsigned long>(code)
          << "\n";  // NOLINT(google-runtime-int)
    if (Handle(code, receive_buffer.data() + sizeof(code), reason) > 0) {
      Fail("Failed to handle data packet received from master: ", reason.c_str(), error);
      return 2;
    }
    if (code == Code::kShutdown) return 0;
    if (HeapEnd() - usual_heap_end > kMuchGrowth) ReturnFreeMemory();
  }
}

int ConnectorSocketWrapper::Handle(unsigned code, const unsigned char* body, std::string& error) {
  try {
    RunHandler(code, body);
    return 0;
  } catch (const corvane_comms_exception& exception) {
    Fail("Exception returned from Corvane comms: ", exception.what(), error);
  } catch (const std::runtime_error& exception) {
    Fail("Exception returned from VK controller: ", exception.what(), error);
  } catch (const std::exception&) {
    Fail("Unknown exception", "", error);
  }
  return 1;
}

// Logs why a request failed, and says so in `error` as far as there is memory: it may be memory
// that the request failed for.
void ConnectorSocketWrapper::Fail(const char* text, const char* reason, std::string& error) {
  *log_ << text << reason << "\n";
  try {
    error.assign(text).append(reason);
  } catch (const std::bad_alloc&) {
    error.clear();
  }
}

void ConnectorSocketWrapper::RunHandler(unsigned code, const unsigned char* body) {
  switch (code) {
    case Code::kConnect:
      return Connect(body);
    case Code::kGetDate:
      return GetDate(body);
    case Code::kGetMetricFlag:
      return GetMetricFlag(body);
    case Code::kGetTimeDays:
      return GetTimeDays(body);
    case Code::kGetCompFlag:
      return GetCompFlag(body);
    case Code::kGetWellStatus:
      return GetWellStatus(body);
    case Code::kNewton:
      return Newton(body);
    case Code::kRunUntil:
      return RunUntil(body);
    case Code::kGetTermFlag:
      return GetTermFlag(body);
    case Code::kGetWellData:
      return GetWellData(body);
    case Code::kSetWellStatus:
      return SetWellStatus(body);
    case Code::kSetWellUptime:
      return SetWellUptime(body);
    case Code::kSetWellConstraints:
      return SetWellConstraints(body);
    case Code::kGetEOSProps:
      return GetEOSProps(body);
    case Code::kGetWellVariables:
      return GetWellVariables(body);
    case Code::kGetWellIPRData:
      return GetWellIPRData(body);
    case Code::kGetVersion:
      return GetVersion(body);
    case Code::kSetWellInjectionSource:
      return SetWellInjectionSource(body);
    case Code::kSetWellInjectionComposition:
      return SetWellInjectionComposition(body);
    case Code::kGetStartDate:
      return GetStartDate(body);
    case Code::kShutdown:
      return Shutdown();
    default:
      return;  // the master expects no answer to a code that nobody knows
  }
}

int ConnectorSocketWrapper::ReturnWithAck(sendbuf& reply, int ack, int code) {
  reply.Pack(ack);
  return reply.Send(master_, static_cast<unsigned>(code));
}

// Answers a request that has no values to return.
void ConnectorSocketWrapper::Acknowledge(int code) {
  sendbuf reply;
  ReturnWithAck(reply, 0, code);
}

// A reply that could not be sent shows at the next receive; the results of ReturnWithAck() are
// not looked at.

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
  std::int64_t size = kPackedSize<int> + master_link::kAckSize;
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
    MakeRoom(reply, PackedSize(point.status) + 8 * kPackedSize<double> + master_link::kAckSize);
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
  const auto bottomHole = UnPack<bool>(fields);
  const auto skewness = UnPack<double>(fields);
  std::vector<DynWellIPR> tables;
  const int points = connector_->GetWellIPRData(components, wells, bottomHole, skewness, tables);
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

void ConnectorSocketWrapper::ReturnTable(const DynWellIPR& table, bool withMoleFractions) {
  std::vector<const std::vector<double>*> series = {
      &table.pressure,    &table.oil_rate,    &table.water_rate,  &table.gas_rate,
      &table.temperature, &table.gas_density, &table.oil_density, &table.water_density};
  if (withMoleFractions) {
    // The master reads this many, whatever the table holds.
    static const std::vector<double> none;
    for (std::size_t point = 0; point < master_link::kTablePoints; ++point) {
      series.push_back(point < table.mole_fractions.size() ? &table.mole_fractions[point] : &none);
    }
  }
  std::int64_t size = master_link::kAckSize;
  for (const std::vector<double>* values : series) size += PackedSize(*values);
  sendbuf reply;
  MakeRoom(reply, size);
  for (const std::vector<double>* values : series) PackSeries(reply, *values);
  ReturnWithAck(reply, 0, Code::kWellIPRRecord);
}

// Receives the frame with which the master asks for the next well's record. It leaves the buffer of
// the requests alone: what stands there behind a later request that is too short is what requests
// have left.
void ConnectorSocketWrapper::AwaitSubRequest(unsigned code, const char* complaint) {
  int length = 0;
  unsigned received = 0;
  auto* buffer = reinterpret_cast<char*>(sub_request_buffer.data());
  if (master_->ReceiveLine(buffer, kCleared, length) == 0) {
    getbuf(sub_request_buffer.data()).UnPack(received);
  }
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
  std::int64_t size = PackedSize(eos.name) + kPackedSize<int> + master_link::kAckSize;
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
  MakeRoom(reply, PackedSize(values) + master_link::kAckSize);
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
  reply.Pack(result & 0xff);  // the master's field has one byte's worth
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
