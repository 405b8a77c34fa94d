#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/descriptor.h"

namespace master {

using Clock = std::chrono::steady_clock;

/// The moment at which waiting ends; nothing for waiting as long as it takes.
using Deadline = std::optional<Clock::time_point>;

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

  /// `connection` is a connected stream socket.
  explicit FrameChannel(Descriptor connection);

  /// Connects to the first reachable IPv4 address of `host`, the family the daemon listens on.
  /// Throws ConnectError, or Interrupted when `wake` (-1 for none) becomes readable.
  static FrameChannel ConnectTo(const std::string& host, int port, std::chrono::milliseconds limit,
                                int wake = -1);

  /// From now on waiting for a frame ends with Interrupted while `descriptor` is readable. It
  /// stays the caller's; -1 for none.
  void WakeOn(int descriptor) { wake_ = descriptor; }

  /// From now on `tick` is called about every `interval` while a frame is waited for.
  void OnWait(std::chrono::milliseconds interval, std::function<void()> tick);

  /// Sends one frame whole. Throws LinkLost when the connection is broken or the peer takes
  /// nothing for half a minute.
  void Send(std::string_view body);

  /// Takes one frame, which goes out behind the earlier ones while Receive() waits. Many requests
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
  bool SendSome();
  void SendUnsent();
  std::size_t Wanted() const;
  bool ReadSome();
  void WaitReadable(const Deadline& deadline);

  Descriptor descriptor_;
  int wake_ = -1;
  std::string unsent_;   // frames that have not left yet, the first perhaps in part
  std::string pending_;  // the frame being received, its length field included
  std::chrono::milliseconds interval_{0};
  std::function<void()> tick_;
};

}  // namespace master
