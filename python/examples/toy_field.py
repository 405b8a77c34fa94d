#!/usr/bin/env python3
"""A toy field: two producers and two injectors on one tank. Starts like every simulator:

    toy_field.py PATH ROOT --port 9001
"""

from __future__ import annotations

from typing import Mapping

from jobmill.simulator import Simulator, run

WELLS = {"P1": "PRODUCER", "P2": "PRODUCER", "I1": "WATER_INJECTOR", "G1": "GAS_INJECTOR"}
FULL_RATE = {"P1": 400.0, "P2": 250.0, "I1": 600.0, "G1": 9000.0}  # sm3/d at the first pressure
GAS_OIL_RATIO = 120.0
# What a unit of a well's rate counts for in the limits that concern the well.
LIMITS = {
    "PRODUCER": {
        "OIL_PRODUCTION_RATE": 1.0,
        "LIQUID_PRODUCTION_RATE": 1.0,
        "GAS_PRODUCTION_RATE": GAS_OIL_RATIO,
    },
    "WATER_INJECTOR": {"WATER_INJECTION_RATE": 1.0},
    "GAS_INJECTOR": {"GAS_INJECTION_RATE": 1.0},
}
# How much a unit of a well's rate lowers its pressure.
DRAWDOWN = {"PRODUCER": 0.1, "WATER_INJECTOR": -0.1, "GAS_INJECTOR": -0.005}  # bar


class ToyField(Simulator):
    end_time = 720.0
    pressure = 250.0  # bar

    def wells(self) -> Mapping[str, str]:
        return WELLS

    def rate(self, well: str) -> float:
        """The average over the day: whatever is limited, acts at once."""
        if self.status(well) == "SHUT":
            return 0.0
        share = self.pressure / 250.0 if WELLS[well] == "PRODUCER" else 1.0
        counts = LIMITS[WELLS[well]].items()
        limits = [self.limit(well, item) / count for item, count in counts]
        return min([FULL_RATE[well] * share * self.uptimes[well], *limits])

    def number(self, well: str, item: str) -> float:
        rate, kind = self.rate(well), WELLS[well]
        oil = rate if kind == "PRODUCER" else 0.0
        pressure = self.pressure - rate * DRAWDOWN[kind]
        return {
            "OIL_PRODUCTION_RATE": oil,
            "GAS_PRODUCTION_RATE": oil * GAS_OIL_RATIO,
            "WATER_PRODUCTION_RATE": 0.0,
            "LIQUID_PRODUCTION_RATE": oil,
            "WATER_INJECTION_RATE": rate if kind == "WATER_INJECTOR" else 0.0,
            "GAS_INJECTION_RATE": rate if kind == "GAS_INJECTOR" else 0.0,
            "BOTTOM_HOLE_PRESSURE": pressure,
            "TUBING_HEAD_PRESSURE": max(0.0, pressure - 180.0),
            "UPTIME_FRACTION": self.uptimes[well],
            "TEMPERATURE": 90.0,
            "OIL_DENSITY": 720.0,
            "GAS_DENSITY": 150.0,
            "WATER_DENSITY": 1020.0,
        }[item]

    def advance(self, until: float) -> None:
        net = self.rate("I1") + self.rate("G1") / 200.0 - self.rate("P1") - self.rate("P2")
        self.pressure = max(50.0, self.pressure + net * (until - self.time) / 1e4)
        self.time = until


if __name__ == "__main__":
    run(ToyField)
