#!/usr/bin/env python3
"""A toy field: two producers and a water injector on one tank. Starts like every simulator:

    toy_field.py PATH ROOT --port 9001
"""

from __future__ import annotations

from typing import Dict, Mapping, Tuple

from jobmill.simulator import Simulator, run

WELLS = {"P1": "PRODUCER", "P2": "PRODUCER", "I1": "WATER_INJECTOR"}
FULL_RATE = {"P1": 400.0, "P2": 250.0, "I1": 600.0}  # sm3/d at the first pressure
LIMITS = ("OIL_PRODUCTION_RATE", "LIQUID_PRODUCTION_RATE", "WATER_INJECTION_RATE")


class ToyField(Simulator):
    end_time = 720.0

    def __init__(self) -> None:
        self.pressure = 250.0  # bar
        self.statuses = {well: "OPEN" for well in WELLS}
        self.uptimes = {well: 1.0 for well in WELLS}
        self.limits: Dict[str, Dict[str, Tuple[float, str]]] = {well: {} for well in WELLS}

    def wells(self) -> Mapping[str, str]:
        return WELLS

    def status(self, well: str) -> str:
        return self.statuses[well]

    def rate(self, well: str) -> float:
        share = self.pressure / 250.0 if WELLS[well] == "PRODUCER" else 1.0
        limits = [value for item, (value, _) in self.limits[well].items() if item in LIMITS]
        is_open = self.statuses[well] == "OPEN"
        return min([FULL_RATE[well] * share * self.uptimes[well], *limits]) if is_open else 0.0

    def number(self, well: str, item: str) -> float:
        rate = self.rate(well)
        oil, water = (rate, 0.0) if WELLS[well] == "PRODUCER" else (0.0, rate)
        drawdown = (rate if oil else -rate) / 10.0
        return {
            "OIL_PRODUCTION_RATE": oil,
            "GAS_PRODUCTION_RATE": oil * 120.0,
            "WATER_PRODUCTION_RATE": 0.0,
            "LIQUID_PRODUCTION_RATE": oil,
            "WATER_INJECTION_RATE": water,
            "GAS_INJECTION_RATE": 0.0,
            "BOTTOM_HOLE_PRESSURE": self.pressure - drawdown,
            "TUBING_HEAD_PRESSURE": max(0.0, self.pressure - drawdown - 180.0),
            "UPTIME_FRACTION": self.uptimes[well],
            "TEMPERATURE": 90.0,
            "OIL_DENSITY": 720.0,
            "GAS_DENSITY": 150.0,
            "WATER_DENSITY": 1020.0,
        }[item]

    def advance(self, until: float) -> None:
        net = self.rate("I1") - self.rate("P1") - self.rate("P2")
        self.pressure = max(50.0, self.pressure + net * (until - self.time) / 1e4)
        self.time = until

    def set_status(self, well: str, status: str) -> None:
        self.statuses[well] = status

    def set_uptime(self, well: str, fraction: float) -> None:
        self.uptimes[well] = fraction

    def set_constraint(self, well: str, item: str, value: float, setter: str) -> None:
        self.limits[well][item] = (value, setter)

    def constraints(self, well: str) -> Mapping[str, Tuple[float, str]]:
        return self.limits[well]


if __name__ == "__main__":
    run(ToyField)
