#pragma once

#include <vector>

#include "bench/whole/conversation.h"

namespace bench {

/// Names of wells as a large field has them: short enough that 5,000 fit into one request.
std::vector<std::string> WellNames(int n);

// Every flow by itself; `n` is the number of wells or variables.
Flow TimeDays();
Flow TermFlag();
Flow Version();
Flow RunUntil();
Flow Variables(int n);
Flow WellStatus(int n);

/// The request alone, or with the records of all wells. The master asks for each record by itself,
/// so the first reply tells what the controller needs before it answers.
Flow WellData(int n);
/// The simulator answers in another order.
Flow ReorderedWellData(int n);
Flow InflowTables(int n);

/// How many of a flow's leading steps belong to the first reply.
constexpr std::size_t kFirstReply = 1;

}  // namespace bench
