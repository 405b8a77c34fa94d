#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace master {

/// A request's body under construction: its code, then the values in the order of the calls.
///
/// The daemon's sendbuf would not do: it sends as well, and cannot pack a request's one-byte flag.
class RequestWriter {
 public:
  explicit RequestWriter(std::uint32_t code);

  /// Both take four bytes. Count() throws RequestTooLong for more than an int can hold.
  void Int(int value);
  void Count(std::size_t count);

  void Double(double value);

  /// One byte, 0 or 1. In replies a flag is an int.
  void FlagByte(bool value);

  /// A 32-bit length and the bytes.
  void String(const std::string& text);

  /// The elements, without a count.
  void Strings(const std::vector<std::string>& texts);
  void Doubles(const std::vector<double>& values);

  const std::string& body() const { return body_; }

 private:
  void Append(const void* bytes, std::size_t size);

  std::string body_;
};

}  // namespace master
