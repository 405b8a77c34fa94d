#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "gate/opening.h"

namespace gate {

/// Who is at the other end of a connection, as its certificate proves. Two certificates of the same
/// authority with the same names are the same person: a run of days may meet a renewed one.
struct Identity {
  std::string authority;
  std::vector<std::string> names;  ///< folded and sorted by the caller, who knows how names compare
  // NOLINTNEXTLINE(modernize-use-nullptr): it means the 0 of the comparison itself
  auto operator<=>(const Identity&) const = default;
};

/// The links of a serving gate: who may have which, which connection is the last one, how long a
/// broken one is held. It knows ids and times alone; the caller keeps the Stream of each id, and
/// asks here only for connections whose certificate it has accepted by the same check as any other.
class LinkTable {
 public:
  struct Options {
    Time hold = std::chrono::hours(12);  ///< how long a broken link is kept; 0: not at all
    std::size_t most = 2000;             ///< links in all, broken ones included
    std::size_t most_of_one = 100;       ///< links of one identity
    std::size_t remembered = 10000;      ///< links that have ended, to tell late comers why
  };

  /// `random` makes ids that nobody can guess.
  LinkTable(const Options& options, std::function<LinkId()> random);

  /// A new link for `who`; Reason::kTooMany when `who`, or all together, may have no more.
  std::variant<LinkId, Reason> Add(const Identity& who);

  /// Why `who` may not go on with the link `id` on a connection of this epoch; nothing when that is
  /// permitted. A link of somebody else is Reason::kUnknown, a link that has ended the reason for
  /// which it has. A connection that the link still has is no obstacle, and stays when this one is
  /// refused.
  std::optional<Reason> Refuses(const LinkId& id, const Identity& who, std::uint64_t epoch) const;

  /// Stream::Accept() has taken a connection that Refuses() permits: the link is not broken, and
  /// this epoch and all before are refused from now on.
  void Resumed(const LinkId& id, std::uint64_t epoch);

  /// The connection of a link has broken: it is held from now on, until Resumed().
  void Broken(const LinkId& id, Time now);

  /// A link has ended for `reason`, which a connection that still comes for it gets to hear.
  void Ended(const LinkId& id, Reason reason);

  /// The links that have been broken for too long. The caller ends each with Reason::kHeldTooLong
  /// and calls Ended().
  std::vector<LinkId> Overdue(Time now) const;

  struct Link {
    Identity who;
    std::uint64_t epoch = 0;  ///< of the last connection that was accepted
    std::uint64_t resumptions = 0;
    std::optional<Time> broken_since;  ///< nothing while it has a connection
  };
  /// All links that have not ended.
  const std::map<LinkId, Link>& links() const { return links_; }

  std::size_t CountOf(const Identity& who) const;

 private:
  struct Past {
    Identity who;
    Reason reason = Reason::kFinished;
  };

  const Options options_;
  const std::function<LinkId()> random_;
  std::map<LinkId, Link> links_;
  std::map<Identity, std::size_t> count_;
  std::map<LinkId, Past> past_;
  std::deque<LinkId> past_in_order_;
};

}  // namespace gate
