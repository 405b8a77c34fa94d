#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inspect/finding.h"

namespace inspect {

/// A line "NAME=VALUE" of the section [Service] of a unit or of an addition to one.
struct UnitLine {
  std::string name;
  std::string value;
  std::string file;
  std::int64_t line = 0;
};

/// All such lines of these files, in their order. A file that cannot be read has none.
std::vector<UnitLine> ReadUnit(const std::vector<std::string>& files);

/// What these files take from the daemon, and from scripts and simulators, which inherit all that
/// is set for it. Of equal settings the last one counts, but for what several lines take away from
/// CapabilityBoundingSet.
Findings CheckUnitSettings(const std::vector<std::string>& files);

}  // namespace inspect
