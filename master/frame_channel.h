#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#ifndef _WIN32
#include "base/descriptor.h"
#endif

namespace master {

using Clock = std::chrono::steady_clock;

/// The moment at which waiting ends; nothing for waiting as long as it takes.
using Deadline = std::optional<Clock::time_point>;

#ifdef _WIN32
/// What ends a wait early, for as long as it is raised: a HANDLE of an event that is reset by hand.
using Wake = void*;
inline constexpr Wake kNoWake = nullptr;
#else
/// What ends a wait early, for as long as it is readable: a descriptor.
using Wake = int;
inline constexpr Wake kNoWake = -1;
#endif

/// The master's end of a connection to the daemon: whole frames of a 32-bit little-endian length
/// and as many bytes.
///
/// The replies are read here rather than with Socket::ReceiveLine, which belongs to the daemon's
/// side and its 65,536-byte buffer: the status of some thousand wells is longer than that, and a
/// master has to tell a closed connection from a broken one and to be able to give up waiting.
class FrameChannel {
 public:
  /// A longer frame is not believed: its length field must be something else.
  static constexpr std::int32_t kMaxReply = 1 << 30;

#ifndef _WIN32
  /// `connection` is a connected stream socket.
  explicit FrameChannel(Descriptor connection);
#endif
  FrameChannel(FrameChannel&& other) noexcept;
  FrameChannel& operator=(FrameChannel&& other) noexcept;
  ~FrameChannel();

  /// Connects to the first reachable IPv4 address of `host`, the family the daemon listens on.
  /// Throws ConnectError, or Interrupted when `wake` is raised.
  static FrameChannel ConnectTo(const std::string& host, int port, std::chrono::milliseconds limit,
                                Wake wake = kNoWake);

  /// From now on waiting for a frame ends with Interrupted while `wake` is raised. It stays the
  /// caller's, and may be closed only after another one, or none, has taken its place here.
  void WakeOn(Wake wake);

  /// From now on `tick` is called about every `interval` while a frame is waited for.
  void OnWait(std::chrono::milliseconds interval, std::function<void()> tick);

  /// Sends one frame whole. Throws LinkLost when the connection is broken or the peer takes
  /// nothing for half a minute, or the time that LimitSending() has set.
  void Send(std::string_view body);
  void LimitSending(std::chrono::milliseconds limit);

  /// Takes one frame, which goes out after the earlier ones while Receive() waits. Many requests
  /// can be sent ahead of their answers that way: a daemon whose answers fit into the connection no
  /// more reads nothing until somebody takes them, and Send() would then wait for the daemon, and
  /// the daemon for this side.
  void SendAhead(std::string_view body);

  /// Blocks for one frame and returns its body; nothing when the peer closed the connection
  /// between two frames. Throws LinkLost when it broke or was closed in mid-frame, ProtocolError
  /// for an impossible length, TimedOut, Interrupted. After the last two a further call goes on
  /// where this one stopped.
  std::optional<std::string> Receive(const Deadline& deadline = {});

  /// Ends the sending direction; what was sent still arrives.
  void FinishSending();

 private:
  class Link;

  explicit FrameChannel(std::unique_ptr<Link> link);

  std::unique_ptr<Link> link_;
};

}  // namespace master
