#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/generators.h"
#include "tests/support/socket_pair.h"
#include "tests/support/wire_bytes.h"
#include "vk_ec/transport.h"

namespace {

using ::vk_ec::SendMessage;
using ::vk_ec::Transporter;

// Small messages, and those around one and several chunks.
rc::Gen<std::string> AnyMessage() {
  const auto sized = [](rc::Gen<std::size_t> size) {
    return rc::gen::map(std::move(size), [](std::size_t bytes) {
      std::string message(bytes, '\0');
      for (std::size_t i = 0; i < bytes; ++i) message[i] = static_cast<char>(i * 3 + i / 256);
      return message;
    });
  };
  return rc::gen::weightedOneOf<std::string>(
      {{3, any::Bytes()},
       {2, sized(rc::gen::inRange<std::size_t>(0, 200'000))},
       {2,
        sized(rc::gen::element<std::size_t>(65'535, 65'536, 65'537, 131'071, 131'072, 131'073))}});
}

// Cuts a message into chunks of any lengths but 0.
std::vector<std::string> Chunks(const std::string& message) {
  std::vector<std::string> chunks;
  const auto longest = *rc::gen::elementOf(std::vector<std::size_t>{1, 7, 300, 70'000, 200'001});
  for (std::size_t at = 0; at < message.size() && chunks.size() < 300;) {
    const auto size = *rc::gen::inRange<std::size_t>(1, longest + 1);
    chunks.push_back(message.substr(at, size));
    at += chunks.back().size();
  }
  std::size_t covered = 0;
  for (const std::string& chunk : chunks) covered += chunk.size();
  if (covered < message.size()) chunks.push_back(message.substr(covered));
  return chunks;
}

std::string Framed(const std::string& message, const std::vector<std::string>& chunks) {
  std::string bytes = Image(std::uint64_t{message.size()});
  if (chunks.empty()) bytes += wire::LongText("");
  for (const std::string& chunk : chunks) bytes += wire::LongText(chunk);
  return bytes;
}

// A peer that sends these bytes in pieces of this size and leaves.
class Peer {
 public:
  Peer(Descriptor link, std::string bytes, std::size_t piece)
      : thread_([link = std::move(link), all = std::move(bytes), piece]() mutable {
          for (std::size_t at = 0; at < all.size(); at += piece) {
            WriteAll(link.get(), all.substr(at, piece));
          }
          link.Reset();
        }) {}
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { thread_.join(); }

 private:
  std::thread thread_;
};

RC_GTEST_PROP(TransportProperty, ChunkingOfAMessageDoesNotMatter, ()) {
  const std::string message = *AnyMessage();
  const std::string next = *any::Bytes();
  SocketPair pair;
  Transporter receiver(pair.ours.Release());
  const std::string bytes = Framed(message, Chunks(message)) + Framed(next, Chunks(next));
  const auto piece = *rc::gen::element<std::size_t>(13, 1'000, 65'536, 1 << 20);
  const Peer peer(std::move(pair.peer), bytes, piece);
  for (const std::string& expected : {message, next}) {
    std::vector<unsigned char> received;
    receiver.recv(received);
    RC_ASSERT(std::string(received.begin(), received.end()) == expected);
  }
}

RC_GTEST_PROP(TransportProperty, SenderCutsAtEveryChunkSizeAndTheReceiverTakesIt, ()) {
  const std::string message = *AnyMessage();
  const auto* data = reinterpret_cast<const unsigned char*>(message.data());
  const std::string expected = wire::Framed(message);

  SocketPair pair;
  SocketPair echo;
  Transporter sender(pair.ours.Release());
  std::thread reader([&sender, data, &message] { sender.send(SendMessage(data, message.size())); });
  const std::string bytes = ReadExactly(pair.peer.get(), expected.size());
  reader.join();
  RC_ASSERT(bytes == expected);
  RC_ASSERT(Arrived(pair.peer.get()).empty());
  pair.peer.Reset();

  Transporter receiver(echo.ours.Release());
  const Peer peer(std::move(echo.peer), bytes, 1 << 20);
  std::vector<unsigned char> received;
  receiver.recv(received);
  RC_ASSERT(std::string(received.begin(), received.end()) == message);
}

// A framing that does not add up, or a peer that leaves too early, is never taken for a message.
RC_GTEST_PROP(TransportProperty, FramingThatDoesNotAddUpIsRefused, ()) {
  const std::string message = *rc::gen::nonEmpty(any::Bytes());
  std::vector<std::string> chunks = Chunks(message);
  std::string bytes = Framed(message, chunks);
  const auto damage = *rc::gen::inRange(0, 3);
  if (damage == 0) {  // cut off
    bytes.resize(*rc::gen::inRange<std::size_t>(0, bytes.size()));
  } else if (damage == 1) {  // the last chunk is longer than what is due
    const std::string& last = chunks.back();
    const std::size_t excess =
        *rc::gen::element<std::size_t>(1, 1000, ~std::size_t{0} - last.size());
    bytes.replace(bytes.size() - last.size() - 8, 8, Image(last.size() + excess));
  } else {  // a chunk of nothing before the last
    bytes.insert(bytes.size() - chunks.back().size() - 8,
                 chunks.size() == 1 ? Image(message.size() + 1) : Image(std::size_t{0}));
  }
  SocketPair pair;
  Transporter receiver(pair.ours.Release());
  const Peer peer(std::move(pair.peer), bytes, 1 << 20);
  std::vector<unsigned char> received;
  RC_ASSERT_THROWS_AS(receiver.recv(received), std::exception);
}

}  // namespace
