#pragma once

#include <string>
#include <vector>

#include "inspect/finding.h"

/// Severity, id and line of each finding: "error users.empty-line:3".
inline std::vector<std::string> Ids(const inspect::Findings& findings) {
  std::vector<std::string> ids;
  for (const inspect::Finding& finding : findings) {
    ids.push_back(std::string(Name(finding.severity)) + " " + finding.id +
                  (finding.line > 0 ? ":" + std::to_string(finding.line) : ""));
  }
  return ids;
}
