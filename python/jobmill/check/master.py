"""A daemon that goes through all that a master may meet."""

from __future__ import annotations

import contextlib
import re
import socket
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, List, Optional, Tuple

from .. import master_link
from ..errors import ProtocolError, TimedOut
from ..master_link import (
    HANDSHAKE,
    LARGEST_LINE,
    LARGEST_REQUEST,
    POINTS,
    REQUESTS,
    SHUT_DOWN,
    Values,
    frame,
    pack_reply,
    take_frame,
)
from ..stream import Stream, deadline_in
from .known import COMPONENTS, POINT, SERIES, KnownField
from .report import Report, rules, shown
from .subject import Command

RULES = [
    *rules(
        "master-protocol.md",
        ("M01", "Handshake", "The master answers with eight lines of at most 32,767 bytes."),
        ("M02", "Handshake", "Its version is a number other than 0."),
        ("M03", "Handshake", "Cluster number, processes and version of the simulator are numbers."),
        ("M04", "Handshake", "However long the launch takes, the master waits for it and goes on."),
        ("M05", "Handshake", "What does not begin with OK| is a failure: the master leaves."),
        ("M06", "Handshake", "When the connection ends without a word, the master leaves."),
        ("M07", "Handshake", "The host behind OK| may end with a zero byte, or without one."),
        ("M08", "Frames", "A request has 4 to 65,536 bytes."),
        ("M09", "Frames", "Frames are taken however the network cuts them."),
        ("M10", "Frames", "A reply of more than 65,536 bytes is taken."),
        ("M11", "Beginning and end (1, 65520)", "Request 1 comes before every other but 65520."),
        ("M12", "Requests and replies", "Every code is one of the table."),
        ("M13", "Requests and replies", "A request has all its fields."),
        ("M14", "Lists that belong together", "Lists that belong together have one length."),
        (
            "M15",
            "Requests and replies",
            "After 10 and 16 comes exactly one 4096 or 4097 for each well.",
        ),
        ("M16", "Requests and replies", "4096 and 4097 come only after 10 and 16."),
        ("M17", "Beginning and end (1, 65520)", "Nothing comes after request 65520."),
        (
            "M18",
            "Beginning and end (1, 65520)",
            "After the reply to 65520 the master closes the connection.",
        ),
        ("M19", "What ends a run", "A connection that ends instead of a reply ends the run."),
        ("M20", "What ends a run", "A connection that ends within a reply ends the run."),
        ("M21", "Values", "Strings have no zero byte: they would end there."),
        ("M22", "Values", "Counts and lengths are not negative."),
        ("M23", "Values", "Replies that are empty of wells are understood."),
    ),
]


@dataclass
class Scenario:
    """What a master meets on one connection."""

    title: str
    model: KnownField = field(default_factory=KnownField)
    delay: float = 0.0
    #: What is said instead of "OK|..."; "" ends the connection without a word.
    outcome: Optional[str] = None
    zero: bytes = b"\0"
    packet: int = 0
    #: The number of the request, from 0, whose reply does not come.
    end_at: int = -1
    #: How many bytes of that reply come all the same; negative: how many are left out.
    keep: int = 0


@dataclass
class Session:
    """What a master did on one connection."""

    lines: List[bytes] = field(default_factory=list)
    requests: List[bytes] = field(default_factory=list)
    #: It has closed its end, or has not when it had to.
    closed: bool = False
    #: It was silent for so long that nothing can be said.
    silent: bool = False
    #: Sent after the connection had ended for it, or after its last request.
    after: bytes = b""
    status: Optional[int] = None

    @property
    def codes(self) -> List[int]:
        return [master_link.code_of(body) for body in self.requests]


class _Ended(Exception):
    """The connection is over, for whatever reason."""


def replies(model: KnownField, body: bytes) -> Values:
    """The values of the reply to a request, as a daemon with this field gives them."""
    code = master_link.code_of(body)
    asked = master_link.unpack_request(body, exact=False)
    step = model.start
    date = {"day": step.day, "month": step.month, "year": step.year}
    if code == 8:
        model.advance(min(max(model.time, asked["days"]), model.end_time))
    if code in (10, 16):
        return {"n": len(asked["wells"]), "points": POINTS}
    if code == 14:
        fluid = model.fluid_models()[0]
        series = {name: fluid.properties[key] for key, name in SERIES.items()}
        head = {"name": fluid.equation_of_state, "count": len(COMPONENTS), "components": COMPONENTS}
        return {**head, **series, "reserved": (), "binary_interaction": fluid.binary_interaction}
    wells = [(name, kind, model.status(name)) for name, kind in model.wells().items()]
    values: Dict[int, Callable[[], Values]] = {
        2: lambda: date,
        3: lambda: {"metric": True},
        4: lambda: {"days": model.time},
        5: lambda: {"compositional": True},
        6: lambda: {"n": len(wells), "wells": wells},
        9: lambda: {"ended": model.time >= model.end_time},
        15: lambda: {"values": [_number(model, asked["well"], item) for item in asked["names"]]},
        17: lambda: {"version": 2017.2},
        18: lambda: {"accepted": 1},
        20: lambda: date,
    }
    return values.get(code, dict)()


def _number(model: KnownField, well: str, item: str) -> float:
    try:
        return model.number(well, item)
    except KeyError:
        return 0.0


def record(model: KnownField, code: int, well: str, components: int) -> Values:
    """The values of a reply to 4096 or 4097."""
    if code == master_link.NEXT_OPERATING_POINT:
        numbers = {name: _number(model, well, item) for item, name in POINT.items()}
        status = model.status(well) if well in model.wells() else "OPEN"
        return {"status": status, **numbers}
    names = ("pressure", "oil_rate", "water_rate", "gas_rate", "temperature")
    densities = ("gas_density", "oil_density", "water_density")
    series = {name: [float(10 - k) for k in range(POINTS)] for name in (*names, *densities)}
    fractions = [1.0 / components] * components if components > 0 else []
    return {**series, "compositions": [fractions] * POINTS if components > 0 else ()}


class DaemonEnd:
    """The daemon's end of one connection."""

    def __init__(self, stream: Stream, scenario: Scenario, report: Report, patience: float) -> None:
        self.session = Session()
        self._stream = stream
        self._scenario = scenario
        self._report = report
        self._patience = patience

    def serve(self) -> None:
        try:
            self._handshake()
            self._requests()
        except _Ended:
            pass
        except ProtocolError as error:
            self._report.failed("M08", "a frame", str(error))

    def _handshake(self) -> None:
        report, lines = self._report, self.session.lines
        self._say(frame(b"3"))
        while len(lines) < len(HANDSHAKE):
            lines.append(self._hear("M01", HANDSHAKE[len(lines)]))
            kept = len(lines[-1]) <= LARGEST_LINE
            report.judge("M01", kept, f"at most {LARGEST_LINE} bytes", f"{len(lines[-1])} bytes")
            if len(lines) == 1:
                right = re.fullmatch(rb"\s*[+-]?\d*[1-9]\d*(\.\d*)?\s*", lines[0]) is not None
                report.judge("M02", right, "a number other than 0", shown(lines[0]))
        for number in (1, 4, 5):
            right = re.fullmatch(rb"\s*[+-]?\d+\s*", lines[number]) is not None
            report.judge("M03", right, f"a number: {HANDSHAKE[number]}", shown(lines[number]))
        scenario = self._scenario
        if scenario.delay and not self._stream.received:
            with contextlib.suppress(TimedOut):
                self._stream.receive(deadline_in(scenario.delay))
        if scenario.outcome is None:
            self._say(frame(b"OK|localhost" + scenario.zero))
        else:
            if scenario.outcome:
                self._say(frame(scenario.outcome.encode()))
            self._hang_up()

    def _requests(self) -> None:
        wells: List[str] = []
        record_code = components = 0
        while True:
            body = self._hear("M08", "a request")
            fields, code = self._judge(body, wells, record_code)
            self.session.requests.append(body)
            if code in (master_link.NEXT_OPERATING_POINT, master_link.NEXT_INFLOW_TABLE):
                well = wells.pop(0) if wells else ""
                values = record(self._scenario.model, code, well, components)
            elif code == SHUT_DOWN or code not in REQUESTS:
                values = {}
            else:
                values = replies(self._scenario.model, body)
            if code in (10, 16):
                wells = list(fields["wells"])
                record_code = 4096 if code == 10 else 4097
                components = fields.get("components", 0)
            if code in REQUESTS:
                self._reply(pack_reply(code, **values))
            if code == SHUT_DOWN:
                self._after_the_end()
                return

    def _reply(self, data: bytes) -> None:
        scenario = self._scenario
        if len(self.session.requests) - 1 == scenario.end_at:
            self._say(data[: scenario.keep])
            self._hang_up()
        self._say(data)

    def _after_the_end(self) -> None:
        self._end_of_ours()
        self.session.closed = self._closes()
        self.session.after = bytes(self._stream.received)
        after = shown(self.session.after)
        self._report.judge("M17", not self.session.after, "nothing after 65520", after)
        if self.session.closed or not self.session.after:
            received = f"none in {self._patience:g} seconds"
            self._report.judge("M18", self.session.closed, "the end of the connection", received)

    def _judge(self, body: bytes, wells: List[str], record_code: int) -> Tuple[Values, int]:
        report = self._report
        kept = 4 <= len(body) <= LARGEST_REQUEST
        if not report.judge("M08", kept, "4 to 65,536 bytes", f"{len(body)} bytes"):
            raise _Ended
        code = master_link.code_of(body)
        if not self.session.requests:
            first = code in (1, SHUT_DOWN)
            report.judge("M11", first, "request 1", f"request {code}")
        records = (master_link.NEXT_OPERATING_POINT, master_link.NEXT_INFLOW_TABLE)
        if wells:
            kept = code == record_code
            what = f"{record_code}, {len(wells)} times more"
            if not report.judge("M15", kept, what, f"the code {code}"):
                raise _Ended
        elif code in records and record_code:
            report.failed("M15", f"no more {code} than wells", "one more")
            raise _Ended
        elif not report.judge("M16", code not in records, "10 or 16 before", f"the code {code}"):
            raise _Ended
        if not report.judge("M12", code in REQUESTS, "a code of the table", str(code)):
            return {}, code
        try:
            fields = master_link.unpack_request(body, exact=False)
        except ProtocolError as error:
            expected = f"the fields of {code} ({master_link.title(code)})"
            report.failed("M13", expected, f"{error}: {shown(body)}")
            raise _Ended from error
        report.kept("M13")
        self._judge_fields(code, fields, body)
        return fields, code

    def _judge_fields(self, code: int, fields: Values, body: bytes) -> None:
        report = self._report
        pairs = {11: "nm", 12: "nm", 13: "ngh", 19: "nm"}.get(code, "")
        lengths = [fields[name] for name in pairs]
        if code == 13:
            inner = [(len(a), len(b)) for a, b in zip(fields["constraints"], fields["values"])]
            lengths += [length for pair in inner if pair[0] != pair[1] for length in pair]
        report.judge("M14", len(set(lengths)) <= 1, "lists of one length", str(lengths))
        negative = [name for name in "nmgh" if fields.get(name, 0) < 0]
        report.judge("M22", not negative, "no negative count", f"{negative} in {shown(body)}")
        zero = any("\0" in text for text in _strings(fields))
        report.judge("M21", not zero, "strings without zero bytes", shown(body))

    # The connection.

    def _say(self, data: bytes) -> None:
        self._stream.send_cut(data, self._scenario.packet, deadline_in(self._patience))

    def _hear(self, rule: str, expected: str) -> bytes:
        deadline = deadline_in(self._patience)
        while True:
            body = take_frame(self._stream.received)
            if body is not None:
                return body
            try:
                if self._stream.receive(deadline):
                    continue
            except TimedOut:
                self.session.silent = True
                rest = shown(bytes(self._stream.received))
                why = f"{expected} did not come in {self._patience:g} seconds, received: {rest}"
                self._report.unknown(rule, why)
                raise _Ended from None
            self.session.closed = True
            if rule == "M08" and not self._stream.received:
                raise _Ended  # A master may end a run by leaving.
            rest = shown(bytes(self._stream.received))
            self._report.failed(rule, expected, f"the end of the connection, before it: {rest}")
            raise _Ended

    def _hang_up(self) -> None:
        """Ends the connection towards the master, and looks at what it does then."""
        self._end_of_ours()
        self.session.closed = self._closes()
        self.session.after = bytes(self._stream.received)
        raise _Ended

    def _end_of_ours(self) -> None:
        with contextlib.suppress(OSError):
            self._stream.socket.shutdown(socket.SHUT_WR)

    def _closes(self) -> bool:
        deadline = deadline_in(self._patience)
        try:
            while self._stream.receive(deadline):
                if len(self._stream.received) > 1 << 20:
                    return False
        except TimedOut:
            return False
        return True


def _strings(fields: Values) -> List[str]:
    found: List[str] = []
    waiting: List[Any] = list(fields.values())
    while waiting:
        value = waiting.pop()
        if isinstance(value, str):
            found.append(value)
        elif isinstance(value, (list, tuple)):
            waiting += value
    return found


class Check:
    """All sessions with one master."""

    def __init__(
        self,
        host: str,
        port: int,
        *,
        command: str = "",
        patience: float = 60.0,
        wait: float = 300.0,
        slow: float = 2.0,
        say: Callable[[str], None] = lambda text: None,
    ) -> None:
        self.report = Report("master", RULES)
        self._address = (host, port)
        self._command = command
        self._patience = patience
        self._wait = wait
        self._slow = slow
        self._say = say

    def run(self) -> Report:
        report = self.report
        with socket.create_server(self._address) as listener:
            self._listener = listener
            self._say(f"Listening on port {listener.getsockname()[1]}")
            plain = self._meet(Scenario("an ordinary run"))
            if plain is not None and plain.requests and plain.closed:
                self._sheet(plain)
                self._launches(plain)
                self._cuts(plain)
                self._breaks(plain)
            elif plain is not None:
                report.broken = report.broken or "the ordinary run did not get to its end"
        report.finish()
        return report

    def _meet(self, scenario: Scenario) -> Optional[Session]:
        self._say(f"Waiting for the master: {scenario.title}")
        host, port = self._listener.getsockname()[:2]
        started = Command(self._command, host, port) if self._command else None
        with started or contextlib.nullcontext():
            self._listener.settimeout(self._wait)
            try:
                accepted, _ = self._listener.accept()
            except socket.timeout:
                self.report.broken = (
                    f"no master came in {self._wait:g} seconds for {scenario.title}"
                )
                return None
            with Stream(accepted) as stream:
                end = DaemonEnd(stream, scenario, self.report, self._patience)
                end.serve()
            if started is not None:
                end.session.status = started.status(self._patience)
        return end.session

    def _sheet(self, plain: Session) -> None:
        codes = plain.codes
        used = sorted(set(codes) - {4096, 4097})
        self.report.sheet.update(
            {
                "version": master_link.bytes_text(plain.lines[0]),
                "requests used": ", ".join(map(str, used)),
                "requests in a run": str(len(codes)),
                "ends a run": "by request 65520" if codes[-1] == SHUT_DOWN else "by leaving",
            }
        )
        if codes[-1] != SHUT_DOWN:
            for rule in ("M17", "M18"):
                self.report.absent(rule, "the master leaves without request 65520")
        for rule, wanted in (("M15", {10, 16}), ("M14", {11, 12, 13, 19})):
            if not wanted & set(codes):
                self.report.judgements.pop(rule, None)
                self.report.absent(rule, f"the master sends none of {sorted(wanted)}")

    def _launches(self, plain: Session) -> None:
        report = self.report
        slow = self._meet(Scenario("a slow launch", delay=self._slow))
        self._went_on("M04", plain, slow)
        bare = self._meet(Scenario("a host without a zero byte", zero=b""))
        self._went_on("M07", plain, bare)
        for rule, text in (("M05", "No host detected"), ("M06", "")):
            session = self._meet(Scenario(f"a refusal: {text or 'no word'}", outcome=text))
            if session is not None:
                self._left(rule, session)
                if session.status is not None:
                    report.sheet[f"exit status after a refusal ({text or 'no word'})"] = str(
                        session.status
                    )

    def _went_on(self, rule: str, plain: Session, session: Optional[Session]) -> None:
        """Judges that the master did what it did in the ordinary run."""
        if session is None:
            return
        if session.silent:
            self.report.unknown(rule, "the master said nothing any more")
            return
        same = session.codes == plain.codes
        received = f"{len(session.requests)} requests, the last {session.codes[-1:]}"
        self.report.judge(rule, same, f"{len(plain.requests)} requests as before", received)

    def _left(self, rule: str, session: Session) -> None:
        """Judges that the master closed its end and asked for nothing more."""
        after = bytearray(session.after)
        asked = []
        with contextlib.suppress(ProtocolError):
            while True:
                body = take_frame(after)
                if body is None:
                    break
                asked.append(master_link.code_of(body))
        # The order to shut down does no harm, nor do records that were asked for ahead.
        more = [code for code in asked if code not in (SHUT_DOWN, 4096, 4097)]
        kept = session.closed and not more
        received = f"requests {more}" if more else "the connection stayed open"
        self.report.judge(rule, kept, "the end of the connection, and no request", received)

    def _cuts(self, plain: Session) -> None:
        report = self.report
        self._went_on("M09", plain, self._meet(Scenario("packets of one byte", packet=1)))
        empty = KnownField()
        empty.hide_wells()
        if 6 not in plain.codes:
            for rule in ("M10", "M23"):
                report.absent(rule, "the master does not ask for the wells")
            return
        for rule, title, model in (
            ("M10", "5,000 wells", KnownField(5000)),
            ("M23", "no wells", empty),
        ):
            session = self._meet(Scenario(title, model=model))
            if session is None:
                continue
            answered = session.codes.index(6) if 6 in session.codes else len(session.codes)
            kept = len(session.requests) > answered + 1
            report.judge(rule, kept, "another request after the wells", "none")

    def _breaks(self, plain: Session) -> None:
        report = self.report
        seen: Dict[int, int] = {}
        statuses: Dict[str, List[Optional[int]]] = {"M19": [], "M20": []}
        for number, code in enumerate(plain.codes):
            seen.setdefault(code, number)
        for code, number in seen.items():
            # Within the length, after it, within the code, after it, before the last byte: in turns.
            keep = (1, 4, 6, 8, -1)[len(statuses["M20"]) % 5]
            for rule, kept in (("M19", 0), ("M20", keep)):
                title = (
                    f"the connection ends {'within' if kept else 'instead of'} a reply to {code}"
                )
                session = self._meet(Scenario(title, end_at=number, keep=kept))
                if session is None:
                    continue
                self._left(rule, session)
                statuses[rule].append(session.status)
        for rule, what in (("M19", "instead of"), ("M20", "within")):
            if self._command:
                found = sorted({str(status) for status in statuses[rule]})
                report.sheet[f"exit status at an end {what} a reply"] = ", ".join(found)
