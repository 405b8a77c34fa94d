#pragma once

#include <map>
#include <optional>
#include <string>

#include "inspect/address_ranges.h"

namespace inspect {

/// From which addresses of other machines a first packet of a TCP connection gets to a port, and
/// from which it does not. What is in neither is not known: rules can ask for things that cannot be
/// seen from here. Limits of rates and numbers are taken as not reached.
struct Reachability {
  AddressRanges accepted;
  AddressRanges dropped;
  std::map<std::string, AddressRanges> dropped_by;  ///< by "chain CHAIN of table FAMILY TABLE"
};

/// Goes through rules as `nft -j list ruleset` shows them. Nothing when they are not understood at
/// all.
std::optional<Reachability> Judge(const std::string& rules, int port);

}  // namespace inspect
