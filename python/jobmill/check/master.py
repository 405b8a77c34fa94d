"""A daemon that goes through all that a master may meet."""

from __future__ import annotations

import contextlib
import datetime
import math
import re
import socket
import struct
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, Iterator, List, Optional, Set, Tuple

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
    pack_request,
    take_frame,
)
from ..stream import Stream, deadline_in
from ..wire import CLIENT, MASTER, SERVER, Decoder, Said
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
        ("M07", "Handshake", "The host after OK| may end with a zero byte, or without one."),
        ("M08", "Frames", "A request has 4 to 65,536 bytes."),
        ("M09", "Frames", "Frames are taken however the network cuts them."),
        ("M10", "Frames", "A reply of more than 65,536 bytes is taken."),
        (
            "M11",
            "Beginning and end (1, 65520)",
            "Request 1 comes once, and before every other but 65520.",
        ),
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
        ("M24", "Wells (6, 15)", "Wells are named as in the reply to 6, byte for byte."),
        ("M25", "Values", "A request with fields ends with the last of them."),
        (
            "M26",
            "Lists that belong together",
            "A composition of 19 has a value for each component of the model.",
        ),
        ("M27", "Inflow tables (16)", "16 asks for no more components than the model has."),
        ("M28", "Values", "Doubles are little-endian."),
        ("M29", "Sending ahead", "4096 and 4097 wait for the first reply to 10 or 16."),
    ),
]


#: Rules that only some requests can break or keep.
CONCERNS = (
    ("M14", {11, 12, 13, 19}),
    ("M15", {10, 16}),
    ("M24", {10, 11, 12, 13, 15, 16, 18}),
    ("M25", {code for code, request in REQUESTS.items() if request.fields}),
    ("M26", {19}),
    ("M27", {16}),
    ("M28", {8, 12, 13, 16, 19}),
    ("M29", {10, 16}),
)
#: Wells that a master may name in every run: its user has told it to, also where the model has none of them.
PLAIN_WELLS = tuple(KnownField().wells())
#: 5,000 of them do not fit into one request.
LONG_NAME = "well {:05} of a large field"
#: Seconds in which a master that does not wait its turn shows.
EARLY = 0.1


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
    #: The number of the request, from 0, whose reply has another code than the request.
    other_code_at: int = -1
    #: Waits before the version, before replies to 10 and 16, and before the last reply, to see who is too early.
    watch: bool = False


@dataclass
class Session:
    """What a master did on one connection."""

    lines: List[bytes] = field(default_factory=list)
    requests: List[bytes] = field(default_factory=list)
    #: It has closed its end, or has not when it had to.
    closed: bool = False
    #: It was silent for so long that nothing can be said.
    silent: bool = False
    #: The run was ended on a request that breaks a rule, as a daemon ends it.
    refused: bool = False
    #: What it does or not, as the sheet tells it.
    habits: Dict[str, bool] = field(default_factory=dict)
    #: Sent after the connection had ended for it, or after its last request.
    after: bytes = b""
    status: Optional[int] = None
    said: List[Said] = field(default_factory=list)

    @property
    def codes(self) -> List[int]:
        return [master_link.code_of(body) for body in self.requests]


class _Ended(Exception):
    """The connection is over, for whatever reason."""


class _Refused(_Ended):
    """The master has broken a rule on which a daemon ends the run."""


def replies(model: KnownField, body: bytes) -> Values:
    """The values of the reply to a request, as a daemon with this field gives them."""
    code = master_link.code_of(body)
    asked = master_link.unpack_request(body, exact=False)
    control(model, code, asked)
    now = model.start + datetime.timedelta(days=int(model.time))
    if code in (10, 16):
        return {"n": len(asked["wells"]), "points": POINTS}
    if code == 14:
        fluid = model.fluid_models()[0]
        series = {name: fluid.properties[key] for key, name in SERIES.items()}
        head = {"name": fluid.equation_of_state, "count": len(COMPONENTS), "components": COMPONENTS}
        return {**head, **series, "reserved": (), "binary_interaction": fluid.binary_interaction}
    wells = [(name, kind, model.status(name)) for name, kind in model.wells().items()]
    values: Dict[int, Callable[[], Values]] = {
        2: lambda: {"day": now.day, "month": now.month, "year": now.year},
        3: lambda: {"metric": True},
        4: lambda: {"days": model.time},
        5: lambda: {"compositional": True},
        6: lambda: {"n": len(wells), "wells": wells},
        9: lambda: {"ended": model.time >= model.end_time},
        15: lambda: {"values": [_number(model, asked["well"], item) for item in asked["names"]]},
        17: lambda: {"version": 2017.2},
        18: lambda: {"accepted": int(model.attach_source(asked["well"], asked["source"], "GAS"))},
        20: lambda: {"day": model.start.day, "month": model.start.month, "year": model.start.year},
    }
    return values.get(code, dict)()


def control(model: KnownField, code: int, asked: Values) -> None:
    """Does with a field what a request says, so that the master can read it back."""

    def each(values: str) -> Iterator[Tuple[str, Any]]:
        for name, value in zip(asked["wells"], asked[values]):
            named = model.wells() if name == "*" else [name]
            yield from ((well, value) for well in named if well in model.wells())

    if code == 8 and asked["days"] > model.time:
        model.advance(min(asked["days"], model.end_time))
    elif code == 11:
        for well, status in each("statuses"):
            model.set_status(well, status)
    elif code == 12:
        for well, fraction in each("fractions"):
            model.set_uptime(well, fraction)
    elif code == 13:
        limits = dict(each("values"))
        for well, items in each("constraints"):
            for item, limit in zip(items, limits.get(well, ())):
                model.set_constraint(well, item, limit if limit >= 0 else math.inf, "MASTER")


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
    # Each number of all tables is another, so that none can pass for its neighbour.
    number = list(model.wells()).index(well) if well in model.wells() else 0
    series = {
        name: [1000.0 * (number + 1) + 100.0 * place + (POINTS - k) + 0.5 for k in range(POINTS)]
        for place, name in enumerate((*names, *densities))
    }
    fractions = []
    for k in range(POINTS):
        shift = (k + POINTS * (number % 10)) / 1000.0
        first, second = (1 + shift) / 9, (2 + shift) / 9
        fractions.append((first, second, 1 - first - second)[:components])
    return {**series, "compositions": fractions if components > 0 else ()}


class DaemonEnd:
    """The daemon's end of one connection."""

    def __init__(self, stream: Stream, scenario: Scenario, report: Report, patience: float) -> None:
        self.session = Session()
        self._stream = stream
        self._scenario = scenario
        self._report = report
        self._patience = patience
        self._decoder = Decoder(MASTER)
        #: The kinds of records for which a first reply has been late on purpose.
        self._watched: Set[int] = set()

    def serve(self) -> None:
        try:
            self._handshake()
            self._requests()
        except _Refused:
            self.session.refused = True
        except _Ended:
            pass
        except ProtocolError as error:
            self._report.failed("M08", "a frame", str(error))

    def _handshake(self) -> None:
        report, lines = self._report, self.session.lines
        self._watch("speaks before the daemon's version")
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
            values: Values = {}
            if code in (master_link.NEXT_OPERATING_POINT, master_link.NEXT_INFLOW_TABLE):
                values = record(self._scenario.model, code, wells.pop(0), components)
            elif code in REQUESTS and code != SHUT_DOWN:
                values = replies(self._scenario.model, body)
            if code in (10, 16):
                wells = [_seen(name) for name in fields["wells"]]
                record_code = 4096 if code == 10 else 4097
                components = fields.get("components", 0)
                self._judge_patience(record_code)
            if code == SHUT_DOWN:
                self._watch("leaves before the reply to 65520")
            if code in REQUESTS:
                self._reply(pack_reply(code, **values))
            if code == SHUT_DOWN:
                self._after_the_end()
                return

    def _reply(self, data: bytes) -> None:
        scenario = self._scenario
        number = len(self.session.requests) - 1
        if number == scenario.other_code_at:
            data = data[:4] + struct.pack("<I", 99) + data[8:]
        if number == scenario.end_at:
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
        report, requests = self._report, self.session.requests
        kept = 4 <= len(body) <= LARGEST_REQUEST
        if not report.judge("M08", kept, "4 to 65,536 bytes", f"{len(body)} bytes"):
            raise _Refused
        requests.append(body)
        code = master_link.code_of(body)
        if len(requests) == 1:
            first = code in (1, SHUT_DOWN)
            report.judge("M11", first, "request 1", f"request {code}")
        elif code == 1:
            report.failed("M11", "request 1 once", f"again, as request number {len(requests)}")
            raise _Refused
        records = (master_link.NEXT_OPERATING_POINT, master_link.NEXT_INFLOW_TABLE)
        if wells:
            kept = code == record_code
            what = f"{record_code}, {len(wells)} times more"
            if not report.judge("M15", kept, what, f"the code {code}"):
                raise _Refused
        elif code in records and record_code:
            report.failed("M15", f"no more {code} than wells", "one more")
            raise _Refused
        elif not report.judge("M16", code not in records, "10 or 16 before", f"the code {code}"):
            raise _Refused
        if not report.judge("M12", code in REQUESTS, "a code of the table", str(code)):
            return {}, code
        try:
            fields = master_link.unpack_request(body, exact=False)
        except ProtocolError as error:
            expected = f"the fields of {code} ({master_link.title(code)}): {REQUESTS[code].fields}"
            report.failed("M13", expected, f"{error}: {shown(body)}")
            raise _Refused from error
        report.kept("M13")
        self._judge_fields(code, fields, body)
        return fields, code

    def _judge_patience(self, record_code: int) -> None:
        if not self._scenario.watch or record_code in self._watched:
            return
        self._watched.add(record_code)
        self._stream.quiet_for(EARLY)
        ahead = self._stream.received[4:8] == struct.pack("<I", record_code)
        self._report.judge("M29", not ahead, "nothing before the first reply", str(record_code))

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
        zero = any("\0" in text for text in _every(fields, str))
        report.judge("M21", not zero, "strings without zero bytes", shown(body))
        if REQUESTS[code].fields:
            size = len(pack_request(code, **fields)) - 4
            last = list(fields)[-1]
            expected = f"{size} bytes, the last of {last}={fields[last]!r}"
            received = f"{len(body)} bytes: {shown(body)}"
            report.judge("M25", len(body) == size, expected, received)
            swapped = [value for value in _every(fields, float) if _looks_swapped(value)]
            report.judge("M28", not swapped, "little-endian doubles", f"{swapped} in {shown(body)}")
        else:
            # They cannot be the rest of a field that is too long: all that they cost is their way.
            what = "puts bytes after requests without fields"
            self.session.habits[what] = self.session.habits.get(what, False) or len(body) > 4
        self._judge_model(code, fields)

    def _judge_model(self, code: int, fields: Values) -> None:
        """Judges what a daemon leaves to the simulator, which may end the run or say nothing."""
        report, count = self._report, len(COMPONENTS)
        named = [*fields.get("wells", ()), *([fields["well"]] if "well" in fields else ())]
        if named:
            known = {*PLAIN_WELLS, *self._scenario.model.wells()}
            if code in (11, 12, 13):
                known.add("*")
            strange = [name for name in named if _seen(name) not in known]
            expected = f"one of {', '.join(PLAIN_WELLS)}"
            received = f"{strange[:3]} in request {code}"
            kept = report.judge("M24", not strange, expected, received)
            if not kept and code in (10, 15, 16):
                raise _Refused
        if code == 19:
            lengths = [len(fractions) for fractions in fields["compositions"]]
            report.judge("M26", set(lengths) <= {count}, f"{count} values each", str(lengths))
        if code == 16:
            asked = fields["components"]
            if not report.judge("M27", asked <= count, f"at most {count} components", str(asked)):
                raise _Refused

    # The connection.

    def _watch(self, what: str) -> None:
        """Gives the master time to do something before its turn."""
        if self._scenario.watch:
            self.session.habits[what] = not self._stream.quiet_for(EARLY)

    def _say(self, data: bytes) -> None:
        if self._scenario.watch:
            self.session.said += self._decoder.take(SERVER, data)
        self._stream.send_cut(data, self._scenario.packet, deadline_in(self._patience))

    def _hear(self, rule: str, expected: str) -> bytes:
        deadline = deadline_in(self._patience)
        while True:
            body = take_frame(self._stream.received)
            if body is not None:
                if self._scenario.watch:
                    self.session.said += self._decoder.take(CLIENT, frame(body))
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


def _every(values: Any, kind: type) -> List[Any]:
    """All values of a type, in lists of lists as well."""
    found: List[Any] = []
    waiting: List[Any] = [values]
    while waiting:
        value = waiting.pop()
        if isinstance(value, kind):
            found.append(value)
        elif isinstance(value, dict):
            waiting += value.values()
        elif isinstance(value, (list, tuple)):
            waiting += value
    return found


def _seen(name: str) -> str:
    """A name as far as the daemon reads it."""
    return name.split("\0")[0]


def _looks_swapped(value: float) -> bool:
    """Whether a double makes sense only with its bytes in the other order."""

    def makes_sense(number: float) -> bool:
        return number == 0 or 1e-30 <= abs(number) <= 1e30

    (other,) = struct.unpack(">d", struct.pack("<d", value))
    return not makes_sense(value) and makes_sense(other)


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
            plain = self._meet(Scenario("an ordinary run", watch=True))
            if plain is not None and plain.requests and (plain.closed or plain.refused):
                self._sheet(plain)
                self._launches(plain)
                self._cuts(plain)
                self._breaks(plain)
                self._other_code(plain)
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
                "ends a run": _ending(plain),
                **{what: "yes" if does else "no" for what, does in plain.habits.items()},
                **_values(plain),
            }
        )
        if codes[-1] != SHUT_DOWN:
            for rule in ("M17", "M18"):
                if plain.refused:
                    self.report.unknown(rule, f"the run ended at request {codes[-1]}")
                else:
                    self.report.absent(rule, "the master leaves without request 65520")
        for rule, wanted in CONCERNS:
            if not wanted & set(codes) and not plain.refused:
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
            for rule in () if plain.refused else ("M10", "M23"):
                report.absent(rule, "the master does not ask for the wells")
            return
        for rule, title, model in (
            ("M10", "5,000 wells", KnownField(5000, named=LONG_NAME)),
            ("M23", "no wells", empty),
        ):
            session = self._meet(Scenario(title, model=model))
            if session is None:
                continue
            answered = session.codes.index(6) if 6 in session.codes else len(session.codes)
            kept = len(session.requests) > answered + 1 or session.refused
            report.judge(rule, kept, "another request after the wells", "none")

    def _breaks(self, plain: Session) -> None:
        report = self.report
        seen: Dict[int, int] = {}
        statuses: Dict[str, List[Optional[int]]] = {"M19": [], "M20": []}
        answered = plain.codes[:-1] if plain.refused else plain.codes
        for number, code in enumerate(answered):
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
        if plain.status is not None and not plain.refused:
            same = plain.status in (*statuses["M19"], *statuses["M20"])
            report.sheet["exit status of a whole run"] = str(plain.status)
            report.sheet["exit status tells failed runs"] = "no" if same else "yes"

    def _other_code(self, plain: Session) -> None:
        codes = plain.codes
        for number in range(1, len(codes) - 1):
            if codes[number + 1] != SHUT_DOWN:
                session = self._meet(
                    Scenario("a reply with another code than its request", other_code_at=number)
                )
                after = session.codes[number + 1 : number + 2] if session else []
                taken = after not in ([], [SHUT_DOWN])
                what = "taken for the right one" if taken else "ends the run"
                self.report.sheet["a reply with another code"] = what
                return


def _ending(plain: Session) -> str:
    if plain.refused:
        return f"at request {plain.codes[-1]}, which broke a rule"
    if plain.codes[-1] == SHUT_DOWN:
        return "by request 65520"
    return "by leaving, which holds the licence until the simulator finds its controller gone"


def _values(plain: Session) -> Dict[str, str]:
    """What the first request of each code had in its fields, and what its replies had."""
    rows: Dict[str, str] = {}
    for said in plain.said[len(HANDSHAKE) + 2 :]:
        name = said.name
        if said.end == "daemon" and re.search(r" 409[67] ", name):
            # One for each well. The first wells tell enough.
            count = sum(row.startswith(name) for row in rows)
            name = f"{name}, well {count + 1}" if count < len(PLAIN_WELLS) else ""
        if said.fields and name and name not in rows:
            rows[name] = "  ".join(f"{key}={value!r}" for key, value in said.fields)
    return rows
