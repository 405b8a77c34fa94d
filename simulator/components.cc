#include "simulator/components.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace simulator {
namespace {

const std::array<Component, 12>& library() {
  // Molecular weight, TCrit, PCrit, VCrit, acentric factor, boiling point, volume shift, omegas,
  // parachor. C7+ stands for the single-carbon-number group C13.
  static const std::array<Component, 12> kComponents{{
      {"N2", 28.013, 126.2, 33.9, 0.0898, 0.039, 77.4, -0.1927, kOmegaA, kOmegaB, 41.0},
      {"CO2", 44.010, 304.1, 73.8, 0.0939, 0.239, 194.7, -0.0817, kOmegaA, kOmegaB, 78.0},
      {"H2S", 34.080, 373.2, 89.4, 0.0986, 0.081, 213.5, -0.1288, kOmegaA, kOmegaB, 80.1},
      {"C1", 16.043, 190.4, 46.0, 0.0992, 0.011, 111.6, -0.1540, kOmegaA, kOmegaB, 77.0},
      {"C2", 30.070, 305.4, 48.8, 0.1483, 0.099, 184.6, -0.1002, kOmegaA, kOmegaB, 108.0},
      {"C3", 44.094, 369.8, 42.5, 0.2030, 0.153, 231.1, -0.08501, kOmegaA, kOmegaB, 150.3},
      {"IC4", 58.124, 408.2, 36.5, 0.2630, 0.183, 261.4, -0.07935, kOmegaA, kOmegaB, 181.5},
      {"NC4", 58.124, 425.2, 38.0, 0.2550, 0.199, 272.7, -0.06413, kOmegaA, kOmegaB, 189.9},
      {"IC5", 72.151, 460.4, 33.9, 0.3060, 0.227, 301.0, -0.04350, kOmegaA, kOmegaB, 225.0},
      {"NC5", 72.151, 469.7, 33.7, 0.3040, 0.251, 309.2, -0.04183, kOmegaA, kOmegaB, 231.5},
      {"C6", 86.178, 507.5, 30.1, 0.3700, 0.299, 341.9, -0.01478, kOmegaA, kOmegaB, 271.0},
      {"C7+", 175.0, 687.08, 19.663, 0.6952, 0.5866, 508.33, 0.1193, kOmegaA, kOmegaB, 509.3},
  }};
  return kComponents;
}

// The coefficients of a non-hydrocarbon with each component of library(), in that order.
struct Interactions {
  std::string_view name;
  std::array<double, 12> with;
};
constexpr std::array<Interactions, 3> kInteractions{{
    {"N2", {0, 0, 0.130, 0.025, 0.010, 0.090, 0.095, 0.095, 0.100, 0.110, 0.110, 0.110}},
    {"CO2", {0, 0, 0.135, 0.105, 0.130, 0.125, 0.120, 0.115, 0.115, 0.115, 0.115, 0.115}},
    {"H2S", {0.130, 0.135, 0, 0.070, 0.085, 0.080, 0.075, 0.075, 0.070, 0.070, 0.055, 0.050}},
}};

std::optional<double> interaction_of(const std::string& gas, const std::string& other) {
  const auto row = std::find_if(kInteractions.begin(), kInteractions.end(),
                                [&](const Interactions& each) { return each.name == gas; });
  const auto column = std::find_if(library().begin(), library().end(),
                                   [&](const Component& each) { return each.name == other; });
  if (row == kInteractions.end() || column == library().end()) return std::nullopt;
  return row->with[static_cast<std::size_t>(column - library().begin())];
}

}  // namespace

std::optional<Component> find_component(const std::string& name) {
  const auto found = std::find_if(library().begin(), library().end(),
                                  [&](const Component& each) { return each.name == name; });
  if (found == library().end()) return std::nullopt;
  return *found;
}

double binary_interaction(const std::string& a, const std::string& b) {
  if (const auto value = interaction_of(a, b)) return *value;
  return interaction_of(b, a).value_or(0);
}

}  // namespace simulator
