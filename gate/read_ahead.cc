#include "gate/read_ahead.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "gate/opening.h"
#include "net/master_link.h"

namespace gate {

namespace {

using master_link::kGetWellData;
using master_link::kGetWellIPRData;
using master_link::kMaxFrame;
using master_link::kWellDataRecord;
using master_link::kWellIPRRecord;

constexpr std::uint32_t kLastCode = master_link::kGetStartDate;
constexpr int kMastersTexts = 8;
constexpr int kDaemonsTexts = 2;

constexpr std::size_t kLengthSize = 4;
constexpr std::size_t kRequestSize = 8;  // of a request for a record: its length and its code
constexpr std::int64_t kRequestsAtOnce = 64;

// The daemon answers one request after the other; this much unanswered keeps it busy.
constexpr std::int64_t kMostUnanswered = 256;
constexpr std::uint64_t kMostBytesUnanswered = 262144;

std::string RequestsFor(std::uint32_t record) {
  std::string requests;
  for (std::int64_t i = 0; i < kRequestsAtOnce; ++i) {
    PutNumber(requests, 4U);
    PutNumber(requests, record);
  }
  return requests;
}

// The code of the records of an exchange.
std::uint32_t RecordOf(std::uint32_t code) {
  return code == kGetWellData ? kWellDataRecord : kWellIPRRecord;
}

std::string_view Requests(std::uint32_t code) {
  static const std::string for_data = RequestsFor(kWellDataRecord);
  static const std::string for_tables = RequestsFor(kWellIPRRecord);
  return code == kGetWellData ? for_data : for_tables;
}

// About how many bytes a record has. `components` is what the request says, which may be anything.
std::uint64_t SizeOfRecord(std::uint32_t code, std::int32_t components) {
  if (code == kGetWellData) return 96;
  constexpr std::uint64_t kPoints = master_link::kTablePoints;
  constexpr std::uint64_t kSeries = 8 * (4 + kPoints * 8);
  if (components <= 0) return 12 + kSeries;
  return 12 + kSeries + kPoints * (4 + 8 * static_cast<std::uint64_t>(components));
}

}  // namespace

std::int32_t ReadAhead::Frame::Number(std::size_t place) const {
  return NumberFrom<std::int32_t>(head.data() + place);
}

bool ReadAhead::Frame::IsWhole() const {
  return seen >= kLengthSize &&
         seen >= kLengthSize + static_cast<std::uint64_t>(std::max(length(), 0));
}

std::size_t ReadAhead::Frame::Take(std::string_view bytes) {
  const std::size_t given = bytes.size();
  while (!bytes.empty() && !IsWhole()) {
    // The length first: it says how much more there is.
    const std::uint64_t end =
        seen < kLengthSize ? kLengthSize : kLengthSize + static_cast<std::uint64_t>(length());
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), end - seen));
    if (seen < head.size()) {
      const auto at = static_cast<std::size_t>(seen);
      memcpy(head.data() + at, bytes.data(), std::min(count, head.size() - at));
    }
    seen += count;
    bytes.remove_prefix(count);
  }
  return given - bytes.size();
}

// Passes what there is of the frame, and calls `whole` at its end.
ReadAhead::Verdict ReadAhead::PassFrame(Frame& frame, std::string_view bytes,
                                        void (ReadAhead::*whole)()) {
  if (!frame.begun()) frame.head.fill('\0');
  const std::size_t count = frame.Take(bytes);
  if (frame.IsWhole()) {
    (this->*whole)();
    frame.seen = 0;
  }
  return {Verdict::kPass, count};
}

ReadAhead::Verdict ReadAhead::FromMaster(std::string_view bytes, bool last) {
  if (stage_ == Stage::kExchange) return Exchange(bytes, last);
  if (bytes.empty()) {
    master_ended_ = true;
    return {Verdict::kPass};
  }
  if (stage_ == Stage::kOff) return {Verdict::kPass, bytes.size()};
  if (stage_ == Stage::kReply) return {Verdict::kWait};
  return PassFrame(from_master_, bytes, &ReadAhead::WholeFromMaster);
}

void ReadAhead::WholeFromMaster() {
  const std::int32_t length = from_master_.length();
  if (stage_ == Stage::kHandshake) {
    if (length > master_link::kMaxLine) SwitchOff();
    if (++texts_from_master_ == kMastersTexts) stage_ = Stage::kRequests;
    return;
  }
  const std::uint32_t code = from_master_.code();
  if (length <= 0 || length > kMaxFrame) return SwitchOff();
  if (code >= 1 && (code <= kLastCode || code == master_link::kShutdown)) ++replies_due_;
  if (length < 8 || (code != kGetWellData && code != kGetWellIPRData)) return;
  if (last_exchange_) return;
  code_ = code;
  size_of_record_ = SizeOfRecord(code, from_master_.Number(8));
  stage_ = Stage::kReply;
}

// The master's bytes within an exchange: a request for a record, or not.
ReadAhead::Verdict ReadAhead::Exchange(std::string_view bytes, bool last) {
  if (bytes.empty()) return Deviate(0);
  if (!from_master_.begun()) {
    switch (LookAt(bytes)) {
      case Look::kTooShort:
        return last ? Deviate(bytes.size()) : Verdict{Verdict::kWait};
      case Look::kElse:
        return Deviate(bytes.size());
      case Look::kRequest:
        if (asked_ > 0) master_asks_ahead_ = true;
        // The master's last request follows those that this end has still to make.
        if (to_ask_ > 0) return {Verdict::kWait};
    }
  }
  const bool keep = end_ == End::kConnecting && to_come_ > 1;
  Verdict verdict = PassFrame(from_master_, bytes, &ReadAhead::WholeRequestForRecord);
  if (keep) verdict.what = Verdict::kDrop;
  return verdict;
}

// The daemon looks at nothing but the code, and takes a frame that is shorter than that as if zeros
// followed.
ReadAhead::Look ReadAhead::LookAt(std::string_view bytes) const {
  if (bytes.size() < kLengthSize) return Look::kTooShort;
  const auto length = NumberFrom<std::int32_t>(bytes.data());
  if (length <= 0 || length > kMaxFrame) return Look::kElse;
  const auto deciding = static_cast<std::size_t>(std::min(length, 4));
  if (bytes.size() < kLengthSize + deciding) return Look::kTooShort;
  std::array<char, 4> code{};
  memcpy(code.data(), bytes.data() + kLengthSize, deciding);
  return NumberFrom<std::uint32_t>(code.data()) == RecordOf(code_) ? Look::kRequest : Look::kElse;
}

void ReadAhead::WholeRequestForRecord() {
  if (end_ == End::kConnecting && to_come_ > 1) {
    --to_come_;
    ++asked_;
  } else {
    ++replies_due_;
    stage_ = Stage::kRequests;
  }
}

// The master says something else than the next request. First what it has asked for before has to
// be answered, and a request of which the daemon has a part has to be completed. Then nothing more
// is asked for, and everything passes.
ReadAhead::Verdict ReadAhead::Deviate(std::size_t count) {
  if (asked_ > 0) return {Verdict::kWait};
  to_ask_ = InRequest() ? 1 : 0;
  if (to_ask_ > 0) return {Verdict::kWait};
  unwanted_ = true;
  stage_ = Stage::kOff;
  return {Verdict::kPass, count};
}

ReadAhead::Verdict ReadAhead::FromDaemon(std::string_view bytes, bool last) {
  if (bytes.empty()) return {Verdict::kPass};
  if (!from_daemon_.begun()) {
    if (withheld_ == 0) {
      if (stage_ == Stage::kOff) return {Verdict::kPass, bytes.size()};
    } else if (unwanted_) {
      if (bytes.size() < kRequestSize && !last) return {Verdict::kWait};
      dropping_ = bytes.size() < kRequestSize ||
                  NumberFrom<std::uint32_t>(bytes.data() + kLengthSize) == RecordOf(code_);
      if (!dropping_) withheld_ = 0;
    } else if (asked_ == 0) {
      return {Verdict::kWait};
    }
  }
  const bool drop = dropping_;
  Verdict verdict = PassFrame(from_daemon_, bytes, &ReadAhead::WholeFromDaemon);
  if (drop) verdict.what = Verdict::kDrop;
  return verdict;
}

void ReadAhead::WholeFromDaemon() {
  dropping_ = false;
  if (withheld_ > 0) {
    --withheld_;
    if (asked_ > 0) --asked_;
    return;
  }
  if (unanswered_ > 0) {
    --unanswered_;
    return;
  }
  if (texts_from_daemon_ < kDaemonsTexts) {
    // "OK|" and the host; with any other text the daemon ends the connection.
    const bool starts =
        from_daemon_.length() >= 3 && !memcmp(from_daemon_.head.data() + 4, "OK|", 3);
    if (++texts_from_daemon_ == kDaemonsTexts && !starts) SwitchOff();
    return;
  }
  if (stage_ == Stage::kOff) return;
  if (replies_due_ == 0 || from_daemon_.length() < 4) return SwitchOff();
  if (--replies_due_ == 0 && stage_ == Stage::kReply) FirstReply();
}

void ReadAhead::FirstReply() {
  const std::int32_t length = code_ == kGetWellData ? 12 : 16;
  if (from_daemon_.code() != code_ || from_daemon_.length() != length) return SwitchOff();
  const std::int64_t records = from_daemon_.Number(8);
  if (records <= 0) {
    stage_ = Stage::kRequests;
    return;
  }
  to_come_ = records;
  stage_ = Stage::kExchange;
  if (end_ == End::kConnecting) {
    withheld_ = records - 1;
  } else {
    to_ask_ = records - 1;
  }
  // A master that has said its end asks for no record.
  if (master_ended_) Deviate(0);
}

std::string_view ReadAhead::ToAsk() const {
  if (to_ask_ == 0) return {};
  const auto by_bytes = static_cast<std::int64_t>(
      std::min<std::uint64_t>(kMostBytesUnanswered / size_of_record_, kMostUnanswered));
  const std::int64_t most = std::max(by_bytes, std::int64_t{1});
  const std::int64_t more = most - unanswered_;
  // In batches: with a request for each answer, gate and daemon would wake each other for every
  // record.
  const std::int64_t batch = std::min({to_ask_, kRequestsAtOnce, (most + 3) / 4});
  if (!InRequest() && more < batch) return {};
  const std::int64_t now = std::min({to_ask_, kRequestsAtOnce, more});
  return Requests(code_).substr(asked_part_,
                                static_cast<std::size_t>(now) * kRequestSize - asked_part_);
}

void ReadAhead::Asked(std::size_t count) {
  asked_part_ += count;
  const auto whole = static_cast<std::int64_t>(asked_part_ / kRequestSize);
  to_ask_ -= whole;
  unanswered_ += whole;
  asked_part_ %= kRequestSize;
}

bool ReadAhead::IsOver() const {
  const bool over =
      stage_ == Stage::kOff || (last_exchange_ && stage_ == Stage::kRequests && unanswered_ == 0);
  return over && withheld_ == 0 && to_ask_ == 0;
}

// What was withheld before is still handed over as it is asked for.
void ReadAhead::SwitchOff() {
  stage_ = Stage::kOff;
}

}  // namespace gate
