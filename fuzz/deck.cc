// Decks of vksim: a deck is refused with its file and line, or it is one that can be run, with
// every number finite and within its bounds.

#include "simulator/deck.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <set>
#include <string>
#include <string_view>

#include "fuzz/support/input.h"
#include "fuzz/support/promise.h"

namespace {

using simulator::Deck;

void CheckPlace(std::string_view message) {
  constexpr std::string_view file = "FUZZ.afi:";
  PROMISE(message.starts_with(file));
  message.remove_prefix(file.size());
  unsigned line = 0;
  const auto [end, error] = std::from_chars(message.data(), message.data() + message.size(), line);
  PROMISE(error == std::errc() && line > 0);
  message.remove_prefix(static_cast<std::size_t>(end - message.data()));
  PROMISE(message.starts_with(": ") && message.size() > 2);
}

void CheckFractions(const std::vector<double>& fractions, std::size_t components) {
  PROMISE(fractions.size() == components);
  for (const double fraction : fractions) PROMISE(fraction >= 0 && fraction <= 1);
  const double sum = std::accumulate(fractions.begin(), fractions.end(), 0.0);
  PROMISE(std::abs(sum - 1) < 1e-9);
}

void CheckWells(const Deck& deck) {
  PROMISE(!deck.wells.empty());
  std::set<std::string_view> names;
  for (const simulator::WellDeck& well : deck.wells) {
    PROMISE(!well.name.empty() && names.insert(well.name).second);
    PROMISE(well.uptime >= 0 && well.uptime <= 1);
    PROMISE(well.index > 0 && std::isfinite(well.index));
    PROMISE(well.depth > 0 && std::isfinite(well.depth));
    PROMISE(well.tubing_diameter > 0 && std::isfinite(well.tubing_diameter));
    for (const auto& limit : well.limits) PROMISE(!limit || (*limit >= 0 && std::isfinite(*limit)));
  }
}

void Check(const Deck& deck) {
  PROMISE(deck.start.ok());
  PROMISE(deck.end_time > 0 && std::isfinite(deck.end_time));
  PROMISE(deck.max_step > 0 && std::isfinite(deck.max_step));
  for (const double value :
       {deck.pressure, deck.temperature, deck.pore_volume, deck.rock_compressibility,
        deck.water_saturation, deck.fracture_pressure, deck.injection_temperature,
        deck.water_density, deck.water_volume_factor, deck.water_compressibility}) {
    PROMISE(std::isfinite(value));
  }
  PROMISE(deck.pressure > 0 && deck.pore_volume > 0);
  if (deck.composition) {
    const std::size_t components = deck.composition->components.size();
    PROMISE(components >= 2);
    CheckFractions(deck.composition->reservoir, components);
    CheckFractions(deck.composition->injection_gas, components);
  }
  CheckWells(deck);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    Check(simulator::parse_deck(Input(data, size).Rest(), "FUZZ.afi"));
  } catch (const simulator::DeckError& error) {
    CheckPlace(error.what());
  }
  return 0;
}
