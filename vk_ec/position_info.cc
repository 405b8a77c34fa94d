#include "vk_ec/position_info.h"

#include <stdexcept>

namespace vk_ec {

std::string PositionInfo::display_algorithmic_position() const {
  switch (position) {
    case AlgPos::UNCONNECTED:
      return "UNCONNECTED";
    case AlgPos::STARTING:
      return "STARTING";
    case AlgPos::MODEL_DEFINITION:
      return "MODEL_DEFINITION";
    case AlgPos::BEGIN_NEWTON:
      return "BEGIN_NEWTON";
    case AlgPos::END_SIMULATE:
      return "END_SIMULATE";
  }
  throw std::invalid_argument("Incorrect algorithmic position");
}

AlgPos PositionInfo::to_AlgPos(const std::string& text) {
  if (text == "MODEL_DEFINITION") return AlgPos::MODEL_DEFINITION;
  if (text == "BEGIN_NEWTON") return AlgPos::BEGIN_NEWTON;
  if (text == "END_SIMULATE") return AlgPos::END_SIMULATE;
  throw std::invalid_argument("Incorrect algorithmic position received (" + text + ")");
}

}  // namespace vk_ec
