// The same table in Cap'n Proto.

#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <capnp/message.h>
#include <capnp/serialize.h>

#include "bench/micro/table.h"
#include "table.capnp.h"

namespace bench {
namespace {

// A first segment that holds the whole message; the builder clears it when it goes.
class Memory {
 public:
  kj::ArrayPtr<capnp::word> words() {
    return {reinterpret_cast<capnp::word*>(words_.data()), words_.size()};
  }

 private:
  std::vector<std::uint64_t> words_ = std::vector<std::uint64_t>(1 << 18);
};

void Fill(capnp::MessageBuilder& builder, const Table& table) {
  auto message = builder.initRoot<packet::Table>();
  auto items = message.initItems(static_cast<unsigned>(table.items.size()));
  for (unsigned item = 0; item < items.size(); ++item) items.set(item, table.items[item]);
  auto rows = message.initRows(static_cast<unsigned>(table.wells.size()));
  for (unsigned well = 0; well < rows.size(); ++well) {
    rows[well].setWell(table.wells[well]);
    const std::vector<double>& row = table.rows[well];
    rows[well].setValues(kj::arrayPtr(row.data(), row.size()));
  }
}

Received Rows(kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) {
  capnp::ReaderOptions options;
  options.traversalLimitInWords = 1U << 30;
  capnp::SegmentArrayMessageReader reader(segments, options);
  const auto message = reader.getRoot<packet::Table>();
  const std::size_t items = message.getItems().size();
  Received received;
  received.wells.reserve(message.getRows().size());
  received.values.reserve(items * message.getRows().size());
  for (const auto row : message.getRows()) {
    const auto well = row.getWell();
    received.wells.emplace_back(well.cStr(), well.size());
    const auto values = row.getValues();
    for (const double value : values) received.values.push_back(value);
  }
  return received;
}

void BuildPacket(benchmark::State& state) {
  const Table table = MakeTable(state);
  Memory memory;
  for (auto _ : state) {
    capnp::MallocMessageBuilder builder(memory.words());
    Fill(builder, table);
    // The segments could be written as they are.
    benchmark::DoNotOptimize(builder.getSegmentsForOutput());
    benchmark::ClobberMemory();
  }
  capnp::MallocMessageBuilder builder(memory.words());
  Fill(builder, table);
  Check(state, Rows(builder.getSegmentsForOutput()), table);
  state.counters["bytes"] = static_cast<double>(8 * capnp::computeSerializedSizeInWords(builder));
}
BENCHMARK(BuildPacket)->Name("build, Cap'n Proto")->Apply(Sizes);

void ParsePacket(benchmark::State& state) {
  const Table table = MakeTable(state);
  Memory memory;
  capnp::MallocMessageBuilder builder(memory.words());
  Fill(builder, table);
  Received received;
  for (auto _ : state) {
    received = Rows(builder.getSegmentsForOutput());
    benchmark::DoNotOptimize(received.values.data());
  }
  Check(state, received, table);
}
BENCHMARK(ParsePacket)->Name("parse, Cap'n Proto, to rows")->Apply(Sizes);

}  // namespace
}  // namespace bench
