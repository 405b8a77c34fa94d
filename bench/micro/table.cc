#include "bench/micro/table.h"

#include <cstdio>

namespace bench {

Table MakeTable(const benchmark::State& state) {
  Table table;
  for (int item = 0; item < state.range(1); ++item) {
    table.items.push_back("OIL_PRODUCTION_RATE_" + std::to_string(item));
  }
  for (int well = 0; well < state.range(0); ++well) {
    char name[16];
    std::snprintf(name, sizeof(name), "W%05d", well);
    table.wells.emplace_back(name);
    std::vector<double>& row = table.rows.emplace_back();
    for (int item = 0; item < state.range(1); ++item) row.push_back(1000.0 + well + item / 8.0);
  }
  return table;
}

void Check(benchmark::State& state, const Received& received, const Table& table) {
  std::vector<double> values;
  for (const auto& row : table.rows) values.insert(values.end(), row.begin(), row.end());
  if (received.wells != table.wells || received.values != values) {
    state.SkipWithError("not the table that was sent");
  }
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Args({5000, 11})->Args({1, 8});
}

}  // namespace bench
