#pragma once

#include <string>

#include "inspect/address_ranges.h"
#include "inspect/site.h"

namespace inspect {

/// Whether this machine's packet filter lets networks reach the port that the site's file of rules,
/// jobmill.nft beside the configuration file, does not name, or keeps away those that it names.
Findings CheckFirewall(const Site& site);

/// The same for rules as `nft -j list ruleset` shows them.
Findings JudgeFirewall(const Site& site, const std::string& rules);

/// The networks that "define masters" in the text of such a file names. None when there is no such
/// line, or when it names something else as well.
AddressRanges MastersIn(const std::string& text);

}  // namespace inspect
