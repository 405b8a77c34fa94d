#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace inspect {

/// IPv4 addresses from the first to the last.
struct AddressRange {
  std::uint32_t first = 0;
  std::uint32_t last = 0;

  friend bool operator==(const AddressRange&, const AddressRange&) = default;
};

using AddressRanges = std::vector<AddressRange>;

/// The same addresses, in order, in as few ranges as possible.
AddressRanges Merged(AddressRanges ranges);

/// What is in `ranges` and not in `without`, and what is in both.
AddressRanges Minus(const AddressRanges& ranges, const AddressRanges& without);
AddressRanges Common(const AddressRanges& a, const AddressRanges& b);

/// How many addresses these are.
std::uint64_t Size(const AddressRanges& ranges);

/// "192.0.2.0/28", "192.0.2.1", "192.0.2.1-192.0.2.9", with commas between; the first few.
std::string Text(const AddressRanges& ranges);

/// Reads one range in one of these forms; none when `text` has another.
std::optional<AddressRange> ReadRange(const std::string& text);

}  // namespace inspect
