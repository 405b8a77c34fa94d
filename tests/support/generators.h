#pragma once

#include <rapidcheck/gtest.h>

#include <bit>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

/// Values for property tests. A property that fails prints the values, shrunk, and the line for
/// the environment variable RC_PARAMS that tries them again; RC_PARAMS="max_success=10000" tries
/// longer.
namespace any {

/// A double by its bits: not-a-numbers of every payload, infinities, both zeros, and numbers as
/// they come in practice.
inline rc::Gen<double> Double() {
  using Limits = std::numeric_limits<double>;
  return rc::gen::oneOf(
      rc::gen::map(rc::gen::arbitrary<std::uint64_t>(),
                   [](std::uint64_t bits) { return std::bit_cast<double>(bits); }),
      rc::gen::arbitrary<double>(),
      rc::gen::element(0.0, -0.0, Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(),
                       Limits::denorm_min(), Limits::max(), Limits::lowest()));
}

/// What == cannot compare: a not-a-number, or a negative zero.
inline std::uint64_t Bits(double value) {
  return std::bit_cast<std::uint64_t>(value);
}
inline std::vector<std::uint64_t> Bits(const std::vector<double>& values) {
  std::vector<std::uint64_t> bits;
  bits.reserve(values.size());
  for (const double value : values) bits.push_back(Bits(value));
  return bits;
}

/// Any bytes, zeros among them.
inline rc::Gen<std::string> Bytes() {
  return rc::gen::container<std::string>(
      rc::gen::oneOf(rc::gen::arbitrary<char>(), rc::gen::element('\0', 'A', ' ', '\n')));
}

/// A text of these characters.
inline rc::Gen<std::string> TextOf(const std::string& characters) {
  return rc::gen::container<std::string>(rc::gen::elementOf(characters));
}

/// A name as wells have it, of so few letters that names come twice.
inline rc::Gen<std::string> Name() {
  return rc::gen::resize(2, TextOf("AB"));
}

inline rc::Gen<std::vector<std::string>> Names() {
  return rc::gen::container<std::vector<std::string>>(Name());
}

inline rc::Gen<std::vector<double>> Doubles() {
  return rc::gen::container<std::vector<double>>(Double());
}

}  // namespace any
