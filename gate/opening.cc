#include "gate/opening.h"

#include <algorithm>

namespace gate {

namespace {

constexpr std::string_view kMagic = "vkgate";
constexpr std::uint16_t kVersion = 1;
constexpr std::uint32_t kAhead = 1;
constexpr std::uint32_t kPlain = 2;

// The number that stands for "accepted" in the place of a reason.
constexpr std::uint32_t kAccepted = 0;

void PutId(std::string& bytes, const LinkId& id) {
  bytes.append(reinterpret_cast<const char*>(id.bytes.data()), id.bytes.size());
}

LinkId IdFrom(const char* bytes) {
  LinkId id;
  std::copy_n(bytes, id.bytes.size(), reinterpret_cast<char*>(id.bytes.data()));
  return id;
}

std::string Head() {
  std::string bytes(kMagic);
  PutNumber(bytes, kVersion);
  return bytes;
}

// Every version begins with the magic and its number, so that each can refuse all others.
bool IsHead(std::string_view bytes, std::size_t size, Reason& reason) {
  reason = Reason::kBrokenRules;
  if (bytes.size() < size || bytes.substr(0, kMagic.size()) != kMagic) return false;
  reason = Reason::kVersion;
  return NumberFrom<std::uint16_t>(bytes.data() + kMagic.size()) == kVersion;
}

}  // namespace

const char* TextOf(Reason reason) {
  switch (reason) {
    case Reason::kFinished:
      return "both ends have finished";
    case Reason::kBrokenRules:
      return "the other gate broke the rules of the stream";
    case Reason::kVersion:
      return "the other gate speaks another version of the stream";
    case Reason::kUnknown:
      return "there is no such link";
    case Reason::kOldEpoch:
      return "a later connection has taken the link over";
    case Reason::kEnded:
      return "an administrator has ended it";
    case Reason::kNotValid:
      return "the certificate is no longer accepted";
    case Reason::kHeldTooLong:
      return "the link was broken for too long";
    case Reason::kTooMany:
      return "there are too many links";
    case Reason::kNoService:
      return "the serving gate cannot reach the daemon";
    case Reason::kBusy:
      return "the serving gate is busy";
    case Reason::kNoProof:
      return "the master has not proven who it is in time";
  }
  return "an unknown reason";
}

std::string BytesOf(const Opening& opening) {
  std::string bytes = Head();
  PutNumber(bytes, opening.ahead ? kAhead : 0U);
  PutNumber(bytes, 0U);
  PutId(bytes, opening.id);
  PutNumber(bytes, opening.epoch);
  PutNumber(bytes, opening.received);
  return bytes;
}

std::variant<Opening, Reason> ReadOpening(std::string_view bytes) {
  Reason reason{};
  if (!IsHead(bytes, Opening::kSize, reason)) return reason;
  Opening opening;
  opening.ahead = (NumberFrom<std::uint32_t>(bytes.data() + 8) & kAhead) != 0;
  opening.id = IdFrom(bytes.data() + 16);
  opening.epoch = NumberFrom<std::uint64_t>(bytes.data() + 32);
  opening.received = NumberFrom<std::uint64_t>(bytes.data() + 40);
  if (opening.IsNew() && (opening.received != 0 || opening.id != LinkId{})) {
    return Reason::kBrokenRules;
  }
  return opening;
}

std::string BytesOf(const Answer& answer) {
  std::string bytes = Head();
  PutNumber(bytes, answer.accepted ? kAccepted : 1U + static_cast<unsigned>(answer.refusal));
  PutNumber(bytes, (answer.ahead ? kAhead : 0U) | (answer.plain ? kPlain : 0U));
  PutId(bytes, answer.id);
  PutNumber(bytes, answer.received);
  return bytes;
}

std::string Refusal(Reason reason) {
  return BytesOf(Answer{.refusal = reason});
}

std::variant<Answer, Reason> ReadAnswer(std::string_view bytes) {
  Reason reason{};
  if (!IsHead(bytes, Answer::kSize, reason)) return reason;
  Answer answer;
  const auto verdict = NumberFrom<std::uint32_t>(bytes.data() + 8);
  if (verdict > 1U + static_cast<unsigned>(kLastReason)) return Reason::kBrokenRules;
  answer.accepted = verdict == kAccepted;
  if (!answer.accepted) answer.refusal = static_cast<Reason>(verdict - 1);
  const auto flags = NumberFrom<std::uint32_t>(bytes.data() + 12);
  answer.ahead = (flags & kAhead) != 0;
  answer.plain = (flags & kPlain) != 0;
  answer.id = IdFrom(bytes.data() + 16);
  answer.received = NumberFrom<std::uint64_t>(bytes.data() + 32);
  return answer;
}

}  // namespace gate
