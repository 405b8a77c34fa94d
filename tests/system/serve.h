#pragma once

#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/running_daemon.h"

/// A daemon that switches no account and whose script names the comms port that it was given.
inline RunningDaemon::Options Unprivileged(std::vector<std::string> more = {}) {
  RunningDaemon::Options options;
  options.arguments = std::move(more);
  options.arguments.insert(options.arguments.begin(), "-u");
  options.script = "#!/bin/sh\necho HOST=port-$4\n";
  return options;
}

/// A reply without the byte in the place of the host line's newline.
inline std::string Text(const std::string& reply) {
  return reply.substr(0, reply.find('\0'));
}

/// What the next master gets for its run request.
inline std::string ServeOne(const RunningDaemon& daemon) {
  TestMaster master(daemon.port());
  master.RequestRun({});
  return Text(master.Receive());
}

/// What the next master gets for its run request and for the shutdown that follows, in one text.
inline std::string ServeRun(const RunningDaemon& daemon,
                            const std::vector<std::string>& fields = {}) {
  TestMaster master(daemon.port());
  master.RequestRun(fields);
  const std::string reply = Text(master.Receive());
  return reply.starts_with("OK|") ? reply + " " + master.Ask("f0 ff 00 00") : reply;
}

/// The second half of that.
constexpr const char* kShutDown = "f0 ff 00 00 00 00 00 00";

/// Whether the daemon keeps counters of what it runs in a file of its own (a build for coverage).
inline bool KeepsCounters() {
  return getenv("LLVM_PROFILE_FILE") != nullptr;
}
