#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace connector {

/// Where each of some names stands in an answer. Of equal names in the answer the first counts.
/// Takes time in proportion to the number of names.
class NameLookup {
 public:
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  /// `asked` stays the caller's and must outlive the object.
  explicit NameLookup(const std::vector<std::string>& asked);

  /// For each asked name its position in `answered`, or npos.
  std::vector<std::size_t> PositionsIn(const std::vector<std::string>& answered) const;

 private:
  const std::vector<std::string>& asked_;
  bool distinct_;  // whether no asked name occurs twice
};

}  // namespace connector
