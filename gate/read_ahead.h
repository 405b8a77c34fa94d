#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace gate {

/// Saves the round trips of the exchanges that follow a request for operating points (10) or inflow
/// tables (16): the master asks for each well's record when it has the one before.
///
/// The serving gate's end asks the daemon for all records but the last as soon as the first reply
/// has said how many there are, and sends them along. The connecting gate's end keeps the master's
/// own requests for these to itself and hands a record over for each. The last request goes all the
/// way: a daemon that has been asked for all records could no longer be told that the master wants
/// something else. What a master sends instead of such a request is passed on, the records that it
/// has not asked for are dropped, and the daemon, which has a record left to be asked for, ends the
/// run as it does at any other record.
///
/// Both ends follow the frames of both directions by the same rules. What they do not understand
/// ends their part in the link: from there on everything passes.
///
/// A master that asks for records before it has those before has no round trips to save, and
/// reading ahead only costs. The connecting gate sees that, and both ends stop after the exchange.
///
/// The object judges bytes and holds none; its owner keeps those that have to wait. An end sees a
/// byte once: Pass and Drop say that the first `count` bytes have been dealt with.
class ReadAhead {
 public:
  enum class End { kConnecting, kServing };

  explicit ReadAhead(End end) : end_(end) {}

  struct Verdict {
    enum What { kPass, kDrop, kWait } what = kWait;
    std::size_t count = 0;
  };

  /// A verdict needs no more than so many bytes; fewer may be given only if there are no more yet.
  static constexpr std::size_t kDeciding = 16;

  /// What is to become of the bytes that go from the master to the daemon. `last`: none will follow
  /// them. Without bytes, and last, the answer says whether the end may pass: kPass, or kWait.
  Verdict FromMaster(std::string_view bytes, bool last);

  /// The same for bytes that go from the daemon to the master. The serving end passes them all.
  Verdict FromDaemon(std::string_view bytes, bool last);

  /// Serving end: requests to be given to the daemon now, before anything else. None while enough
  /// are unanswered.
  std::string_view ToAsk() const;
  void Asked(std::size_t count);
  /// Whether the daemon has been given a part of a request, and has to get the rest next.
  bool InRequest() const { return asked_part_ > 0; }
  /// Whether the daemon still owes records.
  bool AwaitsRecords() const { return unanswered_ > 0; }

  /// Connecting end: whether the master has asked for a record before it had the one before.
  bool MasterAsksAhead() const { return master_asks_ahead_; }
  /// No exchange after the present one is read ahead. Said at both ends before the last request for
  /// a record passes them.
  void EndAfterExchange() { last_exchange_ = true; }
  /// Whether everything passes from now on, so that nobody needs to be asked.
  bool IsOver() const;

 private:
  enum class Stage {
    kHandshake,
    kRequests,
    kReply,     ///< the request for an exchange has passed, its first reply has not come
    kExchange,  ///< the first reply has said how many records there are
    kOff
  };

  // The frame that is passing in a direction.
  struct Frame {
    std::array<char, kDeciding> head{};
    std::uint64_t seen = 0;  ///< of its bytes, those of the length included

    bool begun() const { return seen > 0; }
    std::int32_t length() const { return Number(0); }
    std::uint32_t code() const { return static_cast<std::uint32_t>(Number(4)); }
    std::int32_t Number(std::size_t place) const;
    /// Takes bytes up to the end of the frame, and returns how many.
    std::size_t Take(std::string_view bytes);
    bool IsWhole() const;
  };

  Verdict PassFrame(Frame& frame, std::string_view bytes, void (ReadAhead::*whole)());
  enum class Look { kRequest, kElse, kTooShort };

  Verdict Exchange(std::string_view bytes, bool last);
  Look LookAt(std::string_view bytes) const;
  void WholeRequestForRecord();
  Verdict Deviate(std::size_t count);
  void WholeFromMaster();
  void WholeFromDaemon();
  void FirstReply();
  void SwitchOff();

  const End end_;
  Stage stage_ = Stage::kHandshake;
  Frame from_master_{};
  Frame from_daemon_{};
  int texts_from_master_ = 0;
  int texts_from_daemon_ = 0;
  bool master_ended_ = false;
  bool last_exchange_ = false;
  std::int64_t replies_due_ = 0;

  // The exchange.
  std::uint32_t code_ = 0;            ///< of its request
  std::uint64_t size_of_record_ = 0;  ///< about
  std::int64_t to_come_ = 0;          ///< records that the master has still to ask for

  // At the connecting end.
  std::int64_t asked_ = 0;     ///< records that the master has asked for and not got
  std::int64_t withheld_ = 0;  ///< records ahead that the master has not got
  bool master_asks_ahead_ = false;
  bool unwanted_ = false;  ///< the master will not ask for the withheld ones any more
  bool dropping_ = false;  ///< the frame that is coming from the daemon is an unwanted one

  // At the serving end.
  std::int64_t to_ask_ = 0;      ///< records ahead, to be asked for yet
  std::int64_t unanswered_ = 0;  ///< records ahead, asked for and not sent yet
  std::size_t asked_part_ = 0;   ///< bytes of a request that the daemon has got
};

}  // namespace gate
