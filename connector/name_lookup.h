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

  /// The names of an answer, added one by one. As long as they are the asked ones in their order
  /// they are counted and not kept: the names of 5,000 wells would make GetWellData's heap so large
  /// that the C library returns it after each request, and every request would get 222 pages anew.
  class Answer {
   public:
    /// `lookup` must outlive the object.
    explicit Answer(const NameLookup& lookup) : lookup_(lookup) {}

    void Add(std::string&& name);

    /// For each asked name its position among the added ones, or npos. Empty when every asked name
    /// stands where it was asked for: with two more lists, GetWellData for 1,000 wells would make
    /// four system calls more for its memory.
    std::vector<std::size_t> Positions() const;

   private:
    const NameLookup& lookup_;
    std::size_t as_asked_ = 0;        // how many names, from the first on, were the asked ones
    std::vector<std::string> names_;  // all names, once one was not
  };

 private:
  const std::vector<std::string>& asked_;
  bool distinct_;  // whether no asked name occurs twice
};

}  // namespace connector
