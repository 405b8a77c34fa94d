#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "tests/support/bytes.h"

/// What a daemon answers to a master, as the page on the protocol says, with replies of no meaning:
/// numbers that count up, so that one that is lost, doubled or moved shows.
class DaemonModel {
 public:
  /// `verdict` is the answer to the handshake.
  explicit DaemonModel(std::string verdict = "OK|node17") : verdict_(std::move(verdict)) {}

  /// What it says before anything has come.
  static std::string Greeting() { return PackedText("3"); }

  /// Takes more of the master's bytes; returns what it says to them.
  std::string Take(std::string_view bytes) {
    rest_ += bytes;
    std::string said;
    while (!ended_) {
      const auto length = NumberAt<std::int32_t>(rest_);
      if (rest_.size() < 4) break;
      if (texts_ == 8 && (length <= 0 || length > 65536)) {
        ended_ = true;
        break;
      }
      const std::size_t size = 4 + static_cast<std::size_t>(std::max(length, 0));
      if (rest_.size() < size) break;
      std::string body = rest_.substr(4, size - 4);
      rest_.erase(0, size);
      if (texts_ < 8) {
        if (++texts_ == 8) said += PackedText(verdict_);
        ended_ = texts_ == 8 && verdict_.substr(0, 3) != "OK|";
      } else {
        body.resize(
            std::max<std::size_t>(body.size(), 12));  // A short one is read as if zeros followed.
        said += Serve(body);
      }
    }
    return said;
  }

  bool ended() const { return ended_; }

 private:
  std::string Serve(const std::string& body) {
    const auto code = NumberAt<std::uint32_t>(body);
    if (records_ > 0) {
      if (code != record_) {
        ended_ = true;
        return "";
      }
      --records_;
      return Reply(record_, std::string(record_ == 4097 ? 200 : 20, 'r') + Image(++counter_));
    }
    if (code == 65520) {
      ended_ = true;
      return Reply(code, "");
    }
    if (code == 10 || code == 16) {
      const auto wells = NumberAt<std::int32_t>(body, code == 10 ? 4 : 8);
      records_ = std::clamp(wells, 0, 40);
      record_ = code == 10 ? 4096 : 4097;
      return Reply(code, Image(records_) + (code == 16 ? Image(10) : ""));
    }
    return code >= 1 && code <= 20 ? Reply(code, Image(++counter_)) : "";
  }

  static std::string Reply(std::uint32_t code, const std::string& values) {
    return PackedText(Image(code) + values + Image(0));
  }

  const std::string verdict_;
  std::string rest_;
  int texts_ = 0;
  int records_ = 0;
  std::uint32_t record_ = 0;
  std::uint32_t counter_ = 0;
  bool ended_ = false;
};

/// The handshake of a master that claims to be `user`.
inline std::string Handshake(const std::string& user = "alice") {
  std::string texts;
  for (const char* text : {"3", "0", "PATH", "CASE", "1", "20172"}) texts += PackedText(text);
  return texts + PackedText(user) + PackedText("0");
}
