#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "net/getbuf.h"
#include "net/sendbuf.h"

// The shapes that requests and replies are made of, beyond single values.

/// Bytes that a value takes in a reply, to size the reply before it is packed.
template <class Number>
constexpr std::int64_t kPackedSize = sizeof(Number);
std::int64_t PackedSize(const std::string& text);
std::int64_t PackedSize(const std::vector<double>& series);

/// Makes room for `size` bytes. Throws `std::length_error` for more than a frame can announce.
void MakeRoom(sendbuf& reply, std::int64_t size);

/// Appends the count, then the values.
void PackSeries(sendbuf& reply, const std::vector<double>& series);

/// The next field of a request. Throws `std::out_of_range` when there is none.
template <class T>
T UnPack(getbuf& fields) {
  T value{};
  fields.UnPack(value);
  return value;
}

/// Reads `n` texts or numbers; none when `n` is not positive. Takes no memory for more of them
/// than the rest of the buffer can hold. Throws `std::out_of_range` when it ends before.
std::vector<std::string> UnPackTexts(getbuf& fields, int n);
std::vector<double> UnPackNumbers(getbuf& fields, int n);

/// Reads a count, then as many groups, each of which is a count and as many elements, read by
/// `unpack`.
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
