#include "inspect/finding.h"

namespace inspect {

const char* Name(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return "error";
    case Severity::kWarning:
      return "warning";
    case Severity::kUnchecked:
      break;
  }
  return "unchecked";
}

}  // namespace inspect
