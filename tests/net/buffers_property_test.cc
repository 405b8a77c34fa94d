#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "net/getbuf.h"
#include "net/sendbuf.h"
#include "net/socket.h"
#include "tests/support/bytes.h"
#include "tests/support/generators.h"
#include "tests/support/guarded_bytes.h"
#include "tests/support/socket_pair.h"

namespace {

struct Characters {
  std::string bytes;
};
using Typed = std::variant<int, double, std::vector<int>, std::vector<double>, std::vector<float>,
                           Characters, std::string>;

struct Value {
  Typed typed;
};

rc::Gen<Value> AnyValue() {
  return rc::gen::construct<Value>(rc::gen::oneOf(
      rc::gen::construct<Typed>(rc::gen::arbitrary<int>()),
      rc::gen::construct<Typed>(any::Double()),
      rc::gen::construct<Typed>(rc::gen::arbitrary<std::vector<int>>()),
      rc::gen::construct<Typed>(any::Doubles()),
      rc::gen::construct<Typed>(rc::gen::arbitrary<std::vector<float>>()),
      rc::gen::map(any::Bytes(),
                   [](std::string bytes) { return Typed(Characters{std::move(bytes)}); }),
      rc::gen::construct<Typed>(any::Bytes())));
}
rc::Gen<std::vector<Value>> AnyValues() {
  return rc::gen::container<std::vector<Value>>(AnyValue());
}

template <class T>
void PackValue(sendbuf& buffer, const T& value) {
  buffer.Pack(value);
}
template <class T>
void PackValue(sendbuf& buffer, const std::vector<T>& values) {
  buffer.Pack(values.data(), static_cast<int>(values.size()));
}
void PackValue(sendbuf& buffer, const Characters& value) {
  buffer.Pack(value.bytes.data(), static_cast<int>(value.bytes.size()));
}

// The bytes of a value on the wire, written without the code under test.
using ::Image;
template <class T>
std::string Image(const std::vector<T>& values) {
  std::string bytes;
  for (const T& value : values) bytes += Image(value);
  return bytes;
}
std::string Image(const Characters& value) {
  return value.bytes;
}
std::string Image(const std::string& value) {
  return PackedText(value);
}

std::string Image(const std::vector<Value>& values) {
  std::string bytes;
  for (const Value& value : values) {
    bytes += std::visit([](const auto& typed) { return Image(typed); }, value.typed);
  }
  return bytes;
}

std::ostream& operator<<(std::ostream& out, const Value& value) {
  return out << Hex(std::visit([](const auto& typed) { return Image(typed); }, value.typed));
}

sendbuf Packed(const std::vector<Value>& values) {
  sendbuf buffer;
  for (const Value& value : values) {
    std::visit([&buffer](const auto& typed) { PackValue(buffer, typed); }, value.typed);
  }
  return buffer;
}

// What the master receives: the frame of `buffer`.
std::string Sent(const sendbuf& buffer, unsigned code) {
  SocketPair pair;
  Socket socket(pair.ours.Release());
  const int large = 1 << 22;
  setsockopt(pair.peer.get(), SOL_SOCKET, SO_RCVBUF, &large, sizeof(large));
  RC_ASSERT(buffer.Send(&socket, code) == 0);
  socket.Close();
  return ReadExactly(pair.peer.get(), 1 << 22);
}

// Unpacks a value of the same kind and size; whether it is the same.
bool ComesBack(getbuf& fields, int value) {
  int got = ~value;
  fields.UnPack(got);
  return got == value;
}
bool ComesBack(getbuf& fields, double value) {
  double got = 0;
  fields.UnPack(got);
  return any::Bits(got) == any::Bits(value);
}
template <class T>
bool ComesBack(getbuf& fields, const std::vector<T>& values) {
  std::vector<T> got(values.size());
  fields.UnPack(got.data(), static_cast<int>(got.size()));
  return Image(got) == Image(values);
}
bool ComesBack(getbuf& fields, const Characters& value) {
  std::string got(value.bytes.size(), '?');
  fields.UnPack(got.data(), static_cast<int>(got.size()));
  return got == value.bytes;
}
bool ComesBack(getbuf& fields, const std::string& value) {
  std::string got = "what was there before";
  fields.UnPack(got);
  return got == value.substr(0, value.find('\0'));  // read as a zero-terminated text
}

RC_GTEST_PROP(BuffersProperty, FrameIsLengthCodeAndTheImagesOfTheValues, (unsigned code)) {
  const std::vector<Value> values = *AnyValues();
  const std::string image = Image(values);
  const std::string body = Image(code) + (image.empty() ? Image(code) : image);
  RC_ASSERT(Hex(Sent(Packed(values), code)) == Hex(Image(static_cast<int>(body.size())) + body));
}

RC_GTEST_PROP(BuffersProperty, PackedValuesComeBackAndStringsEndAtTheirFirstZeroByte, ()) {
  const std::vector<Value> values = *AnyValues();
  const std::string frame = Sent(Packed(values), 17);
  const std::string body = frame.substr(8);  // after the length and the code
  const GuardedBytes bytes(values.empty() ? std::string() : body);
  getbuf fields(bytes.data(), static_cast<std::int64_t>(Packed(values).used()));
  for (const Value& value : values) {
    RC_ASSERT(
        std::visit([&fields](const auto& typed) { return ComesBack(fields, typed); }, value.typed));
  }
  RC_ASSERT(fields.remaining() == 0);
}

RC_GTEST_PROP(BuffersProperty, CapacityIsTheLeastNumberOfStepsOfTenThatWasNeeded, ()) {
  sendbuf buffer;
  int used = 0;
  int capacity = 10;
  for (int step = *rc::gen::inRange(0, 30); step > 0; --step) {
    const int n = *rc::gen::inRange(-5, 400);
    if (*rc::gen::arbitrary<bool>()) {
      buffer.PrePack(n);
      while (capacity < used + n) capacity += 10;
    } else {
      const std::string bytes(static_cast<std::size_t>(std::max(n, 0)), 'x');
      buffer.Pack(bytes.data(), n);
      used += std::max(n, 0);
      while (capacity < used) capacity += 10;
    }
    RC_ASSERT(buffer.used() == used);
    RC_ASSERT(buffer.capacity() == capacity);
  }
}

// One read of `n` elements, or of one value. The bytes that it takes: nothing when they are not
// there.
enum class Read { kBool, kUnsigned, kInt, kDouble, kInts, kDoubles, kFloats, kBytes, kText };

std::int64_t BytesOf(Read read, std::int64_t n, const std::string& rest) {
  const std::int64_t elements = std::max<std::int64_t>(n, 0);
  switch (read) {
    case Read::kBool:
      return 1;
    case Read::kUnsigned:
    case Read::kInt:
      return 4;
    case Read::kDouble:
      return 8;
    case Read::kInts:
    case Read::kFloats:
      return 4 * elements;
    case Read::kDoubles:
      return 8 * elements;
    case Read::kBytes:
      return elements;
    case Read::kText:
      break;
  }
  return 4 + std::max<std::int64_t>(NumberAt<std::int32_t>(rest), 0);
}

template <class T>
void UnPackList(getbuf& fields, int n) {
  // No larger than the buffer can fill: reading more must fail before a byte is written.
  std::vector<T> target(static_cast<std::size_t>(std::max<std::int64_t>(
      std::min<std::int64_t>(n, fields.remaining() / static_cast<std::int64_t>(sizeof(T))), 0)));
  fields.UnPack(target.data(), n);
}

void UnPackAs(getbuf& fields, Read read, int n) {
  bool flag = false;
  unsigned code = 0;
  int integer = 0;
  double number = 0;
  std::string text;
  switch (read) {
    case Read::kBool:
      return fields.UnPack(flag);
    case Read::kUnsigned:
      return fields.UnPack(code);
    case Read::kInt:
      return fields.UnPack(integer);
    case Read::kDouble:
      return fields.UnPack(number);
    case Read::kInts:
      return UnPackList<int>(fields, n);
    case Read::kDoubles:
      return UnPackList<double>(fields, n);
    case Read::kFloats:
      return UnPackList<float>(fields, n);
    case Read::kBytes:
      return UnPackList<char>(fields, n);
    case Read::kText:
      return fields.UnPack(text);
  }
}

bool Succeeds(getbuf& fields, Read read, int n) {
  try {
    UnPackAs(fields, read, n);
    return true;
  } catch (const std::out_of_range&) {
    return false;
  }
}

// Counts as a hostile master sends them, most of them small enough to succeed.
rc::Gen<int> AnyCount() {
  return rc::gen::weightedOneOf<int>(
      {{6, rc::gen::inRange(-2, 12)},
       {1, rc::gen::arbitrary<int>()},
       {1, rc::gen::element(0x7fffffff, -0x7fffffff - 1, 0x20000000, 0x40000000)}});
}

RC_GTEST_PROP(BuffersProperty, ReadingStopsAtTheEndOfTheBufferAndAFailedReadMovesNothing, ()) {
  std::string bytes = *any::Bytes();
  for (int text = *rc::gen::inRange(0, 4); text > 0; --text) {
    bytes += Image(*AnyCount()) + *any::Bytes();
  }
  const GuardedBytes guarded(bytes);
  getbuf fields(guarded.data(), static_cast<std::int64_t>(bytes.size()));
  for (int step = *rc::gen::inRange(1, 30); step > 0; --step) {
    const auto read = static_cast<Read>(*rc::gen::inRange(0, 9));
    const int n = *AnyCount();
    const std::int64_t before = fields.remaining();
    const std::string rest = bytes.substr(bytes.size() - static_cast<std::size_t>(before));
    const std::int64_t size = BytesOf(read, n, rest);
    RC_ASSERT(Succeeds(fields, read, n) == (size <= before));
    RC_ASSERT(fields.remaining() == (size <= before ? before - size : before));
  }
}

}  // namespace
