#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "gate/byte_queue.h"
#include "gate/opening.h"
#include "gate/read_ahead.h"

namespace gate {

/// One end of a resumable link: an ordinary byte connection in each direction, carried over
/// connections between the two gates of which one may take the place of another at any time.
///
/// Both gates have one for each master. On its local side is a socket, to the master or to the
/// daemon, which never notices that a connection between the gates has broken. On its other side,
/// the wire, is the connection of the moment; each has a number, the epoch, that grows. Calls that
/// name an older epoch do nothing, so late callbacks of a replaced connection need no care.
///
/// What came from the local side is kept until the other gate says that its local side has taken
/// it. At most `window` bytes are kept in each direction, and the wire's peer can make this end
/// keep no more than that either. An idle link keeps no buffer.
///
/// After any call the caller does what is now due: writes what ForWire() and ForLocal() give, shuts
/// its local socket down when EndsLocal(), reads its local socket again when there is
/// RoomForLocal(), sets its timer to WakeAt(), and looks at state().
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order of what belongs together
class Stream {
 public:
  /// Bytes of a DATA frame in front of its data: kind, length and place.
  static constexpr std::size_t kDataHead = 1 + 4 + 8;

  struct Options {
    /// Bytes kept in each direction. A constant of the protocol: both ends must have the same.
    std::size_t window = 4 << 20;
    /// A connection on which nothing has come for so long is broken. An end that has heard nothing
    /// for a third of it asks.
    Time silence = std::chrono::seconds(60);
    /// Whether this end wants records asked for ahead. Done when both do.
    bool ahead = true;
  };

  enum class State {
    kDetached,  ///< no connection. The connecting gate makes one, the serving gate waits for one
    kOpening,   ///< connecting gate: the opening is sent, the answer has not come
    kAttached,
    kEnded,  ///< for good: reason() says why. kFinished: in order, and the local socket has all
  };

  /// The connecting gate's end.
  explicit Stream(const Options& options);
  /// The serving gate's end of a new link.
  Stream(const LinkId& id, const Options& options);

  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  State state() const { return state_; }
  Reason reason() const { return reason_; }
  /// Of the link; zeros at the connecting gate until the first answer has come.
  const LinkId& id() const { return id_; }
  /// Of the connection of the moment, or of the last one.
  std::uint64_t epoch() const { return epoch_; }
  /// Whether both ends have agreed to ask for records ahead.
  bool ahead() const { return ahead_; }
  /// Whether the daemon still owes records that were asked for ahead.
  bool awaits_records() const { return reader_ && reader_->AwaitsRecords(); }
  /// Bytes that have gone over the link in either direction, each counted once.
  std::uint64_t given() const { return given_; }
  std::uint64_t taken() const { return taken_ - (end_taken_ ? 1 : 0) - (gone_taken_ ? 1 : 0); }
  /// Bytes in memory at this moment.
  std::size_t kept() const { return unjudged_.size() + sending_.size() + arrived_.size(); }

  // The wire. When a call returns false the connection is of no more use. The caller closes it once
  // what ForWire() still gives has been written: the reason for the link's end, if anything.

  /// Connecting gate: there is a new connection to the serving gate, and the link has not ended.
  /// Returns its epoch. ForWire() gives the opening.
  std::uint64_t Connect(Time now);

  /// Serving gate: `opening` has come on a connection that may have this link (LinkTable decides).
  /// The connection's epoch is that of the opening. ForWire() gives the answer. Whatever connection
  /// the link had before is replaced. False, and nothing has changed, when the opening speaks of
  /// bytes that cannot be: the connection is then to be refused with Reason::kBrokenRules.
  bool Accept(const Opening& opening, Time now);

  /// Bytes have come, after the opening. All of them are taken. False when the connection is of no
  /// more use.
  bool FromWire(std::uint64_t epoch, std::string_view bytes, Time now);

  /// Fills `room` with what is to be sent next and returns how much that is, 0 when there is
  /// nothing now. It counts as sent: the caller sends it before it asks again. `size` of at least
  /// 64; best a TLS record's 16,384.
  std::size_t ForWire(std::uint64_t epoch, char* room, std::size_t size);

  /// Whether ForWire() would give something.
  bool HasForWire(std::uint64_t epoch) const;

  /// The connection has ended, in whatever way: an end of it in order is no sign of anything.
  void Broken(std::uint64_t epoch);

  /// When OnTime() wants to be called; Time::max() for never. Later is harmless.
  Time WakeAt() const;

  /// False when the connection of the moment has been silent for too long: it is broken, and the
  /// caller closes it.
  bool OnTime(Time now);

  // The local side.

  /// How many bytes FromLocal() may give. 0: the local socket is not read for now.
  std::size_t RoomForLocal() const;
  void FromLocal(std::string_view bytes);

  /// The local socket has come to its end. What goes the other way goes on. A peer that has closed
  /// for good looks like one that has only stopped sending: the caller finds out, by keep-alive
  /// probes as the daemon does, and then calls LocalBroke().
  void LocalEnded();

  /// The local socket failed: it gives no more and takes no more. What still comes for it is
  /// dropped, and the other gate closes its own local socket when that has been given everything.
  void LocalBroke();

  /// Whether the other gate's local socket has failed, and this one has been given all that came
  /// before. The caller closes its local socket and calls LocalBroke().
  bool BreaksLocal() const;

  /// What the local socket is to be given next; empty when there is nothing now. Valid until
  /// LocalTook() or LocalBroke(); asked again before, it may be longer.
  std::string_view ForLocal();

  /// The local socket has taken the first `count` bytes of what ForLocal() gave last. `now` is
  /// when, since the other gate is told a while later.
  void LocalTook(std::size_t count, Time now);

  /// Whether the local socket has been given all that there will be, and is now to be shut down for
  /// writing. The caller says LocalTookEnd() when it has done so.
  bool EndsLocal() const;
  void LocalTookEnd();

  /// Ends the link for good in both directions, and tells the other gate when there is a
  /// connection. The caller closes its local socket.
  void End(Reason reason);

 private:
  class Room;
  /// A frame that is coming in: its first bytes until they are whole.
  struct Head {
    char bytes[Answer::kSize]{};
    std::size_t size = 0;
  };

  std::uint64_t end_of_given() const {
    return given_ + (given_ended_ ? 1 : 0) + (given_ended_ && tells_break_ ? 1 : 0);
  }
  bool IsCurrent(std::uint64_t epoch) const;
  void Attach(std::uint64_t epoch, State state, Time now);
  void Become(Reason reason);
  bool Break(Reason reason);
  bool TakeHead(std::string_view& bytes, std::size_t size);
  bool TakeAnswer();
  bool TakeFrame(std::string_view& bytes);
  bool TakeAck(std::uint64_t place);
  bool TakeData(std::uint32_t length, std::uint64_t place);
  bool TakeEnd(std::uint64_t place);
  bool TakeGone(std::uint64_t place);
  void TakeBreak();
  bool TakeClose(Reason reason);
  bool TakePlain();
  void DoNotReadAhead();
  bool PlainIsDue() const { return sent_ == plain_at_ && !plain_told_; }
  void Keep(std::string_view bytes);
  ReadAhead::Verdict JudgeGiven(std::string_view bytes, bool last);
  ReadAhead::Verdict JudgeArrived(std::string_view bytes, bool last);
  bool PassGiven();
  bool PassArrived();
  void Pass();
  void Took(std::uint64_t count);
  void LookForFinish();
  void PutFrames(Room& out);
  void PutData(Room& out);
  Time Patience() const;

  const Options options_;
  const bool connecting_;
  LinkId id_;
  State state_ = State::kDetached;
  Reason reason_ = Reason::kFinished;
  std::uint64_t epoch_ = 0;
  bool ahead_;
  std::optional<ReadAhead> reader_;  ///< none when records are not, or no longer, asked for ahead

  // Connecting gate: the place before which the other one is told that no further exchange is read
  // ahead, once that is known.
  bool plain_understood_ = false;
  std::uint64_t plain_at_ = std::numeric_limits<std::uint64_t>::max();
  bool plain_told_ = false;  ///< on the connection of the moment

  // Places count the bytes of a direction from 0; its end takes the place after the last byte, and
  // that its socket has failed the place after the end.

  // Out: what the local side has given. sending_ holds the bytes from acked_ to given_, and
  // unjudged_ those from given_ on, which the reader has not passed yet.
  ByteQueue unjudged_;
  bool local_ended_ = false;
  ByteQueue sending_;
  std::uint64_t given_ = 0;
  bool given_ended_ = false;
  bool tells_break_ = false;  ///< that the local socket has failed
  std::uint64_t acked_ = 0;
  std::uint64_t sent_ = 0;     ///< on the connection of the moment
  std::uint64_t highest_ = 0;  ///< the largest that sent_ has ever been

  // In: what the other gate has sent. arrived_ holds the bytes from taken_ to received_. Of these
  // the local side may have the first passed_, and the next to_drop_ are for nobody.
  ByteQueue arrived_;
  std::size_t passed_ = 0;
  std::size_t to_drop_ = 0;
  bool end_passed_ = false;
  bool gives_requests_ = false;  ///< what ForLocal() gave last is the reader's
  std::uint64_t received_ = 0;
  bool arrived_end_ = false;
  std::uint64_t taken_ = 0;
  bool end_taken_ = false;
  bool gone_taken_ = false;
  bool arrived_gone_ = false;
  bool local_broke_ = false;

  // The connection of the moment.
  Head head_;
  std::uint32_t data_left_ = 0;  ///< bytes of the DATA frame that is coming in
  bool greeting_due_ = false;    ///< the opening or the answer
  bool close_due_ = false;
  bool ping_due_ = false;
  bool pong_due_ = false;
  bool ack_due_ = false;
  std::uint64_t told_ = 0;       ///< the place of the last ACK sent
  Time tell_at_ = Time::max();   ///< when an ACK is due at the latest
  Time heard_at_{};              ///< when something came last
  Time asked_at_ = Time::max();  ///< when the other end was asked, since nothing had come
};

}  // namespace gate
