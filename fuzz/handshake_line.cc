// The first bytes of a connection, from anybody: lines are received until the peer is through, and
// each must be what the bytes say, with not one byte more taken.

#include <errno.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "fuzz/support/input.h"
#include "fuzz/support/memory_link.h"
#include "fuzz/support/promise.h"
#include "net/socket.h"

namespace {

constexpr std::size_t kLengthBytes = 4;
constexpr int kLongest = std::numeric_limits<std::int16_t>::max();

struct Line {
  std::string_view text;
  int length = 0;
  std::size_t taken = 0;
};

// What the bytes hold at their front. `waits` says that the peer is merely silent after them.
Line Expected(std::string_view bytes, bool waits) {
  Line line;
  std::memcpy(&line.length, bytes.data(), std::min(bytes.size(), kLengthBytes));
  line.taken = bytes.size();
  if (bytes.size() >= kLengthBytes) {
    const std::string_view body = bytes.substr(kLengthBytes);
    const auto length = static_cast<std::size_t>(std::max(line.length, 0));
    if (line.length <= kLongest) line.text = body.substr(0, length);
    if (line.length <= kLongest && body.size() >= length) {
      line.taken = kLengthBytes + length;
      return line;
    }
  }
  return waits ? line : Line{{}, 0, line.taken};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Socket master(-1);
  constexpr int errors[] = {0, ECONNRESET, EAGAIN, EINTR};
  Input input(data, size);
  const int error = errors[input.Byte() % 4];
  std::string_view bytes = input.Rest();
  memory_link.Begin(bytes, 0, error);
  while (!bytes.empty()) {
    const Line expected = Expected(bytes, error == EAGAIN);
    int length = 0;
    const std::string text = master.ReceiveLine(length);
    bytes.remove_prefix(expected.taken);
    PROMISE(text == expected.text);
    PROMISE(length == expected.length);
    PROMISE(memory_link.incoming == bytes);
  }
  PROMISE(memory_link.sent.empty());
  return 0;
}
