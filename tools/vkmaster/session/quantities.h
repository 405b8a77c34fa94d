#pragma once

#include <string>
#include <vector>

#include "tools/vkmaster/session/units.h"

namespace vkmaster {

/// A property of wells that has a short name here.
struct Quantity {
  std::string name;          ///< the engineer's: "bhp"
  std::string property;      ///< the simulator's: "BOTTOM_HOLE_PRESSURE"
  std::string Units::*unit;  ///< null for none
};

const std::vector<Quantity>& Quantities();

/// The simulator's name for `word`, which may be a short name, the name of one of Quantities() in
/// any letter case, or another name of the simulator in capitals. Throws UsageError for the rest: a
/// name that the simulator does not know ends the run.
std::string PropertyOf(const std::string& word);

/// The short name of a property; the property itself when it has none.
std::string ShortName(const std::string& property);

/// The unit of a property; empty when it has none or is none of Quantities().
std::string UnitOf(const std::string& property, const Units& units);

}  // namespace vkmaster
