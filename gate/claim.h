#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "gate/certificate_names.h"

namespace gate {

/// Reads along in the master's half of the handshake, in whatever pieces it comes, until it knows
/// which Windows user the master claims to be. It keeps only the version and that name: the caller
/// keeps all bytes from the daemon until the claim has been judged.
///
/// Nothing of a handshake may reach the daemon before that. The daemon takes the lines that are
/// missing when a connection ends for empty ones: after a version alone it would start the script
/// for the user "", whom its file may map to somebody.
///
/// The lines are cut as the daemon cuts them (Socket::ReceiveLine), so both take the same line for
/// the user's. What follows that line cannot be another claim: the daemon reads one.
class Claim {
 public:
  enum class State {
    kOpen,        ///< more bytes are needed
    kClaimed,     ///< user() is claimed
    kNotAMaster,  ///< the version is 0 or no number, at which the daemon closes the connection
    kTooLong,     ///< a line that the daemon would never take, or more bytes than may wait
  };

  /// `limit`: how many bytes there may be up to the end of the user's line.
  explicit Claim(std::size_t limit) : limit_(limit) {}

  /// Takes the master's next bytes. Whatever comes once the state is another than kOpen is not
  /// looked at.
  State Read(std::string_view bytes);

  State state() const { return state_; }

  /// Cut after the 256th byte: a longer name is nobody's.
  const std::string& user() const { return user_; }

  /// In the state kNotAMaster: the bytes of the version's line, its length included, which are all
  /// that the daemon may get.
  std::size_t version_bytes() const { return version_bytes_; }

  /// How many bytes were looked at.
  std::size_t seen() const { return seen_; }

 private:
  static constexpr int kUserLine = 6;  // after version, cluster, path, root, processes, simulator

  void TakeLength(char byte);
  std::size_t TakeText(std::string_view bytes);
  void EndLine();

  std::size_t limit_;
  State state_ = State::kOpen;
  int line_ = 0;
  int length_bytes_ = 0;  // how many of the length field have come
  std::uint32_t length_ = 0;
  std::size_t missing_ = 0;  // bytes of the line's text that have not come
  std::size_t seen_ = 0;
  std::size_t version_bytes_ = 0;
  std::string version_;
  std::string user_;
};

/// The daemon's first line of the handshake.
constexpr std::string_view kDaemonVersion = "3";

/// A line of the handshake as it travels: its length, then the text.
std::string LineFrame(std::string_view text);

/// What the daemon says to a master that it refuses: its version, then `text`, which must not begin
/// with "OK|".
std::string RefusalFrames(std::string_view text);

/// `text` with everything but printable ASCII as \xNN.
std::string Printable(std::string_view text);

/// What a master is told whose claim is not proven: "Windows user 'bob' is not proven by the
/// certificate, which is that of upn:alice@example.com". ASCII; what else a claim holds is shown as
/// \xNN.
std::string NotProvenText(std::string_view claim, const CertificateNames& proven);

}  // namespace gate
