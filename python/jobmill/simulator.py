"""A base class for simulators of one's own: it speaks the protocol, the author's class has the field.

    class MyField(Simulator):
        ...

    if __name__ == "__main__":
        run(MyField)

is a program that a distribution script can start. A complete one is examples/toy_field.py.
"""

from __future__ import annotations

import argparse
import datetime
import math
import socket
import sys
from collections import defaultdict
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, List, Mapping, Optional, Sequence, Tuple

from . import controller_link
from .controller_link import END, READY, Asked, Header, Message, integers, numbers, texts
from .errors import Error, ProtocolError, TimedOut
from .stream import Stream

METRIC = "TOLMEN_METRIC"
FIELD = "TOLMEN_FIELD"
#: The limits of the page. Others are a simulator's own affair.
LIMITS = (
    "LIQUID_PRODUCTION_RATE",
    "OIL_PRODUCTION_RATE",
    "GAS_PRODUCTION_RATE",
    "WATER_PRODUCTION_RATE",
    "WATER_INJECTION_RATE",
    "GAS_INJECTION_RATE",
    "BOTTOM_HOLE_PRESSURE",
    "TUBING_HEAD_PRESSURE",
)


@dataclass(frozen=True)
class FluidModel:
    """A fluid of a compositional run."""

    name: str
    equation_of_state: str
    components: Sequence[str]
    #: The triangle below the diagonal, row by row.
    binary_interaction: Sequence[float] = ()
    #: For each property, such as "Molecular weight", a value for each component.
    properties: Mapping[str, Sequence[float]] = field(default_factory=dict)


class Simulator:
    """A simulator. Override what the field has; all else has a sensible answer.

    Time is in days since `start`, and rates and pressures are in the units of `units`. Methods are called
    one at a time, in the order of the controller's requests, at every position of the run. What they raise
    ends the run.
    """

    #: 2016.2 has no external sources, so these are never asked for.
    version = "2017.2"
    units = METRIC
    start = datetime.date(2000, 1, 1)
    #: When the run ends, in days.
    end_time = 3650.0
    #: How far a CONTINUE goes, in days.
    max_step = 30.0
    #: Now, in days. advance() moves it.
    time = 0.0

    def __init__(self) -> None:
        #: What has been set. A class that overrides a setter keeps what it sets itself.
        self.statuses: Dict[str, str] = defaultdict(lambda: "OPEN")
        self.uptimes: Dict[str, float] = defaultdict(lambda: 1.0)
        self.limits: Dict[str, Dict[str, Tuple[float, str]]] = defaultdict(dict)

    # The field.

    def wells(self) -> Mapping[str, str]:
        """All wells with their types: PRODUCER, WATER_INJECTOR, GAS_INJECTOR."""
        return {}

    def status(self, well: str) -> str:
        """OPEN or SHUT."""
        return self.statuses[well]

    def number(self, well: str, item: str) -> float:
        """An item of a well, such as OIL_PRODUCTION_RATE. KeyError for one that the field does not have.

        Rates are averages over the day, never negative, and 0 for a well that is SHUT.
        """
        raise KeyError(item)

    def advance(self, until: float) -> None:
        """Computes on to a later time, never beyond `end_time`. May stop earlier only at the end."""
        self.time = until

    # Controls. They have to act on the very next query, without a step in between. A value without sense
    # changes nothing; unknown wells are passed over already, and "*" is taken apart.

    def set_status(self, well: str, status: str) -> None:
        if status in ("OPEN", "SHUT"):
            self.statuses[well] = status

    def set_uptime(self, well: str, fraction: float) -> None:
        if 0.0 <= fraction <= 1.0:
            self.uptimes[well] = fraction

    def set_constraint(self, well: str, item: str, value: float, setter: str) -> None:
        """Limits a rate or a pressure from now on. The page has the names that are needed.

        Values out of reach, such as 100,000, take a limit off: take them like every other.
        """
        if item in LIMITS and value >= 0.0:
            self.limits[well][item] = (value, setter)

    def limit(self, well: str, item: str) -> float:
        """What has been set last; infinite where nothing has."""
        return self.limits[well].get(item, (math.inf, ""))[0]

    # What not every simulator has.

    def constraints(self, well: str) -> Mapping[str, Tuple[float, str]]:
        """The limits of a well, each with who has set it."""
        return self.limits[well]

    def inflow(
        self, well: str, pressure: str, points: int, skewness: float
    ) -> Mapping[str, Sequence[float]]:
        """Inflow curves by item, all of one length."""
        return {}

    def fluid_models(self) -> Sequence[FluidModel]:
        """The fluids of a compositional run, the field's own first; none for a black-oil run."""
        return ()

    def attach_source(self, well: str, source: str, phase: str) -> bool:
        """Attaches an external source to a well; whether that was possible."""
        return False

    def set_composition(self, source: str, fractions: Mapping[str, float], phase: str) -> None:
        """Sets what an external source delivers: mole fractions by component."""

    # What follows from the above, and seldom needs to be overridden.

    def text(self, well: str, item: str) -> str:
        """An item of a well that is a text. KeyError for one that the field does not have."""
        if item == "TYPE":
            return self.wells()[well]
        if item == "STATUS":
            return self.status(well)
        raise KeyError(item)

    def run_text(self, item: str) -> str:
        """An item of the run that is a text."""
        fluid = "COMPOSITIONAL" if self.fluid_models() else "BLACK_OIL"
        return {
            "VK_VERSION": self.version,
            "UNIT_SYSTEM": self.units,
            "FM_FLUID_MODEL": fluid,
            "RES_FLUID_MODEL": fluid,
        }[item]

    def run_integers(self, item: str) -> Sequence[int]:
        """An item of the run that consists of integers."""
        return {"START_DATE": (self.start.year, self.start.month, self.start.day, 0, 0, 0)}[item]

    def set_up(self, version: str) -> Sequence[str]:
        """A controller has connected: the errors for which it is refused, or none."""
        return ()

    def shut_down(self) -> None:
        """The controller has ended the run."""


class Conversation:
    """What a simulator says to one controller, without the connection."""

    def __init__(self, simulator: Simulator) -> None:
        self._simulator = simulator
        self._position = ""
        self._finished = False
        #: The controller has ended the run.
        self.over = False

    def answer(self, message: Message) -> List[Message]:
        """What is said to a message. Raises ProtocolError where the message breaks the protocol."""
        asked = controller_link.understand(message)
        if not self._position and asked.kind != "SETUP":
            raise ProtocolError(f"{asked.kind} before SETUP")
        handler: Callable[[Asked], List[Message]] = getattr(self, "_" + asked.kind.lower())
        return handler(asked)

    # Running the simulation.

    def _setup(self, asked: Asked) -> List[Message]:
        errors = self._simulator.set_up(asked.row["VERSION"][0])
        started = [Header("STARTED"), texts("ERRORS", *errors), END]
        if errors:
            return [started]
        self._position = "MODEL_DEFINITION"
        return [started, self._step()]

    def _continue(self, asked: Asked) -> List[Message]:
        simulator = self._simulator
        if self._position == "MODEL_DEFINITION":
            return [self._advance(simulator.time)]
        return [self._advance(simulator.time + simulator.max_step)]

    def _continue_until(self, asked: Asked) -> List[Message]:
        return [self._advance(asked.row["TIME"][0])]

    def _shutdown(self, asked: Asked) -> List[Message]:
        self.over = True
        self._simulator.shut_down()
        return [[Header("FINISHED"), END]]

    def _advance(self, until: float) -> Message:
        simulator = self._simulator
        if self._position == "END_SIMULATE":
            return [Header("FINISHED"), END]
        self._position = "BEGIN_NEWTON"
        if until > simulator.time:
            simulator.advance(min(until, simulator.end_time))
        if simulator.time >= simulator.end_time:
            self._position = "END_SIMULATE"
        return self._step()

    def _step(self) -> Message:
        simulator = self._simulator
        seconds = round(simulator.time * 86400)
        now = datetime.datetime.combine(simulator.start, datetime.time())
        now += datetime.timedelta(seconds=seconds)
        return [
            Header("STEP"),
            texts("POSITION", self._position),
            numbers("TIME", simulator.time),
            integers("DATE", now.year, now.month, now.day, now.hour, now.minute, now.second),
            END,
        ]

    # Queries.

    def _known(self, names: Sequence[str]) -> List[str]:
        wells = self._simulator.wells()
        if list(names) == ["*"]:
            return list(wells)
        return [name for name in names if name in wells]

    def _qwells(self, asked: Asked) -> List[Message]:
        return self._rows(asked, "DOUB", self._simulator.number)

    def _qwells_str(self, asked: Asked) -> List[Message]:
        return self._rows(asked, "CSTR", self._simulator.text)

    def _rows(self, asked: Asked, kind: str, ask: Callable[[str, str], object]) -> List[Message]:
        wells = self._known(asked.row["WELNAMES"])
        # The properties are named where no well is, too.
        any_well = [*wells, *self._simulator.wells()][:1]
        items = [i for i in asked.row["QITEMS"] if not any_well or _has(ask, any_well[0], i)]
        message = [Header("REPLY"), texts("QITEMS", *items)]
        for well in wells:
            values = tuple([ask(well, item) for item in items])
            message += (texts("WELLNAME", well), Header("VALUES", kind, values))  # type: ignore[arg-type]
        return [[*message, END], READY]

    def _qresvr(self, asked: Asked) -> List[Message]:
        return self._run_items(asked, "INTE", self._simulator.run_integers)

    def _qresvr_str(self, asked: Asked) -> List[Message]:
        return self._run_items(asked, "CSTR", lambda item: (self._simulator.run_text(item),))

    def _run_items(
        self, asked: Asked, kind: str, ask: Callable[[str], Sequence[object]]
    ) -> List[Message]:
        message = [Header("REPLY")]
        for item in asked.row["QITEMS"]:
            try:
                values = tuple(ask(item))
            except KeyError:
                continue
            message += (texts("QITEM", item), Header("VALUES", kind, values))  # type: ignore[arg-type]
        return [[*message, END], READY]

    def _qwconstraints(self, asked: Asked) -> List[Message]:
        message = [Header("REPLY")]
        for well in self._known(asked.row["WELNAMES"]):
            limits = self._simulator.constraints(well)
            message += (
                texts("WELLNAME", well),
                texts("ITEMS", *limits),
                numbers("VALUES", *(value for value, _ in limits.values())),
                texts("SETTERS", *(setter for _, setter in limits.values())),
            )
        return [[*message, END], READY]

    def _qiprdata(self, asked: Asked) -> List[Message]:
        row = asked.row
        message = [Header("REPLY")]
        for well, pressure in zip(row["WELNAMES"], row["PRESSURETYPES"]):
            if well not in self._simulator.wells():
                continue
            curves = self._simulator.inflow(well, pressure, row["NPOINTS"][0], row["SKEWNESS"][0])
            points = len(next(iter(curves.values()), ()))
            message += (texts("WELLNAME", well), integers("NPOINTS", points))
            for item, values in curves.items():
                message += (texts("ITEM", item), numbers("VALUES", *values))
        return [[*message, END], READY]

    def _qfmfluidmodel(self, asked: Asked) -> List[Message]:
        models = self._simulator.fluid_models()[:1]
        components = [texts("NCOMPS", *model.components) for model in models]
        return [[Header("REPLY"), *components, END], READY]

    def _qrfluidmodel(self, asked: Asked) -> List[Message]:
        message = [Header("REPLY")]
        for model in self._simulator.fluid_models():
            message += (
                texts("FLUIDMODELDNAME", model.name),
                texts("EOSNAME", model.equation_of_state),
                texts("NCOMPS", *model.components),
                numbers("BIC", *model.binary_interaction),
            )
            for name, values in model.properties.items():
                message += (texts("EOSPROPNAME", name), numbers("VALUES", *values))
        return [[*message, END], READY]

    # Setters. What the field does not know is passed over: the protocol has no refusal for setters.

    def _setwconstraints(self, asked: Asked) -> List[Message]:
        for row in asked.rows:
            for well in self._known(row["WELLNAME"]):
                for limit in zip(row["ITEMS"], row["VALUES"], row["SETTERS"]):
                    self._simulator.set_constraint(well, *limit)
        return [READY]

    def _setwstatus(self, asked: Asked) -> List[Message]:
        for well, status in self._pairs(asked):
            self._simulator.set_status(well, status)
        return [READY]

    def _setwells(self, asked: Asked) -> List[Message]:
        for well, fraction in self._pairs(asked):
            self._simulator.set_uptime(well, fraction)
        return [READY]

    def _pairs(self, asked: Asked) -> List[Tuple[str, Any]]:
        names, values = asked.row["WELNAMES"], asked.row["VALUES"]
        if list(names) == ["*"]:
            return [(well, values[0]) for well in self._simulator.wells()]
        return [pair for pair in zip(names, values) if pair[0] in self._simulator.wells()]

    def _setwstre(self, asked: Asked) -> List[Message]:
        row = asked.row
        fractions: Dict[str, float] = dict(zip(row["STCMPNAMES"], row["STCMPVALUES"]))
        self._simulator.set_composition(row["STNAME"][0], fractions, row["STPHASE"][0])
        return [READY]

    def _create_fldsrcext(self, asked: Asked) -> List[Message]:
        row = asked.row
        well, source, phase = row["WELLNAME"][0], row["STNAME"][0], row["STPHASE"][0]
        known = well in self._simulator.wells()
        accepted = known and self._simulator.attach_source(well, source, phase)
        return [[Header("REPLY"), integers("STRET", int(accepted)), END], READY]


def _has(ask: Callable[[str, str], object], well: str, item: str) -> bool:
    try:
        ask(well, item)
    except KeyError:
        return False
    return True


def converse(simulator: Simulator, stream: Stream) -> None:
    """Serves one controller until it ends the run or leaves. Raises ProtocolError when it breaks the rules."""
    conversation = Conversation(simulator)
    while not conversation.over:
        arrived = controller_link.take_message(stream.received)
        if arrived is None:
            if stream.receive():
                continue
            if stream.received:
                raise ProtocolError("the controller left within a message")
            return
        for answer in conversation.answer(controller_link.decode(arrived.body)):
            stream.send_later(controller_link.chunked(controller_link.encode(answer)))
        stream.send(b"")


def serve(
    make: Callable[[], Simulator],
    port: int = 9001,
    host: str = "127.0.0.1",
    *,
    runs: Optional[int] = 1,
    wait: Optional[float] = 300.0,
    listening: Callable[[int], None] = lambda port: None,
) -> None:
    """Listens and serves so many controllers, one after the other, each with a field of its own.

    port: 0 takes a free one, which `listening` is told.
    runs: None for any number.
    wait: seconds for a controller to connect; TimedOut when none does.
    """
    with socket.create_server((host, port)) as listener:
        listening(listener.getsockname()[1])
        while runs is None or runs > 0:
            listener.settimeout(wait)
            try:
                accepted, _ = listener.accept()
            except socket.timeout:
                raise TimedOut(f"no controller came in {wait:g} seconds") from None
            with Stream(accepted) as stream:
                converse(make(), stream)
            runs = None if runs is None else runs - 1


def run(make: Callable[[], Simulator], arguments: Optional[Sequence[str]] = None) -> None:
    """The main function of a simulator: PATH ROOT --port N --processes N [--debug], as scripts call it.

    Ends with the status 0 after a run, 1 when nobody came, 3 when the controller broke the protocol.
    """
    parser = argparse.ArgumentParser()
    parser.add_argument("path", nargs="?", help="data path")
    parser.add_argument("root", nargs="?", help="root name of the model")
    parser.add_argument("--port", type=int, default=9001)
    parser.add_argument("--address", default="127.0.0.1")
    parser.add_argument("--processes", type=int, default=1)
    parser.add_argument("--debug", action="store_true")
    parser.add_argument("--runs", type=int, default=1, help="runs, one after the other")
    options = parser.parse_args(arguments)

    def listening(port: int) -> None:
        print(f"Listening on port {port}", flush=True)

    try:
        serve(make, options.port, options.address, runs=options.runs, listening=listening)
    except ProtocolError as error:
        sys.exit(_complain(error, 3))
    except (Error, OSError) as error:
        sys.exit(_complain(error, 1))


def _complain(error: Exception, status: int) -> int:
    print(error, file=sys.stderr)
    return status
