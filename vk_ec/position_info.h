#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace vk_ec {

/// Where the simulator stands in its run.
enum class AlgPos : std::int32_t {
  UNCONNECTED = 0,
  STARTING = 1,
  MODEL_DEFINITION = 2,
  BEGIN_NEWTON = 3,
  END_SIMULATE = 4,
};

/// What the simulator last said about itself.
struct PositionInfo {
  AlgPos position = AlgPos::UNCONNECTED;
  /// Simulated time in days.
  double time = 0;
  /// Year, month, day; the other three are kept as received.
  std::array<int, 6> date{1900, 1, 1, 0, 0, 0};

  /// The name of the position; `std::invalid_argument` "Incorrect algorithmic position" for a value
  /// that has none.
  std::string display_algorithmic_position() const;

  /// Knows only the positions that the simulator names: "MODEL_DEFINITION", "BEGIN_NEWTON" and
  /// "END_SIMULATE". `std::invalid_argument` "Incorrect algorithmic position received (...)".
  static AlgPos to_AlgPos(const std::string& text);
};

}  // namespace vk_ec
