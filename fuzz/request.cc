// Requests of the master: whatever the body is, the handler reads within the receive buffer or the
// request fails.

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "log/flog.h"
#include "net/getbuf.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"
#include "tests/relay/stub_connector.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < sizeof(unsigned)) return 0;
  unsigned code = 0;
  std::memcpy(&code, data, sizeof(code));
  const std::size_t fields = size - sizeof(code);
  std::vector<unsigned char> body(getbuf::kBufferSize - sizeof(code));
  if (fields > body.size()) return 0;
  std::memcpy(body.data(), data + sizeof(code), fields);

  Socket nobody(-1);
  flog log("", true);
  ConnectorSocketWrapper controller(std::make_unique<StubConnector>(), "host", &nobody, 9001, 60,
                                    log);
  std::string error;
  controller.Handle(code, body.data(), error);
  return 0;
}
