#pragma once

#include <array>
#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

// The first bytes of a connection between two gates, in both directions, and the reasons for which
// a link ends. docs/gate-protocol.md has them byte by byte.

namespace gate {

/// A time of a clock that goes on while the machine sleeps (CLOCK_BOOTTIME). Nothing of the stream
/// reads a clock: callers pass the time in.
using Time = std::chrono::milliseconds;

/// What a link is found by when it is resumed: random, made by the serving gate, never used twice.
/// Who knows it still needs the certificate.
struct LinkId {
  std::array<unsigned char, 16> bytes{};
  // NOLINTNEXTLINE(modernize-use-nullptr): it means the 0 of the comparison itself
  auto operator<=>(const LinkId&) const = default;
};

/// Why a link was refused, or has ended. The numbers are those on the wire.
enum class Reason : std::uint8_t {
  kFinished = 0,     ///< both directions have ended in order and all bytes have been taken
  kBrokenRules = 1,  ///< the other end has sent what these rules do not allow
  kVersion = 2,      ///< the other end speaks another version
  kUnknown = 3,      ///< there is no such link, or it is not of these names
  kOldEpoch = 4,     ///< a later connection has this link
  kEnded = 5,        ///< an administrator has ended the link or its gate
  kNotValid = 6,     ///< the certificate is no longer accepted
  kHeldTooLong = 7,  ///< the link was broken for longer than it is held
  kTooMany = 8,      ///< as many links as are allowed
  kNoService = 9,    ///< the serving gate cannot reach what is behind it
  kBusy = 10,        ///< not now: the only one after which it makes sense to come again
  kNoProof = 11,     ///< nobody has proven in time to be the user that the master claims
};

constexpr Reason kLastReason = Reason::kNoProof;

/// A sentence without a full stop, for a log.
const char* TextOf(Reason reason);

/// Whether a connecting gate that is refused for this reason keeps its link and tries again.
inline bool ComesAgain(Reason reason) {
  return reason == Reason::kBusy;
}

/// The connecting gate's first bytes.
struct Opening {
  static constexpr std::size_t kSize = 48;

  bool ahead = false;          ///< records may be asked for ahead (read_ahead.h)
  LinkId id{};                 ///< zeros for a new link
  std::uint64_t epoch = 0;     ///< 0 for a new link, larger with every attempt to resume it
  std::uint64_t received = 0;  ///< the bytes that have come so far; the end counts as one

  bool IsNew() const { return epoch == 0; }
};

std::string BytesOf(const Opening& opening);

/// Reads the first Opening::kSize bytes of a connection; the Reason to refuse it when they are no
/// opening, or one of another version. kBrokenRules: the other end is no gate at all, and is best
/// left without an answer.
std::variant<Opening, Reason> ReadOpening(std::string_view bytes);

/// The serving gate's first bytes.
struct Answer {
  static constexpr std::size_t kSize = 40;

  Reason refusal = Reason::kFinished;  ///< read only when not accepted
  bool accepted = false;
  bool ahead = false;  ///< records are asked for ahead
  bool plain = false;  ///< the frame that ends the reading ahead is understood
  LinkId id{};
  std::uint64_t received = 0;
};

std::string BytesOf(const Answer& answer);

/// The whole answer to an opening that is refused.
std::string Refusal(Reason reason);

/// Reads Answer::kSize bytes; kBrokenRules or kVersion when they are no answer.
std::variant<Answer, Reason> ReadAnswer(std::string_view bytes);

/// Numbers as they stand in the frames: little-endian.
template <class T>
void PutNumber(std::string& bytes, T number) {
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    bytes.push_back(static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * i)));
  }
}
template <class T>
T NumberFrom(const char* bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = sizeof(T); i-- > 0;) {
    number = number << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return static_cast<T>(number);
}

}  // namespace gate
