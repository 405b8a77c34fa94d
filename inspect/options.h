#pragma once

#include <string>

#include "inspect/site.h"

namespace inspect {

/// What is wrong with the options of a daemon, as it will understand them. The kernel's settings
/// are read from files in `kernel`.
Findings CheckOptions(const Site& site, const std::string& kernel = "/proc/sys/net/ipv4");

}  // namespace inspect
