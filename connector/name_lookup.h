#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace connector {

/// Where each of some names stands in an answer. Of equal names in the answer the first counts.
///
/// The simulator mostly answers the names that it was asked for, in their order. Such an answer
/// costs one comparison of the lists, any other one table of its names; both grow with the number
/// of names, not with its square.
class NameLookup {
 public:
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  /// `asked` stays the caller's and must outlive the object.
  explicit NameLookup(const std::vector<std::string>& asked);

  /// For each asked name its position in `answered`, or npos.
  std::vector<std::size_t> PositionsIn(const std::vector<std::string>& answered) const;

  /// Where the asked names stand in an answer. Those of the usual one stand where they were asked
  /// for, which takes no memory to know.
  class Places {
   public:
    /// Where asked name `i` stands, or npos.
    std::size_t operator[](std::size_t i) const {
      if (!table_.empty()) return table_[i];
      return i < in_place_ ? i : npos;
    }

   private:
    friend class NameLookup;
    std::size_t in_place_ = 0;        // names that stand where they were asked for, from the first
    std::vector<std::size_t> table_;  // of all names, where that does not tell
  };

  /// The names of an answer as they come. Those of the usual one are not kept.
  class Answer {
   public:
    /// `lookup` must outlive the object.
    explicit Answer(const NameLookup& lookup) : lookup_(lookup) {}

    void Add(std::string&& name);

    /// As PositionsIn() of all names added.
    Places Positions() const;

   private:
    const NameLookup& lookup_;
    std::size_t count_ = 0;           // names that are as asked, from the first on
    std::vector<std::string> names_;  // all of them, once one is not
  };

 private:
  const std::vector<std::string>& asked_;
  // Each asked name's first position in its own list; empty when that is its own.
  std::vector<std::size_t> in_asked_;
};

}  // namespace connector
