#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace gate {

using Json = nlohmann::ordered_json;

/// The gate's log: a JSON object a line, all ASCII. A text that a peer has sent stands in a JSON
/// string with everything else escaped, so none can end its line, begin another, or command a
/// terminal; bytes that are no UTF-8 are replaced, and texts are cut at 300 bytes.
///
/// Whoever does not read what is written to standard output holds no link: lines are then left out,
/// and the next one that leaves says how many.
class Journal {
 public:
  /// Writes to standard output.
  Journal() = default;

  /// Writes nothing.
  enum Nowhere { kNowhere };
  explicit Journal(Nowhere /*nowhere*/) : descriptor_(-1) {}

  /// Writes to the end of `file`. Throws std::runtime_error when it cannot be opened.
  explicit Journal(std::string file);
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;
  ~Journal();

  /// Writes {"time":...,"event":`event`, ...`fields`}.
  void Write(const char* event, const Json& fields);

  /// Goes on in a new file of the same name, since a rotation has moved the present one away. Stays
  /// with the present one when the new one cannot be opened.
  void Reopen();

 private:
  bool WriteLine(const std::string& line) const;

  std::string file_;
  int descriptor_ = 1;
  std::uint64_t left_out_ = 0;
};

/// Replaces the content of `file` by `text` at once, through FILE.new: a link that somebody has put
/// there is removed, not followed. False when the file could not be replaced.
bool ReplaceWhole(const std::string& file, const std::string& text);

/// The document on one line, all ASCII; bytes that are no UTF-8 are replaced.
std::string TextOf(const Json& document);

/// "2026-11-22T14:10:05.123Z" for milliseconds since 1970.
std::string TimeText(std::int64_t milliseconds);

}  // namespace gate
