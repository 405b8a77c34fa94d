#include "gate/link_table.h"

#include <utility>

namespace gate {

LinkTable::LinkTable(const Options& options, std::function<LinkId()> random)
    : options_(options), random_(std::move(random)) {}

std::variant<LinkId, Reason> LinkTable::Add(const Identity& who) {
  if (links_.size() >= options_.most || CountOf(who) >= options_.most_of_one) {
    return Reason::kTooMany;
  }
  LinkId id = random_();
  while (id == LinkId{} || links_.count(id) > 0 || past_.count(id) > 0) id = random_();
  links_[id].who = who;
  ++count_[who];
  return id;
}

std::optional<Reason> LinkTable::Refuses(const LinkId& id, const Identity& who,
                                         std::uint64_t epoch) const {
  if (const auto past = past_.find(id); past != past_.end() && past->second.who == who) {
    return past->second.reason;
  }
  const auto found = links_.find(id);
  if (found == links_.end() || found->second.who != who) return Reason::kUnknown;
  if (options_.hold == Time(0)) return Reason::kHeldTooLong;
  if (epoch <= found->second.epoch) return Reason::kOldEpoch;
  return std::nullopt;
}

void LinkTable::Resumed(const LinkId& id, std::uint64_t epoch) {
  const auto found = links_.find(id);
  if (found == links_.end()) return;
  found->second.epoch = epoch;
  ++found->second.resumptions;
  found->second.broken_since.reset();
}

void LinkTable::Broken(const LinkId& id, Time now) {
  const auto found = links_.find(id);
  if (found != links_.end() && !found->second.broken_since) found->second.broken_since = now;
}

void LinkTable::Ended(const LinkId& id, Reason reason) {
  const auto found = links_.find(id);
  if (found == links_.end()) return;
  const auto count = count_.find(found->second.who);
  if (--count->second == 0) count_.erase(count);
  past_.emplace(id, Past{std::move(found->second.who), reason});
  links_.erase(found);
  past_in_order_.push_back(id);
  if (past_in_order_.size() > options_.remembered) {
    past_.erase(past_in_order_.front());
    past_in_order_.pop_front();
  }
}

std::vector<LinkId> LinkTable::Overdue(Time now) const {
  std::vector<LinkId> overdue;
  for (const auto& [id, link] : links_) {
    if (link.broken_since && now - *link.broken_since >= options_.hold) overdue.push_back(id);
  }
  return overdue;
}

std::size_t LinkTable::CountOf(const Identity& who) const {
  const auto count = count_.find(who);
  return count == count_.end() ? 0 : count->second;
}

}  // namespace gate
