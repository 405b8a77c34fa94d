#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// The bytes of one execution, taken from the front. When they are used up, numbers are 0 and
/// texts empty, so that every input means something.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  std::uint8_t Byte() {
    const std::string_view byte = Take(1);
    return byte.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(byte.front());
  }
  std::size_t Short() {
    const std::size_t low = Byte();
    return low | std::size_t{Byte()} << 8;
  }
  /// As many bytes, or what is left of them.
  std::string_view Take(std::size_t size) {
    const std::string_view taken = rest_.substr(0, std::min(size, rest_.size()));
    rest_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view Rest() { return Take(rest_.size()); }
  bool empty() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};
