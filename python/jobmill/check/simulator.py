"""A controller that goes through all that the daemon may ask of a simulator."""

from __future__ import annotations

import contextlib
import datetime
import re
import time
from typing import Any, Callable, Dict, Iterator, List, Optional, Sequence, Tuple

from .. import controller_link
from ..controller_link import CHUNK, END, READY, Arrived, Header, Message, request
from ..errors import ConnectFailed, ProtocolError, TimedOut
from ..simulator import METRIC
from ..stream import Stream, deadline_in
from .report import Report, rules, shown
from .subject import Command

_PAGE = "external-controller-protocol.md"
_STAND_IN = "stand-in-simulator.md"
RULES = [
    *rules(
        _PAGE,
        ("S01", "Connecting", "The simulator accepts a connection on its port."),
        (
            "S02",
            "Framing",
            "The chunks of a message add up to its total length, and none after the first is empty.",
        ),
        ("S03", "Framing", "Messages are cut at multiples of 65,536 bytes."),
        (
            "S04",
            "Message format",
            "A header has a name, a count, one of the four types, and the data that it announces.",
        ),
        (
            "S05",
            "Message format",
            "A message ends with the MESS header END, and nothing stands behind it.",
        ),
        ("S06", "Set-up", "SETUP is answered by STARTED and a list ERRORS, which is empty."),
        (
            "S07",
            "Set-up",
            "A simulator that accepts sends a step answer next, without being asked.",
        ),
        ("S08", "Positions", "The position of the first step answer is MODEL_DEFINITION."),
        (
            "S09",
            "Steps",
            "A step answer is FINISHED, or STEP with POSITION, TIME and six integers DATE.",
        ),
        ("S10", "Steps", "POSITION is MODEL_DEFINITION, BEGIN_NEWTON or END_SIMULATE."),
        ("S11", "Steps", "DATE begins with year, month and day of a date, that of TIME."),
        ("S12", "Positions", "The first CONTINUE leads to BEGIN_NEWTON."),
        (
            "S13",
            "Steps",
            "CONTINUE_UNTIL runs to exactly its time, or to the end of the simulation.",
        ),
        ("S14", "Steps", "A time that has passed changes nothing: simulated time never goes back."),
        ("S15", "Steps", "CONTINUE runs on, to the next stopping point or the end."),
        (
            "S16",
            "Steps",
            "At the end, CONTINUE is answered by FINISHED, or by STEP with END_SIMULATE.",
        ),
        ("S17", "Steps", "SHUTDOWN is answered by a step answer."),
        ("S18", "External-controller protocol", "Nothing is sent without being asked for."),
        ("S19", "Ready", "The answer to a query is followed by the ready message."),
        ("S20", "Ready", "The answer to a setter is the ready message."),
        (
            "S21",
            "Queries",
            "The answer to a query begins with REPLY, whatever names were asked for.",
        ),
        (
            "S22",
            "Properties of wells",
            "The headers are QITEMS, then WELLNAME and VALUES for each well.",
        ),
        ("S23", "Properties of wells", "A row has one value for each property in QITEMS."),
        ("S24", "Properties of wells", "VALUES are DOUB for QWELLS and CSTR for QWELLS_STR."),
        (
            "S25",
            "Properties of wells",
            "Rows are for wells and properties that were asked for, each once.",
        ),
        (
            "S26",
            "Properties of the run",
            "The headers are QITEM and VALUES for each property that was asked for.",
        ),
        ("S27", "Properties of the run", "VALUES are INTE for QRESVR and CSTR for QRESVR_STR."),
        ("S28", "Properties of the run", "START_DATE has six integers that begin with a date."),
        ("S29", "Constraints of wells", "ITEMS, VALUES and SETTERS of a well have one length."),
        ("S30", "Inflow-performance curves", "Each curve has as many values as NPOINTS says."),
        (
            "S31",
            "Field-management fluid model",
            "The answer is empty or one list, which in version 2017.2 is NCOMPS.",
        ),
        (
            "S32",
            "Fluid models of the reservoir",
            "Each model has FLUIDMODELDNAME, EOSNAME, NCOMPS, BIC and its properties.",
        ),
        (
            "S33",
            "Fluid models of the reservoir",
            "A property has one value for each component of its model.",
        ),
        ("S34", "Status", "A status that was set is answered by the next query."),
        ("S35", "Uptime", "An uptime that was set is answered by the next query."),
        (
            "S36",
            "Constraints",
            "A rate limit acts on the very next query, without a step in between.",
        ),
        ("S37", "Constraints", "A limit that is set again replaces the one before."),
        ("S38", "Constraints", "A limit is set for all wells that a message names."),
        (
            "S39",
            "Attaching an external source",
            "The answer is REPLY and one integer STRET, then the ready message.",
        ),
        ("S40", "Composition of an external source", "SETWSTRE is answered by the ready message."),
        ("S41", "Framing", "A request in chunks of one byte is taken."),
        ("S42", "Framing", "A request is taken however the network cuts it."),
        ("S43", "Framing", "A request of more than 65,536 bytes, in several chunks, is taken."),
        ("S44", "Message format", "Lists may be empty: n is any count."),
        (
            "S53",
            "Properties of wells",
            "QITEMS has the properties in the order in which they were asked for.",
        ),
    ),
    *rules(
        _STAND_IN,
        (
            "S45",
            "What it answers",
            '"*" as the list of wells means all of them; each has TYPE and STATUS.',
        ),
        ("S46", "What it answers", "Every well has the eight properties of operating points."),
        ("S47", "What it answers", "Every well has the properties of inflow tables."),
        (
            "S48",
            "What it answers",
            "UNIT_SYSTEM is one text, for metric units exactly TOLMEN_METRIC.",
        ),
        ("S49", "What it answers", "VK_VERSION begins with a number."),
        (
            "S50",
            "What it answers",
            "FM_FLUID_MODEL and RES_FLUID_MODEL are known; a compositional run has a fluid model.",
        ),
        (
            "S51",
            "What it answers",
            "Wells and properties that are not known are left out of answers.",
        ),
    ),
    *rules(_PAGE, ("S52", "Steps", "SHUTDOWN straight after the set-up is answered, too.")),
]

OPERATING = (
    "OIL_PRODUCTION_RATE",
    "GAS_PRODUCTION_RATE",
    "WATER_PRODUCTION_RATE",
    "WATER_INJECTION_RATE",
    "GAS_INJECTION_RATE",
    "UPTIME_FRACTION",
    "BOTTOM_HOLE_PRESSURE",
    "TUBING_HEAD_PRESSURE",
)
INFLOW = ("TEMPERATURE", "GAS_DENSITY", "WATER_DENSITY", "OIL_DENSITY")
_UNKNOWN = "NO SUCH NAME " + "x" * 300


class Broken(Exception):
    """The conversation cannot go on."""


class Step:
    """The fields of a step answer."""

    def __init__(self, message: Message) -> None:
        self.finished = message[0].name == "FINISHED"
        fields = {header.name: header.data for header in message}
        self.position = str(fields["POSITION"][0]) if not self.finished else "END_SIMULATE"
        self.time = float(fields["TIME"][0]) if not self.finished else -1.0
        self.date = tuple(fields["DATE"]) if not self.finished else ()


Rows = Dict[str, Dict[str, Any]]


class Controller:
    """One connection to the simulator: every message that comes is judged by the rules of the format."""

    def __init__(self, stream: Stream, report: Report, patience: float) -> None:
        self.stream = stream
        self.report = report
        self._patience = patience

    # Messages.

    def send(self, message: Message, chunk: int = CHUNK, packet: int = 0) -> None:
        data = controller_link.chunked(controller_link.encode(message), chunk)
        self.stream.send_cut(data, packet, deadline_in(self._patience))

    def hear(self, rule: str, expected: str) -> Message:
        """The next message. When none comes, that breaks `rule`."""
        try:
            arrived = self._arrived(rule, expected)
        except ProtocolError as error:
            self.report.failed("S02", "chunks within the message", f"{error}: {self._rest()}")
            raise Broken(str(error)) from error
        self.report.kept("S02")
        if len(arrived.body) > CHUNK:
            cuts = [CHUNK] * (len(arrived.body) // CHUNK)
            if len(arrived.body) % CHUNK:
                cuts.append(len(arrived.body) % CHUNK)
            self.report.judge(
                "S03", list(arrived.chunks) == cuts, f"chunks of {cuts}", f"{list(arrived.chunks)}"
            )
        elif len(arrived.chunks) > 1:
            self.report.failed("S03", f"one chunk of {len(arrived.body)}", f"{arrived.chunks}")
        try:
            message = controller_link.decode(arrived.body)
        except ProtocolError as error:
            self.report.failed("S04", "whole headers", f"{error}: {shown(arrived.body)}")
            raise Broken(str(error)) from error
        self.report.kept("S04")
        first_end = message.index(END) + 1 if END in message else 0
        self.report.judge(
            "S05", 0 < first_end == len(message), "END, once, at the end", shown(arrived.body[-64:])
        )
        # Go on as if it were right: further rules may tell more.
        return message[:first_end] if first_end else [*message, END]

    def _rest(self) -> str:
        return shown(bytes(self.stream.received))

    def _arrived(self, rule: str, expected: str) -> Arrived:
        deadline = deadline_in(self._patience)
        while True:
            arrived = controller_link.take_message(self.stream.received)
            if arrived is not None:
                return arrived
            try:
                if self.stream.receive(deadline):
                    continue
            except TimedOut:
                self._ask_why(rule, expected)
            rest = self._rest()
            self.report.failed(rule, expected, f"the end of the connection, before it: {rest}")
            raise Broken(f"the connection ended instead of {expected}")

    def _ask_why(self, rule: str, expected: str) -> None:
        # Whether the simulator is slow or waits for the next request, only another request can tell.
        if not self.stream.received:
            self.send(request("SHUTDOWN"))
            with contextlib.suppress(TimedOut):
                if self.stream.receive(deadline_in(self._patience)):
                    received = f"nothing, but an answer to SHUTDOWN: {self._rest()}"
                    self.report.failed(rule, expected, received)
                    raise Broken(f"{expected} did not come")
        why = f"{expected} did not come in {self._patience:g} seconds (--patience)"
        self.report.unknown(rule, f"{why}, received: {self._rest()}")
        raise Broken(why)

    def quiet(self) -> None:
        """Judges that nothing came that nobody asked for."""
        if self.stream.received:
            self.report.failed("S18", "nothing", self._rest())
            raise Broken("something came unasked")
        self.report.kept("S18")

    # Requests.

    def step(self, rule: str, message: Message) -> Step:
        self.quiet()
        self.send(message)
        return self.hear_step(rule, "a step answer")

    def hear_step(self, rule: str, expected: str) -> Step:
        message = self._heard_at_last(rule, expected)
        shape = [(h.name, h.type, len(h.data)) for h in message]
        step = [
            ("STEP", "MESS", 0),
            ("POSITION", "CSTR", 1),
            ("TIME", "DOUB", 1),
            ("DATE", "INTE", 6),
            ("END", "MESS", 0),
        ]
        if message[0].name not in ("STEP", "FINISHED"):
            self.report.failed(rule, expected, _text(message))
            raise Broken("no step answer came")
        right = shape in (step, [("FINISHED", "MESS", 0), ("END", "MESS", 0)])
        wanted = "FINISHED, or STEP, POSITION CSTR 1, TIME DOUB 1, DATE INTE 6, END"
        if not self.report.judge("S09", right, wanted, _text(message)):
            raise Broken("a step answer could not be read")
        return Step(message)

    def query(self, kind: str, row: Optional[Dict[str, Any]] = None, **how: int) -> Message:
        """The headers between REPLY and END."""
        self.quiet()
        self.send(request(kind, row or {}), **how)
        message = self._heard_at_last("S21", f"the answer to {kind}")
        self.report.judge("S21", message[0] == Header("REPLY"), "REPLY", _text(message))
        self._ready("S19")
        return message[1:-1]

    def set(self, kind: str, *rows: Dict[str, Any], rule: str = "S20", **how: int) -> None:
        self.quiet()
        self.send(request(kind, *rows), **how)
        self._ready(rule)

    def _heard_at_last(self, rule: str, expected: str) -> Message:
        """The next message but a ready message that nobody asked for and that comes only now."""
        message = self.hear(rule, expected)
        if message == READY:
            message = self.hear(rule, expected)
            self.report.failed("S18", "nothing unasked", f"{_text(READY)} before {expected}")
        return message

    def _ready(self, rule: str) -> None:
        ready = self.hear(rule, "the ready message")
        if not self.report.judge(rule, ready == READY, _text(READY), _text(ready)):
            raise Broken("the ready message did not come")

    def wells(
        self,
        kind: str,
        items: Sequence[str],
        wells: Sequence[str],
        ordered: bool = True,
        chunk: int = CHUNK,
        packet: int = 0,
    ) -> Tuple[List[str], Rows]:
        """The properties that are answered, and what is answered for each well."""
        row = {"QITEMS": items, "WELNAMES": wells}
        headers = self.query(kind, row, chunk=chunk, packet=packet)
        if not headers:
            return [], {}
        names = ["QITEMS", *["WELLNAME", "VALUES"] * (len(headers) // 2)]
        right = [h.name for h in headers] == names
        if not self.report.judge("S22", right, "QITEMS, then WELLNAME, VALUES", _text(headers)):
            return [], {}
        answered = [str(item) for item in headers[0].data]
        found: Rows = {}
        for name, values in zip(headers[1::2], headers[2::2]):
            one = name.type == "CSTR" and len(name.data) == 1
            self.report.judge("S22", one, "WELLNAME CSTR 1", str(name))
            right = len(values.data) == len(answered)
            self.report.judge("S23", right, f"{len(answered)} values", f"{len(values.data)}")
            wanted = "DOUB" if kind == "QWELLS" else "CSTR"
            self.report.judge("S24", values.type == wanted, wanted, values.type)
            well = str(name.data[0]) if name.data else ""
            asked_for = (well in wells or "*" in wells) and (
                well not in found or wells.count(well) > 1
            )
            self.report.judge("S25", asked_for, "a well that was asked for, once", well)
            found[well] = dict(zip(answered, values.data)) if values.type == wanted else {}
        foreign = [item for item in answered if item not in items]
        if not foreign:
            order = [items.index(item) for item in answered]
            kept = not ordered or len(set(items)) < len(items) or order == sorted(order)
            self.report.judge("S53", kept, _list(items), _list(answered))
        self.report.judge("S25", not foreign, f"properties out of {_list(items)}", _list(foreign))
        return answered, found

    def run_items(self, kind: str, *items: str) -> Dict[str, Sequence[Any]]:
        headers = self.query(kind, {"QITEMS": items})
        right = [h.name for h in headers] == ["QITEM", "VALUES"] * (len(headers) // 2)
        if not self.report.judge("S26", right, "QITEM, VALUES, ...", _text(headers)):
            return {}
        found: Dict[str, Sequence[Any]] = {}
        for name, values in zip(headers[::2], headers[1::2]):
            known = len(name.data) == 1 and name.data[0] in items
            self.report.judge("S26", known, f"one of {_list(items)}", str(name.data))
            wanted = "INTE" if kind == "QRESVR" else "CSTR"
            self.report.judge("S27", values.type == wanted, wanted, values.type)
            if name.data:
                found[str(name.data[0])] = values.data
        return found


def _list(names: Sequence[str]) -> str:
    return ", ".join(name[:40] for name in names[:12]) or "none"


def _text(message: Sequence[Header]) -> str:
    text = "; ".join(
        f"{header} {list(header.data[:6])}" if header.data else str(header)
        for header in message[:12]
    )
    return text + (" ..." if len(message) > 12 else "") or "nothing"


class Check:
    """All sessions with one simulator."""

    def __init__(
        self,
        host: str,
        port: int,
        *,
        version: str = "2017.2",
        command: str = "",
        patience: float = 60.0,
        start: float = 30.0,
        everything: bool = False,
    ) -> None:
        self.report = Report("simulator", RULES)
        self._host, self._port = host, port
        self._version = version
        self._command = command
        self._patience = patience
        self._start = start
        self._everything = everything

    def run(self) -> Report:
        report = self.report
        self._try(self._session)
        if self._command and not report.broken:
            self._try(self._short_session)
        elif not self._command:
            report.absent("S52", "it needs a second run: give --command")
        report.finish()
        return report

    def _try(self, session: Callable[[Controller], None]) -> None:
        report = self.report
        try:
            with self._connection() as controller:
                session(controller)
        except Broken as error:
            report.broken = report.broken or f"an earlier step failed: {error}"
        except (ArithmeticError, LookupError, TypeError, ValueError) as error:
            # An answer that broke a rule was used further on. The rule has been told.
            report.broken = report.broken or f"an earlier answer could not be used: {error!r}"

    @contextlib.contextmanager
    def _connection(self) -> Iterator[Controller]:
        started = Command(self._command, self._host, self._port) if self._command else None
        with started or contextlib.nullcontext():
            with self._reached() as stream:
                self.report.kept("S01")
                yield Controller(stream, self.report, self._patience)

    def _reached(self) -> Stream:
        until = time.monotonic() + (self._start if self._command else 0.0)
        while True:
            try:
                return Stream.connect(self._host, self._port, self._patience)
            except ConnectFailed as error:
                if time.monotonic() >= until:
                    self.report.failed("S01", "a connection", str(error))
                    raise Broken("the simulator was not reached") from error
                time.sleep(0.05)

    def _short_session(self, controller: Controller) -> None:
        controller.send(request("SETUP", {"VERSION": ["V2"]}))
        controller.hear("S06", "STARTED")
        controller.hear_step("S07", "the first step answer")
        controller.step("S52", request("SHUTDOWN"))
        self.report.kept("S52")

    # The stages of the long session: what may end it comes last.

    def _session(self, controller: Controller) -> None:
        first = self._set_up(controller)
        step = controller.step("S12", request("CONTINUE"))
        self._judge_step(step)
        kept = step.position == "BEGIN_NEWTON"
        self.report.judge("S12", kept, "the position BEGIN_NEWTON", step.position)
        compositional = self._run_queries(controller, first)
        wells = self._well_queries(controller)
        self._fluid_queries(controller, compositional)
        if self._everything:
            self._field_management_query(controller)
            self._constraint_queries(controller, list(wells))
        else:
            for rule in ("S29", "S30", "S31"):
                self.report.absent(rule, "the jobmill never asks for it: give --everything")
        self._setters(controller, wells)
        self._sources(controller, wells)
        self._awkward_requests(controller, list(wells))
        self._stepping(controller, step)

    def _set_up(self, controller: Controller) -> Step:
        controller.send(request("SETUP", {"VERSION": ["V2"]}))
        message = controller.hear("S06", "STARTED and ERRORS")
        shape = [(h.name, h.type, len(h.data)) for h in message]
        wanted = [("STARTED", "MESS", 0), ("ERRORS", "CSTR", 0), ("END", "MESS", 0)]
        if not self.report.judge(
            "S06", shape == wanted, "STARTED, ERRORS CSTR 0, END", _text(message)
        ):
            raise Broken("the simulator did not accept the set-up")
        first = controller.hear_step("S07", "a step answer, unasked")
        self.report.kept("S07")
        self.report.judge(
            "S08", first.position == "MODEL_DEFINITION", "MODEL_DEFINITION", first.position
        )
        self._start_date: Optional[datetime.date] = None
        self._last = first
        self._judge_step(first)
        return first

    def _judge_step(self, step: Step) -> None:
        if step.finished:
            return
        known = step.position in controller_link.POSITIONS
        self.report.judge("S10", known, " or ".join(controller_link.POSITIONS), step.position)
        self.report.judge(
            "S14",
            step.time >= self._last.time,
            f"a time of {self._last.time} days or later",
            str(step.time),
        )
        self._last = step
        try:
            date = datetime.date(*step.date[:3])  # type: ignore[arg-type]
        except ValueError as error:
            self.report.failed("S11", "year, month, day", f"{step.date}: {error}")
            return
        self.report.kept("S11")
        if self._start_date is not None:
            # A simulator may round within the day.
            days = (date - self._start_date).days
            self.report.judge(
                "S11",
                step.time - 1.001 <= days <= step.time + 0.001,
                f"the date {step.time} days after {self._start_date}",
                str(date),
            )

    def _run_queries(self, controller: Controller, first: Step) -> bool:
        report = self.report
        version = controller.run_items("QRESVR_STR", "VK_VERSION").get("VK_VERSION", ())
        kept = len(version) == 1 and bool(re.match(r"\d+(\.\d+)?", str(version[0])))
        report.judge("S49", kept, "one text such as 2017.2", str(version))
        units = controller.run_items("QRESVR_STR", "UNIT_SYSTEM").get("UNIT_SYSTEM", ())
        # Every other text means field units, so one that speaks of metric ones does not mean what it says.
        kept = len(units) == 1 and (units[0] == METRIC or "METRIC" not in str(units[0]).upper())
        report.judge("S48", kept, f"{METRIC}, or a text for field units", str(units))
        models = controller.run_items("QRESVR_STR", "FM_FLUID_MODEL", "RES_FLUID_MODEL")
        kept = len(models) == 2 and all(len(model) == 1 for model in models.values())
        report.judge("S50", kept, "both, with a text each", str(models))
        date = controller.run_items("QRESVR", "START_DATE").get("START_DATE", ())
        try:
            self._start_date = datetime.date(*date[:3]) if len(date) == 6 else None
        except ValueError:
            self._start_date = None
        report.judge("S28", self._start_date is not None, "six integers, a date", str(date))
        self._judge_step(first)
        compositional = "COMPOSITIONAL" in [str(model[0]) for model in models.values() if model]
        report.sheet.update(
            {
                "version": str(version[0]) if version else "unknown",
                "units": str(units[0]) if units else "unknown",
                "start date": str(self._start_date),
                "fluid": "compositional" if compositional else "black oil",
            }
        )
        return compositional

    def _well_queries(self, controller: Controller) -> Rows:
        report = self.report
        items, wells = controller.wells("QWELLS_STR", ("TYPE", "STATUS"), ["*"])
        kept = sorted(items) == ["STATUS", "TYPE"] and bool(wells) and all(wells)
        expected = "TYPE and STATUS of all wells (check a model that has wells)"
        report.judge("S45", kept, expected, f"{_list(items)}; {_list(list(wells))}")
        names = list(wells)
        report.sheet["wells"] = str(len(names))
        if not names:
            return {}
        for rule, asked in (("S46", OPERATING), ("S47", (*INFLOW, "BOTTOM_HOLE_PRESSURE"))):
            items, rows = controller.wells("QWELLS", asked, names, ordered=rule == "S46")
            missing = [item for item in asked if item not in items]
            absent = [name for name in names if name not in rows]
            kept = not missing and not absent
            report.judge(
                rule, kept, f"{_list(asked)} of all wells", f"without {_list(missing + absent)}"
            )
        extras = ("WATER_CUT", "GAS_OIL_RATIO", "LIQUID_PRODUCTION_RATE", "TOTAL_MOLE_FRACTION[1]")
        known, _ = controller.wells("QWELLS", extras, names[:1])
        report.sheet["further properties"] = _list(known)
        items, rows = controller.wells("QWELLS", (OPERATING[0], _UNKNOWN), [names[0], _UNKNOWN])
        kept = _UNKNOWN not in items and _UNKNOWN not in rows
        report.judge(
            "S51", kept, "neither of the two names", f"{_list(items)}; {_list(list(rows))}"
        )
        return wells

    def _fluid_queries(self, controller: Controller, compositional: bool) -> None:
        report = self.report
        headers = controller.query("QRFLUIDMODEL")
        fields = ("FLUIDMODELDNAME", "EOSNAME", "NCOMPS", "BIC")
        types = ("CSTR", "CSTR", "CSTR", "DOUB")
        models, at = 0, 0
        while at < len(headers):
            head = headers[at : at + 4]
            kept = [(h.name, h.type) for h in head] == list(zip(fields, types)) and all(
                len(h.data) == 1 for h in head[:2]
            )
            if not report.judge("S32", kept, f"{', '.join(fields)}", _text(head)):
                return
            models, at = models + 1, at + 4
            while at < len(headers) and headers[at].name == "EOSPROPNAME":
                values = headers[at + 1] if at + 1 < len(headers) else END
                kept = (values.name, values.type) == ("VALUES", "DOUB")
                report.judge(
                    "S32", kept, "EOSPROPNAME, then VALUES DOUB", _text(headers[at : at + 2])
                )
                count = len(head[2].data)
                report.judge("S33", len(values.data) == count, f"{count} values", str(values))
                at += 2
        report.judge("S50", models > 0 or not compositional, "a fluid model", "none")
        report.absent("S32", "the run has no fluid model")
        report.absent("S33", "the run has no fluid model")
        report.sheet["fluid models"] = str(models)

    def _field_management_query(self, controller: Controller) -> None:
        headers = controller.query("QFMFLUIDMODEL")
        name = "NCOMPS" if self._version == "2017.2" else headers[0].name if headers else ""
        kept = not headers or [(h.name, h.type) for h in headers] == [(name, "CSTR")]
        self.report.judge("S31", kept, "nothing, or one list NCOMPS", _text(headers))

    def _constraint_queries(self, controller: Controller, wells: List[str]) -> None:
        report = self.report
        headers = controller.query("QWCONSTRAINTS", {"WELNAMES": wells})
        kept = [h.name for h in headers] == ["WELLNAME", "ITEMS", "VALUES", "SETTERS"] * (
            len(headers) // 4
        )
        report.judge("S29", kept, "WELLNAME, ITEMS, VALUES, SETTERS for each well", _text(headers))
        for at in range(1, len(headers), 4):
            lengths = [len(header.data) for header in headers[at : at + 3]]
            report.judge("S29", len(set(lengths)) == 1, "lists of one length", str(lengths))
        if not wells:
            report.absent("S30", "the model has no wells")
            return
        row = {
            "WELNAMES": wells,
            "PRESSURETYPES": ["BOTTOM_HOLE_PRESSURE"] * len(wells),
            "NPOINTS": [5],
            "SKEWNESS": [1.0],
        }
        headers = controller.query("QIPRDATA", row)
        points, curves = 0, 0
        expected: Tuple[str, ...] = ("WELLNAME",)
        for header in headers:
            if not report.judge("S30", header.name in expected, " or ".join(expected), str(header)):
                return
            if header.name == "NPOINTS":
                points = int(header.data[0])
            elif header.name == "VALUES":
                curves += 1
                report.judge("S30", len(header.data) == points, f"{points} values", str(header))
            expected = {
                "WELLNAME": ("NPOINTS",),
                "NPOINTS": ("ITEM", "WELLNAME"),
                "ITEM": ("VALUES",),
                "VALUES": ("ITEM", "WELLNAME"),
            }[header.name]
        report.absent("S30", "the simulator gives no inflow curves")
        report.sheet["inflow curves"] = str(curves)

    def _setters(self, controller: Controller, wells: Rows) -> None:
        report = self.report
        flowing = self._flowing(controller, wells)
        if flowing is None:
            for rule in ("S34", "S35", "S36", "S37", "S38"):
                report.absent(rule, "no well flows")
            report.absent("S20", "no well flows")
            return
        well, item, rate = flowing
        self._limits(controller, wells, well, item, rate)

        def status(text: str) -> None:
            row = {
                "WCLOSURE": ["USER"],
                "SETITEM": ["STATUS"],
                "WELNAMES": [well],
                "VALUES": [text],
            }
            controller.set("SETWSTATUS", row)
            _, rows = controller.wells("QWELLS_STR", ["STATUS"], [well])
            found = str(rows.get(well, {}).get("STATUS", "no answer"))
            report.judge("S34", found == text, text, found)

        status("SHUT")
        status("OPEN")
        for fraction in (0.5, 1.0):
            row = {"SETITEM": ["UPTIME_FRACTION"], "WELNAMES": [well], "VALUES": [fraction]}
            controller.set("SETWELLS", row)
            _, rows = controller.wells("QWELLS", ["UPTIME_FRACTION"], [well])
            found = rows.get(well, {}).get("UPTIME_FRACTION", "no answer")
            report.judge("S35", found == fraction, str(fraction), str(found))

    def _flowing(self, controller: Controller, wells: Rows) -> Optional[Tuple[str, str, float]]:
        if not wells:
            return None
        rates = [item for item in OPERATING if item.endswith("_RATE")]
        _, rows = controller.wells("QWELLS", rates, list(wells))
        found = [
            (name, item, rows[name][item])
            for item in rates
            for name in rows
            if rows[name].get(item, 0.0) > 0.0
        ]
        return found[0] if found else None

    def _limits(
        self, controller: Controller, wells: Rows, well: str, item: str, rate: float
    ) -> None:
        report = self.report
        other = next((name for name in wells if name != well), "")

        def limit(*names: str, value: float) -> None:
            controller.set(
                "SETWCONSTRAINTS",
                *(
                    {"WELLNAME": [name], "ITEMS": [item], "VALUES": [value], "SETTERS": ["USER"]}
                    for name in names
                ),
            )

        def now(name: str) -> float:
            _, rows = controller.wells("QWELLS", [item], [name])
            return float(rows.get(name, {}).get(item, 0.0))

        limit(well, value=rate / 2)
        found = now(well)
        report.judge(
            "S36", 0 <= found <= rate / 2 * 1.0001, f"{item} at most {rate / 2:g}", f"{found:g}"
        )
        limit(well, value=rate / 4)
        low = now(well)
        limit(well, value=rate / 2)
        again = now(well)
        kept = low <= rate / 4 * 1.0001 and (again > low or again == 0.0)
        expected = f"{item} at most {rate / 4:g}, then {rate / 2:g} again"
        report.judge("S37", kept, expected, f"{low:g}, then {again:g}")
        if other:
            limit(well, other, value=rate / 3)
            rates = now(well), now(other)
            kept = max(rates) <= rate / 3 * 1.0001
            report.judge(
                "S38",
                kept,
                f"{item} of both wells at most {rate / 3:g}",
                f"{rates[0]:g}, {rates[1]:g}",
            )
        else:
            report.absent("S38", "the model has one well")
        limit(*[well, other][: 2 if other else 1], value=rate * 1e6)

    def _sources(self, controller: Controller, wells: Rows) -> None:
        report = self.report
        if self._version != "2017.2":
            for rule in ("S39", "S40"):
                report.absent(rule, "version 2016.2 has no external sources")
            return
        well = next((w for w, row in wells.items() if row.get("TYPE") == "GAS_INJECTOR"), "")
        well = well or next(iter(wells), "W")
        controller.quiet()
        row = {"WELLNAME": [well], "STNAME": ["SOURCE"], "STPHASE": ["GAS"]}
        controller.send(request("CREATE_FLDSRCEXT", row))
        message = controller.hear("S39", "REPLY and STRET")
        shape = [(h.name, h.type, len(h.data)) for h in message]
        wanted = [("REPLY", "MESS", 0), ("STRET", "INTE", 1), ("END", "MESS", 0)]
        report.judge("S39", shape == wanted, "REPLY, STRET INTE 1, END", _text(message))
        if message != READY:
            controller._ready("S39")
        accepted = bool(shape == wanted and message[1].data[0])
        report.sheet["external sources"] = "accepted" if accepted else "refused"
        names = ["TOTAL_MOLE_FRACTION[1]", "TOTAL_MOLE_FRACTION[2]"]
        row = {
            "STNAME": ["SOURCE"],
            "STCMPNAMES": names,
            "STPHASE": [""],
        }
        controller.set("SETWSTRE", {**row, "STCMPVALUES": [0.75, 0.25]}, rule="S40")

    def _awkward_requests(self, controller: Controller, wells: List[str]) -> None:
        report = self.report
        items = ["TYPE", "STATUS"]
        asked = wells or ["*"]
        _, plain = controller.wells("QWELLS_STR", items, asked)

        def tried(rule: str, names: List[str], chunk: int = CHUNK, packet: int = 0) -> None:
            try:
                _, rows = controller.wells("QWELLS_STR", items, names, chunk=chunk, packet=packet)
            except Broken:
                # It was this request that the conversation broke on.
                report.failed(rule, "an answer", "none that could be read")
                raise
            right = rows == plain
            report.judge(rule, right, "the same answer as before", f"rows for {_list(list(rows))}")

        try:
            controller.wells("QWELLS", [], [])
            controller.run_items("QRESVR_STR")
            controller.query("QWCONSTRAINTS", {"WELNAMES": []})
            controller.set(
                "SETWELLS", {"SETITEM": ["UPTIME_FRACTION"], "WELNAMES": [], "VALUES": []}
            )
        except Broken:
            report.failed("S44", "answers to requests with empty lists", "none that could be read")
            raise
        report.kept("S44")
        tried("S41", asked, chunk=1)
        tried("S42", asked, packet=1 + len(asked) // 20)
        tried("S43", [*(f"NO SUCH WELL {i:06}" for i in range(5000)), *asked])
        # Whoever answers a property as often as it was asked for, has more than one chunk to say.
        controller.wells("QWELLS_STR", ["STATUS"] * 8000, asked[:1])
        report.absent("S03", "no answer had more than 65,536 bytes")

    def _stepping(self, controller: Controller, begin: Step) -> None:
        report = self.report
        at = begin.time
        for target in (at + 1.0, at + 10.25):
            step = controller.step("S13", request("CONTINUE_UNTIL", {"TIME": [target]}))
            self._judge_step(step)
            kept = step.time == target or step.position == "END_SIMULATE"
            report.judge(
                "S13", kept, f"{target} days, or END_SIMULATE", f"{step.position} at {step.time}"
            )
        here = self._last
        if here.position != "END_SIMULATE":
            step = controller.step("S14", request("CONTINUE_UNTIL", {"TIME": [here.time - 1.0]}))
            self._judge_step(step)
            report.judge("S14", step.time == here.time, f"still {here.time} days", str(step.time))
            step = controller.step("S15", request("CONTINUE"))
            self._judge_step(step)
            kept = step.time > here.time or step.position == "END_SIMULATE"
            report.judge("S15", kept, f"a time after {here.time}, or the end", str(step.time))
        step = controller.step("S13", request("CONTINUE_UNTIL", {"TIME": [1e9]}))
        self._judge_step(step)
        ended = step.position == "END_SIMULATE"
        report.judge("S13", ended, "END_SIMULATE", f"{step.position} at {step.time}")
        report.sheet["end"] = f"{self._last.time:g} days"
        step = controller.step("S16", request("CONTINUE"))
        self._judge_step(step)
        report.judge("S16", step.position == "END_SIMULATE", "the end", step.position)
        report.sheet["answer after the end"] = "FINISHED" if step.finished else "STEP"
        controller.step("S17", request("SHUTDOWN"))
        report.kept("S17")
