#include "tools/vkmaster/session/quantities.h"

#include <algorithm>
#include <cctype>

#include "tools/vkmaster/text/usage_error.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

const std::vector<Quantity>& Quantities() {
  static const std::vector<Quantity> kAll{
      {"oil", "OIL_PRODUCTION_RATE", &Units::liquid_rate},
      {"water", "WATER_PRODUCTION_RATE", &Units::liquid_rate},
      {"liquid", "LIQUID_PRODUCTION_RATE", &Units::liquid_rate},
      {"gas", "GAS_PRODUCTION_RATE", &Units::gas_rate},
      {"water-injection", "WATER_INJECTION_RATE", &Units::liquid_rate},
      {"gas-injection", "GAS_INJECTION_RATE", &Units::gas_rate},
      {"bhp", "BOTTOM_HOLE_PRESSURE", &Units::pressure},
      {"thp", "TUBING_HEAD_PRESSURE", &Units::pressure},
      {"uptime", "UPTIME_FRACTION", nullptr},
      {"temperature", "TEMPERATURE", &Units::temperature},
      {"oil-density", "OIL_DENSITY", &Units::density},
      {"gas-density", "GAS_DENSITY", &Units::density},
      {"water-density", "WATER_DENSITY", &Units::density},
  };
  return kAll;
}

std::string PropertyOf(const std::string& word) {
  std::string names;
  for (const Quantity& quantity : Quantities()) {
    if (quantity.name == word || EqualIgnoringCase(quantity.property, word)) {
      return quantity.property;
    }
    names += (names.empty() ? "" : ", ") + quantity.name;
  }
  const bool capitals = std::all_of(word.begin(), word.end(), [](char c) {
    return std::islower(static_cast<unsigned char>(c)) == 0;
  });
  if (!word.empty() && capitals) return word;
  throw UsageError("'" + word + "' is none of " + names +
                   ", nor a name of the simulator in capitals");
}

std::string ShortName(const std::string& property) {
  for (const Quantity& quantity : Quantities()) {
    if (quantity.property == property) return quantity.name;
  }
  return property;
}

std::string UnitOf(const std::string& property, const Units& units) {
  for (const Quantity& quantity : Quantities()) {
    if (quantity.property == property && quantity.unit != nullptr) return units.*quantity.unit;
  }
  return "";
}

}  // namespace vkmaster
