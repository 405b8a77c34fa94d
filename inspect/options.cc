#include "inspect/options.h"

#include <errno.h>
#include <string.h>

namespace inspect {

Findings CheckOptions(const Site& site) {
  if (site.error != 0) {
    const bool denied = site.error == EACCES;
    return {{.id = denied ? "options.unchecked" : "options.unreadable",
             .severity = denied ? Severity::kUnchecked : Severity::kError,
             .file = site.configuration,
             .line = 0,
             .what = denied ? "not checked: needs root"
                            : std::string("cannot be read: ") + strerror(site.error),
             .consequence = denied ? "nothing is known about the options of this daemon"
                                   : "its service does not start",
             .remedy = denied ? "run jobmillctl as root"
                              : "write OPTIONS=\"-p PORT -s SCRIPT\" into it"}};
  }
  return {};
}

}  // namespace inspect
