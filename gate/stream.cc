#include "gate/stream.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>
#include <variant>

namespace gate {

namespace {

// The frames that follow the opening and the answer: a byte that says which, then its fields.
enum Frame : unsigned char {
  kData = 1,   // u32 length, u64 place of the first byte, the bytes
  kAck = 2,    // u64 place up to which all has been taken by the local side
  kEnd = 3,    // u64 place of the end
  kPing = 4,   // nothing; answered with kPong
  kPong = 5,   // nothing
  kClose = 6,  // u8 reason: the link has ended for good
  kGone = 7,   // u64 place after the end: the local socket has failed
  kPlain = 8,  // nothing: no exchange after the present one is read ahead
};

constexpr std::size_t kPlaceHead = 1 + 8;
constexpr std::uint32_t kLongestData = 65536;

// How long the other gate may wait to be told that bytes were taken. That costs only the memory of
// what it keeps, and no time, since a quarter of the window is told of at once.
constexpr Time kTellAfter = std::chrono::seconds(1);

// Bytes of a frame before its data; 0 for a kind that does not exist.
std::size_t HeadOf(char kind) {
  switch (static_cast<unsigned char>(kind)) {
    case kData:
      return Stream::kDataHead;
    case kAck:
    case kEnd:
    case kGone:
      return kPlaceHead;
    case kPing:
    case kPong:
    case kPlain:
      return 1;
    case kClose:
      return 2;
    default:
      return 0;
  }
}

}  // namespace

// What ForWire() fills.
class Stream::Room {
 public:
  Room(char* begin, std::size_t size) : at_(begin), left_(size) {}

  std::size_t left() const { return left_; }
  void Put(std::string_view bytes) {
    memcpy(at_, bytes.data(), bytes.size());
    at_ += bytes.size();
    left_ -= bytes.size();
  }
  void Put(Frame kind) {
    const char byte = static_cast<char>(kind);
    Put({&byte, 1});
  }
  template <class T>
  void Put(Frame kind, T number) {
    std::string bytes(1, static_cast<char>(kind));
    PutNumber(bytes, number);
    Put(bytes);
  }

 private:
  char* at_;
  std::size_t left_;
};

Stream::Stream(const Options& options)
    : options_(options), connecting_(true), ahead_(options.ahead) {
  if (ahead_) reader_.emplace(ReadAhead::End::kConnecting);
}

Stream::Stream(const LinkId& id, const Options& options)
    : options_(options), connecting_(false), id_(id), ahead_(options.ahead) {
  if (ahead_) reader_.emplace(ReadAhead::End::kServing);
}

std::uint64_t Stream::Connect(Time now) {
  Attach(epoch_ + 1, State::kOpening, now);
  // No question can be asked before the answer has come, so the answer itself is waited for.
  asked_at_ = now;
  return epoch_;
}

bool Stream::Accept(const Opening& opening, Time now) {
  if (opening.received < acked_ || opening.received > highest_) return false;
  if (opening.IsNew() && !opening.ahead) DoNotReadAhead();
  Attach(opening.epoch, State::kAttached, now);
  sent_ = opening.received;
  return true;
}

void Stream::Attach(std::uint64_t epoch, State state, Time now) {
  epoch_ = epoch;
  state_ = state;
  head_.size = 0;
  data_left_ = 0;
  greeting_due_ = true;
  ping_due_ = false;
  pong_due_ = false;
  plain_told_ = false;
  // The last ACK may have been lost with the former connection.
  told_ = 0;
  ack_due_ = taken_ > 0;
  tell_at_ = Time::max();
  heard_at_ = now;
  asked_at_ = Time::max();
}

bool Stream::IsCurrent(std::uint64_t epoch) const {
  return epoch == epoch_ && (state_ == State::kOpening || state_ == State::kAttached);
}

bool Stream::FromWire(std::uint64_t epoch, std::string_view bytes, Time now) {
  if (!IsCurrent(epoch)) return false;
  heard_at_ = now;
  if (state_ == State::kAttached) {
    asked_at_ = Time::max();
    ping_due_ = false;
  }
  while (!bytes.empty() && state_ != State::kEnded) {
    if (data_left_ > 0) {
      const std::string_view part = bytes.substr(0, data_left_);
      Keep(part);
      data_left_ -= static_cast<std::uint32_t>(part.size());
      bytes.remove_prefix(part.size());
    } else if (state_ == State::kOpening) {
      if (TakeHead(bytes, Answer::kSize) && !TakeAnswer()) return false;
    } else if (!TakeFrame(bytes)) {
      return false;
    }
  }
  Pass();
  LookForFinish();
  return state_ != State::kEnded;
}

void Stream::DoNotReadAhead() {
  ahead_ = false;
  reader_.reset();
  Pass();
}

// Moves bytes to the head that is coming in until it has `size`. Returns whether it has.
bool Stream::TakeHead(std::string_view& bytes, std::size_t size) {
  const std::size_t count = std::min(bytes.size(), size - head_.size);
  memcpy(head_.bytes + head_.size, bytes.data(), count);
  head_.size += count;
  bytes.remove_prefix(count);
  if (head_.size < size) return false;
  head_.size = 0;
  return true;
}

bool Stream::TakeAnswer() {
  const auto read = ReadAnswer({head_.bytes, Answer::kSize});
  if (const auto* reason = std::get_if<Reason>(&read)) {
    Become(*reason);
    return false;
  }
  const Answer& answer = std::get<Answer>(read);
  if (!answer.accepted) {
    if (ComesAgain(answer.refusal)) {
      Broken(epoch_);
      return false;
    }
    return TakeClose(answer.refusal);
  }
  const bool first = id_ == LinkId{};
  if (answer.received < acked_ || answer.received > highest_ || answer.id == LinkId{} ||
      (!first && answer.id != id_)) {
    Become(Reason::kBrokenRules);
    return false;
  }
  if (first && !answer.ahead) DoNotReadAhead();
  plain_understood_ = answer.plain;
  id_ = answer.id;
  sent_ = answer.received;
  state_ = State::kAttached;
  asked_at_ = Time::max();
  return true;
}

bool Stream::TakeFrame(std::string_view& bytes) {
  const char kind = head_.size > 0 ? head_.bytes[0] : bytes[0];
  const std::size_t size = HeadOf(kind);
  if (size == 0) return Break(Reason::kBrokenRules);
  if (!TakeHead(bytes, size)) return true;
  const char* fields = head_.bytes + 1;
  switch (static_cast<unsigned char>(kind)) {
    case kData:
      return TakeData(NumberFrom<std::uint32_t>(fields), NumberFrom<std::uint64_t>(fields + 4));
    case kAck:
      return TakeAck(NumberFrom<std::uint64_t>(fields));
    case kEnd:
      return TakeEnd(NumberFrom<std::uint64_t>(fields));
    case kGone:
      return TakeGone(NumberFrom<std::uint64_t>(fields));
    case kPing:
      pong_due_ = true;
      return true;
    case kPong:
      return true;
    case kPlain:
      return TakePlain();
    default:
      return TakeClose(static_cast<Reason>(*fields));
  }
}

bool Stream::TakeData(std::uint32_t length, std::uint64_t place) {
  // What was received is at least what was taken, and at most a window more, so nothing wraps.
  if (length == 0 || length > kLongestData || arrived_end_ || place != received_ ||
      length > options_.window - (received_ - taken_)) {
    return Break(Reason::kBrokenRules);
  }
  data_left_ = length;
  return true;
}

bool Stream::TakeAck(std::uint64_t place) {
  if (place < acked_ || place > sent_) return Break(Reason::kBrokenRules);
  sending_.Drop(static_cast<std::size_t>(std::min(place, given_) - std::min(acked_, given_)));
  acked_ = place;
  return true;
}

bool Stream::TakeEnd(std::uint64_t place) {
  if (arrived_end_ || place != received_) return Break(Reason::kBrokenRules);
  arrived_end_ = true;
  ++received_;
  if (local_broke_) LocalTookEnd();
  return true;
}

bool Stream::TakeGone(std::uint64_t place) {
  if (!arrived_end_ || arrived_gone_ || place != received_) return Break(Reason::kBrokenRules);
  arrived_gone_ = true;
  ++received_;
  if (local_broke_) TakeBreak();
  return true;
}

bool Stream::TakeClose(Reason reason) {
  const bool complete = given_ended_ && end_taken_;
  const bool known = reason <= kLastReason && !ComesAgain(reason);
  const bool wrong_finish = reason == Reason::kFinished && !(connecting_ && complete);
  Become(known && !wrong_finish ? reason : Reason::kBrokenRules);
  return false;
}

bool Stream::TakePlain() {
  if (connecting_ || !ahead_) return Break(Reason::kBrokenRules);
  if (reader_) reader_->EndAfterExchange();
  return true;
}

void Stream::Keep(std::string_view bytes) {
  received_ += bytes.size();
  if (local_broke_) {
    Took(bytes.size());
    if (tell_at_ == Time::max()) tell_at_ = heard_at_ + kTellAfter;
  } else {
    arrived_.Append(bytes);
  }
}

void Stream::Took(std::uint64_t count) {
  taken_ += count;
  if (taken_ - std::min(taken_, told_) >= options_.window / 4) ack_due_ = true;
}

bool Stream::HasForWire(std::uint64_t epoch) const {
  if (epoch != epoch_) return false;
  if (close_due_) return true;
  if (state_ == State::kOpening) return greeting_due_;
  return state_ == State::kAttached && (greeting_due_ || ack_due_ || ping_due_ || pong_due_ ||
                                        PlainIsDue() || sent_ < end_of_given());
}

std::size_t Stream::ForWire(std::uint64_t epoch, char* room, std::size_t size) {
  if (!HasForWire(epoch)) return 0;
  Room out(room, size);
  if (greeting_due_) {
    greeting_due_ = false;
    out.Put(connecting_ ? BytesOf(Opening{.ahead = options_.ahead,
                                          .id = id_,
                                          .epoch = id_ == LinkId{} ? 0 : epoch_,
                                          .received = received_})
                        : BytesOf(Answer{.accepted = true,
                                         .ahead = ahead_,
                                         .plain = ahead_,
                                         .id = id_,
                                         .received = received_}));
  }
  if (close_due_) {
    close_due_ = false;
    out.Put(kClose, static_cast<std::uint8_t>(reason_));
  } else if (state_ == State::kAttached) {
    PutFrames(out);
  }
  return size - out.left();
}

void Stream::PutFrames(Room& out) {
  if (pong_due_) out.Put(kPong);
  if (ping_due_) out.Put(kPing);
  pong_due_ = ping_due_ = false;
  const bool has_more = sent_ < end_of_given();
  // What was taken is told along with other frames, too: that costs no message of its own.
  if (ack_due_ || (has_more && taken_ > told_)) {
    out.Put(kAck, taken_);
    told_ = taken_;
    ack_due_ = false;
    tell_at_ = Time::max();
  }
  if (PlainIsDue()) {
    out.Put(kPlain);
    plain_told_ = true;
  }
  if (sent_ < given_ && out.left() > kDataHead) PutData(out);
  if (given_ended_ && sent_ == given_ && !PlainIsDue() && out.left() >= kPlaceHead) {
    out.Put(kEnd, given_);
    ++sent_;
  }
  if (sent_ == given_ + 1 && sent_ < end_of_given() && out.left() >= kPlaceHead) {
    out.Put(kGone, given_ + 1);
    ++sent_;
  }
  highest_ = std::max(highest_, sent_);
}

void Stream::PutData(Room& out) {
  const std::uint64_t before = (sent_ < plain_at_ ? std::min(given_, plain_at_) : given_) - sent_;
  const std::uint64_t count =
      std::min<std::uint64_t>({before, out.left() - kDataHead, kLongestData});
  out.Put(kData, static_cast<std::uint32_t>(count));
  std::string place;
  PutNumber(place, sent_);
  out.Put(place);
  for (const std::uint64_t end = sent_ + count; sent_ < end;) {
    const std::string_view part = sending_.At(static_cast<std::size_t>(sent_ - acked_))
                                      .substr(0, static_cast<std::size_t>(end - sent_));
    out.Put(part);
    sent_ += part.size();
  }
}

void Stream::Broken(std::uint64_t epoch) {
  if (!IsCurrent(epoch)) return;
  state_ = State::kDetached;
  tell_at_ = asked_at_ = Time::max();
}

Time Stream::WakeAt() const {
  if (state_ != State::kOpening && state_ != State::kAttached) return Time::max();
  const Time silent =
      asked_at_ == Time::max() ? heard_at_ + options_.silence / 3 : asked_at_ + Patience();
  return std::min(silent, tell_at_);
}

// How long the other end may take to answer a question.
Time Stream::Patience() const {
  return options_.silence - options_.silence / 3;
}

bool Stream::OnTime(Time now) {
  if (state_ != State::kOpening && state_ != State::kAttached) return true;
  if (now >= tell_at_) {
    ack_due_ = true;
    tell_at_ = Time::max();
  }
  if (asked_at_ == Time::max()) {
    if (now < heard_at_ + options_.silence / 3) return true;
    // From now, not from when it was due: this machine may have slept for hours, and the connection
    // may have survived that.
    asked_at_ = now;
    ping_due_ = true;
    return true;
  }
  if (now < asked_at_ + Patience()) return true;
  Broken(epoch_);
  return false;
}

std::size_t Stream::RoomForLocal() const {
  if (state_ == State::kEnded || local_ended_) return 0;
  const std::size_t kept = sending_.size() + unjudged_.size();
  return options_.window - std::min(kept, options_.window);
}

void Stream::FromLocal(std::string_view bytes) {
  if (state_ == State::kEnded) return;
  if (!reader_) {
    sending_.Append(bytes);
    given_ += bytes.size();
    return;
  }
  unjudged_.Append(bytes);
  Pass();
}

void Stream::LocalEnded() {
  local_ended_ = true;
  Pass();
}

void Stream::LocalBroke() {
  if (local_broke_ || state_ == State::kEnded) return;
  local_broke_ = true;
  // Two ends that both have no socket any more have nothing to tell each other.
  tells_break_ = !arrived_gone_;
  reader_.reset();
  LocalEnded();
  Took(arrived_.size());
  arrived_.Clear();
  passed_ = to_drop_ = 0;
  ack_due_ = true;
  if (arrived_end_) LocalTookEnd();
  if (arrived_gone_) TakeBreak();
}

bool Stream::BreaksLocal() const {
  return state_ != State::kEnded && arrived_gone_ && end_taken_ && !local_broke_;
}

void Stream::TakeBreak() {
  if (state_ == State::kEnded) return;
  gone_taken_ = true;
  ++taken_;
  ack_due_ = true;
  LookForFinish();
}

std::string_view Stream::ForLocal() {
  const std::string_view requests = reader_ ? reader_->ToAsk() : std::string_view();
  gives_requests_ = !requests.empty() && (passed_ == 0 || reader_->InRequest());
  return gives_requests_ ? requests : arrived_.At(0).substr(0, passed_);
}

void Stream::LocalTook(std::size_t count, Time now) {
  if (gives_requests_) {
    if (reader_) reader_->Asked(count);
  } else {
    arrived_.Drop(count);
    passed_ -= count;
    Took(count);
    if (taken_ > told_ && tell_at_ == Time::max()) tell_at_ = now + kTellAfter;
  }
  Pass();
}

bool Stream::EndsLocal() const {
  return state_ != State::kEnded && end_passed_ && !end_taken_ && arrived_.empty();
}

ReadAhead::Verdict Stream::JudgeGiven(std::string_view bytes, bool last) {
  if (!reader_) return {ReadAhead::Verdict::kPass, bytes.size()};
  return connecting_ ? reader_->FromMaster(bytes, last) : reader_->FromDaemon(bytes, last);
}

ReadAhead::Verdict Stream::JudgeArrived(std::string_view bytes, bool last) {
  if (!reader_) return {ReadAhead::Verdict::kPass, bytes.size()};
  return connecting_ ? reader_->FromDaemon(bytes, last) : reader_->FromMaster(bytes, last);
}

// Lets the reader judge what it has not judged. What it decides about one direction may set the
// other one free.
void Stream::Pass() {
  while (PassGiven() || PassArrived()) {
  }
  if (reader_ && reader_->IsOver()) reader_.reset();
}

namespace {

// The bytes of a queue from `place` on that lie together, if these are enough to judge; else a copy
// of those that are.
std::string_view ToJudge(const ByteQueue& queue, std::size_t place,
                         std::array<char, ReadAhead::kDeciding>& copy) {
  const std::string_view bytes = queue.At(place);
  if (bytes.size() >= copy.size()) return bytes;
  return {copy.data(), queue.Copy(place, copy.data(), copy.size())};
}

}  // namespace

bool Stream::PassGiven() {
  if (unjudged_.empty() && (!local_ended_ || given_ended_)) return false;
  std::array<char, ReadAhead::kDeciding> copy{};
  const std::string_view bytes = ToJudge(unjudged_, 0, copy);
  const auto verdict = JudgeGiven(bytes, local_ended_ && bytes.size() == unjudged_.size());
  // Nothing passes between the exchange's beginning and its last request, whose place this is.
  if (plain_understood_ && reader_ && reader_->MasterAsksAhead() && given_ < plain_at_) {
    plain_at_ = given_;
    reader_->EndAfterExchange();
  }
  if (verdict.what == ReadAhead::Verdict::kWait) return false;
  if (bytes.empty()) return given_ended_ = true;
  if (verdict.what == ReadAhead::Verdict::kPass) {
    sending_.Append(bytes.substr(0, verdict.count));
    given_ += verdict.count;
  }
  unjudged_.Drop(verdict.count);
  return true;
}

bool Stream::PassArrived() {
  if (to_drop_ > 0) {
    if (passed_ > 0) return false;
    arrived_.Drop(to_drop_);
    Took(std::exchange(to_drop_, 0));
    ack_due_ = true;
    return true;
  }
  const std::size_t left = arrived_.size() - passed_;
  if (left == 0 && (!arrived_end_ || end_passed_)) return false;
  std::array<char, ReadAhead::kDeciding> copy{};
  const std::string_view bytes = ToJudge(arrived_, passed_, copy);
  const auto verdict = JudgeArrived(bytes, arrived_end_ && bytes.size() == left);
  if (verdict.what == ReadAhead::Verdict::kWait) return false;
  if (bytes.empty()) return end_passed_ = true;
  (verdict.what == ReadAhead::Verdict::kPass ? passed_ : to_drop_) += verdict.count;
  return true;
}

void Stream::LocalTookEnd() {
  if (end_taken_ || state_ == State::kEnded) return;
  end_taken_ = true;
  ++taken_;
  ack_due_ = true;
  LookForFinish();
}

// Only the serving gate finishes by itself; the connecting gate waits until it is told so.
// Otherwise the last ACK might be lost with its connection, and the serving gate would hold for
// hours what is done.
void Stream::LookForFinish() {
  if (connecting_ || state_ == State::kEnded) return;
  if (given_ended_ && end_taken_ && acked_ == end_of_given()) End(Reason::kFinished);
}

void Stream::End(Reason reason) {
  if (state_ == State::kEnded) return;
  close_due_ = state_ == State::kAttached;
  Become(reason);
}

bool Stream::Break(Reason reason) {
  End(reason);
  return false;
}

void Stream::Become(Reason reason) {
  state_ = State::kEnded;
  reason_ = reason;
  reader_.reset();
  unjudged_.Clear();
  sending_.Clear();
  arrived_.Clear();
  passed_ = to_drop_ = 0;
  tell_at_ = asked_at_ = Time::max();
}

}  // namespace gate
