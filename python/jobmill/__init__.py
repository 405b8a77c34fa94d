"""The kit for programs at either end of a jobmill: docs/python.md.

Run and AsyncRun are the master's side, jobmill.simulator is for simulators, `python3 -m jobmill.check` tells
right from wrong, and `python3 -m jobmill.wire` shows, records and repeats what is said.
"""

from __future__ import annotations

from .aio import AsyncRun
from .errors import ConnectFailed, Error, ProtocolError, Refused, RunEnded, TimedOut
from .results import (
    EquationOfState,
    InflowTable,
    InflowTables,
    OperatingPoint,
    OperatingPoints,
    Well,
    Wells,
)
from .run import Run

__version__ = "0.1.0"

__all__ = [
    "AsyncRun",
    "ConnectFailed",
    "EquationOfState",
    "Error",
    "InflowTable",
    "InflowTables",
    "OperatingPoint",
    "OperatingPoints",
    "ProtocolError",
    "Refused",
    "Run",
    "RunEnded",
    "TimedOut",
    "Well",
    "Wells",
]
