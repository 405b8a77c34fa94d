#include "relay/packing.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>

namespace {

// For how many elements, of at least `size` bytes each, to make room when the master announces `n`.
std::size_t Room(const getbuf& fields, int n, std::int64_t size) {
  return static_cast<std::size_t>(std::clamp<std::int64_t>(n, 0, fields.remaining() / size));
}

}  // namespace

std::int64_t PackedSize(const std::string& text) {
  return kPackedSize<int> + static_cast<std::int64_t>(text.size());
}

std::int64_t PackedSize(const std::vector<double>& series) {
  return kPackedSize<int> + kPackedSize<double> * static_cast<std::int64_t>(series.size());
}

void MakeRoom(sendbuf& reply, std::int64_t size) {
  if (size > std::numeric_limits<int>::max()) throw std::length_error("Reply too large");
  reply.PrePack(static_cast<int>(size));
}

void PackSeries(sendbuf& reply, const std::vector<double>& series) {
  const auto n = static_cast<int>(series.size());
  reply.Pack(n);
  reply.Pack(series.data(), n);
}

std::vector<std::string> UnPackTexts(getbuf& fields, int n) {
  std::vector<std::string> texts;
  texts.reserve(Room(fields, n, 4));
  for (int i = 0; i < n; ++i) fields.UnPack(texts.emplace_back());
  return texts;
}

std::vector<double> UnPackNumbers(getbuf& fields, int n) {
  std::vector<double> numbers(Room(fields, n, 8));
  fields.UnPack(numbers.data(), n);
  return numbers;
}
