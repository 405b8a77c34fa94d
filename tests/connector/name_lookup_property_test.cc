#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "connector/name_lookup.h"
#include "tests/support/generators.h"

namespace {

using connector::NameLookup;
using Names = std::vector<std::string>;

std::vector<std::size_t> LinearSearch(const Names& asked, const Names& answered) {
  std::vector<std::size_t> positions;
  for (const std::string& name : asked) {
    std::size_t position = NameLookup::npos;
    for (std::size_t i = answered.size(); i-- > 0;) {
      if (answered[i] == name) position = i;
    }
    positions.push_back(position);
  }
  return positions;
}

RC_GTEST_PROP(NameLookupProperty, FindsWhatALinearSearchFindsFirst, ()) {
  const Names asked = *any::Names();
  const NameLookup lookup(asked);
  const Names answered = *rc::gen::oneOf(any::Names(), rc::gen::just(asked));
  RC_ASSERT(lookup.PositionsIn(answered) == LinearSearch(asked, answered));
  NameLookup::Answer answer(lookup);
  for (std::string name : answered) answer.Add(std::move(name));
  std::vector<std::size_t> positions = answer.Positions();
  if (positions.empty()) {
    positions.resize(asked.size());
    std::iota(positions.begin(), positions.end(), 0);
  }
  RC_ASSERT(positions == LinearSearch(asked, answered));
  RC_ASSERT(lookup.PositionsIn(asked) == LinearSearch(asked, asked));
}

RC_GTEST_PROP(NameLookupProperty, AnswerInAnotherOrderIsFoundToo, ()) {
  const Names asked = *rc::gen::container<Names>(any::Bytes());
  Names answered = asked;
  for (std::size_t i = answered.size(); i > 1; --i) {
    std::swap(answered[i - 1], answered[*rc::gen::inRange<std::size_t>(0, i)]);
  }
  RC_ASSERT(NameLookup(asked).PositionsIn(answered) == LinearSearch(asked, answered));
}

}  // namespace
