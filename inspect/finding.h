#pragma once

// This folder knows what can be known about daemons, their runs, their logs and their configuration
// from outside. It reads and changes nothing, and the daemon knows nothing of it: it must not be
// able to fail because somebody looks. What the daemon reads is read here with the daemon's own
// readers.

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace inspect {

enum class Severity {
  kError,      ///< somebody who ought to cannot run, or somebody who ought not can
  kWarning,    ///< works now, and surprises later
  kUnchecked,  ///< could not be looked at; no word on whether it is good
};

/// One thing that is wrong, or could not be looked at.
struct Finding {
  std::string id;  ///< stays the same for ever, such as "users.empty-line"; scripts rely on it
  Severity severity = Severity::kError;
  std::string file;         ///< empty when it is about no file
  std::int64_t line = 0;    ///< 0 when it is about no single line
  std::string what;         ///< a sentence without its full stop, as the next two
  std::string consequence;  ///< what happens because of it
  std::string remedy;       ///< what to do
};

using Findings = std::vector<Finding>;

/// The ids of all findings that there are, but for those about the file of accepted findings.
const std::set<std::string>& FindingIds();

/// "error", "warning" or "unchecked".
const char* Name(Severity severity);

}  // namespace inspect
