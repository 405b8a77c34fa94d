#pragma once

#include <memory>
#include <string>
#include <vector>

#include "master/launch.h"
#include "master/run.h"
#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"

/// A site with a daemon, the distribution script for a single machine, and the stand-in simulator.
class Site {
 public:
  /// `variables` are set for the daemon ("NAME=value").
  explicit Site(std::vector<std::string> variables = {}, std::vector<std::string> arguments = {});

  RunningDaemon& daemon() { return *daemon_; }
  const TemporaryDirectory& data() const { return data_; }

  /// The handshake for model `root`, whose deck is written first; up to the connection with the
  /// simulator. `port` is the daemon's, when it is 0, or that of a relay before it.
  std::unique_ptr<master::Run> Start(const std::string& root, const std::string& deck,
                                     const std::string& version = "20172", int port = 0);

  /// The same up to the host; what the daemon answered when it refused.
  std::string RefusalOf(const std::string& root);

  /// Waits until the daemon has no child and the simulator of `root` has ended.
  bool IsQuiet(const std::string& root) const;

 private:
  master::Launch Request(const std::string& root, const std::string& version, int port);

  const PortBlock comms_;
  TemporaryDirectory data_;
  std::unique_ptr<RunningDaemon> daemon_;
};

/// The processes whose command line holds `text`.
std::vector<pid_t> ProcessesWith(const std::string& text);
