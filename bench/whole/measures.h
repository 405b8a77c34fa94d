#pragma once

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

/// The same flow with and without the comms log, in turns: `real` is with, `floor` without.
FlowTimes MeasureCommsLog(const Flow& learned, const Step& set_up, int blocks);

/// What does not depend on the machine's mood, per repeat of the flow.
struct Counts {
  double system_calls = 0;
  double allocations = 0;
  double page_faults = 0;
  double processor_us = 0;  ///< of the controller
};
Counts CountFlow(const Flow& learned, const Step& set_up, int repeats);

/// In KiB.
struct Memory {
  long idle_child = 0;  ///< proportional set size, behind the launch
  long idle_floor = 0;
  long worked_private = 0;  ///< private memory after the flow
  long worked_floor = 0;
};
Memory MeasureMemory(const Flow& learned, const Step& set_up);

/// The daemon's resident memory before and after many connections, in KiB.
struct Growth {
  long before = 0;
  long after = 0;
};
Growth MeasureConnections(int connections);

}  // namespace bench
