#include "relay/connector_socket_wrapper.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <new>
#include <stdexcept>
#include <utility>

#include "connector/v2016_2/connector.h"
#include "connector/v2017_2/connector.h"
#include "log/flog.h"
#include "net/getbuf.h"
#include "net/master_link.h"
#include "net/socket.h"
#include "relay/corvane_comms_exception.h"

namespace {

using master_link::Code;

// Room for the texts of most failures. It is reserved before the first request, since a request may
// fail for lack of memory.
constexpr std::size_t kReasonRoom = 512;

// How much of a receive buffer is cleared before each frame.
constexpr int kCleared = 2048;

struct Handler {
  Code code;
  void (ConnectorSocketWrapper::*serve)(const unsigned char* body);
};

// The handlers of all requests but kShutdown, each in the place of its code. Other codes are not
// answered: the master sends none, and expects none to be answered.
constexpr std::array<Handler, 20> kHandlers = {{
    {Code::kConnect, &ConnectorSocketWrapper::Connect},
    {Code::kGetDate, &ConnectorSocketWrapper::GetDate},
    {Code::kGetMetricFlag, &ConnectorSocketWrapper::GetMetricFlag},
    {Code::kGetTimeDays, &ConnectorSocketWrapper::GetTimeDays},
    {Code::kGetCompFlag, &ConnectorSocketWrapper::GetCompFlag},
    {Code::kGetWellStatus, &ConnectorSocketWrapper::GetWellStatus},
    {Code::kNewton, &ConnectorSocketWrapper::Newton},
    {Code::kRunUntil, &ConnectorSocketWrapper::RunUntil},
    {Code::kGetTermFlag, &ConnectorSocketWrapper::GetTermFlag},
    {Code::kGetWellData, &ConnectorSocketWrapper::GetWellData},
    {Code::kSetWellStatus, &ConnectorSocketWrapper::SetWellStatus},
    {Code::kSetWellUptime, &ConnectorSocketWrapper::SetWellUptime},
    {Code::kSetWellConstraints, &ConnectorSocketWrapper::SetWellConstraints},
    {Code::kGetEOSProps, &ConnectorSocketWrapper::GetEOSProps},
    {Code::kGetWellVariables, &ConnectorSocketWrapper::GetWellVariables},
    {Code::kGetWellIPRData, &ConnectorSocketWrapper::GetWellIPRData},
    {Code::kGetVersion, &ConnectorSocketWrapper::GetVersion},
    {Code::kSetWellInjectionSource, &ConnectorSocketWrapper::SetWellInjectionSource},
    {Code::kSetWellInjectionComposition, &ConnectorSocketWrapper::SetWellInjectionComposition},
    {Code::kGetStartDate, &ConnectorSocketWrapper::GetStartDate},
}};
static_assert(std::all_of(kHandlers.begin(), kHandlers.end(), [](const Handler& handler) {
  return &handler == &kHandlers[handler.code - 1];
}));

std::unique_ptr<ConnectorBase> NewConnector(int version) {
  if (version == 20162) return std::make_unique<v2016_2::Connector>();
  return std::make_unique<v2017_2::Connector>();
}

// Where requests are received. A static buffer takes memory only for the pages that are written to,
// and most requests are short: many controllers wait side by side on one machine.
std::array<unsigned char, master_link::kMaxFrame> receive_buffer;

// A heap that has grown by more than this since the first request holds free memory that a large
// answer has left. The status of 50,000 wells makes the heap grow by 5 MiB and stays below the
// limit: to get that memory from the system for every such request would take longer than to fill
// it.
constexpr std::ptrdiff_t kMuchGrowth = 8 << 20;

// The C library knows where the heap ends, so this is no system call.
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

}  // namespace

ConnectorSocketWrapper::ConnectorSocketWrapper(int version, const std::string& host, Socket* master,
                                               int port, int timeout, flog& log)
    : ConnectorSocketWrapper(NewConnector(version), host, master, port, timeout, log) {}

ConnectorSocketWrapper::ConnectorSocketWrapper(std::unique_ptr<ConnectorBase> connector,
                                               const std::string& host, Socket* master, int port,
                                               int timeout, flog& log)
    : host_(host),
      master_(master),
      connector_(std::move(connector)),
      log_(&log),
      port_(port),
      timeout_(timeout) {}

ConnectorSocketWrapper::~ConnectorSocketWrapper() = default;

int ConnectorSocketWrapper::ProcessRequests(std::string& error) {
  std::string reason;
  reason.reserve(kReasonRoom);
  error.reserve(kReasonRoom);
  const char* const usual_heap_end = HeapEnd();
  while (true) {
    if (!ReceiveFrame(receive_buffer.data())) {
      Fail("No or unexpected data received from Corvane", "", error);
      return 1;
    }
    unsigned code = 0;
    getbuf(receive_buffer.data()).UnPack(code);
    *log_ << "Received header: " << static_cast<unsigned long>(code) << "\n";
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

bool ConnectorSocketWrapper::ReceiveFrame(unsigned char* buffer) {
  int length = 0;
  return master_->ReceiveLine(reinterpret_cast<char*>(buffer), kCleared, length) == 0;
}

// Logs why a request failed and stores the text in `error`, which stays empty when the text does
// not fit and there is no memory: the request may have failed for lack of it.
void ConnectorSocketWrapper::Fail(const char* text, const char* reason, std::string& error) {
  *log_ << text << reason << "\n";
  try {
    error.assign(text).append(reason);
  } catch (const std::bad_alloc&) {
    error.clear();
  }
}

void ConnectorSocketWrapper::RunHandler(unsigned code, const unsigned char* body) {
  if (code == Code::kShutdown) {
    Shutdown();
  } else if (code - 1 < kHandlers.size()) {
    (this->*kHandlers[code - 1].serve)(body);
  }
}
