#include "tools/vkmaster/session/quantities.h"

#include <algorithm>
#include <string_view>

#include "base/number.h"
#include "tools/vkmaster/text/usage_error.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {
namespace {

constexpr std::string_view kMoleFraction = "TOTAL_MOLE_FRACTION[";

const Quantity* Find(const std::string& word) {
  for (const Quantity& quantity : Quantities()) {
    if (EqualIgnoringCase(quantity.name, word) || EqualIgnoringCase(quantity.property, word)) {
      return &quantity;
    }
  }
  return nullptr;
}

[[noreturn]] void Refuse(const std::string& word, const std::string& what, bool limits) {
  std::vector<std::string> names;
  for (const Quantity& quantity : Quantities()) {
    if (limits && quantity.limits == Limits::kNone) continue;
    names.push_back(quantity.name);
    names.push_back(quantity.property);
  }
  throw UsageError("'" + word + "' is no " + what + " that is known here" +
                   MaybeMeant(word, names) + "; " + (limits ? "constrain ?" : "vars ?") +
                   " lists them, and " + kAsIs + word + " is sent as it stands, which " +
                   (limits ? "the simulator acknowledges without effect when it does not know it"
                           : "ends the run when the simulator does not know it"));
}

}  // namespace

const std::vector<Quantity>& Quantities() {
  static const std::vector<Quantity> kAll{
      {"oil", "OIL_PRODUCTION_RATE", &Units::liquid_rate, "oil produced", Limits::kProducers},
      {"water", "WATER_PRODUCTION_RATE", &Units::liquid_rate, "water produced", Limits::kProducers},
      {"liquid", "LIQUID_PRODUCTION_RATE", &Units::liquid_rate, "oil and water produced",
       Limits::kProducers},
      {"gas", "GAS_PRODUCTION_RATE", &Units::gas_rate, "gas produced", Limits::kProducers},
      {"water-injection", "WATER_INJECTION_RATE", &Units::liquid_rate, "water injected",
       Limits::kWaterInjectors},
      {"gas-injection", "GAS_INJECTION_RATE", &Units::gas_rate, "gas injected",
       Limits::kGasInjectors},
      {"bhp", "BOTTOM_HOLE_PRESSURE", &Units::pressure, "pressure at the bottom of the well",
       Limits::kAllWells},
      {"thp", "TUBING_HEAD_PRESSURE", &Units::pressure, "pressure at the head of the tubing",
       Limits::kAllWells},
      {"uptime", "UPTIME_FRACTION", nullptr, "part of the time that the well is on", Limits::kNone},
      {"temperature", "TEMPERATURE", &Units::temperature, "temperature of what flows",
       Limits::kNone},
      {"oil-density", "OIL_DENSITY", &Units::density, "density of the oil at the bottom",
       Limits::kNone},
      {"gas-density", "GAS_DENSITY", &Units::density, "density of the gas at the bottom",
       Limits::kNone},
      {"water-density", "WATER_DENSITY", &Units::density, "density of the water at the bottom",
       Limits::kNone},
      {"gor", "GAS_OIL_RATIO", &Units::gas_oil_ratio, "gas produced over oil produced",
       Limits::kNone},
      {"water-cut", "WATER_CUT", nullptr, "water's part of the liquid produced", Limits::kNone},
  };
  return kAll;
}

std::string WithoutMark(const std::string& word) {
  return IsMarked(word) ? word.substr(std::string_view(kAsIs).size()) : word;
}

bool IsMarked(const std::string& word) {
  return word.starts_with(kAsIs) && word.size() > std::string_view(kAsIs).size();
}

std::string PropertyOf(const std::string& word) {
  if (IsMarked(word)) return WithoutMark(word);
  if (const Quantity* quantity = Find(word)) return quantity->property;
  if (const int component = ComponentOf(word); component > 0) {
    return std::string(kMoleFraction) + std::to_string(component) + "]";
  }
  Refuse(word, "property", false);
}

std::string ConstraintOf(const std::string& word) {
  if (IsMarked(word)) return WithoutMark(word);
  const Quantity* quantity = Find(word);
  if (quantity != nullptr && quantity->limits == Limits::kNone) {
    throw UsageError("'" + word + "' cannot be limited" +
                     (quantity->name == "uptime" ? " (the command uptime sets it)" : "") +
                     "; constrain ? lists what can");
  }
  if (quantity == nullptr) Refuse(word, "limit", true);
  return quantity->property;
}

const std::vector<std::string>& Statuses() {
  static const std::vector<std::string> kAll{"OPEN", "SHUT"};
  return kAll;
}

std::string StatusOf(const std::string& word) {
  if (IsMarked(word)) return WithoutMark(word);
  for (const std::string& status : Statuses()) {
    if (EqualIgnoringCase(status, word)) return status;
  }
  throw UsageError("'" + word + "' is no status that is known here" + MaybeMeant(word, Statuses()) +
                   ": OPEN or SHUT; " + kAsIs + word + " is sent as it stands");
}

int ComponentOf(const std::string& property) {
  if (property.size() <= kMoleFraction.size() || property.back() != ']' ||
      !EqualIgnoringCase(property.substr(0, kMoleFraction.size()), kMoleFraction)) {
    return 0;
  }
  const std::string number =
      property.substr(kMoleFraction.size(), property.size() - kMoleFraction.size() - 1);
  const bool digits = number.size() < 6 && std::all_of(number.begin(), number.end(),
                                                       [](char c) { return c >= '0' && c <= '9'; });
  return digits ? static_cast<int>(NumberIn(number.c_str())) : 0;
}

bool IsLimitFor(const std::string& property, const std::string& well_type) {
  const Quantity* quantity = Find(property);
  if (quantity == nullptr || quantity->limits == Limits::kAllWells) return true;
  if (well_type == "PRODUCER") return quantity->limits == Limits::kProducers;
  if (well_type == "WATER_INJECTOR") return quantity->limits == Limits::kWaterInjectors;
  return quantity->limits == Limits::kGasInjectors;
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
