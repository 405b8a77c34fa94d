#pragma once

#include <string>
#include <vector>

#include "tools/vkmaster/commands/command.h"

namespace vkmaster {

// The commands on the reservoir fluid and on injected gas.

Result EOSResult(Session& session);
Parsed ParseSource(const Words& arguments);       // WELL SOURCE
Parsed ParseComposition(const Words& arguments);  // SOURCE FRACTION... or NAME=FRACTION... [anyway]

/// A source as it was typed after composition, its fractions in component order or by component.
struct SourceComposition {
  std::string source;
  std::vector<double> fractions;
  std::vector<std::string> names;  ///< the fractions' components; empty for component order
  bool anyway = false;             ///< sent also when they do not add up or some are missing

  double Sum() const;
};

std::vector<SourceComposition> ParseCompositions(const Words& arguments);

}  // namespace vkmaster
