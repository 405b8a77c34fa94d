// Frames of the master and the values in them: a frame is received whole or not at all, nothing of
// the next one is touched, and values come from within the buffer or not at all.

#include <errno.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/input.h"
#include "fuzz/support/memory_link.h"
#include "fuzz/support/promise.h"
#include "net/getbuf.h"
#include "net/master_link.h"
#include "net/socket.h"

namespace {

constexpr int kCleared = 2048;

// The values of a body, read by `plan` (one kind of value a byte) from a buffer that ends with it.
class Reading {
 public:
  explicit Reading(std::string_view body)
      : rest_(body),
        fields_(reinterpret_cast<const unsigned char*>(body.data()),
                static_cast<std::int64_t>(body.size())) {}

  // False when the rest of the body did not hold the value.
  bool Read(std::uint8_t kind) {
    failed_ = false;
    ReadValue(kind);
    return !failed_;
  }

 private:
  void ReadValue(std::uint8_t kind) {
    switch (kind % 9) {
      case 0:
        return Value<int>();
      case 1:
        return Value<unsigned>();
      case 2:
        return Value<double>();
      case 3:
        return Flag();
      case 4:
        return List<int>(kind);
      case 5:
        return List<double>(kind);
      case 6:
        return List<float>(kind);
      case 7:
        return List<char>(kind);
      default:
        return Text();
    }
  }

  template <class T>
  static std::string_view Bytes(const T* values, std::size_t count) {
    return {reinterpret_cast<const char*>(values), count * sizeof(T)};
  }

  // Takes `size` bytes by `unpack`, or nothing when there are fewer. True when they were taken.
  template <class UnPack>
  bool Taken(std::size_t size, UnPack unpack) {
    const bool there = size <= rest_.size();
    bool thrown = false;
    try {
      unpack();
    } catch (const std::out_of_range&) {
      thrown = true;
    }
    PROMISE(thrown == !there);
    failed_ = thrown;
    if (there) rest_.remove_prefix(size);
    PROMISE(fields_.remaining() == static_cast<std::int64_t>(rest_.size()));
    return there;
  }

  template <class T>
  void Value() {
    const char* at = rest_.data();
    T value{};
    if (Taken(sizeof(T), [&] { fields_.UnPack(value); })) {
      PROMISE(Bytes(&value, 1) == std::string_view(at, sizeof(T)));
    }
  }

  void Flag() {
    const char* at = rest_.data();
    bool value = false;
    if (Taken(1, [&] { fields_.UnPack(value); })) PROMISE(value == (*at != 0));
  }

  template <class T>
  void List(std::uint8_t kind) {
    const int n = kind / 9 - 4;  // some lists have no length or a negative one
    const std::size_t size = sizeof(T) * static_cast<std::size_t>(std::max(n, 0));
    const char* at = rest_.data();
    std::vector<T> values(static_cast<std::size_t>(std::max(n, 0)));
    if (Taken(size, [&] { fields_.UnPack(values.data(), n); }) && size > 0) {
      PROMISE(Bytes(values.data(), values.size()) == std::string_view(at, size));
    }
  }

  void Text() {
    std::int32_t length = 0;
    const bool announced = rest_.size() >= sizeof(length);
    if (announced) std::memcpy(&length, rest_.data(), sizeof(length));
    const auto size = static_cast<std::size_t>(std::max(length, 0));
    const std::string_view whole =
        rest_.substr(std::min(sizeof(length), rest_.size())).substr(0, size);
    std::string text;
    if (Taken(sizeof(length) + size, [&] { fields_.UnPack(text); })) {
      PROMISE(text == whole.substr(0, whole.find('\0')));
    }
  }

  std::string_view rest_;
  getbuf fields_;
  bool failed_ = false;
};

struct Frame {
  int result = 0;
  std::string_view body;
  std::size_t taken = 0;
};

Frame Expected(std::string_view bytes) {
  std::int32_t length = 0;
  if (bytes.empty()) return {-1, {}, 0};
  if (bytes.size() < sizeof(length)) return {1, {}, bytes.size()};
  std::memcpy(&length, bytes.data(), sizeof(length));
  bytes.remove_prefix(sizeof(length));
  if (length > master_link::kMaxFrame) return {1, {}, sizeof(length)};
  if (length <= 0) return {-1, {}, sizeof(length)};
  const auto size = static_cast<std::size_t>(length);
  if (bytes.size() < size) return {1, {}, sizeof(length) + bytes.size()};
  return {0, bytes.substr(0, size), sizeof(length) + size};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Socket master(-1);
  static std::vector<char> buffer(master_link::kMaxFrame);
  static const std::vector<char> zeros(kCleared);
  Input input(data, size);
  const std::uint8_t mode = input.Byte();
  const int error = (mode & 1) != 0 ? ECONNRESET : 0;
  const std::string_view plan = input.Take(input.Byte() % 32);
  std::string_view bytes = input.Rest();
  memory_link.Begin(bytes, mode >> 1, error);
  while (true) {
    Frame expected = Expected(bytes);
    if (bytes.empty() && error != 0) expected.result = 1;
    int length = -1;
    const int result = master.ReceiveLine(buffer.data(), kCleared, length);
    bytes.remove_prefix(expected.taken);
    PROMISE(result == expected.result);
    PROMISE(memory_link.incoming == bytes);
    if (result != 0) {
      PROMISE(length <= 0);
      break;
    }
    const auto whole = static_cast<std::size_t>(length);
    PROMISE(std::string_view(buffer.data(), whole) == expected.body);
    PROMISE(whole >= kCleared ||
            std::memcmp(buffer.data() + whole, zeros.data(), kCleared - whole) == 0);
    // On its own, so that the sanitizer sees a step over its end.
    const std::vector<char> body(expected.body.begin(), expected.body.end());
    Reading reading({body.data(), body.size()});
    // A position that was moved by a failure would show in the next value.
    int failures = 0;
    for (const char kind : plan) {
      if (!reading.Read(static_cast<std::uint8_t>(kind)) && ++failures == 2) break;
    }
  }
  return 0;
}
