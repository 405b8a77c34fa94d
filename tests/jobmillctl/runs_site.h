#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/ports.h"
#include "tests/support/running_daemon.h"

/// A daemon and runs in known states. Script and simulator do what the first letters of the root
/// name say:
///
///   QUEUED  the script tells of a job and names no host
///   JOB     the script tells of a job, which is the stand-in simulator
///   ABSENT  the script names a host on which no simulator listens
///   HELD    the script waits for the file ROOT.go beside the model; then like STEP
///   STEP    each step takes the stand-in simulator an hour, in which it does nothing
///   GONE    the script ends when it has named the host
///   BUSY    the stand-in simulator computes in steps of a few seconds of simulated time
///
/// With other names it is the stand-in simulator as it is. Ended is the simulator by its script, at
/// SIGTERM, and not otherwise.
class RunsSite {
 public:
  /// `change` may give the daemon other options.
  explicit RunsSite(const std::function<void(RunningDaemon::Options&)>& change = {});

  RunningDaemon& daemon() { return *daemon_; }
  const TemporaryDirectory& data() const { return data_; }

  /// A master that has asked for the model, as `user`.
  TestMaster& Request(const std::string& root, const std::string& user = "alice");

  /// A master that has sent nothing but its version.
  TestMaster& Greet();

  /// The same, with the simulator connected to the controller unless it is ABSENT.
  TestMaster& Connect(const std::string& root);

  /// The runs of this daemon's port, as `jobmillctl status --json` tells them.
  std::vector<nlohmann::json> Runs() const;

  /// The same as it is told to an account without rights. Needs root.
  std::vector<nlohmann::json> RunsForNobody() const;

  /// That of the model `root`, null when there is none.
  nlohmann::json Run(const std::string& root) const;

  /// Waits until the run of the model is in this state.
  bool WaitForState(const std::string& root, const std::string& state) const;

 private:
  std::vector<nlohmann::json> RunsIn(const std::string& document) const;

  const PortBlock comms_{50};  // as many as any test has connections
  TemporaryDirectory data_;
  std::unique_ptr<RunningDaemon> daemon_;
  std::vector<std::unique_ptr<TestMaster>> masters_;
};
