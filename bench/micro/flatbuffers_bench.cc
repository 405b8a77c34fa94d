// The same table in FlatBuffers.

#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <flatbuffers/flatbuffers.h>

#include "bench/micro/table.h"
#include "table_generated.h"

namespace bench {
namespace {

using flatbuffers::FlatBufferBuilder;
using flatbuffers::Offset;

// `rows` keeps its memory between calls.
void Build(FlatBufferBuilder& builder, std::vector<Offset<flat::Row>>& rows, const Table& table) {
  builder.Clear();
  rows.clear();
  for (std::size_t well = 0; well < table.wells.size(); ++well) {
    const auto name = builder.CreateString(table.wells[well]);
    rows.push_back(flat::CreateRow(builder, name, builder.CreateVector(table.rows[well])));
  }
  const auto items = builder.CreateVectorOfStrings(table.items);
  builder.Finish(flat::CreateAnswer(builder, items, builder.CreateVector(rows)));
}

// The bytes are verified first, as those of a stranger have to be.
bool Rows(const std::uint8_t* bytes, std::size_t size, Received& received) {
  flatbuffers::Verifier verifier(bytes, size, 64, 1U << 30);
  if (!flat::VerifyAnswerBuffer(verifier)) return false;
  const flat::Answer& message = *flat::GetAnswer(bytes);
  received = {};
  const std::size_t rows = message.rows()->size();
  received.wells.reserve(rows);
  received.values.reserve(rows * message.items()->size());
  for (const flat::Row* row : *message.rows()) {
    received.wells.emplace_back(row->well()->c_str(), row->well()->size());
    received.values.insert(received.values.end(), row->values()->begin(), row->values()->end());
  }
  return true;
}

void BuildFlat(benchmark::State& state) {
  const Table table = MakeTable(state);
  FlatBufferBuilder builder(1 << 21);
  std::vector<Offset<flat::Row>> rows;
  for (auto _ : state) {
    Build(builder, rows, table);
    benchmark::DoNotOptimize(builder.GetBufferPointer());
    benchmark::ClobberMemory();
  }
  Received received;
  Rows(builder.GetBufferPointer(), builder.GetSize(), received);
  Check(state, received, table);
  state.counters["bytes"] = builder.GetSize();
}
BENCHMARK(BuildFlat)->Name("build, FlatBuffers")->Apply(Sizes);

void ParseFlat(benchmark::State& state) {
  const Table table = MakeTable(state);
  FlatBufferBuilder builder(1 << 21);
  std::vector<Offset<flat::Row>> rows;
  Build(builder, rows, table);
  Received received;
  for (auto _ : state) {
    Rows(builder.GetBufferPointer(), builder.GetSize(), received);
    benchmark::DoNotOptimize(received.values.data());
  }
  Check(state, received, table);
}
BENCHMARK(ParseFlat)->Name("parse, FlatBuffers, to rows")->Apply(Sizes);

}  // namespace
}  // namespace bench
