#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "master/frame_channel.h"
#include "master/run.h"
#include "tests/load/simulator_farm.h"
#include "tests/support/running_daemon.h"

namespace load {

/// A daemon, its distribution script and configuration, a data directory, and simulators of all
/// kinds. As root the daemon maps its masters' users to an unprivileged account; otherwise it runs
/// with "-u".
class LoadSite {
 public:
  explicit LoadSite(bool comms_log, SimulatorFarm::Server volume = {});

  /// Longer than this nothing takes that is not broken.
  static constexpr std::chrono::seconds kPatience{60};

  RunningDaemon& daemon() const { return *daemon_; }
  SimulatorFarm& simulators() { return *simulators_; }
  const TemporaryDirectory& data() const { return data_; }

  /// Whether users are looked up.
  static bool MapsUsers();

  /// A run of its own: what its script does is the first word of `root`, "sim-10-..." starts the
  /// simulator at 127.0.0.10.
  master::RunRequest Request(const std::string& root) const;
  static std::string Root(int simulator, const std::string& id);

  /// A connection that waits at most kPatience for whatever is due.
  Descriptor Connect() const { return ConnectTo(daemon_->port()); }
  static Descriptor ConnectTo(int port);

  /// The handshake of `request`, up to the host. `wake` ends every wait of the run.
  std::unique_ptr<master::Run> Launch(const master::RunRequest& request, int wake = -1) const;

 private:
  TemporaryDirectory data_;
  std::unique_ptr<SimulatorFarm> simulators_;
  std::unique_ptr<RunningDaemon> daemon_;
};

/// The bytes that a master sends from its first to the script's start.
std::string HandshakeOf(const master::RunRequest& request);

/// Reads one frame; empty at the end of the connection. Throws std::runtime_error when it breaks,
/// or when nothing comes for kPatience.
std::string ReadFrame(int descriptor);

/// Throws std::runtime_error with `complaint`.
void Check(bool holds, const std::string& complaint);

}  // namespace load
