#pragma once

#include <string>

#include "inspect/site.h"

namespace inspect {

/// What is wrong with the accounts to which users are mapped: one that has expired, or has no home
/// directory that it can enter. Needs root, and says nothing without.
Findings CheckAccounts(const Site& site);

/// What these accounts do not find on this machine as every program expects it: a directory for
/// temporary files, and /dev/null.
Findings CheckAccountPlaces(const Site& site, const std::string& null = "/dev/null");

}  // namespace inspect
