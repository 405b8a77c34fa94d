#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "inspect/finding.h"

namespace inspect {

/// A finding that the administrator has looked at and lives with.
struct AcceptedFinding {
  Finding finding;
  std::string reason;
};

/// The file check.accepted beside the configuration files. A line accepts all findings of an ID, or
/// those of one place, written ID:FILE or ID:FILE:LINE. A blank and the reason follow. Empty lines
/// and those that begin with # are passed over.
class Accepted {
 public:
  /// Reads the file in `directory`. Without it nothing is accepted.
  explicit Accepted(const std::string& directory);

  /// Takes the accepted findings out of `findings` and returns them.
  std::vector<AcceptedFinding> Take(Findings& findings);

  /// What is wrong with the file and its lines, and, of these areas ("options" is the one of
  /// "options.none"), the lines for which Take() has found nothing. None of it can be accepted.
  Findings Wrong(const std::set<std::string>& areas) const;

 private:
  struct Entry {
    std::string id;
    std::string place;  // empty: everywhere
    std::string reason;
    std::int64_t line = 0;
    bool used = false;
  };

  void Add(const char* id, std::int64_t line, const std::string& what,
           const std::string& consequence, const std::string& remedy);
  void Read(const std::string& text);

  std::string file_;
  std::vector<Entry> entries_;
  Findings wrong_;
};

}  // namespace inspect
