// A whole session: the master's frames on one side, a scripted simulator on the other, the product
// between them. However either ends, the loop ends with one of its results and its text, and the
// master has got whole replies to its own requests in their order.

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "connector/v2016_2/connector.h"
#include "connector/v2017_2/connector.h"
#include "fuzz/support/answer_script.h"
#include "fuzz/support/input.h"
#include "fuzz/support/memory_link.h"
#include "fuzz/support/memory_stream.h"
#include "fuzz/support/promise.h"
#include "log/flog.h"
#include "net/master_link.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"
#include "tests/support/bytes.h"
#include "vk_ec/v2016_2/varnok_client.h"
#include "vk_ec/v2017_2/varnok_client.h"

namespace {

using master_link::Code;

// Ends what a hostile count goes on reading after the fields: as the length of a text it fits into
// no buffer. The zeros that a receive buffer holds otherwise would be read as texts to its very end
// in most executions; the target of the handlers does that as far as is of use.
const std::string kStop(24, '\x7f');

// The fields of a request for inflow tables, without the numbers of components that are allowed
// and take milliseconds: those left are small, negative, or too large.
void TameComponents(std::string& frames, std::size_t fields) {
  for (std::size_t i = fields + 1; i < fields + 3; ++i) frames[i] = '\0';
}

// The master's frames: per request a byte for the code and one for the size of the fields, then
// the fields.
void WriteRequests(std::string_view script, std::string& frames) {
  Input input(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
  while (!input.empty()) {
    const std::uint8_t selector = input.Byte();
    std::uint32_t code = selector % 32;
    if (code == 31) code = Code::kShutdown;
    if (code == 30) code = Code::kWellDataRecord;
    if (code == 29) code = Code::kWellIPRRecord;
    const std::string_view fields = input.Take(input.Byte());
    frames += Frame(Image(code).append(fields).append(kStop));
    if (code == Code::kGetWellIPRData) {
      TameComponents(frames, frames.size() - kStop.size() - fields.size());
    }
  }
}

std::vector<std::uint32_t> Codes(std::string_view frames, bool replies) {
  std::vector<std::uint32_t> codes;
  while (!frames.empty()) {
    std::array<std::uint32_t, 2> head{};
    PROMISE(frames.size() >= sizeof(head));
    std::memcpy(head.data(), frames.data(), sizeof(head));
    frames.remove_prefix(sizeof(head[0]));
    PROMISE(head[0] <= frames.size());
    if (replies) {
      std::uint32_t acknowledgement = 1;
      PROMISE(head[0] >= sizeof(head[1]) + sizeof(acknowledgement));
      std::memcpy(&acknowledgement, frames.data() + head[0] - sizeof(acknowledgement),
                  sizeof(acknowledgement));
      PROMISE(acknowledgement == 0);
    }
    codes.push_back(head[1]);
    frames.remove_prefix(head[0]);
  }
  return codes;
}

// Every reply is to a request of its code, in the order of the requests, and all requests that
// anybody knows are answered but for one that failed. A shutdown is the last that is looked at.
void CheckReplies(const std::vector<std::uint32_t>& requests, std::size_t served,
                  const std::vector<std::uint32_t>& replies, int result) {
  std::size_t next = 0;
  for (std::size_t i = 0; i < served; ++i) {
    const bool last = i + 1 == served;
    const bool is_main = (requests[i] >= Code::kConnect && requests[i] <= Code::kGetStartDate) ||
                         requests[i] == Code::kShutdown;
    const bool answered = next < replies.size() && replies[next] == requests[i];
    PROMISE(answered || !is_main || (last && result == 2));
    PROMISE((answered && requests[i] == Code::kShutdown) == (last && result == 0));
    if (answered) ++next;
  }
  PROMISE(next == replies.size());
}

bool IsReason(std::string_view error, int result) {
  if (result == 0) return error.empty();
  if (result == 1) return error == "No or unexpected data received from Corvane";
  constexpr std::string_view failed = "Failed to handle data packet received from master: ";
  if (!error.starts_with(failed)) return false;
  error.remove_prefix(failed.size());
  return error.starts_with("Exception returned from Corvane comms: ") ||
         error.starts_with("Exception returned from VK controller: ") ||
         error == "Unknown exception";
}

using Clients = std::vector<vk_ec::Client*>;

// A connector that tells which clients it has made.
template <class Connector, class Client>
class Recorded : public Connector {
 public:
  explicit Recorded(Clients& made) : made_(made) {}

 private:
  std::unique_ptr<vk_ec::Client> NewClient() override {
    auto client = std::make_unique<Client>();
    made_.push_back(client.get());
    return client;
  }

  Clients& made_;
};

std::unique_ptr<ConnectorBase> NewConnector(bool is2016, Clients& made) {
  if (is2016) {
    return std::make_unique<Recorded<v2016_2::Connector, v2016_2::vk_ec::VarnokClient>>(made);
  }
  return std::make_unique<Recorded<v2017_2::Connector, v2017_2::vk_ec::VarnokClient>>(made);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Socket master(-1);
  static flog log("", true);
  static std::string frames;
  static std::string answers;
  Input input(data, size);
  const std::uint8_t mode = input.Byte();
  const bool is2016 = (mode & 1) != 0;
  frames.clear();
  WriteRequests(input.Take(input.Short()), frames);
  answers.clear();
  WriteAnswers(input, answers);
  memory_link.Begin(frames);
  memory_link.room = MemoryLink::Room(mode >> 1 & 31U);
  memory_stream.Begin(answers);

  Clients made;
  ConnectorSocketWrapper controller(NewConnector(is2016, made), "host", &master, 9001, 60, log);
  std::string error;
  const int result = controller.ProcessRequests(error);
  PROMISE(!MemoryLink::HoldsChildrenBack());
  PROMISE(result >= 0 && result <= 2);
  PROMISE(IsReason(error, result));

  const std::size_t left = memory_link.incoming.size();
  const std::vector<std::uint32_t> requests = Codes(frames, false);
  const std::size_t served = requests.size() - Codes(memory_link.incoming, false).size();
  PROMISE(result != 1 || left == 0);
  PROMISE(result == 1 || served > 0);
  CheckReplies(requests, served, Codes(memory_link.sent, true), result);

  // Only a shutdown releases a connection, and only the latest; the controller leaves the others to
  // the end of its process, which here does not come.
  memory_stream.Begin({});
  controller.Shutdown();
  if (!made.empty()) made.pop_back();
  for (const vk_ec::Client* given_up : made) delete given_up;
  return 0;
}
