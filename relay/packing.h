#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "net/getbuf.h"
#include "net/sendbuf.h"

// The lists that requests and replies consist of. sendbuf and getbuf pack and unpack single values.

/// The bytes that a value takes in a reply. Handlers add them up and make room for the whole reply
/// before they pack it, since every growth of a sendbuf copies what is there.
template <class Number>
constexpr std::int64_t kPackedSize = sizeof(Number);
std::int64_t PackedSize(const std::string& text);
std::int64_t PackedSize(const std::vector<double>& series);

/// Makes room for `size` bytes in `reply`. Throws `std::length_error` for more than the 32-bit
/// length of a frame can announce.
void MakeRoom(sendbuf& reply, std::int64_t size);

/// Appends the count, then the values.
void PackSeries(sendbuf& reply, const std::vector<double>& series);

/// The next field of a request. Throws `std::out_of_range` where the receive buffer ends.
template <class T>
T UnPack(getbuf& fields) {
  T value{};
  fields.UnPack(value);
  return value;
}

/// Reads `n` texts or numbers; none when `n` is not positive. Takes no memory for more of them
/// than the rest of the buffer can hold. Throws `std::out_of_range` when the buffer ends too early.
std::vector<std::string> UnPackTexts(getbuf& fields, int n);
std::vector<double> UnPackNumbers(getbuf& fields, int n);

/// Reads a count of groups, then the groups. Each is a count and as many elements, which `unpack`
/// (UnPackTexts or UnPackNumbers) reads.
template <class List>
std::vector<List> UnPackGroups(getbuf& fields, List (*unpack)(getbuf&, int)) {
  const auto groups = UnPack<int>(fields);
  std::vector<List> lists;
  for (int group = 0; group < groups; ++group) {
    const auto n = UnPack<int>(fields);
    lists.push_back(unpack(fields, n));
  }
  return lists;
}
