#pragma once

#include <map>
#include <string>

#include "inspect/site.h"

namespace inspect {

/// What systemd says of a unit.
struct ServiceState {
  std::map<std::string, std::string> properties;  ///< as `systemctl show` names them
  std::string last_words;                         ///< the last line of the daemon in the journal
};

/// The unit that starts the daemon of a site: jobmill.service, jobmill@NAME.service.
std::string UnitOf(const Site& site);

/// What is wrong with the service of a site: whether it runs, with which options, and what its unit
/// takes from the runs. Nothing is said of options that are given directly.
Findings CheckService(const Site& site);

/// The same for what systemd has said. Processes and files of the unit are looked at.
Findings JudgeService(const Site& site, const ServiceState& state);

/// The properties in the output of `systemctl show`.
std::map<std::string, std::string> ReadProperties(const std::string& text);

}  // namespace inspect
