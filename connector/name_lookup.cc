#include "connector/name_lookup.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <numeric>
#include <string_view>
#include <utility>

namespace connector {
namespace {

// Each name's first position, in a table of open addressing: one piece of memory for all names.
class FirstPositions {
 public:
  explicit FirstPositions(const std::vector<std::string>& names)
      : names_(names), slots_(std::bit_ceil(2 * names.size()), NameLookup::npos) {
    for (std::size_t i = 0; i < names.size(); ++i) {
      std::size_t& slot = slots_[SlotOf(names[i])];
      if (slot == NameLookup::npos) slot = i;
    }
  }

  std::size_t Find(std::string_view name) const { return slots_[SlotOf(name)]; }

 private:
  // The slot that holds `name` or, if none does, the free one where it belongs. Half of the slots
  // are free, so there is one.
  std::size_t SlotOf(std::string_view name) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t slot = std::hash<std::string_view>()(name) & mask;
    while (slots_[slot] != NameLookup::npos && names_[slots_[slot]] != name) {
      slot = (slot + 1) & mask;
    }
    return slot;
  }

  const std::vector<std::string>& names_;
  std::vector<std::size_t> slots_;
};

std::vector<std::size_t> Positions(const std::vector<std::string>& asked,
                                   const std::vector<std::string>& answered) {
  const FirstPositions first(answered);
  std::vector<std::size_t> positions;
  positions.reserve(asked.size());
  for (const std::string& name : asked) positions.push_back(first.Find(name));
  return positions;
}

// Names that ascend, as those of a field mostly do, are distinct: each stands at its own position.
bool Ascend(const std::vector<std::string>& names) {
  return std::adjacent_find(names.begin(), names.end(), std::greater_equal<>()) == names.end();
}

}  // namespace

NameLookup::NameLookup(const std::vector<std::string>& asked)
    : asked_(asked),
      in_asked_(Ascend(asked) ? std::vector<std::size_t>() : Positions(asked, asked)) {}

std::vector<std::size_t> NameLookup::PositionsIn(const std::vector<std::string>& answered) const {
  if (answered != asked_) return Positions(asked_, answered);
  if (!in_asked_.empty()) return in_asked_;
  std::vector<std::size_t> own(asked_.size());
  std::iota(own.begin(), own.end(), 0);
  return own;
}

void NameLookup::Answer::Add(std::string&& name) {
  const std::vector<std::string>& asked = lookup_.asked_;
  if (names_.empty()) {
    if (count_ < asked.size() && name == asked[count_]) {
      ++count_;
      return;
    }
    names_.assign(asked.begin(), asked.begin() + static_cast<std::ptrdiff_t>(count_));
  }
  names_.push_back(std::move(name));
}

NameLookup::Places NameLookup::Answer::Positions() const {
  Places places;
  places.in_place_ = count_;
  if (!names_.empty()) {
    places.table_ = lookup_.PositionsIn(names_);
  } else {
    places.table_ = lookup_.in_asked_;
    for (std::size_t& position : places.table_) {
      if (position >= count_) position = npos;
    }
  }
  return places;
}

}  // namespace connector
