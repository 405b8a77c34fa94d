#pragma once

#include <string>
#include <vector>

#include "tools/vkmaster/session/units.h"

namespace vkmaster {

/// Which wells a limit of a quantity concerns.
enum class Limits { kNone, kProducers, kWaterInjectors, kGasInjectors, kAllWells };

/// A property of wells that is known here.
struct Quantity {
  std::string name;          ///< the engineer's: "bhp"
  std::string property;      ///< the simulator's: "BOTTOM_HOLE_PRESSURE"
  std::string Units::*unit;  ///< null for none
  std::string meaning;
  Limits limits;
};

const std::vector<Quantity>& Quantities();

/// Begins a word that is sent as it is written after this mark, although it is not known here.
inline constexpr const char* kAsIs = "as-is:";

/// What follows kAsIs; `word` itself without that mark.
std::string WithoutMark(const std::string& word);
bool IsMarked(const std::string& word);

/// The simulator's name for `word`, which may be the short name or the simulator's name of one of
/// Quantities(), in any letter case, TOTAL_MOLE_FRACTION[n], or any name after kAsIs. Throws
/// UsageError for the rest: a name that the simulator does not know ends the run.
std::string PropertyOf(const std::string& word);

/// The simulator's name for the limit `word`, understood as by PropertyOf(). Throws UsageError for
/// what cannot be limited: the simulator acknowledges such a limit, too, but it does nothing.
std::string ConstraintOf(const std::string& word);

/// The simulator's name for the status `word`: OPEN or SHUT in any letter case, or what follows
/// kAsIs. Throws UsageError.
std::string StatusOf(const std::string& word);
const std::vector<std::string>& Statuses();

/// n of "TOTAL_MOLE_FRACTION[n]"; 0 for every other property.
int ComponentOf(const std::string& property);

/// Whether a limit of `property` concerns wells of this type. True for what is not known here.
bool IsLimitFor(const std::string& property, const std::string& well_type);

/// The short name of a property; the property itself when it has none.
std::string ShortName(const std::string& property);

/// The unit of a property; empty when it has none or is none of Quantities().
std::string UnitOf(const std::string& property, const Units& units);

}  // namespace vkmaster
