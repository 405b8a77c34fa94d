#include "inspect/address_ranges.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <utility>

#include "base/number.h"

namespace inspect {
namespace {

constexpr std::size_t kMostShown = 4;

std::optional<std::uint32_t> ReadAddress(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

std::string AddressText(std::uint32_t address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  const in_addr binary{htonl(address)};
  return inet_ntop(AF_INET, &binary, text.data(), text.size());
}

std::uint32_t Mask(int length) {
  return length <= 0 ? 0 : ~std::uint32_t{0} << (32 - length);
}

}  // namespace

AddressRanges Merged(AddressRanges ranges) {
  std::ranges::sort(ranges, {}, &AddressRange::first);
  AddressRanges merged;
  for (const AddressRange& range : ranges) {
    if (!merged.empty() && range.first <= std::uint64_t{merged.back().last} + 1) {
      merged.back().last = std::max(merged.back().last, range.last);
    } else {
      merged.push_back(range);
    }
  }
  return merged;
}

AddressRanges Common(const AddressRanges& a, const AddressRanges& b) {
  AddressRanges common;
  for (const AddressRange& one : a) {
    for (const AddressRange& other : b) {
      const AddressRange both{std::max(one.first, other.first), std::min(one.last, other.last)};
      if (both.first <= both.last) common.push_back(both);
    }
  }
  return Merged(std::move(common));
}

AddressRanges Minus(const AddressRanges& ranges, const AddressRanges& without) {
  AddressRanges rest;
  std::uint64_t next = 0;
  for (const AddressRange& gap : Merged(without)) {
    if (gap.first > next) rest.push_back({static_cast<std::uint32_t>(next), gap.first - 1});
    next = std::uint64_t{gap.last} + 1;
  }
  constexpr std::uint32_t highest = ~std::uint32_t{0};
  if (next <= highest) rest.push_back({static_cast<std::uint32_t>(next), highest});
  return Common(ranges, rest);
}

std::uint64_t Size(const AddressRanges& ranges) {
  std::uint64_t size = 0;
  for (const AddressRange& range : ranges) size += std::uint64_t{range.last} - range.first + 1;
  return size;
}

std::string Text(const AddressRanges& ranges) {
  std::string text;
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    if (i == kMostShown) return text + " and others";
    const auto [first, last] = ranges[i];
    int length = 32;
    while (length > 0 && (first | ~Mask(length)) != last) --length;
    text += (i == 0 ? "" : ", ") + AddressText(first);
    if (first == last) continue;
    const bool network = (first & Mask(length)) == first && (first | ~Mask(length)) == last;
    text += network ? "/" + std::to_string(length) : "-" + AddressText(last);
  }
  return text;
}

std::optional<AddressRange> ReadRange(const std::string& text) {
  const std::size_t sign = text.find_first_of("/-");
  const auto first = ReadAddress(text.substr(0, sign));
  if (!first || sign == std::string::npos) {
    return first ? std::optional(AddressRange{*first, *first}) : std::nullopt;
  }
  const std::string rest = text.substr(sign + 1);
  if (text[sign] == '-') {
    const auto last = ReadAddress(rest);
    return last && *first <= *last ? std::optional(AddressRange{*first, *last}) : std::nullopt;
  }
  const long length = NumberIn(rest.c_str());
  if (rest.empty() || length < 0 || length > 32) return std::nullopt;
  const std::uint32_t mask = Mask(static_cast<int>(length));
  return AddressRange{*first & mask, *first | ~mask};
}

}  // namespace inspect
