// The master's side: packed replies, unpacked requests, and the look-up of names in between.

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/micro/table.h"
#include "connector/name_lookup.h"
#include "net/getbuf.h"
#include "net/master_link.h"
#include "net/sendbuf.h"

namespace bench {
namespace {

std::size_t PackedSize(const Table& table) {
  std::size_t size = 0;
  for (const std::string& well : table.wells) size += sizeof(int) + well.size();
  for (const auto& row : table.rows) size += row.size() * sizeof(double);
  return size;
}

void Pack(sendbuf& reply, const Table& table) {
  for (std::size_t well = 0; well < table.wells.size(); ++well) {
    reply.Pack(table.wells[well]);
    for (const double value : table.rows[well]) reply.Pack(value);
  }
}

void PackReply(benchmark::State& state) {
  const Table table = MakeTable(state);
  const std::size_t size = PackedSize(table);
  for (auto _ : state) {
    sendbuf reply;
    reply.PrePack(static_cast<int>(size));
    Pack(reply, table);
    if (reply.used() != static_cast<int>(size)) state.SkipWithError("not the size that was due");
    benchmark::DoNotOptimize(&reply);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(PackReply)->Name("pack, jobmill")->Apply(Sizes);

// Into fresh memory, as a reply has it.
void CopyReply(benchmark::State& state) {
  const std::vector<char> bytes(PackedSize(MakeTable(state)));
  for (auto _ : state) {
    const std::unique_ptr<char[]> target(new char[bytes.size()]);
    std::memcpy(target.get(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(target.get());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(CopyReply)->Name("pack, copy of the bytes")->Apply(Sizes);

// The names of a request, as the dispatcher's buffer has them.
std::vector<unsigned char> Request(const Table& table) {
  std::vector<unsigned char> body;
  for (const std::string& well : table.wells) {
    const auto size = static_cast<int>(well.size());
    const auto* bytes = reinterpret_cast<const unsigned char*>(&size);
    body.insert(body.end(), bytes, bytes + sizeof(size));
    body.insert(body.end(), well.begin(), well.end());
  }
  body.resize(master_link::kMaxFrame);
  return body;
}

void UnPackNames(benchmark::State& state) {
  const Table table = MakeTable(state);
  const std::vector<unsigned char> body = Request(table);
  std::vector<std::string> names;
  for (auto _ : state) {
    getbuf fields(body.data());
    names.clear();
    names.resize(table.wells.size());
    for (std::string& name : names) fields.UnPack(name);
    benchmark::DoNotOptimize(names.data());
  }
  if (names != table.wells) state.SkipWithError("not the names that were sent");
}
BENCHMARK(UnPackNames)->Name("unpack names, jobmill")->Apply(Sizes);

void CopyNames(benchmark::State& state) {
  const Table table = MakeTable(state);
  const std::vector<unsigned char> body = Request(table);
  std::vector<unsigned char> target(table.wells.size() * (sizeof(int) + table.wells[0].size()));
  for (auto _ : state) {
    std::memcpy(target.data(), body.data(), target.size());
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(CopyNames)->Name("unpack names, copy of the bytes")->Apply(Sizes);
BENCHMARK(CopyNames)->Name("look up, copy of the bytes")->Apply(Sizes);
BENCHMARK(CopyNames)->Name("look up, other order, copy of the bytes")->Apply(Sizes);

void LookUp(benchmark::State& state, bool reverse) {
  const Table table = MakeTable(state);
  std::vector<std::string> answered = table.wells;
  if (reverse) std::reverse(answered.begin(), answered.end());
  std::vector<std::size_t> places;
  for (auto _ : state) {
    places = connector::NameLookup(table.wells).PositionsIn(answered);
    benchmark::DoNotOptimize(&places);
  }
  for (std::size_t i = 0; i < table.wells.size(); ++i) {
    if (answered[places[i]] != table.wells[i]) state.SkipWithError("not the right position");
  }
}
BENCHMARK_CAPTURE(LookUp, in_order, false)->Name("look up, jobmill")->Apply(Sizes);
BENCHMARK_CAPTURE(LookUp, reversed, true)->Name("look up, other order, jobmill")->Apply(Sizes);

}  // namespace
}  // namespace bench
