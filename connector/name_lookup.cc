#include "connector/name_lookup.h"

#include <algorithm>
#include <functional>
#include <memory_resource>
#include <numeric>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace connector {
namespace {

// The first position of each name. The nodes of the map lie in one piece of memory: with an
// allocation of their own they would double what a request for reordered wells allocates.
class FirstPositions {
 public:
  explicit FirstPositions(const std::vector<std::string>& names)
      : memory_(64 * (names.size() + 1)), positions_(names.size(), &memory_) {
    for (std::size_t i = 0; i < names.size(); ++i) positions_.emplace(names[i], i);
  }

  std::size_t size() const { return positions_.size(); }

  std::size_t Find(std::string_view name) const {
    const auto found = positions_.find(name);
    return found == positions_.end() ? NameLookup::npos : found->second;
  }

 private:
  std::pmr::monotonic_buffer_resource memory_;
  std::pmr::unordered_map<std::string_view, std::size_t> positions_;
};

bool Ascend(const std::vector<std::string>& names) {
  return std::adjacent_find(names.begin(), names.end(), std::greater_equal<>()) == names.end();
}

}  // namespace

// Names that ascend are distinct, and mostly they do. To see that is cheaper than to count them by
// a map: GetWellData for 1,000 wells takes 19 us less until its first reply, of 200.
NameLookup::NameLookup(const std::vector<std::string>& asked)
    : asked_(asked), distinct_(Ascend(asked) || FirstPositions(asked).size() == asked.size()) {}

// The simulator mostly answers the names that it was asked for, in their order. Without looking at
// that first, GetWellIPRData for 1,000 wells would take 0.5 ms more until its first reply, of 1.8.
std::vector<std::size_t> NameLookup::PositionsIn(const std::vector<std::string>& answered) const {
  std::vector<std::size_t> positions(asked_.size());
  if (distinct_ && answered == asked_) {
    std::iota(positions.begin(), positions.end(), 0);
    return positions;
  }
  const FirstPositions first(answered);
  std::transform(asked_.begin(), asked_.end(), positions.begin(),
                 [&](const std::string& name) { return first.Find(name); });
  return positions;
}

void NameLookup::Answer::Add(std::string&& name) {
  const std::vector<std::string>& asked = lookup_.asked_;
  if (names_.empty()) {
    if (as_asked_ < asked.size() && name == asked[as_asked_]) {
      ++as_asked_;
      return;
    }
    names_.assign(asked.begin(), asked.begin() + static_cast<std::ptrdiff_t>(as_asked_));
  }
  names_.push_back(std::move(name));
}

std::vector<std::size_t> NameLookup::Answer::Positions() const {
  if (!names_.empty()) return lookup_.PositionsIn(names_);
  if (lookup_.distinct_ && as_asked_ == lookup_.asked_.size()) return {};
  std::vector<std::size_t> positions = lookup_.PositionsIn(lookup_.asked_);
  for (std::size_t& position : positions) {
    if (position >= as_asked_) position = npos;
  }
  return positions;
}

}  // namespace connector
