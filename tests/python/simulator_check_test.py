"""What `jobmill.check simulator` is worth: broken simulators and unusual ones."""

from __future__ import annotations

import re
import sys
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from math import inf, nan
from typing import Any, Callable, Dict, List, Mapping, Optional, Sequence, Tuple

from support import ROOT, SOON, ThreadedSimulator, free_ports

from jobmill import controller_link
from jobmill.check import daemon as daemon_check
from jobmill.check import master as master_check
from jobmill.check.report import FAILED, NOT_APPLICABLE, PASSED, Report
from jobmill.check.simulator import LIMITS, RULES, Check
from jobmill.controller_link import END, READY, Asked, Header, Message, chunked, encode
from jobmill.controller_link import numbers, texts
from jobmill.errors import ProtocolError
from jobmill.simulator import Conversation, FluidModel, Simulator
from jobmill.stream import Stream
from toy_field import DRAWDOWN, WELLS, ToyField

Answers = List[Message]


class Compositional(ToyField):
    """The toy field with a fluid, so that every rule applies."""

    fractions = {"TOTAL_MOLE_FRACTION[1]": 0.25, "TOTAL_MOLE_FRACTION[2]": 0.75}

    def number(self, well: str, item: str) -> float:
        return self.fractions[item] if item in self.fractions else super().number(well, item)

    def fluid_models(self) -> Sequence[FluidModel]:
        return [FluidModel("OIL", "PR", ("C1", "C7+"), [0.1], {"TCrit": [190.0, 687.0]})]

    def inflow(
        self, well: str, pressure: str, points: int, skewness: float
    ) -> Mapping[str, Sequence[float]]:
        return {pressure: [10.0] * points, "OIL_PRODUCTION_RATE": [5.0] * points}


def check(server: ThreadedSimulator, patience: float = SOON) -> Check:
    found = Check("127.0.0.1", server.port, patience=patience, everything=True)
    found.run()
    return found


# Variants: what is done to the answers of a right simulator.


def to(kind: str, change: Callable[[Answers], Sequence[Any]]) -> Callable[[Asked, Answers], Any]:
    return lambda asked, answers: change(answers) if asked.kind == kind else answers


def first(kind: str, change: Callable[[Message], Message]) -> Callable[[Asked, Answers], Any]:
    """Changes the first answer to a kind of request."""
    return to(kind, lambda answers: [change(answers[0]), *answers[1:]])


def header(name: str, change: Callable[[Header], Header]) -> Callable[[Message], Message]:
    return lambda message: [change(h) if h.name == name else h for h in message]


def data(name: str, change: Callable[[Any], Any]) -> Callable[[Message], Message]:
    return header(name, lambda h: h._replace(data=change(h.data)))


def raw(answer: Message) -> bytearray:
    return bytearray(chunked(encode(answer)))


def total_too_small(answers: Answers) -> List[bytes]:
    found = raw(answers[0])
    found[0] -= 1
    return [bytes(found)]


def empty_chunk(answers: Answers) -> List[bytes]:
    body = encode(answers[0])
    lengths = len(body).to_bytes(8, "little") + (4).to_bytes(8, "little")
    return [lengths + body[:4] + bytes(8) + bytes(8) + body[4:]]


def lower_case_tag(answers: Answers) -> List[bytes]:
    return [bytes(raw(answers[0]).replace(b"MESS", b"mess", 1))]


def count_beyond_the_end(answers: Answers) -> List[bytes]:
    found = bytes(raw(answers[0]))
    return [
        found.replace(b"END" + bytes(8), b"END" + b"\7" + bytes(7), 1).replace(b"MESS", b"MESS")
    ]


class Late(Compositional):
    """Limits act with the next step only."""

    def __init__(self) -> None:
        super().__init__()
        self.waiting: List[Tuple[str, str, float, str]] = []

    def set_constraint(self, well: str, item: str, value: float, setter: str) -> None:
        self.waiting.append((well, item, value, setter))

    def advance(self, until: float) -> None:
        for limit in self.waiting:
            super().set_constraint(*limit)
        super().advance(until)


class Lowest(Compositional):
    """Keeps the lowest limit."""

    def set_constraint(self, well: str, item: str, value: float, setter: str) -> None:
        known = self.limits[well].get(item, (value, ""))[0]
        super().set_constraint(well, item, min(known, value), setter)


class OneWellAtATime(Conversation):
    def _setwconstraints(self, asked: Asked) -> Answers:
        return super()._setwconstraints(asked._replace(rows=asked.rows[:1]))


class GoesBack(Conversation):
    def _continue_until(self, asked: Asked) -> Answers:
        self._simulator.time = min(self._simulator.time, asked.row["TIME"][0])
        return super()._continue_until(asked)


class NeverEnds(Conversation):
    def _advance(self, until: float) -> Message:
        message = super()._advance(until)
        if message[0].name == "FINISHED":
            self._position = "BEGIN_NEWTON"
            return self._step()
        return message


class Stubborn(Conversation):
    """CONTINUE does not run on."""

    def _continue(self, asked: Asked) -> Answers:
        return [self._advance(self._simulator.time)]


class Shy(Conversation):
    """Leaves when a condition on what arrives, and on the position, holds."""

    leaves: Callable[[Asked, str], bool] = staticmethod(lambda asked, position: False)

    def answer(self, message: Message) -> Answers:
        if self.leaves(controller_link.understand(message), self._position):
            raise ProtocolError("left")
        return super().answer(message)


def shy(condition: Callable[[Asked], bool]) -> Callable[[Simulator], Conversation]:
    return shy_at(lambda asked, position: condition(asked))


def shy_at(condition: Callable[[Asked, str], bool]) -> Callable[[Simulator], Conversation]:
    return type("ShyOne", (Shy,), {"leaves": staticmethod(condition)})


class NoStar(Conversation):
    def _known(self, names: Sequence[str]) -> List[str]:
        return [name for name in names if name in self._simulator.wells()]


class KnowsEverybody(Conversation):
    def _rows(self, asked: Asked, kind: str, ask: Callable[[str, str], object]) -> Answers:
        [message, ready] = super()._rows(asked, kind, ask)
        names = {h.data[0] for h in message if h.name == "WELLNAME"}
        value = 0.0 if kind == "DOUB" else "?"
        for name in asked.row["WELNAMES"]:
            if name not in names and name != "*":
                values: Any = (value,) * len(message[1].data)
                message[-1:] = [texts("WELLNAME", name), Header("VALUES", kind, values), END]
        return [message, ready]


class AllWellsAlways(Conversation):
    def _known(self, names: Sequence[str]) -> List[str]:
        return list(self._simulator.wells())


class Variant:
    def __init__(
        self,
        rule: str,
        mangle: Callable[[Asked, Answers], Any] = lambda asked, answers: answers,
        model: Callable[[], Simulator] = Compositional,
        conversation: Callable[[Simulator], Conversation] = Conversation,
        write: Optional[Callable[[Stream, bytes], None]] = None,
        patience: float = SOON,
    ) -> None:
        self.rule = rule
        #: Shorter for simulators that say nothing where they should.
        self.patience = patience
        self.server = lambda: ThreadedSimulator(model, mangle, write, conversation)


def with_attribute(**attributes: Any) -> Callable[[], Simulator]:
    return type("Changed", (Compositional,), attributes)


def run_text(item: str, text: str) -> Callable[[], Simulator]:
    def answer(self: Simulator, asked: str) -> str:
        return text if asked == item else Compositional.run_text(self, asked)

    return with_attribute(run_text=answer)


class FinishedAtOnce(Conversation):
    """Says FINISHED when the end is reached, instead of a step."""

    def _advance(self, until: float) -> Message:
        message = super()._advance(until)
        return [Header("FINISHED"), END] if self._position == "END_SIMULATE" else message


def any_source(asked: Asked, answers: Answers) -> Answers:
    """Accepts a source for whatever well."""
    if asked.kind == "CREATE_FLDSRCEXT":
        return [data("STRET", lambda _: (1,))(answers[0]), *answers[1:]]
    return answers


def isnan(values: Sequence[float]) -> bool:
    return any(value != value for value in values)


def ignores(*names: str) -> Callable[[], Simulator]:
    """Takes no notice of some limits."""

    def set_constraint(
        self: Compositional, well: str, item: str, value: float, setter: str
    ) -> None:
        if item not in names:
            Compositional.set_constraint(self, well, item, value, setter)

    return with_attribute(set_constraint=set_constraint)


def takes_limits_if(sensible: Callable[[str, float], bool]) -> Callable[[], Simulator]:
    def set_constraint(self: Pressed, well: str, item: str, value: float, setter: str) -> None:
        if sensible(item, value):
            Pressed.set_constraint(self, well, item, value, setter)

    return type("Picky", (Pressed,), {"set_constraint": set_constraint})


class Pressed(Compositional):
    """Obeys limits of the bottom-hole pressure, too."""

    def __init__(self) -> None:
        super().__init__()
        self.pressures: Dict[str, float] = {}

    def set_constraint(self, well: str, item: str, value: float, setter: str) -> None:
        if item == "BOTTOM_HOLE_PRESSURE" and value >= 0.0:
            self.pressures[well] = value
        super().set_constraint(well, item, value, setter)

    def rate(self, well: str) -> float:
        rate, limit = super().rate(well), self.pressures.get(well)
        if limit is None:
            return rate
        return max(0.0, min(rate, (self.pressure - limit) / DRAWDOWN[WELLS[well]]))


class RatesAfterAStep(Compositional):
    """Statuses act on rates with the next step only."""

    def __init__(self) -> None:
        super().__init__()
        self.acting = self.statuses.copy()

    def advance(self, until: float) -> None:
        self.acting = self.statuses.copy()
        super().advance(until)

    def rate(self, well: str) -> float:
        known, self.statuses = self.statuses, self.acting
        try:
            return super().rate(well)
        finally:
            self.statuses = known


def always(name: str, value: object) -> Callable[[], Simulator]:
    """Computes rates as if a control of every well were never moved."""

    def rate(self: Compositional, well: str) -> float:
        controls = getattr(self, name)
        known, controls[well] = controls[well], value
        try:
            return Compositional.rate(self, well)
        finally:
            controls[well] = known

    return with_attribute(rate=rate)


def items_of(item: str, change: Callable[[float], float]) -> Callable[[], Simulator]:
    """Answers another value of an item."""

    def number(self: Compositional, well: str, asked: str) -> float:
        value = Compositional.number(self, well, asked)
        return change(value) if asked == item else value

    return with_attribute(number=number)


def fractions(*values: float, first: int = 1) -> Callable[[], Simulator]:
    names = [f"TOTAL_MOLE_FRACTION[{first + n}]" for n in range(len(values))]
    return with_attribute(fractions=dict(zip(names, values)))


def types(**words: str) -> Callable[[], Simulator]:
    """Other words for the types of wells."""

    def text(self: Compositional, well: str, item: str) -> str:
        found = Compositional.text(self, well, item)
        return words.get(found, found) if item == "TYPE" else found

    return with_attribute(text=text)


def setter(kind: str, change: Callable[[Asked], Asked]) -> Callable[[Simulator], Conversation]:
    """Obeys something else than what a setter says."""

    def obeys(self: Conversation, asked: Asked) -> Answers:
        handler: Callable[[Conversation, Asked], Answers] = getattr(Conversation, f"_{kind}")
        return handler(self, change(asked))

    return type("Setter", (Conversation,), {f"_{kind}": obeys})


def cut_row(at: slice, *names: str) -> Callable[[Asked], Asked]:
    """Leaves elements of the lists of each row out."""

    def change(asked: Asked) -> Asked:
        rows = [{n: v[at] if n in names else v for n, v in row.items()} for row in asked.rows]
        return asked._replace(rows=rows)

    return change


FIRST = slice(0, 1)
LAST = slice(-1, None)
LIMIT_LISTS = ("ITEMS", "VALUES", "SETTERS")


class NoStarIn(Conversation):
    """Knows no "*" in some requests."""

    requests: Tuple[str, ...] = ()

    def answer(self, message: Message) -> Answers:
        self.kind = controller_link.understand(message).kind
        return super().answer(message)

    def _known(self, names: Sequence[str]) -> List[str]:
        if self.kind in self.requests and "*" in names:
            return []
        return super()._known(names)

    def _pairs(self, asked: Asked) -> List[Tuple[str, Any]]:
        if self.kind in self.requests and "*" in asked.row["WELNAMES"]:
            return []
        return super()._pairs(asked)


def no_star_in(*kinds: str) -> Callable[[Simulator], Conversation]:
    return type("NoStar", (NoStarIn,), {"requests": kinds})


class OpenWellsOnly(Conversation):
    def _known(self, names: Sequence[str]) -> List[str]:
        known = super()._known(names)
        model = self._simulator
        return [w for w in known if model.status(w) == "OPEN"] if "*" in names else known


class UnknownMeansAll(Conversation):
    """Sets all wells where it does not find one."""

    def _pairs(self, asked: Asked) -> List[Tuple[str, Any]]:
        pairs = super()._pairs(asked)
        values = asked.row["VALUES"]
        return pairs if pairs or not values else [(w, values[0]) for w in self._simulator.wells()]


class Forgets(Conversation):
    """Forgets all limits of a well when something of it is set."""

    def _setwconstraints(self, asked: Asked) -> Answers:
        for row in asked.rows:
            for well in self._known(row["WELLNAME"]):
                self._simulator.limits[well].clear()
        return super()._setwconstraints(asked)


class ForgetsWhenShut(Conversation):
    def _setwstatus(self, asked: Asked) -> Answers:
        for well, _ in self._pairs(asked):
            self._simulator.limits[well].clear()
        return super()._setwstatus(asked)


class TimeGoesOn(Conversation):
    """Time moves with each query of numbers."""

    def _qwells(self, asked: Asked) -> Answers:
        self._simulator.time += 0.001
        return super()._qwells(asked)


class Drains(Conversation):
    """Pressure falls with each query of numbers."""

    def _qwells(self, asked: Asked) -> Answers:
        self._simulator.pressure -= 0.01  # type: ignore[attr-defined]
        return super()._qwells(asked)


def start_moves(self: Compositional, item: str) -> Sequence[int]:
    found = list(Compositional.run_integers(self, item))
    return [found[0] + int(self.time) // 365, *found[1:]]


def one_row_each(message: Message) -> Message:
    """The rows of an answer without those of a well that has one already."""
    rows = {message[at].data: message[at : at + 2] for at in range(2, len(message) - 1, 2)}
    return [*message[:2], *(h for row in rows.values() for h in row), END]


def names_unknown(asked: Asked, *lists: str) -> bool:
    return any(
        str(name).startswith("NO SUCH")
        for row in asked.rows
        for key in lists
        for name in row.get(key, ())
    )


def leaves_at_unknown(kind: str, *lists: str) -> Callable[[Simulator], Conversation]:
    return shy(lambda asked: asked.kind == kind and names_unknown(asked, *lists))


def complains(asked: Asked, answers: Answers) -> Answers:
    """Says that a well is unknown before it says that it is ready."""
    if asked.kind == "SETWSTATUS" and names_unknown(asked, "WELNAMES"):
        return [[Header("ERROR"), END], *answers]
    return answers


def is_query(asked: Asked) -> bool:
    return asked.kind.startswith("Q")


def is_setter(asked: Asked) -> bool:
    return asked.kind in ("SETWSTATUS", "SETWELLS", "SETWCONSTRAINTS")


BROKEN: Dict[str, Variant] = {
    "total length one too small": Variant("S02", to("SETUP", total_too_small)),
    "empty chunk in the middle": Variant("S02", to("QRESVR_STR", empty_chunk)),
    "cut at 1,000 bytes": Variant(
        "S03", lambda asked, answers: [chunked(encode(answer), 1000) for answer in answers]
    ),
    "type in small letters": Variant("S04", to("QRESVR_STR", lower_case_tag)),
    "END with a count": Variant("S04", to("QRESVR_STR", count_beyond_the_end)),
    "no END": Variant("S05", first("QRESVR_STR", lambda message: message[:-1])),
    "headers after END": Variant("S05", first("QRESVR_STR", lambda message: [*message, END])),
    "no ERRORS": Variant("S06", first("SETUP", lambda message: [message[0], END])),
    "no step answer after STARTED": Variant(
        "S07", to("SETUP", lambda answers: answers[:1]), patience=1.0
    ),
    "begins in BEGIN_NEWTON": Variant(
        "S08",
        to("SETUP", lambda a: [a[0], data("POSITION", lambda _: ("BEGIN_NEWTON",))(a[1])]),
    ),
    "a date of three integers": Variant("S09", first("CONTINUE", data("DATE", lambda d: d[:3]))),
    "another position": Variant(
        "S10", first("CONTINUE_UNTIL", data("POSITION", lambda _: ("RUNNING",)))
    ),
    "day, month, year": Variant(
        "S11", first("CONTINUE", data("DATE", lambda d: (d[2], d[1], d[0], *d[3:])))
    ),
    "the date stands still": Variant(
        "S11", first("CONTINUE_UNTIL", data("DATE", lambda d: (2000, 1, 1, 0, 0, 0)))
    ),
    "stays at the model definition": Variant(
        "S12", first("CONTINUE", data("POSITION", lambda _: ("MODEL_DEFINITION",)))
    ),
    "stops in whole days only": Variant(
        "S13", first("CONTINUE_UNTIL", data("TIME", lambda t: (float(int(t[0])),)))
    ),
    "goes back in time": Variant("S14", conversation=GoesBack),
    "CONTINUE does nothing": Variant("S15", conversation=Stubborn),
    "goes on after the end": Variant("S16", conversation=NeverEnds),
    "READY for SHUTDOWN": Variant("S17", to("SHUTDOWN", lambda answers: [READY])),
    "READY twice": Variant("S18", to("SETWSTATUS", lambda answers: [READY, READY])),
    "no READY after a query": Variant(
        "S19", to("QRESVR_STR", lambda answers: answers[:1]), patience=1.0
    ),
    "REPLY for a setter": Variant(
        "S20", to("SETWELLS", lambda answers: [[Header("REPLY"), END], READY])
    ),
    "no REPLY": Variant("S21", first("QRESVR", lambda message: message[1:])),
    "rows without names": Variant(
        "S22", first("QWELLS", lambda m: [h for h in m if h.name != "WELLNAME"])
    ),
    "a value too few": Variant("S23", first("QWELLS", data("VALUES", lambda v: v[:-1]))),
    "numbers as texts": Variant(
        "S24",
        first("QWELLS", header("VALUES", lambda h: texts(h.name, *map(str, h.data)))),
    ),
    "all wells whoever is asked for": Variant("S25", conversation=AllWellsAlways),
    "properties of the run without names": Variant(
        "S26", first("QRESVR_STR", lambda m: [h for h in m if h.name != "QITEM"])
    ),
    "the start date as numbers": Variant(
        "S27", first("QRESVR", header("VALUES", lambda h: numbers(h.name, *map(float, h.data))))
    ),
    "the start date without a time": Variant(
        "S28", first("QRESVR", data("VALUES", lambda d: d[:3]))
    ),
    "setters are missing": Variant(
        "S29", first("QWCONSTRAINTS", data("SETTERS", lambda s: ("?",)))
    ),
    "curves shorter than announced": Variant(
        "S30", first("QIPRDATA", data("VALUES", lambda v: v[:-1]))
    ),
    "components under another name": Variant(
        "S31", first("QFMFLUIDMODEL", header("NCOMPS", lambda h: h._replace(name="COMPS")))
    ),
    "no interaction coefficients": Variant(
        "S32", first("QRFLUIDMODEL", lambda m: [h for h in m if h.name != "BIC"])
    ),
    "a component without a value": Variant(
        "S33", first("QRFLUIDMODEL", data("VALUES", lambda v: v[:1]))
    ),
    "status is not taken": Variant("S34", model=with_attribute(set_status=lambda *_: None)),
    "uptime is not taken": Variant("S35", model=with_attribute(set_uptime=lambda *_: None)),
    "limits act after a step": Variant("S36", model=Late),
    "the lowest limit stays": Variant("S37", model=Lowest),
    "limits of the first well only": Variant("S38", conversation=OneWellAtATime),
    "STRET as a number": Variant(
        "S39", first("CREATE_FLDSRCEXT", header("STRET", lambda h: numbers("STRET", 1.0)))
    ),
    "columns in an order of its own": Variant(
        "S53",
        to(
            "QWELLS",
            lambda a: [
                data("VALUES", lambda v: v[::-1])(data("QITEMS", lambda q: q[::-1])(a[0])),
                a[1],
            ],
        ),
    ),
    "leaves at an empty list": Variant(
        "S44", conversation=shy(lambda asked: asked.row.get("WELNAMES", 1) == ())
    ),
    "leaves at many wells": Variant(
        "S43", conversation=shy(lambda asked: len(asked.row.get("WELNAMES", ())) > 4000)
    ),
    "no star": Variant("S45", conversation=NoStar),
    "no uptime": Variant(
        "S46", first("QWELLS", lambda m: m if "UPTIME_FRACTION" not in m[1].data else without(m))
    ),
    "units of another name": Variant("S48", model=run_text("UNIT_SYSTEM", "METRIC")),
    "a version that begins with a letter": Variant("S49", model=run_text("VK_VERSION", "V2017")),
    "knows every well": Variant("S51", conversation=KnowsEverybody),
    "one row for a well asked for twice": Variant("S25", first("QWELLS_STR", one_row_each)),
    "no queries before the first step": Variant(
        "S54", conversation=shy_at(lambda a, at: at == "MODEL_DEFINITION" and is_query(a))
    ),
    "no setters before the first step": Variant(
        "S54", conversation=shy_at(lambda a, at: at == "MODEL_DEFINITION" and is_setter(a))
    ),
    "no queries after the end": Variant(
        "S55", conversation=shy_at(lambda a, at: at == "END_SIMULATE" and is_query(a))
    ),
    "no setters after the end": Variant(
        "S55", conversation=shy_at(lambda a, at: at == "END_SIMULATE" and is_setter(a))
    ),
    "a shut well keeps its rates": Variant("S57", model=always("statuses", "OPEN")),
    "statuses act after a step": Variant("S57", model=RatesAfterAStep),
    "uptime has no effect": Variant("S58", model=always("uptimes", 1.0)),
    "status of the first well only": Variant(
        "S59", conversation=setter("setwstatus", cut_row(FIRST, "WELNAMES", "VALUES"))
    ),
    "status of the last well only": Variant(
        "S59", conversation=setter("setwstatus", cut_row(LAST, "WELNAMES", "VALUES"))
    ),
    "uptime of the first well only": Variant(
        "S60", conversation=setter("setwells", cut_row(FIRST, "WELNAMES", "VALUES"))
    ),
    "no star for a status": Variant("S61", conversation=no_star_in("SETWSTATUS")),
    "no star for an uptime": Variant("S61", conversation=no_star_in("SETWELLS")),
    "no star for a limit": Variant("S61", conversation=no_star_in("SETWCONSTRAINTS")),
    "no star for numbers": Variant("S62", conversation=no_star_in("QWELLS")),
    "the star lists open wells only": Variant("S45", conversation=OpenWellsOnly),
    "leaves at the status of an unknown well": Variant(
        "S63", conversation=leaves_at_unknown("SETWSTATUS", "WELNAMES")
    ),
    "leaves at the uptime of an unknown well": Variant(
        "S63", conversation=leaves_at_unknown("SETWELLS", "WELNAMES")
    ),
    "leaves at a limit of an unknown well": Variant(
        "S63", conversation=leaves_at_unknown("SETWCONSTRAINTS", "WELLNAME")
    ),
    "leaves at an unknown constraint": Variant(
        "S63", conversation=leaves_at_unknown("SETWCONSTRAINTS", "ITEMS")
    ),
    "leaves at an unknown status": Variant(
        "S63", conversation=leaves_at_unknown("SETWSTATUS", "VALUES")
    ),
    "leaves at an unknown source": Variant(
        "S63", conversation=leaves_at_unknown("SETWSTRE", "STNAME")
    ),
    "leaves at a source for an unknown well": Variant(
        "S63", conversation=leaves_at_unknown("CREATE_FLDSRCEXT", "WELLNAME")
    ),
    "leaves at a well without constraints": Variant(
        "S63",
        conversation=shy(lambda asked: asked.rows[-1:] != [] and asked.row.get("ITEMS") == ()),
    ),
    "leaves at a limit that is no number": Variant(
        "S63", conversation=shy(lambda a: a.kind == "SETWCONSTRAINTS" and isnan(a.row["VALUES"]))
    ),
    "an error message before READY": Variant("S63", complains),
    "an unknown well means all of them": Variant("S63", conversation=UnknownMeansAll),
    "an uptime of 7 is taken": Variant(
        "S63", model=with_attribute(set_uptime=lambda s, well, f: s.uptimes.update({well: f}))
    ),
    "attaches a source to an unknown well": Variant(
        "S63", model=with_attribute(attach_source=lambda *_: True), mangle=any_source
    ),
    "the first constraint of a message only": Variant(
        "S64", conversation=setter("setwconstraints", cut_row(FIRST, *LIMIT_LISTS))
    ),
    "the last constraint of a message only": Variant(
        "S64", conversation=setter("setwconstraints", cut_row(LAST, *LIMIT_LISTS))
    ),
    "a message replaces all limits of a well": Variant("S65", conversation=Forgets),
    "a well that is shut forgets its limits": Variant("S65", conversation=ForgetsWhenShut),
    "liquid limits are ignored": Variant("S66", model=ignores("LIQUID_PRODUCTION_RATE")),
    "gas limits are ignored": Variant("S66", model=ignores("GAS_PRODUCTION_RATE")),
    "water injection limits are ignored": Variant("S66", model=ignores("WATER_INJECTION_RATE")),
    "gas injection limits are ignored": Variant("S66", model=ignores("GAS_INJECTION_RATE")),
    "oil limits alone are obeyed": Variant("S66", model=ignores(*LIMITS)),
    "a limit out of reach is refused": Variant(
        "S67", model=takes_limits_if(lambda item, value: value < 15000.0 or "GAS" in item)
    ),
    "a gas limit out of reach is refused": Variant(
        "S67", model=takes_limits_if(lambda item, value: value < 1e8)
    ),
    "a pressure of 0 is refused": Variant(
        "S67", model=takes_limits_if(lambda item, value: value > 0.0 or "RATE" in item)
    ),
    "a pressure of 100,000 is refused": Variant(
        "S67", model=takes_limits_if(lambda item, value: value < 99999.0 or "RATE" in item)
    ),
    "a rate that is no number": Variant(
        "S68", model=items_of("WATER_PRODUCTION_RATE", lambda _: nan)
    ),
    "a pressure that is infinite": Variant(
        "S68", model=items_of("TUBING_HEAD_PRESSURE", lambda _: inf)
    ),
    "injection rates are negative": Variant(
        "S68", model=items_of("WATER_INJECTION_RATE", lambda rate: -rate)
    ),
    "uptime in percent": Variant(
        "S68", model=items_of("UPTIME_FRACTION", lambda fraction: fraction * 100.0)
    ),
    "no mole fractions": Variant("S69", model=fractions()),
    "a mole fraction too few": Variant("S69", model=fractions(0.25)),
    "mole fractions from 0": Variant("S69", model=fractions(0.25, 0.75, first=0)),
    "mole fractions from 0, and one too many": Variant(
        "S69", model=fractions(0.25, 0.75, 0.0, first=0)
    ),
    "mole fractions in percent": Variant("S69", model=fractions(25.0, 75.0)),
    "producers in small letters": Variant("S70", model=types(PRODUCER="producer")),
    "producers of another name": Variant("S70", model=types(PRODUCER="OIL WELL")),
    "water injectors of another name": Variant("S70", model=types(WATER_INJECTOR="WINJ")),
    "water injectors with a blank": Variant("S70", model=types(WATER_INJECTOR="WATER INJECTOR")),
    "compositional in small letters": Variant(
        "S71", model=run_text("FM_FLUID_MODEL", "compositional")
    ),
    "field management of black oil": Variant("S71", model=run_text("FM_FLUID_MODEL", "BLACK_OIL")),
    "the start date moves": Variant("S75", model=with_attribute(run_integers=start_moves)),
    "queries take time": Variant("S76", conversation=TimeGoesOn),
    "queries change the field": Variant("S76", conversation=Drains),
    "FINISHED instead of the last step": Variant("S77", conversation=FinishedAtOnce),
}
#: Programs with something wrong that only a run of their own can show.
BROKEN_PROGRAMS = {
    "needs CONTINUE": "S56",
    "stays at the definition": "S56",
    "lingers after SHUTDOWN": "S73",
    "lingers without its controller": "S74",
}


def without(message: Message) -> Message:
    """Leaves the uptime out of an answer."""
    at = message[1].data.index("UPTIME_FRACTION")

    def cut(h: Header) -> Header:
        if h.name not in ("QITEMS", "VALUES"):
            return h
        return h._replace(data=(*h.data[:at], *h.data[at + 1 :]))  # type: ignore[arg-type]

    return [cut(h) for h in message]


def one_byte_packets(stream: Stream, answer: bytes) -> None:
    for at in range(len(answer)):
        stream.send(answer[at : at + 1])


def slowly(stream: Stream, answer: bytes) -> None:
    time.sleep(0.01)
    stream.send(answer)


class StepAtTheEnd(Conversation):
    """Says where it stands after the end, too."""

    def _advance(self, until: float) -> Message:
        message = super()._advance(until)
        return self._step() if message[0].name == "FINISHED" else message

    def _shutdown(self, asked: Asked) -> Answers:
        super()._shutdown(asked)
        return [self._step()]


class OldVersion(Compositional):
    version = "2016.2"


class LateStart(Conversation):
    """The first CONTINUE computes half a day."""

    def _continue(self, asked: Asked) -> Answers:
        begins = self._position == "MODEL_DEFINITION"
        return [self._advance(0.5)] if begins else super()._continue(asked)


class MoreStatuses(Compositional):
    """Takes any status, and knows what to do with it."""

    def set_status(self, well: str, status: str) -> None:
        self.statuses[well] = status


class Closed(Compositional):
    """Everything is shut at the beginning."""

    def __init__(self) -> None:
        super().__init__()
        self.statuses = {well: "SHUT" for well in WELLS}


class Switched(Compositional):
    """Nothing has been on at the beginning."""

    def __init__(self) -> None:
        super().__init__()
        self.uptimes = {well: 0.0 for well in WELLS}


def only(*wells: str) -> Callable[[], Simulator]:
    """A model of some of the wells."""
    return with_attribute(wells=lambda self: {well: WELLS[well] for well in wells})


class DryGas(Compositional):
    """Producers of gas alone."""

    def number(self, well: str, item: str) -> float:
        liquid = item in ("OIL_PRODUCTION_RATE", "LIQUID_PRODUCTION_RATE")
        return 0.0 if liquid else super().number(well, item)


class Paused(Compositional):
    """A well with a status of its own, which cannot be changed."""

    def __init__(self) -> None:
        super().__init__()
        self.statuses["P2"] = "PLANNED"

    def set_status(self, well: str, status: str) -> None:
        if well != "P2":
            super().set_status(well, status)

    def rate(self, well: str) -> float:
        return 0.0 if well == "P2" else super().rate(well)


#: Right, but not as one would expect.
UNUSUAL: Dict[str, Variant] = {
    "no limits of oil": Variant("", model=ignores("OIL_PRODUCTION_RATE")),
    "limits of pressures": Variant("", model=Pressed),
    "the first CONTINUE computes half a day": Variant("", conversation=LateStart),
    "any status": Variant("", model=MoreStatuses),
    "all wells shut": Variant("", model=Closed),
    "no well on": Variant("", model=Switched),
    "one producer": Variant("", model=only("P1")),
    "injectors only": Variant("", model=only("I1", "G1")),
    "a gas injector of another name": Variant("", model=types(GAS_INJECTOR="GAS LIFT")),
    "a well with a status of its own": Variant("", model=Paused),
    "no liquid": Variant("", model=DryGas),
    "one byte a packet": Variant("", write=one_byte_packets),
    "all answers in one write": Variant(
        "", lambda asked, answers: [b"".join(chunked(encode(answer)) for answer in answers)]
    ),
    "slow": Variant("", write=slowly),
    "rows in another order": Variant(
        "",
        lambda asked, answers: [turned(answers[0]), *answers[1:]]
        if asked.kind in ("QWELLS", "QWELLS_STR")
        else answers,
    ),
    "STEP instead of FINISHED": Variant("", conversation=StepAtTheEnd),
    "numbers in the date that nobody reads": Variant(
        "", first("CONTINUE", data("DATE", lambda d: (*d[:3], -1, 99, 7)))
    ),
}


def turned(message: Message) -> Message:
    rows = [message[at : at + 2] for at in range(2, len(message) - 1, 2)]
    return [*message[:2], *(h for row in rows[::-1] for h in row), END]


class SimulatorCheckTest(unittest.TestCase):
    def test_toy_field_keeps_every_rule(self) -> None:
        with ThreadedSimulator(Compositional) as server:
            report = check(server).report
        verdicts = {name: j for name, j in report.judgements.items() if j.verdict != PASSED}
        self.assertEqual(set(verdicts), {"S52", "S56", "S73", "S74"}, verdicts)
        self.assertEqual(report.status, 0)

    def test_broken_variants_are_caught_by_the_rule_that_they_break(self) -> None:
        missed = []

        def tried(variant: Variant) -> Report:
            with variant.server() as server:
                return check(server, variant.patience).report

        with ThreadPoolExecutor(4) as pool:
            for (name, variant), report in zip(BROKEN.items(), pool.map(tried, BROKEN.values())):
                judgement = report.judgements[variant.rule]
                if judgement.verdict != FAILED or report.status != 1:
                    missed.append(f"{name}: {variant.rule} {judgement}, {report.broken}")
        self.assertEqual(missed, [])

    def test_unusual_simulators_are_right(self) -> None:
        for name, variant in UNUSUAL.items():
            with self.subTest(name), variant.server() as server:
                report = check(server).report
                failed = {n: j for n, j in report.judgements.items() if j.verdict == FAILED}
                self.assertEqual((failed, report.status), ({}, 0))

    def program(self, variant: str, **more: Any) -> Report:
        """Checks a program that is started for each run."""
        program = ROOT / "tests" / "python" / "toy_process.py"
        line = f"{sys.executable} {program} '{variant}' {{port}}"
        port = free_ports(1)
        return Check("127.0.0.1", port, command=line, patience=SOON, **more).run()

    def test_programs_are_caught_by_the_rule_that_they_break(self) -> None:
        for variant, rule in BROKEN_PROGRAMS.items():
            with self.subTest(variant):
                report = self.program(variant, ending=1.0)
                self.assertEqual(report.judgements[rule].verdict, FAILED)
        self.assertEqual(self.program("right").status, 0)

    def test_command_that_ends_at_once_is_told_with_its_last_words(self) -> None:
        begun = time.monotonic()
        report = self.program("dies")
        self.assertLess(time.monotonic() - begun, SOON)
        found = report.judgements["S01"]
        self.assertEqual(found.verdict, FAILED)
        self.assertIn("ended with the status 1 and said: no deck / of that name", found.received)

    def test_model_without_wells_is_announced(self) -> None:
        with ThreadedSimulator(only()) as server:
            found = Check("127.0.0.1", server.port, patience=SOON, no_wells=True).run()
            unannounced = check(server).report
        verdicts = {name: found.judgements[name].verdict for name in ("S45", "S46", "S36", "S63")}
        absent = dict.fromkeys(("S46", "S36", "S63"), NOT_APPLICABLE)
        self.assertEqual((verdicts, found.status), ({"S45": PASSED, **absent}, 0))
        # Without the option it could as well be a simulator that does not know the star.
        self.assertIn("--no-wells", unannounced.judgements["S45"].expected)
        self.assertEqual(unannounced.status, 1)
        with ThreadedSimulator(Compositional) as server:
            found = Check("127.0.0.1", server.port, patience=SOON, no_wells=True).run()
        self.assertEqual(found.judgements["S45"].verdict, FAILED)

    def test_model_too_short_for_a_rule_is_told(self) -> None:
        with ThreadedSimulator(with_attribute(end_time=2.0)) as server:
            report = check(server).report
        self.assertIn("ended at day 2: check a model of more", report.judgements["S15"].why)
        self.assertEqual(report.status, 3)

    def test_report_says_what_the_model_has(self) -> None:
        with ThreadedSimulator(Pressed) as server:
            sheet = check(server).report.sheet
        self.assertEqual(sheet["wells"], "2 PRODUCER, 1 WATER_INJECTOR, 1 GAS_INJECTOR")
        self.assertEqual(sheet["fluid models"], "1, with 2 components")
        self.assertTrue(
            sheet["limits obeyed"].endswith("OIL_PRODUCTION_RATE, BOTTOM_HOLE_PRESSURE")
        )

    def test_sections_that_rules_name_are_in_their_pages(self) -> None:
        missing = []
        for rule in (*RULES, *master_check.RULES, *daemon_check.RULES):
            page = (ROOT / "docs" / rule.page).read_text(encoding="utf-8")
            if not re.search(rf"^#+ {re.escape(rule.section)}", page, re.M):
                missing.append(f"{rule.name}: {rule.page}, {rule.section}")
        self.assertEqual(missing, [])

    def test_old_version_names_its_list_freely_and_has_no_sources(self) -> None:
        renamed = first("QFMFLUIDMODEL", header("NCOMPS", lambda h: h._replace(name="ANY")))
        with ThreadedSimulator(OldVersion, renamed) as server:
            found = Check("127.0.0.1", server.port, version="2016.2", patience=SOON)
            self.assertEqual(found.run().status, 0)

    def test_nobody_listens(self) -> None:
        found = Check("127.0.0.1", 1, patience=1.0)
        report = found.run()
        self.assertEqual(report.judgements["S01"].verdict, FAILED)
        self.assertEqual(report.status, 1)

    def test_time_out_is_no_verdict(self) -> None:
        # An answer to SHUTDOWN would tell that the simulator is not just slow; this one has none.
        with ThreadedSimulator(Compositional, lambda asked, answers: []) as server:
            report = check(server, 0.1).report
        self.assertEqual(report.status, 3)
        self.assertIn("--patience", report.judgements["S06"].why)


if __name__ == "__main__":
    unittest.main()
