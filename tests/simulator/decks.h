#pragma once

#include <string>

// Decks that the tests run and spoil. Line numbers count, so a replacement keeps lines.
namespace decks {

/// Metric black oil; lines 1 to 25 are the sections before the wells.
inline const std::string kBlackOilHead = R"([run]
units = "METRIC"
fluid = "BLACK_OIL"
start = 2020-02-27
end_time = 3650
max_step = 10

[reservoir]
pressure = 280
temperature = 90
length = 3000
width = 2000
thickness = 15
porosity = 0.2
water_saturation = 0.2

[black_oil]
api = 35
gas_gravity = 0.75
bubble_point = 180

[flow]
oil_viscosity = 0.8
water_viscosity = 0.4

)";

inline const std::string kProducer = R"([[well]]
name = "P1"
type = "PRODUCER"
productivity_index = 5
depth = 1300
tubing_diameter = 88.9
[well.constraints]
BOTTOM_HOLE_PRESSURE = 120
)";

inline const std::string kWaterInjector = R"([[well]]
name = "W1"
type = "WATER_INJECTOR"
injectivity_index = 10
depth = 2550
tubing_diameter = 114.3
[well.constraints]
WATER_INJECTION_RATE = 700
)";

inline const std::string kGasInjector = R"([[well]]
name = "G1"
type = "GAS_INJECTOR"
injectivity_index = 4000
depth = 2450
tubing_diameter = 114.3
[well.constraints]
GAS_INJECTION_RATE = 100000
)";

inline const std::string kBlackOil = kBlackOilHead + kProducer + kWaterInjector + kGasInjector;

inline const std::string kCompositionalHead = R"([run]
units = "METRIC"
fluid = "COMPOSITIONAL"
start = 2021-07-01
end_time = 1000
max_step = 20

[reservoir]
pressure = 330
temperature = 105
length = 2000
width = 1500
thickness = 15
porosity = 0.18
water_saturation = 0.22

[composition]
components = ["N2", "C1", "C3", "C6", "C7+"]
composition = [0.01, 0.50, 0.15, 0.09, 0.25]
injection_gas = [0.02, 0.90, 0.08, 0, 0]

)";

inline const std::string kCompositional =
    kCompositionalHead + kProducer + kWaterInjector + kGasInjector;

/// `text` with the one place of `from` replaced.
inline std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

}  // namespace decks
