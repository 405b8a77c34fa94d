"""A field each of whose numbers tells where it belongs, to see whether answers arrive in their places."""

from __future__ import annotations

import datetime
from typing import Mapping, Sequence

from ..simulator import METRIC, FluidModel, Simulator

SERIES = {
    "Molecular weight": "molecular_weight",
    "TCrit": "critical_temperature",
    "PCrit": "critical_pressure",
    "VCRIT": "critical_volume",
    "Acentric factor": "acentric_factor",
    "BP": "boiling_point",
    "VSHIFT": "volume_shift",
    "OMEGAA": "omega_a",
    "OMEGAB": "omega_b",
    "Parachor": "parachor",
}
POINT = {
    "OIL_PRODUCTION_RATE": "oil_rate",
    "GAS_PRODUCTION_RATE": "gas_rate",
    "WATER_PRODUCTION_RATE": "water_rate",
    "WATER_INJECTION_RATE": "water_injection_rate",
    "GAS_INJECTION_RATE": "gas_injection_rate",
    "BOTTOM_HOLE_PRESSURE": "bottom_hole_pressure",
    "TUBING_HEAD_PRESSURE": "tubing_head_pressure",
    "UPTIME_FRACTION": "uptime",
}
COMPONENTS = ("C1", "CO2", "C7+")
ODD = "well with blanks " + "and a long name " * 12 + "\u00e9"


class KnownField(Simulator):
    """A field each of whose numbers tells where it belongs."""

    start = datetime.date(2024, 2, 28)
    end_time = 1000.0

    def __init__(self, wells: int = 0, units: str = METRIC, named: str = "W{:05}") -> None:
        super().__init__()
        self.units = units
        many = {named.format(i): "PRODUCER" for i in range(wells)}
        self._wells = many or {
            "P1": "PRODUCER",
            ODD: "PRODUCER",
            "I1": "WATER_INJECTOR",
            "G1": "GAS_INJECTOR",
        }
        self._numbers = {name: number for number, name in enumerate(self._wells)}

    def wells(self) -> Mapping[str, str]:
        return self._wells

    def number(self, well: str, item: str) -> float:
        base = 1000.0 * (self._numbers[well] + 1)
        if item.startswith("TOTAL_MOLE_FRACTION["):
            return int(item[20:-1]) / 6.0
        offsets = [*POINT, "TEMPERATURE", "GAS_DENSITY", "WATER_DENSITY", "OIL_DENSITY"]
        offsets += ["LIQUID_PRODUCTION_RATE", "GAS_OIL_RATIO", "WATER_CUT"]
        if item not in offsets:
            raise KeyError(item)
        if item.endswith("_RATE") and self.status(well) == "SHUT":
            return 0.0
        if item == "UPTIME_FRACTION" and well in self.uptimes:
            return self.uptimes[well]
        value = base + 10.0 * offsets.index(item) + 0.125
        if item.endswith("_RATE"):
            value = min(value, self.limit(well, item))
        return value

    def set_status(self, well: str, status: str) -> None:
        self.statuses[well] = status

    def fluid_models(self) -> Sequence[FluidModel]:
        properties = {name: [10.0 * (i + 1) + k for k in range(3)] for i, name in enumerate(SERIES)}
        return [FluidModel("FLUID", "PENG_ROBINSON", COMPONENTS, [0.1, 0.2, 0.3], properties)]

    def attach_source(self, well: str, source: str, phase: str) -> bool:
        return well == "G1"

    def hide_wells(self) -> None:
        """A model without wells."""
        self._wells.clear()
