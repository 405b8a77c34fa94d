#pragma once

#include <string>

#include "inspect/site.h"

namespace inspect {

/// What keeps the daemon of a site from writing its log in `directory`, where people look for it.
/// By default that is /var/log/jobmill for a daemon of a unit, and /var/log for any other.
Findings CheckLogDirectory(const Site& site, std::string directory = "");

}  // namespace inspect
