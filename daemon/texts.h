#pragma once

#include <string>

/// What the daemon prints without arguments, and with the option -v.
std::string UsageText();
std::string VersionText();
