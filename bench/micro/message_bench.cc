// Messages of the simulator's protocol, built and parsed without a connection.

#include <sys/socket.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/micro/table.h"
#include "tests/support/socket_pair.h"
#include "vk_ec/message.h"

namespace bench {
namespace {

using vk_ec::MessageMgr;
using vk_ec::Transporter;

// A message leaves its buffer by being sent. Here it is built again and again in the memory that it
// had, as it is between sends; so the buffer, and how much of it is built, which are private, are
// set from outside. An explicit instantiation may name what is private.
template <auto buffer, auto built>
struct Opened {
  friend auto& BufferOf(MessageMgr& messages) { return messages.*buffer; }
  friend auto& BuiltOf(MessageMgr& messages) { return messages.*built; }
};
auto& BufferOf(MessageMgr& messages);
auto& BuiltOf(MessageMgr& messages);
template struct Opened<&MessageMgr::buffer_, &MessageMgr::built_>;

class Messages {
 public:
  // Nothing is sent, so the other end may go.
  Messages() : transporter_(SocketPair().ours.Release()), messages_(transporter_) {}

  void Build(const Table& table) {
    BufferOf(messages_).clear();
    BuiltOf(messages_) = 0;
    MessageMgr::MessageBuilder builder = messages_.createMessageBuilder();
    builder.add_MESS_header("REPLY", 0);
    builder.add_data("QITEMS", table.items);
    for (std::size_t well = 0; well < table.wells.size(); ++well) {
      builder.add_string("WELLNAME", table.wells[well]);
      builder.add_data("VALUES", table.rows[well]);
    }
    builder.add_MESS_header("END", 0);
    BufferOf(messages_).resize(BuiltOf(messages_));  // as send() does with what is ahead
  }

  auto& bytes() { return BufferOf(messages_); }

 private:
  Transporter transporter_;
  MessageMgr messages_;
};

// As the client reads the answer to a query of wells.
template <class Bytes>
Received Parse(Bytes& bytes) {
  using Decoder = MessageMgr::MessageDecoder;
  Received received;
  Decoder reply(bytes);
  reply.get_header().check_expectation_MESS("REPLY", 0);
  const auto items = reply.get_header_and_data<std::string>("QITEMS").size();
  const std::string well = Decoder::encode_header("WELLNAME", 1, MessageMgr::CSTR);
  const std::string values = Decoder::encode_header("VALUES", items, MessageMgr::DOUB);
  const auto all = reply.remaining();
  while (reply.skip_header(well)) {
    received.wells.emplace_back(reply.get_text());
    if (!reply.skip_header(values)) break;
    reply.append(items, received.values);
    if (received.wells.size() == 1) {
      const std::size_t rows = all / (all - reply.remaining());
      received.wells.reserve(rows);
      received.values.reserve(rows * items);
    }
  }
  reply.get_header().check_expectation_MESS("END", 0);
  return received;
}

void BuildMessage(benchmark::State& state) {
  const Table table = MakeTable(state);
  Messages messages;
  for (auto _ : state) {
    messages.Build(table);
    benchmark::DoNotOptimize(messages.bytes().data());
    benchmark::ClobberMemory();
  }
  Check(state, Parse(messages.bytes()), table);
  state.counters["bytes"] = static_cast<double>(messages.bytes().size());
}
BENCHMARK(BuildMessage)->Name("build, jobmill")->Apply(Sizes);

void ParseMessage(benchmark::State& state) {
  const Table table = MakeTable(state);
  Messages messages;
  messages.Build(table);
  Received received;
  for (auto _ : state) {
    received = Parse(messages.bytes());
    benchmark::DoNotOptimize(received.values.data());
  }
  Check(state, received, table);
}
BENCHMARK(ParseMessage)->Name("parse, jobmill")->Apply(Sizes);

// What any way to build or parse has to do at least.
void CopyMessage(benchmark::State& state) {
  const Table table = MakeTable(state);
  Messages messages;
  messages.Build(table);
  const auto& bytes = messages.bytes();
  std::vector<unsigned char> target(bytes.size());
  for (auto _ : state) {
    std::memcpy(target.data(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(CopyMessage)->Name("build, copy of the bytes")->Apply(Sizes);
BENCHMARK(CopyMessage)->Name("parse, copy of the bytes")->Apply(Sizes);

}  // namespace
}  // namespace bench
