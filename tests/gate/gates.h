#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "gate/link_table.h"
#include "gate/stream.h"

/// A direction of a link, by where its bytes come from.
enum From { kMaster = 0, kDaemon = 1 };

/// Both gates of one link in memory, with the master's and the daemon's side in the test's hands:
/// what each says, and how much of what it hears it takes. Connections between the gates are two
/// strings of bytes under way, and a cut loses them. The clock is `now`.
class Gates {
 public:
  explicit Gates(const gate::Stream::Options& options = {})
      : Gates(options, [number = static_cast<unsigned char>(1)]() mutable {
          return gate::LinkId{{number++}};
        }) {}
  /// With ids of links as `id` makes them.
  Gates(const gate::Stream::Options& options, std::function<gate::LinkId()> id)
      : options_(options), table_({}, std::move(id)), connecting_(options) {}

  gate::Stream& connecting() { return connecting_; }
  /// There once an opening has come.
  gate::Stream& serving() { return *serving_; }
  gate::Stream& at(From side) { return side == kMaster ? connecting_ : *serving_; }
  bool HasServing() const { return serving_.has_value(); }

  /// A side's socket fails.
  void Break(From side) {
    say_[side].clear();
    at(side).LocalBroke();
    end_[side] = end_given_[side] = true;
  }

  /// What a side says next.
  void Say(From side, std::string_view bytes) { say_[side].append(bytes); }
  /// It says no more after that.
  void End(From side) { end_[side] = true; }

  /// All that the other side has heard of it, in the order in which its gate gave it.
  const std::string& heard(From side) const { return heard_[side]; }
  const std::string& said(From side) const { return said_[side]; }
  bool heard_end(From side) const { return heard_end_[side]; }
  /// Whether the other side's socket was closed because this one's had failed.
  bool heard_break(From side) const { return heard_break_[side]; }

  /// The bytes that have crossed the wire from this side's gate, openings and answers among them.
  std::size_t crossed(From side) const { return crossed_[side]; }
  std::string& under_way(From side) { return wire_[side]; }

  void Connect() {
    Cut();
    up_ = true;
    client_epoch_ = connecting_.Connect(now);
  }

  bool up() const { return up_; }

  /// The connection is gone, and what was under way.
  void Cut() {
    if (!up_) return;
    up_ = false;
    for (std::string& wire : wire_) wire.clear();
    opening_.clear();
    connecting_.Broken(client_epoch_);
    if (attached_) serving_->Broken(server_epoch_);
    if (attached_) table_.Broken(serving_->id(), now);
    attached_ = false;
  }

  /// Lets a side's local socket give up to `count` bytes to its gate. Whether anything happened.
  bool Give(From side, std::size_t count) {
    if (side == kDaemon && !serving_) return false;
    if (heard_break_[side == kMaster ? kDaemon : kMaster]) return false;
    count = std::min({count, say_[side].size(), at(side).RoomForLocal()});
    if (count > 0) {
      at(side).FromLocal(say_[side].substr(0, count));
      said_[side] += say_[side].substr(0, count);
      say_[side].erase(0, count);
      return true;
    }
    if (!end_[side] || !say_[side].empty() || end_given_[side]) return false;
    at(side).LocalEnded();
    return end_given_[side] = true;
  }

  /// Lets the local socket that hears `side` take up to `count` bytes.
  bool Hear(From side, std::size_t count) {
    const From listener = side == kMaster ? kDaemon : kMaster;
    if (listener == kDaemon && !serving_) return false;
    gate::Stream& gate = at(listener);
    const std::string_view bytes = gate.ForLocal().substr(0, count);
    if (!bytes.empty()) {
      heard_[side] += bytes;
      gate.LocalTook(bytes.size(), now);
      return true;
    }
    if (gate.EndsLocal()) {
      gate.LocalTookEnd();
      return heard_end_[side] = true;
    }
    if (!gate.BreaksLocal()) return false;
    gate.LocalBroke();
    return heard_break_[side] = true;
  }

  /// Puts what a side's gate has to send, in one piece of up to `room` bytes, on the wire.
  bool Send(From side, std::size_t room) {
    if (side == kDaemon && !serving_) return false;
    std::string bytes(std::max<std::size_t>(room, 64), '\0');
    const std::uint64_t epoch = side == kMaster ? client_epoch_ : server_epoch_;
    bytes.resize(at(side).ForWire(epoch, bytes.data(), bytes.size()));
    if (up_) wire_[side] += bytes;
    return !bytes.empty();
  }

  /// Cuts the connection when, of all that this side's gate sends, `place` bytes have crossed the
  /// wire and another one would.
  void CutAt(From side, std::size_t place) {
    cut_side_ = side;
    cut_at_ = place;
  }

  /// How many cuts that has brought about.
  int cuts() const { return cuts_; }

  /// Lets up to `count` bytes arrive at the other gate.
  bool Arrive(From side, std::size_t count) {
    if (cut_at_ && side == cut_side_ && !wire_[side].empty()) {
      count = std::min(count, *cut_at_ - crossed_[side]);
      if (count == 0) {
        cut_at_.reset();
        ++cuts_;
        Cut();
        return true;
      }
    }
    std::string bytes = wire_[side].substr(0, count);
    if (bytes.empty()) return false;
    wire_[side].erase(0, bytes.size());
    crossed_[side] += bytes.size();
    if (side == kDaemon) {
      connecting_.FromWire(client_epoch_, bytes, now);
      return true;
    }
    if (!attached_) {
      opening_ += bytes;
      if (opening_.size() < gate::Opening::kSize) return true;
      bytes = opening_.substr(gate::Opening::kSize);
      opening_.resize(gate::Opening::kSize);
      Open();
    }
    if (attached_ && !bytes.empty()) serving_->FromWire(server_epoch_, bytes, now);
    return true;
  }

  /// Does all that there is to do, with bytes by the `piece`, until nothing happens.
  void Run(std::size_t piece = 16384) {
    while (Once(piece)) {
    }
  }

  bool Once(std::size_t piece) {
    bool moved = false;
    for (const From side : {kMaster, kDaemon}) {
      moved |= Give(side, piece);
      moved |= Send(side, piece);
      moved |= Arrive(side, piece);
      moved |= Hear(side, piece);
    }
    if (serving_ && serving_->state() == gate::Stream::State::kEnded) {
      table_.Ended(serving_->id(), serving_->reason());
    }
    return moved;
  }

  gate::LinkTable& table() { return table_; }
  gate::Identity who{.authority = "authority", .names = {"alice@example.com"}};
  gate::Time now{1'000'000};

 private:
  // The opening has come: what a serving gate does with it.
  void Open() {
    const auto read = gate::ReadOpening(opening_);
    opening_.clear();
    const auto* opening = std::get_if<gate::Opening>(&read);
    std::optional<gate::Reason> refusal;
    if (opening == nullptr) {
      refusal = std::get<gate::Reason>(read);
    } else if (opening->IsNew()) {
      if (serving_) StartAnew();
      const auto added = table_.Add(who);
      serving_.emplace(std::get<gate::LinkId>(added), options_);
      serving_->Accept(*opening, now);
    } else {
      refusal = table_.Refuses(opening->id, who, opening->epoch);
      if (!refusal && !serving_->Accept(*opening, now)) refusal = gate::Reason::kBrokenRules;
      if (!refusal) table_.Resumed(opening->id, opening->epoch);
    }
    if (refusal) {
      wire_[kDaemon] += gate::Refusal(*refusal);
      return;
    }
    attached_ = true;
    server_epoch_ = opening->epoch;
  }

  // The answer to a new link's opening was lost, so nobody knows that link: its daemon's end says
  // everything again on the new one.
  void StartAnew() {
    table_.Ended(serving_->id(), gate::Reason::kEnded);
    say_[kDaemon].insert(0, said_[kDaemon]);
    said_[kDaemon].clear();
    end_given_[kDaemon] = false;
  }

  const gate::Stream::Options options_;
  gate::LinkTable table_;
  gate::Stream connecting_;
  std::optional<gate::Stream> serving_;
  std::uint64_t client_epoch_ = 0;
  std::uint64_t server_epoch_ = 0;
  bool up_ = false;
  bool attached_ = false;
  std::string opening_;
  std::string wire_[2];
  std::size_t crossed_[2] = {0, 0};
  From cut_side_ = kMaster;
  std::optional<std::size_t> cut_at_;
  int cuts_ = 0;
  std::string say_[2];
  std::string said_[2];
  std::string heard_[2];
  bool end_[2] = {false, false};
  bool end_given_[2] = {false, false};
  bool heard_end_[2] = {false, false};
  bool heard_break_[2] = {false, false};
};
