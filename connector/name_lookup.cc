#include "connector/name_lookup.h"

namespace connector {
namespace {

std::vector<std::size_t> Positions(const std::vector<std::string>& asked,
                                   const std::vector<std::string>& answered) {
  std::unordered_map<std::string_view, std::size_t> first;
  first.reserve(answered.size());
  for (std::size_t i = 0; i < answered.size(); ++i) first.try_emplace(answered[i], i);
  std::vector<std::size_t> positions;
  positions.reserve(asked.size());
  for (const std::string& name : asked) {
    const auto found = first.find(name);
    positions.push_back(found == first.end() ? NameLookup::npos : found->second);
  }
  return positions;
}

}  // namespace

NameLookup::NameLookup(const std::vector<std::string>& asked)
    : asked_(asked), in_asked_(Positions(asked, asked)) {}

std::vector<std::size_t> NameLookup::PositionsIn(const std::vector<std::string>& answered) const {
  return answered == asked_ ? in_asked_ : Positions(asked_, answered);
}

}  // namespace connector
