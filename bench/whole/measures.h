#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/whole/conversation.h"

namespace bench {

/// Medians over the blocks of one flow, in microseconds per repeat.
struct Timing {
  double real = 0;
  double floor = 0;
  /// The median of the ratios of neighbouring blocks, which a slow moment of the machine meets
  /// both.
  double ratio = 0;
  double spread = 0;  ///< half the distance between the quartiles of those ratios
};

/// The time from sending the first request to the whole first reply, and that of all steps.
struct FlowTimes {
  Timing first;
  Timing whole;
};

/// Real and minimal controller in turns, block by block.
FlowTimes MeasureFlow(const Flow& learned, const Step& set_up, int blocks);

/// From connecting to the host's line, in turns.
Timing MeasureLaunch(int blocks, int launches);

/// One flow for many numbers of wells, in turns, so that they meet the same moments.
struct Scale {
  int wells = 0;
  FlowTimes times;  ///< per well
  /// The median, over the blocks, of the time per well over that of the base; 0 for the base and
  /// what is smaller.
  double first_growth = 0;
  double whole_growth = 0;
};
/// `make` gives the flow for a number of wells. `base` is one of `wells`.
std::vector<Scale> MeasureScale(const std::function<Flow(int)>& make, const std::vector<int>& wells,
                                int base, int blocks);

/// One item of the comms log: `real` is the difference that the log makes to a request, shared
/// among the request's items, `floor` two writes of as many bytes.
Timing MeasureLogItem(const Flow& learned, const Step& set_up, int blocks);

/// What a controller takes, per repeat of the flow.
struct Counts {
  double system_calls = 0;
  double allocations = 0;  ///< the minimal one has none
  double page_faults = 0;
  double processor_us = 0;
};
struct FlowCounts {
  Counts real;
  Counts floor;
};
FlowCounts CountFlow(const Flow& learned, const Step& set_up, int repeats);

/// In KiB.
struct Memory {
  long idle = 0;            ///< proportional set size after the launch, as one of twenty
  long idle_private = 0;    ///< of that, what is not shared
  long worked_private = 0;  ///< private memory after the flow
};
struct Memories {
  Memory real;
  Memory floor;
};
Memories MeasureMemory(const Flow& learned, const Step& set_up);

/// The daemon's resident memory before and after many connections, in KiB.
struct Growth {
  long before = 0;
  long after = 0;
};
Growth MeasureConnections(int connections);

}  // namespace bench
