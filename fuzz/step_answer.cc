// Answers to everything that moves the simulation, and to the set-up: position, time and date are
// those of the answer, field by field as far as it could be read, and a client that has seen a bad
// answer takes no more messages.

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include <boost/system/system_error.hpp>

#include "fuzz/support/input.h"
#include "fuzz/support/memory_stream.h"
#include "fuzz/support/paired_client.h"
#include "fuzz/support/promise.h"
#include "fuzz/support/wire.h"
#include "vk_ec/v2016_2/varnok_client.h"
#include "vk_ec/v2017_2/varnok_client.h"

namespace {

using vk_ec::AlgPos;
using vk_ec::PositionInfo;

bool TakeEnd(std::string_view& bytes) {
  wire::Header header;
  return wire::Take(bytes, header) && header.Is("END", 0, "MESS");
}

bool TakePosition(std::string_view& bytes, AlgPos& position) {
  wire::Header header;
  std::string_view text;
  if (!wire::Take(bytes, header) || !header.Is("POSITION", 1, "CSTR") ||
      !wire::TakeString(bytes, text)) {
    return false;
  }
  if (text == "MODEL_DEFINITION") {
    position = AlgPos::MODEL_DEFINITION;
  } else if (text == "BEGIN_NEWTON") {
    position = AlgPos::BEGIN_NEWTON;
  } else if (text == "END_SIMULATE") {
    position = AlgPos::END_SIMULATE;
  } else {
    return false;
  }
  return true;
}

bool TakeStep(std::string_view& bytes, PositionInfo& info) {
  wire::Header header;
  std::array<int, 6> date{};
  if (!TakePosition(bytes, info.position)) return false;
  if (!wire::Take(bytes, header) || !header.Is("TIME", 1, "DOUB")) return false;
  if (!wire::Take(bytes, info.time)) return false;
  if (!wire::Take(bytes, header) || !header.Is("DATE", 6, "INTE")) return false;
  if (!wire::Take(bytes, date)) return false;
  info.date = date;
  return TakeEnd(bytes);
}

// Reads a step answer into `info`; false when it is not one.
bool Expect(std::string_view bytes, PositionInfo& info) {
  wire::Header header;
  if (!wire::Take(bytes, header) || !header.Is(header.name, 0, "MESS")) return false;
  if (header.name == "STEP") return TakeStep(bytes, info) && bytes.empty();
  if (header.name != "FINISHED" || !TakeEnd(bytes)) return false;
  info.position = AlgPos::END_SIMULATE;
  return bytes.empty();
}

enum class SetUp { kStarted, kRefused, kBroken };

// Reads the answer to the set-up, which is refused when it lists errors.
SetUp ExpectStarted(std::string_view bytes) {
  wire::Header header;
  if (!wire::Take(bytes, header) || !header.Is("STARTED", 0, "MESS")) return SetUp::kBroken;
  if (!wire::Take(bytes, header) || !header.Is("ERRORS", header.count, "CSTR")) {
    return SetUp::kBroken;
  }
  std::string_view error;
  for (std::uint64_t i = 0; i < header.count; ++i) {
    if (!wire::TakeString(bytes, error)) return SetUp::kBroken;
  }
  if (!TakeEnd(bytes) || !bytes.empty()) return SetUp::kBroken;
  return header.count == 0 ? SetUp::kStarted : SetUp::kRefused;
}

bool Same(const PositionInfo& a, const PositionInfo& b) {
  return a.position == b.position &&
         std::bit_cast<std::uint64_t>(a.time) == std::bit_cast<std::uint64_t>(b.time) &&
         a.date == b.date;
}

template <class Client>
void Run(Client& client, int operation) {
  switch (operation) {
    case 0:
      return client.set_up();
    case 1:
      return client.do_continue();
    case 2:
      return client.do_continue_until(365.25);
    default:
      return client.do_shutdown();
  }
}

// False when the operation failed with one of the exceptions that are promised.
template <class Client>
bool Succeeds(Client& client, int operation) {
  try {
    Run(client, operation);
    return true;
  } catch (const std::length_error&) {
  } catch (const std::invalid_argument&) {
  } catch (const boost::system::system_error&) {
  }
  return false;
}

const std::string& Finished() {
  static const std::string framed = [] {
    std::string message;
    message += wire::Mess("FINISHED");
    message += wire::Mess("END");
    std::string stream;
    stream += wire::Framed(message);
    return stream;
  }();
  return framed;
}

template <class Client>
bool RefusesMessages(Client& client) {
  memory_stream.Begin(Finished());
  try {
    client.do_continue();
  } catch (const std::logic_error& error) {
    return std::string_view(error.what()) ==
           "Cannot create a new out-going message as the previous message is still on going.";
  }
  return false;
}

template <class Version>
void Converse(int operation, std::string_view first, std::string_view second) {
  static std::string stream;
  stream.clear();
  if (operation == 0) stream += wire::Framed(first);
  stream += wire::Framed(second);
  memory_stream.Begin(stream);

  PositionInfo expected;
  const SetUp set_up = operation == 0 ? ExpectStarted(first) : SetUp::kStarted;
  if (operation == 0 && set_up == SetUp::kStarted) expected.position = AlgPos::STARTING;
  const bool succeeds = set_up == SetUp::kStarted && Expect(second, expected);
  // Only a message that was begun and not read to its end stands in the way of the next.
  const bool stuck = set_up == SetUp::kBroken
                         ? !first.empty()
                         : set_up == SetUp::kStarted && !succeeds && !second.empty();

  PairedClient<Version> client;
  PROMISE(Succeeds(client, operation) == succeeds);
  PROMISE(Same(client.position_info(), expected));
  PROMISE(RefusesMessages(client) == stuck);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::uint8_t mode = input.Byte();
  const int operation = mode & 3;
  const std::string_view first = operation == 0 ? input.Take(input.Short()) : std::string_view();
  const std::string_view second = input.Rest();
  if ((mode & 4) != 0) {
    Converse<v2016_2::vk_ec::VarnokClient>(operation, first, second);
  } else {
    Converse<v2017_2::vk_ec::VarnokClient>(operation, first, second);
  }
  return 0;
}
