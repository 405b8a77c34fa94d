#pragma once

#include <string>

#include "inspect/site.h"

namespace inspect {

/// What keeps a daemon of these options from writing its log where it is looked for, which is in
/// `directory`; that of a unit, or /var/log, when it is empty.
Findings CheckLogDirectory(const Site& site, std::string directory = "");

}  // namespace inspect
