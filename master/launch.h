#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <utility>

#include "master/frame_channel.h"
#include "master/records.h"

namespace master {

/// The handshake on a fresh connection to the daemon, up to the moment at which it serves requests:
///
///     daemon  "3"                 its protocol version
///     master  "3"                 any number but 0 will do
///     master  seven lines         the run request
///     daemon  "OK|" host NUL      or a text that says why not, and the end of the connection
///
/// The calls are made in their order, each once.
class Launch {
 public:
  /// A line of this length or more never completes on the daemon's side.
  static constexpr std::size_t kLineLimit = 32768;

  explicit Launch(FrameChannel channel) : channel_(std::move(channel)) {}

  /// From now on `tick` is called about every `interval` while the daemon is waited for.
  void OnWait(std::chrono::milliseconds interval, std::function<void()> tick) {
    channel_.OnWait(interval, std::move(tick));
  }

  /// Reads the daemon's version, sends the master's, and returns the daemon's as it came. Throws
  /// LaunchRefused when the daemon closes the connection, ProtocolError when the daemon's version
  /// is no number or 0, LinkLost, TimedOut, Interrupted.
  std::string ExchangeVersions(const Deadline& deadline = {});

  /// Sends the seven lines. Throws std::invalid_argument, before anything is sent, when a text
  /// is too long for the daemon. A daemon that refuses early closes the connection while lines are
  /// still being sent; its text is then found by AwaitHost(), so a failed send is not reported
  /// here.
  void Request(const RunRequest& request);

  /// Blocks until the simulator has been started, which with a queue may take hours. Returns the
  /// host that it runs on. Throws LaunchRefused, LinkLost, TimedOut, Interrupted.
  std::string AwaitHost(const Deadline& deadline = {});

  /// Gives up a launch whose host is not known yet: sends the requests to connect to the simulator
  /// and to shut it down, which the daemon reads as soon as the simulator runs, and ends the
  /// connection's sending side. Never throws.
  void GiveUp();

  /// The connection, for Run.
  FrameChannel Release() { return std::move(channel_); }

 private:
  FrameChannel channel_;
};

}  // namespace master
