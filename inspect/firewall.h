#pragma once

#include <string>

#include "inspect/address_ranges.h"
#include "inspect/site.h"

namespace inspect {

/// Whether this machine's packet filter lets others reach the port than the site's own file of
/// rules, jobmill.nft beside the configuration file, says, or keeps its masters away.
Findings CheckFirewall(const Site& site);

/// The same for rules as `nft -j list ruleset` shows them.
Findings JudgeFirewall(const Site& site, const std::string& rules);

/// The networks that "define masters" of such a file names. None when it does not, or when it names
/// something else as well.
AddressRanges MastersIn(const std::string& text);

}  // namespace inspect
