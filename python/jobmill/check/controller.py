"""One connection to a simulator, and what is read in every message that comes over it."""

from __future__ import annotations

import contextlib
import math
from collections import Counter
from typing import Any, Dict, List, Optional, Sequence, Tuple

from .. import controller_link
from ..controller_link import CHUNK, END, READY, Arrived, Header, Message, request
from ..errors import ProtocolError, TimedOut
from ..stream import Stream, deadline_in
from .report import Report, shown

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
RATES = tuple(item for item in OPERATING if item.endswith("_RATE"))


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
            self.report.failed(rule, expected, told(message))
            raise Broken("no step answer came")
        right = shape in (step, [("FINISHED", "MESS", 0), ("END", "MESS", 0)])
        wanted = "FINISHED, or STEP, POSITION CSTR 1, TIME DOUB 1, DATE INTE 6, END"
        if not self.report.judge("S09", right, wanted, told(message)):
            raise Broken("a step answer could not be read")
        return Step(message)

    def query(self, kind: str, row: Optional[Dict[str, Any]] = None, **how: int) -> Message:
        """The headers between REPLY and END."""
        self.quiet()
        self.send(request(kind, row or {}), **how)
        message = self._heard_at_last("S21", f"the answer to {kind}")
        self.report.judge("S21", message[0] == Header("REPLY"), "REPLY", told(message))
        self.expect_ready("S19")
        return message[1:-1]

    def set(self, kind: str, *rows: Dict[str, Any], rule: str = "S20", **how: int) -> None:
        self.quiet()
        self.send(request(kind, *rows), **how)
        self.expect_ready(rule)

    def _heard_at_last(self, rule: str, expected: str) -> Message:
        """The next message but a ready message that nobody asked for and that comes only now."""
        message = self.hear(rule, expected)
        if message == READY:
            message = self.hear(rule, expected)
            self.report.failed("S18", "nothing unasked", f"{told(READY)} before {expected}")
        return message

    def expect_ready(self, rule: str) -> None:
        ready = self.hear(rule, "the ready message")
        if not self.report.judge(rule, ready == READY, told(READY), told(ready)):
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
        if not self.report.judge("S22", right, "QITEMS, then WELLNAME, VALUES", told(headers)):
            return [], {}
        answered = [str(item) for item in headers[0].data]
        found: Rows = {}
        asked_times, times = Counter(wells), Counter[str]()
        for name, values in zip(headers[1::2], headers[2::2]):
            one = name.type == "CSTR" and len(name.data) == 1
            self.report.judge("S22", one, "WELLNAME CSTR 1", str(name))
            right = len(values.data) == len(answered)
            self.report.judge("S23", right, f"{len(answered)} values", f"{len(values.data)}")
            wanted = "DOUB" if kind == "QWELLS" else "CSTR"
            self.report.judge("S24", values.type == wanted, wanted, values.type)
            well = str(name.data[0]) if name.data else ""
            times[well] += 1
            most = 1 if "*" in asked_times else asked_times[well]
            self.report.judge(
                "S25",
                times[well] <= most,
                f"{most} rows of {listed([well])}",
                f"row {times[well]}",
            )
            found[well] = dict(zip(answered, values.data)) if values.type == wanted else {}
        if "*" not in asked_times:
            for well, rows in times.items():
                expected = f"{asked_times[well]} rows of {listed([well])}, as often as asked for"
                self.report.judge("S25", rows == asked_times[well], expected, f"{rows}")
        if kind == "QWELLS":
            wrong = _senseless(found)
            self.report.judge("S68", not wrong, "numbers with sense", listed(wrong))
        foreign = [item for item in answered if item not in items]
        if not foreign:
            order = [items.index(item) for item in answered]
            kept = not ordered or len(set(items)) < len(items) or order == sorted(order)
            self.report.judge("S53", kept, listed(items), listed(answered))
        self.report.judge("S25", not foreign, f"properties out of {listed(items)}", listed(foreign))
        return answered, found

    def run_items(self, kind: str, *items: str) -> Dict[str, Sequence[Any]]:
        headers = self.query(kind, {"QITEMS": items})
        right = [h.name for h in headers] == ["QITEM", "VALUES"] * (len(headers) // 2)
        if not self.report.judge("S26", right, "QITEM, VALUES, ...", told(headers)):
            return {}
        found: Dict[str, Sequence[Any]] = {}
        for name, values in zip(headers[::2], headers[1::2]):
            known = len(name.data) == 1 and name.data[0] in items
            self.report.judge("S26", known, f"one of {listed(items)}", str(name.data))
            wanted = "INTE" if kind == "QRESVR" else "CSTR"
            self.report.judge("S27", values.type == wanted, wanted, values.type)
            if name.data:
                found[str(name.data[0])] = values.data
        return found


def _senseless(rows: Rows) -> List[str]:
    """The numbers of an answer that no well can have."""
    found = []
    for well, row in rows.items():
        for item, value in row.items():
            # What else a simulator has may be unknown to it at times, and then not a number.
            known = item in OPERATING or item in INFLOW
            wrong = known and not math.isfinite(value)
            wrong = wrong or (item in RATES and value < -1e-6)
            wrong = wrong or (item == "UPTIME_FRACTION" and not 0.0 <= value <= 1.0)
            if wrong:
                found.append(f"{item} {value:g} of {well}"[:80])
    return found


def listed(names: Sequence[str]) -> str:
    return ", ".join(name[:80] for name in names[:12]) or "none"


def told(message: Sequence[Header]) -> str:
    text = "; ".join(
        f"{header} {list(header.data[:6])}" if header.data else str(header)
        for header in message[:12]
    )
    return text + (" ..." if len(message) > 12 else "") or "nothing"
