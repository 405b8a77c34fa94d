#pragma once

// The file that tells bench_floor what to do: actions in a row, each a byte, a 64-bit size and, for
// those that send, as many bytes.
namespace bench::plan {

enum Action : char {
  kFromMaster = 'M',     ///< receive that many bytes
  kToMaster = 'm',       ///< send these bytes
  kFromSimulator = 'S',  ///< receive
  kToSimulator = 's',    ///< send
  kLoop = 'L'            ///< what follows is repeated until the master leaves
};

constexpr bool Sends(Action action) {
  return action == kToMaster || action == kToSimulator;
}

}  // namespace bench::plan
