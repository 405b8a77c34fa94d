#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace master {

/// Reads the values of a reply in their order. Nothing is read past the reply's end, and no memory
/// is taken for a list that the bytes left cannot hold.
///
/// Every call throws ProtocolError, whose text begins with what the reply answers, when the reply
/// is too short for the value or a count is negative.
class ReplyReader {
 public:
  /// `reply` is a frame's body, stays the caller's, and has to begin with `code`. Errors say that
  /// it answers `request`.
  ReplyReader(std::string_view reply, std::uint32_t code, std::string request);

  int Int();
  double Double();

  /// An int of which any value but 0 is true.
  bool Flag() { return Int() != 0; }

  std::string String();

  /// A count of elements of at least `size` bytes each, for which the rest of the reply has room.
  std::size_t Count(std::size_t size);

  std::vector<std::string> Strings(std::size_t count);

  /// A count and as many doubles.
  std::vector<double> Series();

  /// The acknowledgement, which has to be 0 and the last value.
  void End();

 private:
  std::string_view Take(std::size_t size, const char* what);
  [[noreturn]] void Fail(const std::string& what) const;

  std::string_view rest_;
  std::string request_;
};

}  // namespace master
