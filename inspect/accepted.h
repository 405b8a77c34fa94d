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

/// The file check.accepted beside the configuration files. A line is the id of findings, for those
/// of one place with a colon and that (the finding's file, or FILE:LINE), then a blank and a
/// reason. Empty lines and those that begin with # are passed over.
class Accepted {
 public:
  /// Reads the one in `directory`. Without it nothing is accepted.
  explicit Accepted(const std::string& directory);

  /// Takes the accepted ones out of `findings`.
  std::vector<AcceptedFinding> Take(Findings& findings);

  /// What is wrong with the file: entries without meaning, and, of these areas ("options"), those
  /// that have accepted nothing. Nobody accepts these.
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
