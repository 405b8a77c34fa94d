// The same table in protobuf.

#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <google/protobuf/arena.h>

#include "bench/micro/table.h"
#include "table.pb.h"

namespace bench {
namespace {

using google::protobuf::Arena;

void Fill(proto::Table& message, const Table& table) {
  for (const std::string& item : table.items) message.add_items(item);
  message.mutable_rows()->Reserve(static_cast<int>(table.wells.size()));
  for (std::size_t well = 0; well < table.wells.size(); ++well) {
    proto::Row& row = *message.add_rows();
    row.set_well(table.wells[well]);
    row.mutable_values()->Add(table.rows[well].begin(), table.rows[well].end());
  }
}

Received Rows(const proto::Table& message) {
  Received received;
  const auto rows = static_cast<std::size_t>(message.rows_size());
  received.wells.reserve(rows);
  received.values.reserve(rows * static_cast<std::size_t>(message.items_size()));
  for (const proto::Row& row : message.rows()) {
    received.wells.push_back(row.well());
    received.values.insert(received.values.end(), row.values().begin(), row.values().end());
  }
  return received;
}

void Serialize(const proto::Table& message, std::vector<char>& bytes) {
  bytes.resize(message.ByteSizeLong());
  message.SerializeWithCachedSizesToArray(reinterpret_cast<unsigned char*>(bytes.data()));
}

// An arena that starts with enough memory and keeps it: nothing is allocated on the way.
class Memory {
 public:
  Memory() : block_(8 << 20), arena_(block_.data(), block_.size()) {}
  proto::Table& Fresh() {
    arena_.Reset();
    return *Arena::CreateMessage<proto::Table>(&arena_);
  }

 private:
  std::vector<char> block_;
  Arena arena_;
};

void CheckBytes(benchmark::State& state, const std::vector<char>& bytes, const Table& table) {
  proto::Table message;
  message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
  Check(state, Rows(message), table);
  state.counters["bytes"] = static_cast<double>(bytes.size());
}

void BuildOnArena(benchmark::State& state) {
  const Table table = MakeTable(state);
  Memory memory;
  std::vector<char> bytes;
  for (auto _ : state) {
    proto::Table& message = memory.Fresh();
    Fill(message, table);
    Serialize(message, bytes);
    benchmark::DoNotOptimize(bytes.data());
    benchmark::ClobberMemory();
  }
  CheckBytes(state, bytes, table);
}
BENCHMARK(BuildOnArena)->Name("build, protobuf, arena")->Apply(Sizes);

void BuildAgain(benchmark::State& state) {
  const Table table = MakeTable(state);
  proto::Table message;
  std::vector<char> bytes;
  for (auto _ : state) {
    message.Clear();
    Fill(message, table);
    Serialize(message, bytes);
    benchmark::DoNotOptimize(bytes.data());
    benchmark::ClobberMemory();
  }
  CheckBytes(state, bytes, table);
}
BENCHMARK(BuildAgain)->Name("build, protobuf, message reused")->Apply(Sizes);

std::string Bytes(const Table& table) {
  proto::Table message;
  Fill(message, table);
  return message.SerializeAsString();
}

// The rows are protobuf's own.
void ParseOnArena(benchmark::State& state) {
  const Table table = MakeTable(state);
  const std::string bytes = Bytes(table);
  Memory memory;
  for (auto _ : state) {
    proto::Table& message = memory.Fresh();
    message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
    benchmark::DoNotOptimize(&message);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(ParseOnArena)->Name("parse, protobuf, arena")->Apply(Sizes);

void ParseAgain(benchmark::State& state) {
  const Table table = MakeTable(state);
  const std::string bytes = Bytes(table);
  proto::Table message;
  for (auto _ : state) {
    message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
    benchmark::DoNotOptimize(&message);
    benchmark::ClobberMemory();
  }
  Check(state, Rows(message), table);
}
BENCHMARK(ParseAgain)->Name("parse, protobuf, message reused")->Apply(Sizes);

// The rows are the receiver's.
void ParseToRows(benchmark::State& state) {
  const Table table = MakeTable(state);
  const std::string bytes = Bytes(table);
  Memory memory;
  Received received;
  for (auto _ : state) {
    proto::Table& message = memory.Fresh();
    message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
    received = Rows(message);
    benchmark::DoNotOptimize(received.values.data());
  }
  Check(state, received, table);
}
BENCHMARK(ParseToRows)->Name("parse, protobuf, arena, to rows")->Apply(Sizes);

}  // namespace
}  // namespace bench
