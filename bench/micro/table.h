#pragma once

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench {

/// What a simulator answers to a query of wells: for each well the values of the items.
struct Table {
  std::vector<std::string> items;
  std::vector<std::string> wells;
  std::vector<std::vector<double>> rows;
};

/// The same content for every way to carry it. `state` has the numbers of wells and items.
Table MakeTable(const benchmark::State& state);

/// What a receiver keeps of it: the values of all rows, one after the other.
struct Received {
  std::vector<std::string> wells;
  std::vector<double> values;
};

/// The benchmark fails, rather than to measure something else, if this is not the table.
void Check(benchmark::State& state, const Received& received, const Table& table);

/// A size that a request for all wells has, and that of one well.
void Sizes(benchmark::internal::Benchmark* benchmark);

}  // namespace bench
