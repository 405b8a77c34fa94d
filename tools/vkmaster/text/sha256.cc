#include "tools/vkmaster/text/sha256.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

#include <fmt/core.h>

namespace vkmaster {
namespace {

constexpr std::size_t kBlock = 64;

using State = std::array<std::uint32_t, 8>;

// The first 32 bits after the point of the roots of the first primes: the standard's constants.
template <std::size_t kCount, typename Root>
std::array<std::uint32_t, kCount> Fractions(const Root& root) {
  std::array<std::uint32_t, kCount> fractions{};
  std::size_t found = 0;
  for (int n = 2; found < kCount; ++n) {
    bool prime = true;
    for (int divisor = 2; divisor * divisor <= n; ++divisor) prime = prime && n % divisor != 0;
    if (!prime) continue;
    const long double value = root(static_cast<long double>(n));
    fractions[found++] = static_cast<std::uint32_t>((value - std::floor(value)) * 4294967296.0L);
  }
  return fractions;
}

void Add(State& state, std::string_view block) {
  static const auto kRound = Fractions<64>([](long double n) { return std::cbrt(n); });
  std::array<std::uint32_t, 64> w{};
  for (std::size_t i = 0; i < kBlock; ++i) {
    w[i / 4] = w[i / 4] << 8 | static_cast<unsigned char>(block[i]);
  }
  for (std::size_t i = 16; i < w.size(); ++i) {
    const std::uint32_t a = w[i - 15];
    const std::uint32_t b = w[i - 2];
    w[i] = w[i - 16] + (std::rotr(a, 7) ^ std::rotr(a, 18) ^ a >> 3) + w[i - 7] +
           (std::rotr(b, 17) ^ std::rotr(b, 19) ^ b >> 10);
  }
  State s = state;
  for (std::size_t i = 0; i < w.size(); ++i) {
    const std::uint32_t first = s[7] +
                                (std::rotr(s[4], 6) ^ std::rotr(s[4], 11) ^ std::rotr(s[4], 25)) +
                                ((s[4] & s[5]) ^ (~s[4] & s[6])) + kRound[i] + w[i];
    const std::uint32_t second = (std::rotr(s[0], 2) ^ std::rotr(s[0], 13) ^ std::rotr(s[0], 22)) +
                                 ((s[0] & s[1]) ^ (s[0] & s[2]) ^ (s[1] & s[2]));
    s = {first + second, s[0], s[1], s[2], s[3] + first, s[4], s[5], s[6]};
  }
  for (std::size_t i = 0; i < s.size(); ++i) state[i] += s[i];
}

}  // namespace

std::string Sha256(std::string_view bytes) {
  static const State kStart = Fractions<8>([](long double n) { return std::sqrt(n); });
  State state = kStart;
  std::string rest(bytes.substr(bytes.size() / kBlock * kBlock));
  for (std::size_t at = 0; at + kBlock <= bytes.size(); at += kBlock) {
    Add(state, bytes.substr(at, kBlock));
  }
  rest += '\x80';
  while (rest.size() % kBlock != kBlock - 8) rest += '\0';
  const std::uint64_t bits = std::uint64_t{bytes.size()} * 8;
  for (int shift = 56; shift >= 0; shift -= 8) rest += static_cast<char>(bits >> shift & 0xFF);
  for (std::size_t at = 0; at < rest.size(); at += kBlock) {
    Add(state, std::string_view(rest).substr(at, kBlock));
  }
  std::string text;
  for (const std::uint32_t word : state) text += fmt::format("{:08x}", word);
  return text;
}

}  // namespace vkmaster
