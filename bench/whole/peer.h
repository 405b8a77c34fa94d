#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "bench/whole/conversation.h"

namespace bench {

/// Plays the simulator for one connection on `listener`: `set_up`, then `flow` again and again
/// until the controller leaves. Where a query is known its length is received and nothing looked
/// at; otherwise whole messages are read, and the queries are filled in on the first pass.
void Serve(int listener, Step& set_up, Flow& flow);

/// The same in processes of their own, one for each of `connections` to come; they end with their
/// connections. Returns their numbers.
std::vector<pid_t> ServeInChildren(int listener, const Step& set_up, const Flow& flow,
                                   int connections);

}  // namespace bench
