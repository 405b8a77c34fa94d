#include "gate/claim.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "base/number.h"
#include "net/master_link.h"

namespace gate {
namespace {

constexpr int kLengthBytes = 4;
constexpr std::size_t kLongestUser = 256;
constexpr std::size_t kMostNames = 4;

}  // namespace

Claim::State Claim::Read(std::string_view bytes) {
  while (!bytes.empty() && state_ == State::kOpen) {
    std::size_t taken = 1;
    if (length_bytes_ < kLengthBytes) {
      TakeLength(bytes[0]);
    } else {
      taken = TakeText(bytes);
    }
    seen_ += taken;
    bytes.remove_prefix(taken);
    if (length_bytes_ == kLengthBytes && missing_ == 0 && state_ == State::kOpen) EndLine();
    if (seen_ > limit_) state_ = State::kTooLong;
  }
  return state_;
}

void Claim::TakeLength(char byte) {
  length_ |= static_cast<std::uint32_t>(static_cast<unsigned char>(byte)) << (8 * length_bytes_);
  if (++length_bytes_ < kLengthBytes) return;
  const auto length = static_cast<std::int32_t>(length_);
  if (length > master_link::kMaxLine) state_ = State::kTooLong;
  missing_ = static_cast<std::size_t>(std::max(length, 0));
}

std::size_t Claim::TakeText(std::string_view bytes) {
  const std::string_view text = bytes.substr(0, std::min(missing_, bytes.size()));
  if (line_ == 0) version_ += text;
  if (line_ == kUserLine) user_ += text.substr(0, kLongestUser - user_.size());
  missing_ -= text.size();
  return text.size();
}

void Claim::EndLine() {
  if (line_ == 0 && NumberIn(version_.c_str()) == 0) {
    version_bytes_ = seen_;
    state_ = State::kNotAMaster;
  } else if (line_ == kUserLine) {
    state_ = State::kClaimed;
  }
  ++line_;
  length_bytes_ = 0;
  length_ = 0;
}

std::string LineFrame(std::string_view text) {
  std::string frame;
  for (int i = 0; i < kLengthBytes; ++i) frame += static_cast<char>(text.size() >> (8 * i) & 0xFF);
  return frame.append(text);
}

std::string RefusalFrames(std::string_view text) {
  return LineFrame(kDaemonVersion) + LineFrame(text);
}

std::string Printable(std::string_view text) {
  std::string printable;
  for (const char c : text) {
    if (c >= 0x20 && c < 0x7F) {
      printable += c;
      continue;
    }
    std::array<char, 8> escape{};
    std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned char>(c));
    printable += escape.data();
  }
  return printable;
}

std::string NotProvenText(std::string_view claim, const CertificateNames& proven) {
  std::string text = "Windows user '" + Printable(claim) + "' is not proven by the certificate, ";
  if (proven.names.empty()) return text + "which has no name that could prove one";
  text += "which is that of ";
  for (std::size_t i = 0; i < std::min(proven.names.size(), kMostNames); ++i) {
    text += (i > 0 ? ", " : "") + Printable(Text(proven.names[i]));
  }
  return text + (proven.names.size() > kMostNames ? " and others" : "");
}

}  // namespace gate
