#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/hostile/cases.h"
#include "tests/hostile/watcher.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"

/// A daemon that serves the cases of one family one after another, with the ends of its children
/// watched. The first two ports of its simulators are the test's.
class WatchedDaemon {
 public:
  /// `arguments` besides the port, the script and the ports of the simulators, unless they have a
  /// "-o" themselves. With `as_root` accounts of the test's own exist for it.
  WatchedDaemon(const std::vector<std::string>& arguments, bool as_root);

  RunningDaemon& daemon() { return *daemon_; }
  Watcher& watcher() { return *watcher_; }

  /// The comms port that the next connection gets; each call counts one connection.
  std::int64_t TakeCommsPort();

  std::string File(const std::string& name) const { return daemon_->directory().File(name); }

 private:
  const PortBlock comms_;
  std::unique_ptr<RunningDaemon> daemon_;
  std::unique_ptr<Watcher> watcher_;
  std::int64_t comms_base_ = 0;
  std::int64_t comms_ports_ = 2;
  std::int64_t connections_ = 0;
};

/// What a case showed, for the figures.
struct Figures {
  std::int64_t memory = 0;     ///< KiB
  std::int64_t processor = 0;  ///< microseconds
};

/// Runs one case; every difference from what it expects becomes a line of the result, which is
/// empty when there is none.
std::string RunCase(const Case& wanted, WatchedDaemon& daemon, Figures& figures);
