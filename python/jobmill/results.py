"""What requests answer. Values are in the unit system of the run: metric or field."""

from __future__ import annotations

import sys
from array import array
from dataclasses import dataclass
from importlib import import_module
from typing import Any, Dict, Iterator, List, Sequence, Tuple, Union, overload

from .errors import ProtocolError
from .master_link import (
    NEXT_INFLOW_TABLE,
    NEXT_OPERATING_POINT,
    bytes_text,
    code_of,
    unpack_reply,
)


@dataclass(frozen=True)
class Well:
    """A well as the simulator knows it: texts of the simulator, such as PRODUCER and OPEN."""

    name: str
    type: str
    status: str


class Wells(Sequence[Well]):
    """All wells of a model; each is made when it is asked for, by position or by name."""

    def __init__(self, rows: Sequence[Tuple[str, str, str]]) -> None:
        self._rows = rows
        columns = tuple(zip(*rows)) or ((), (), ())
        self.names: Tuple[str, ...] = columns[0]
        self.types: Tuple[str, ...] = columns[1]
        self.statuses: Tuple[str, ...] = columns[2]

    def to_pandas(self) -> Any:
        """A pandas.DataFrame with a row for each well. Needs pandas."""
        pandas = import_module("pandas")
        columns = {"well": self.names, "type": self.types, "status": self.statuses}
        return pandas.DataFrame(columns).set_index("well")

    def __len__(self) -> int:
        return len(self._rows)

    @overload
    def __getitem__(self, which: Union[int, str]) -> Well:
        ...

    @overload
    def __getitem__(self, which: slice) -> List[Well]:
        ...

    def __getitem__(self, which: Union[int, str, slice]) -> Union[Well, List[Well]]:
        if isinstance(which, slice):
            return [Well(*row) for row in self._rows[which]]
        return Well(*self._rows[_position(self.names, which)])


@dataclass(frozen=True)
class OperatingPoint:
    """What a well does now."""

    well: str
    #: A text of the simulator, such as OPEN.
    status: str
    #: sm3/d; field: stb/d
    oil_rate: float
    #: sm3/d; field: MMscf/d
    gas_rate: float
    #: sm3/d; field: stb/d
    water_rate: float
    #: sm3/d; field: stb/d
    water_injection_rate: float
    #: sm3/d; field: MMscf/d
    gas_injection_rate: float
    #: bar; field: psi
    bottom_hole_pressure: float
    #: bar; field: psi
    tubing_head_pressure: float
    #: fraction of the time that the well is on
    uptime: float


_ACKNOWLEDGED = bytes(4)
_COLUMNS = (
    "oil_rate",
    "gas_rate",
    "water_rate",
    "water_injection_rate",
    "gas_injection_rate",
    "bottom_hole_pressure",
    "tubing_head_pressure",
    "uptime",
)


class OperatingPoints(Sequence[OperatingPoint]):
    """The operating points of many wells, in the order in which they were asked for.

    Columns come as arrays of doubles, without an object for each well. A record is made when it is asked
    for, by position or by the well's name.
    """

    def __init__(self, wells: Sequence[str]) -> None:
        #: Names of the wells.
        self.wells: Tuple[str, ...] = tuple(wells)
        self._statuses: List[str] = []
        self._known: Dict[bytes, str] = {}
        self._packed: List[bytes] = []
        self._columns: Dict[str, array[float]] = {}

    def take(self, replies: Sequence[bytes]) -> None:
        """Takes the next records. Done as they arrive, this costs no time: the daemon is still at work."""
        known = self._known
        for body in replies:
            # The code, the status, eight doubles, the acknowledgement: after the status the size is fixed.
            split = len(body) - 68
            if split < 8 or int.from_bytes(body[4:8], "little") != split - 8:
                unpack_reply(body)  # says what is wrong
                raise ProtocolError(f"a reply to {NEXT_OPERATING_POINT} of {len(body)} bytes")
            if body[-4:] != _ACKNOWLEDGED:
                raise ProtocolError(f"a reply to {NEXT_OPERATING_POINT} is not acknowledged with 0")
            text = body[8:split]
            status = known.get(text)
            if status is None:
                status = known[text] = bytes_text(text)
            self._statuses.append(status)
            self._packed.append(body[split:-4])

    def complete(self) -> OperatingPoints:
        """Itself, with the columns of all records that were taken."""
        values = array("d", b"".join(self._packed))
        self._packed.clear()
        if sys.byteorder != "little":
            values.byteswap()
        width = len(_COLUMNS)
        self._columns = {name: values[i::width] for i, name in enumerate(_COLUMNS)}
        return self

    @property
    def status(self) -> List[str]:
        return self._statuses

    @property
    def oil_rate(self) -> array[float]:
        """sm3/d; field: stb/d"""
        return self._columns["oil_rate"]

    @property
    def gas_rate(self) -> array[float]:
        """sm3/d; field: MMscf/d"""
        return self._columns["gas_rate"]

    @property
    def water_rate(self) -> array[float]:
        """sm3/d; field: stb/d"""
        return self._columns["water_rate"]

    @property
    def water_injection_rate(self) -> array[float]:
        """sm3/d; field: stb/d"""
        return self._columns["water_injection_rate"]

    @property
    def gas_injection_rate(self) -> array[float]:
        """sm3/d; field: MMscf/d"""
        return self._columns["gas_injection_rate"]

    @property
    def bottom_hole_pressure(self) -> array[float]:
        """bar; field: psi"""
        return self._columns["bottom_hole_pressure"]

    @property
    def tubing_head_pressure(self) -> array[float]:
        """bar; field: psi"""
        return self._columns["tubing_head_pressure"]

    @property
    def uptime(self) -> array[float]:
        """Fractions of the time that the wells are on."""
        return self._columns["uptime"]

    def columns(self) -> Dict[str, Sequence[Any]]:
        """Everything, as columns of equal length: wells, statuses, numbers."""
        return {"well": self.wells, "status": self._statuses, **self._columns}

    def to_pandas(self) -> Any:
        """A pandas.DataFrame with a row for each well. Needs pandas."""
        pandas = import_module("pandas")
        return pandas.DataFrame(self.columns()).set_index("well")

    def __len__(self) -> int:
        return len(self.wells)

    @overload
    def __getitem__(self, which: Union[int, str]) -> OperatingPoint:
        ...

    @overload
    def __getitem__(self, which: slice) -> List[OperatingPoint]:
        ...

    def __getitem__(
        self, which: Union[int, str, slice]
    ) -> Union[OperatingPoint, List[OperatingPoint]]:
        if isinstance(which, slice):
            return [self[i] for i in range(*which.indices(len(self)))]
        i = range(len(self))[_position(self.wells, which)]
        numbers = (self._columns[name][i] for name in _COLUMNS)
        return OperatingPoint(self.wells[i], self._statuses[i], *numbers)


def _position(wells: Tuple[str, ...], which: Union[int, str]) -> int:
    if not isinstance(which, str):
        return which
    try:
        return wells.index(which)
    except ValueError:
        raise KeyError(which) from None


@dataclass(frozen=True)
class InflowTable:
    """Inflow performance of a well: at point k what flows at `pressure[k]`.

    The first point is the open well; the rates fall from point to point.
    """

    well: str
    #: Bottom-hole or tubing-head pressure, as was asked for: bar; field: psi
    pressure: Tuple[float, ...]
    #: sm3/d; field: stb/d
    oil_rate: Tuple[float, ...]
    #: sm3/d; field: stb/d
    water_rate: Tuple[float, ...]
    #: sm3/d; field: MMscf/d
    gas_rate: Tuple[float, ...]
    #: degC; field: degF
    temperature: Tuple[float, ...]
    #: kg/m3; field: lb/ft3
    gas_density: Tuple[float, ...]
    #: kg/m3; field: lb/ft3
    oil_density: Tuple[float, ...]
    #: kg/m3; field: lb/ft3
    water_density: Tuple[float, ...]
    #: For each point the mole fractions of the components; empty when none were asked for.
    compositions: Tuple[Tuple[float, ...], ...]


class InflowTables(Sequence[InflowTable]):
    """The inflow tables of wells, in the order in which they were asked for; made when asked for."""

    def __init__(self, wells: Sequence[str], replies: Sequence[bytes]) -> None:
        self.wells: Tuple[str, ...] = tuple(wells)
        self._replies = replies
        for body in replies:
            if code_of(body) != NEXT_INFLOW_TABLE:
                raise ProtocolError(f"a reply with the code {code_of(body)}")

    def to_pandas(self) -> Any:
        """A pandas.DataFrame with a row for each well and point. Needs pandas."""
        pandas = import_module("pandas")
        names = [name for name in InflowTable.__dataclass_fields__ if name != "compositions"]
        rows = (
            (table.well, point, *(getattr(table, name)[point] for name in names[1:]))
            for table in self
            for point in range(len(table.pressure))
        )
        return pandas.DataFrame(rows, columns=["well", "point", *names[1:]])

    def __len__(self) -> int:
        return len(self.wells)

    def __iter__(self) -> Iterator[InflowTable]:
        return (self[i] for i in range(len(self)))

    @overload
    def __getitem__(self, which: Union[int, str]) -> InflowTable:
        ...

    @overload
    def __getitem__(self, which: slice) -> List[InflowTable]:
        ...

    def __getitem__(self, which: Union[int, str, slice]) -> Union[InflowTable, List[InflowTable]]:
        if isinstance(which, slice):
            return [self[i] for i in range(*which.indices(len(self)))]
        i = range(len(self))[_position(self.wells, which)]
        values = unpack_reply(self._replies[i])
        return InflowTable(self.wells[i], **{name: tuple(value) for name, value in values.items()})


@dataclass(frozen=True)
class EquationOfState:
    """The fluid of a compositional run. Each series has a value for each component."""

    #: Name of the equation, such as PENG_ROBINSON.
    name: str
    components: Tuple[str, ...]
    molecular_weight: Tuple[float, ...]
    #: K; field: degR
    critical_temperature: Tuple[float, ...]
    #: bar; field: psi
    critical_pressure: Tuple[float, ...]
    #: m3/kmol; field: ft3/lbmol
    critical_volume: Tuple[float, ...]
    acentric_factor: Tuple[float, ...]
    #: K; field: degR
    boiling_point: Tuple[float, ...]
    volume_shift: Tuple[float, ...]
    omega_a: Tuple[float, ...]
    omega_b: Tuple[float, ...]
    parachor: Tuple[float, ...]
    #: The triangle below the diagonal, row by row, as the simulator gives it.
    binary_interaction: Tuple[float, ...]

    def to_pandas(self) -> Any:
        """A pandas.DataFrame with a row for each component. Needs pandas."""
        pandas = import_module("pandas")
        names = [n for n in EquationOfState.__dataclass_fields__ if n not in _NOT_BY_COMPONENT]
        table = {name: getattr(self, name) for name in names if getattr(self, name)}
        return pandas.DataFrame(table, index=list(self.components))


_NOT_BY_COMPONENT = ("name", "components", "binary_interaction")
