// Chunks from the simulator: a message is put together from chunks of any length that fit, and
// everything else is refused with its sentence, as soon as it shows.

#include "vk_ec/transport.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/system/system_error.hpp>

#include "fuzz/support/input.h"
#include "fuzz/support/memory_link.h"
#include "fuzz/support/promise.h"
#include "fuzz/support/wire.h"
#include "tests/support/socket_pair.h"

namespace {

using vk_ec::RecvMessage;
using vk_ec::StreamSocket;

// The socket asks the system to watch over its descriptor, so it has to be one. Each execution has
// a socket of its own: what one has taken ahead is not for the next.
int SocketOfItsOwn() {
  static const SocketPair kept;
  return dup(kept.ours.get());
}

// A total takes memory before the first chunk shows that it is a lie. Most executions have to do
// with little of it; any total comes once in a while.
std::uint64_t Tamed(std::uint64_t total, std::string_view input) {
  constexpr std::uint64_t little = 1U << 10;
  constexpr std::uint64_t two_chunks = 1U << 17;
  std::uint32_t hash = 2166136261U;
  for (const char byte : input) hash = (hash ^ static_cast<std::uint8_t>(byte)) * 16777619U;
  hash >>= 16;
  if (hash % 32768 == 0) return total;
  return total % (hash % 64 == 0 ? two_chunks : little);
}

struct Reception {
  std::string message;
  std::string failure;  // empty: received
};

Reception Expected(std::string_view bytes) {
  const std::string cut = "read: End of file";
  std::uint64_t total = 0;
  std::uint64_t chunk = 0;
  if (!wire::Take(bytes, total) || !wire::Take(bytes, chunk)) return {{}, cut};
  Reception reception;
  while (reception.message.size() < total) {
    const std::uint64_t due = total - reception.message.size();
    if (chunk > due) {
      return {{},
              "Incorrect length in header (received: " + std::to_string(chunk) +
                  " vs allowed:" + std::to_string(due) + ")"};
    }
    if (chunk > bytes.size()) return {{}, cut};
    reception.message += bytes.substr(0, chunk);
    bytes.remove_prefix(chunk);
    if (reception.message.size() == total) break;
    if (!wire::Take(bytes, chunk)) return {{}, cut};
    if (chunk == 0) return {{}, "Incorrect zero chunk length received."};
  }
  return reception;
}

std::string Receive(StreamSocket& socket, std::vector<unsigned char>& buffer) {
  try {
    RecvMessage message(socket, buffer);
  } catch (const std::length_error& error) {
    return error.what();
  } catch (const boost::system::system_error& error) {
    return error.what();
  }
  return {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  StreamSocket socket(SocketOfItsOwn());
  static std::string bytes;
  Input input(data, size);
  const std::size_t piece = input.Byte();
  bytes = input.Rest();
  std::uint64_t total = 0;
  if (bytes.size() >= sizeof(total)) {
    std::memcpy(&total, bytes.data(), sizeof(total));
    total = Tamed(total, {reinterpret_cast<const char*>(data), size});
    std::memcpy(bytes.data(), &total, sizeof(total));
  }
  const Reception expected = Expected(bytes);
  memory_link.Begin(bytes, piece);
  std::vector<unsigned char> buffer;
  const std::string failure = Receive(socket, buffer);
  PROMISE(failure == expected.failure);
  if (!failure.empty()) return 0;
  PROMISE(buffer.size() == expected.message.size());
  PROMISE(buffer.empty() ||
          std::memcmp(buffer.data(), expected.message.data(), buffer.size()) == 0);
  // At least the message's own bytes.
  const std::size_t chunks = bytes.size() - memory_link.incoming.size();
  PROMISE(chunks >= 2 * sizeof(total) + buffer.size());

  // A buffer in use is refused before anything is read.
  if (buffer.empty()) return 0;
  const std::string_view left = memory_link.incoming;
  bool refused = false;
  try {
    RecvMessage again(socket, buffer);
  } catch (const std::logic_error&) {
    refused = true;
  }
  PROMISE(refused && memory_link.incoming == left);
  return 0;
}
