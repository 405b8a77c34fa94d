"""A master, and where the daemon finds it a simulator, that go through all that a daemon has to do."""

from __future__ import annotations

import contextlib
import dataclasses
import functools
import selectors
import socket
import struct
import threading
from dataclasses import dataclass
from typing import Any, Callable, Dict, Iterator, List, Optional, Sequence, Tuple

from .. import controller_link, master_link
from ..controller_link import END, Asked, Header, Message
from ..errors import ConnectFailed, Error, ProtocolError, TimedOut
from ..master_link import Handshake, Values, frame, pack_request, take_frame
from ..simulator import FIELD, Conversation
from ..stream import Stream, deadline_in
from .known import COMPONENTS, ODD, POINT, SERIES, KnownField
from .report import Report, rules, shown

RULES = [
    *rules(
        "master-protocol.md",
        (
            "D01",
            "Handshake",
            'The daemon begins with the line "3", before the master has said anything.',
        ),
        ("D02", "Handshake", "Between the two lines of the daemon nothing is sent."),
        ("D03", "Handshake", 'A launch is told by "OK|", the host, and at most one zero byte.'),
        ("D04", "Handshake", "A master of version 0 gets no word, and the connection ends."),
        ("D05", "Handshake", "Lines are understood however the network cuts them."),
        (
            "D06",
            "Requests and replies",
            "A reply has the request's code, its values, and the int 0.",
        ),
        (
            "D07",
            "Requests and replies",
            "A code that is not in the table is not answered; the run goes on.",
        ),
        (
            "D08",
            "Requests and replies",
            "A request before 1 gets no answer, and the connection ends.",
        ),
        ("D09", "Requests and replies", "Requests that arrive together are served in their order."),
        ("D10", "Frames", "A request is taken however the network cuts it."),
        ("D11", "Frames", "A frame of more than 65,536 bytes ends the run without an answer."),
        ("D12", "Frames", "A length of 0 ends the run without an answer."),
        ("D13", "Requests and replies", "Request 65520 is answered, then the connection ends."),
        (
            "D14",
            "Requests and replies",
            "A request that fails gets no answer, and the connection ends.",
        ),
    ),
    *rules(
        "master-protocol.md",
        ("D15", "Requests and replies", "2: the simulated date is that of the last step answer."),
        ("D16", "Requests and replies", "3: 1 for a metric run, 0 for another."),
        ("D17", "Requests and replies", "4: the simulated time is that of the last step answer."),
        ("D18", "Requests and replies", "5: whether the run is compositional."),
        ("D19", "Requests and replies", "6: names, types and statuses of all wells."),
        ("D20", "Frames", "6: a reply of more than 65,536 bytes is whole."),
        ("D21", "Requests and replies", "9: whether the simulation has ended."),
        (
            "D22",
            "Requests and replies",
            "10: each well's record has its status and its eight values.",
        ),
        (
            "D23",
            "Requests and replies",
            "10: records that are asked for ahead come in their order.",
        ),
        ("D24", "Requests and replies", "10: with no wells nothing follows."),
        ("D25", "Requests and replies", "10: another frame in the exchange ends the run."),
        (
            "D26",
            "Requests and replies",
            "14: the equation of state with its series, in their places.",
        ),
        ("D27", "Requests and replies", "15: the values of the properties, in their order."),
        (
            "D28",
            "Requests and replies",
            "16: each table has eight series of as many points as were said.",
        ),
        (
            "D29",
            "Requests and replies",
            "16: with components, ten series of mole fractions follow.",
        ),
        (
            "D30",
            "Requests and replies",
            "16: the wells are open afterwards, with the last point's limits.",
        ),
        ("D31", "Requests and replies", "17: the version of the simulator as a number."),
        ("D32", "Requests and replies", "18: 0 or not, as the simulator has answered."),
        ("D33", "Requests and replies", "20: the start date."),
        ("D34", "Values", "A string in a request ends at its first zero byte."),
        ("D35", "Values", "A negative count in a request is taken as 0."),
    ),
    *rules(
        "external-controller-protocol.md",
        ("D36", "Framing", "The daemon cuts its messages at multiples of 65,536 bytes."),
        (
            "D37",
            "Message format",
            "Every message of the daemon is one that the page has, in its form.",
        ),
        ("D38", "Set-up", 'The first message is SETUP with the version "V2".'),
        ("D39", "Set-up", "A set-up that the simulator refuses ends the run."),
        ("D40", "Steps", "Request 7 becomes CONTINUE."),
        ("D41", "Steps", "Request 8 becomes CONTINUE_UNTIL with exactly its time."),
        ("D42", "Steps", "Request 65520 becomes SHUTDOWN."),
        ("D43", "Steps", "FINISHED is the end of the simulation; time and date stay."),
        ("D44", "Status", "Request 11 becomes SETWSTATUS with its wells and statuses."),
        ("D45", "Uptime", "Request 12 becomes SETWELLS with its wells and fractions."),
        (
            "D46",
            "Constraints",
            "Request 13 becomes SETWCONSTRAINTS with its wells, names and values.",
        ),
        (
            "D47",
            "Composition of an external source",
            "Request 19 becomes SETWSTRE with its fractions.",
        ),
        ("D48", "Attaching an external source", "Request 18 becomes CREATE_FLDSRCEXT."),
        (
            "D49",
            "External-controller protocol",
            "The daemon waits for the whole answer before it asks again.",
        ),
        (
            "D50",
            "Framing",
            "Answers in chunks of any length, cut anywhere by the network, are taken.",
        ),
        ("D51", "Message format", "An answer that breaks the format ends the run."),
    ),
    *rules(
        "architecture.md",
        ("D52", "The life of a run", "When the master has gone, the link to the simulator ends."),
    ),
]
#: What can be judged only with a simulator whose answers are known.
_WITH_SIMULATOR = [
    f"D{number}" for number in (*range(14, 24), 26, 27, *range(29, 35), *range(36, 53))
]


@dataclass
class Manner:
    """How the simulator's end of a session behaves."""

    model: KnownField = dataclasses.field(default_factory=KnownField)
    chunk: int = controller_link.CHUNK
    packet: int = 0
    refuse: bool = False
    #: Begins the answer to this kind of request with a header that nobody knows.
    spoil: str = ""


class SimulatorEnd:
    """The simulator's end of one session, in a thread, with all that the daemon said to it."""

    def __init__(self, listeners: Sequence[socket.socket], manner: Manner, patience: float) -> None:
        self.asked: List[Asked] = []
        self.chunks: List[Tuple[int, Tuple[int, ...]]] = []
        #: What broke the rules, as (rule, expected, received).
        self.faults: List[Tuple[str, str, str]] = []
        self.connected = threading.Event()
        self.closed = threading.Event()
        self._manner = manner
        self._listeners = listeners
        self._patience = patience
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def of_kind(self, kind: str) -> List[Asked]:
        return [asked for asked in self.asked if asked.kind == kind]

    def end(self) -> None:
        self._over.set()
        self._thread.join()

    def _serve(self) -> None:
        with selectors.DefaultSelector() as selector:
            for listener in self._listeners:
                selector.register(listener, selectors.EVENT_READ)
            ready: List[Any] = []
            while not ready and not self._over.is_set():
                ready = selector.select(0.02)
            if not ready:
                return
            accepted, _ = ready[0][0].fileobj.accept()
        self.connected.set()
        with Stream(accepted) as stream:
            try:
                self._converse(stream)
            except ProtocolError as error:
                self.faults.append(("D37", "a message of the page", str(error)))
            finally:
                self.closed.set()

    def _converse(self, stream: Stream) -> None:
        conversation = Conversation(self._manner.model)
        while not self._over.is_set():
            arrived = controller_link.take_message(stream.received)
            if arrived is None:
                try:
                    if not stream.receive(deadline_in(0.05)):
                        if stream.received:
                            rest = shown(bytes(stream.received))
                            self.faults.append(("D37", "a whole message", rest))
                        return
                except TimedOut:
                    pass
                continue
            self.chunks.append((len(arrived.body), arrived.chunks))
            message = controller_link.decode(arrived.body)
            asked = controller_link.understand(message)
            self.asked.append(asked)
            if self._manner.refuse:
                answers: List[Message] = [
                    [Header("STARTED"), controller_link.texts("ERRORS", "no"), END]
                ]
            else:
                answers = conversation.answer(message)
            if asked.kind == self._manner.spoil:
                answers[0] = [Header("BOGUS"), *answers[0][1:]]
            for i, answer in enumerate(answers):
                # Between an answer and its ready message the daemon has nothing to say.
                if (
                    i
                    and not stream.quiet_for(0.002)
                    and (stream.received or not self._manner.spoil)
                ):
                    rest = shown(bytes(stream.received))
                    self.faults.append(("D49", "nothing before the ready message", rest))
                self._send(stream, answer)

    def _send(self, stream: Stream, message: Message) -> None:
        data = controller_link.chunked(controller_link.encode(message), self._manner.chunk)
        stream.send_cut(data, self._manner.packet, deadline_in(self._patience))


class Broken(Exception):
    """A session cannot go on."""


class Master:
    """The master's end of one session."""

    def __init__(self, stream: Stream, report: Report, patience: float) -> None:
        self.stream = stream
        self.report = report
        self._patience = patience

    def line(self, rule: str, expected: str) -> bytes:
        body = self.reply(rule, expected)
        if body is None:
            self.report.failed(rule, expected, "the end of the connection")
            raise Broken(f"the connection ended instead of {expected}")
        return body

    def reply(self, rule: str, expected: str) -> Optional[bytes]:
        """The body of the next frame; None when the connection ends instead."""
        deadline = deadline_in(self._patience)
        while True:
            try:
                body = take_frame(self.stream.received)
            except ProtocolError as error:
                self.report.failed("D06", "a frame", str(error))
                raise Broken(str(error)) from error
            if body is not None:
                return body
            try:
                if not self.stream.receive(deadline):
                    if self.stream.received:
                        rest = shown(bytes(self.stream.received))
                        self.report.failed("D06", "a whole frame", f"{rest}, then the end")
                    return None
            except TimedOut:
                if self.stream.received:
                    rest = shown(bytes(self.stream.received))
                    self.report.failed("D06", "a whole frame", f"{rest}, then nothing")
                else:
                    why = f"{expected} did not come in {self._patience:g} seconds (--patience)"
                    self.report.unknown(rule, why)
                raise Broken(f"{expected} did not come") from None

    def send(self, data: bytes, packet: int = 0) -> None:
        self.stream.send_cut(data, packet, deadline_in(self._patience))

    def read(self, rule: str, code: int, body: Optional[bytes]) -> Values:
        """The values of the reply to a request; anything else breaks the session."""
        title = master_link.title(code)
        if body is None:
            self.report.failed(rule, f"the reply to {code} ({title})", "the end of the connection")
            raise Broken(f"the connection ended instead of a reply to {code}")
        try:
            if master_link.code_of(body) != code:
                raise ProtocolError(f"the code {master_link.code_of(body)}")
            values = master_link.unpack_reply(body)
        except ProtocolError as error:
            self.report.failed("D06", f"a reply to {code} ({title})", f"{error}: {shown(body)}")
            raise Broken(str(error)) from error
        self.report.kept("D06")
        return values

    def ask(self, rule: str, code: int, *, packet: int = 0, **fields: Any) -> Values:
        self.send(pack_request(code, **fields), packet)
        return self.read(rule, code, self.reply(rule, f"the reply to {code}"))

    def records(self, rule: str, code: int, wells: Sequence[str], ahead: bool) -> List[Values]:
        request = pack_request(code)
        if ahead:
            self.send(request * len(wells))
        found = []
        for _ in wells:
            if not ahead:
                self.send(request)
            found.append(self.read(rule, code, self.reply(rule, f"the reply to {code}")))
        return found

    def ends(self, rule: str, what: str) -> None:
        """Judges that the connection ends without another reply."""
        body = self.reply(rule, "the end of the connection")
        received = "the end" if body is None else shown(body)
        self.report.judge(rule, body is None, f"the end of the connection after {what}", received)


class Check:
    """All sessions with one daemon."""

    def __init__(
        self,
        host: str,
        port: int,
        handshake: Handshake,
        *,
        simulator_ports: Sequence[int] = (),
        patience: float = 60.0,
    ) -> None:
        self.report = Report("daemon", RULES)
        self._host, self._port = host, port
        self._handshake = handshake
        self._ports = simulator_ports
        self._patience = patience
        self._listeners: List[socket.socket] = []

    def run(self) -> Report:
        with contextlib.ExitStack() as stack:
            for port in self._ports:
                self._listeners.append(stack.enter_context(socket.create_server(("", port))))
            self._handshakes()
            for session in self._sessions():
                self._try(session)
        self.report.finish()
        return self.report

    def _sessions(self) -> Iterator[Callable[[], None]]:
        yield self._requests_session
        yield self._cut_session
        yield self._together_session
        yield self._exchange_session
        ended = self._ended_session
        early = pack_request(4)
        yield lambda: ended("D08", early, "request 4 before 1", connect=False)
        long = frame(b"\4\0\0\0" + bytes(65533))
        yield lambda: ended("D11", long, "a frame of 65,537 bytes")
        yield lambda: ended("D12", bytes(4), "a frame of length 0")
        if not self._ports:
            for rule in _WITH_SIMULATOR:
                self.report.absent(rule, "it needs a known simulator: give --simulator-port")
            return
        yield self._large_session
        yield self._field_units_session
        for manner in (Manner(chunk=1), Manner(packet=1), Manner(chunk=7, packet=5)):
            yield functools.partial(self._odd_answers_session, manner)
        refused = Manner(refuse=True)
        first = pack_request(1)
        yield lambda: ended("D39", first, "a refused set-up", refused, connect=False)
        spoilt = Manner(spoil="QRESVR_STR")
        yield lambda: ended("D51", pack_request(3), "an answer that begins with BOGUS", spoilt)
        unknown = pack_request(15, well="NO SUCH WELL", n=1, names=["TEMPERATURE"])
        yield lambda: ended("D14", unknown, "a request for a well that the simulator does not know")

    def _try(self, session: Callable[[], None]) -> None:
        report = self.report
        try:
            session()
        except Broken as error:
            report.broken = report.broken or f"an earlier step failed: {error}"
        except (Error, OSError) as error:
            report.broken = report.broken or str(error)
        except (ArithmeticError, LookupError, TypeError, ValueError) as error:
            # An answer that broke a rule was used further on. The rule has been told.
            report.broken = report.broken or f"an earlier answer could not be used: {error!r}"

    # One connection.

    @contextlib.contextmanager
    def _launched(
        self, manner: Optional[Manner] = None, connect: bool = True
    ) -> Iterator[Tuple[Master, Optional[SimulatorEnd]]]:
        end: Optional[SimulatorEnd] = None
        try:
            with self._reached() as master:
                self._greeted(master)
                master.send(b"".join(map(frame, self._handshake.lines())))
                if self._ports:
                    end = SimulatorEnd(self._listeners, manner or Manner(), self._patience)
                self._told(master)
                if connect:
                    master.ask("D06", 1)
                yield master, end
        finally:
            if end is not None:
                end.end()
                self._judge_messages(end)

    @contextlib.contextmanager
    def _reached(self) -> Iterator[Master]:
        try:
            stream = Stream.connect(self._host, self._port, self._patience)
        except ConnectFailed as error:
            self.report.failed("D01", "a connection", str(error))
            raise Broken("the daemon was not reached") from error
        with stream:
            yield Master(stream, self.report, self._patience)

    def _greeted(self, master: Master) -> None:
        greeting = master.line("D01", 'the line "3"')
        self.report.judge("D01", greeting == b"3", "33", shown(greeting))

    def _told(self, master: Master) -> str:
        outcome = master.line("D03", "the outcome of the launch")
        text = outcome[:-1] if outcome.endswith(b"\0") else outcome
        kept = text.startswith(b"OK|") and len(text) > 3 and b"\0" not in text and b"\n" not in text
        self.report.judge("D03", kept, '"OK|", a host, at most one zero byte', shown(outcome))
        if not text.startswith(b"OK|"):
            raise Broken(f"the launch was refused: {text!r}")
        return master_link.bytes_text(text[3:])

    def _judge_messages(self, end: SimulatorEnd) -> None:
        for rule, expected, received in end.faults:
            self.report.failed(rule, expected, received)
        if not end.asked:
            return
        self.report.kept("D37")
        self.report.kept("D49")
        first = end.asked[0]
        kept = first.kind == "SETUP" and list(first.row["VERSION"]) == ["V2"]
        self.report.judge("D38", kept, 'SETUP, VERSION "V2"', f"{first.kind} {first.rows}")
        for size, chunks in end.chunks:
            whole, rest = divmod(size, controller_link.CHUNK)
            cuts = [controller_link.CHUNK] * whole + [rest] * (rest > 0 or not whole)
            self.report.judge("D36", list(chunks) == cuts, f"chunks of {cuts}", str(list(chunks)))

    # Handshakes.

    def _handshakes(self) -> None:
        report = self.report
        with contextlib.suppress(Broken), self._reached() as master:
            self._greeted(master)
            master.send(frame(b"0"))
            master.ends("D04", "version 0")
        end = SimulatorEnd(self._listeners, Manner(), self._patience) if self._ports else None
        try:
            with contextlib.suppress(Broken), self._reached() as master:
                self._greeted(master)
                *lines, last = self._handshake.lines()
                for line in lines:
                    master.send(frame(line), packet=1)
                    if not master.stream.quiet_for(0.01):
                        rest = shown(bytes(master.stream.received))
                        report.failed("D02", "nothing", f"{rest} before the last line")
                master.send(frame(last), packet=1)
                report.sheet["simulator on"] = self._told(master)
                report.kept("D02")
                report.kept("D05")
                master.ask("D06", 1)
                master.ask("D13", master_link.SHUT_DOWN)
                master.ends("D13", "the reply to 65520")
            if report.judgements.get("D05") is None:
                report.failed("D05", "a launch after lines in packets of one byte", "none")
        finally:
            if end is not None:
                end.end()

    # Sessions.

    def _requests_session(self) -> None:
        with self._launched() as (master, end):
            if end is None:
                self._requests_of_any_run(master)
            else:
                self._requests_of_known_run(master, end)

    def _requests_of_any_run(self, master: Master) -> None:
        report = self.report
        names = [row[0] for row in master.ask("D06", 6)["wells"]]
        report.sheet["wells"] = str(len(names))
        report.sheet["version of the simulator"] = str(master.ask("D06", 17)["version"])
        for code in (3, 5, 20, 7, 2, 4, 9, 14):
            master.ask("D06", code)
        self._no_wells(master)
        tables = master.ask(
            "D28", 16, components=0, n=1, wells=names[:1], bottom_hole=1, skewness=1.0
        )
        self._tables(master, tables, names[:1], 0)

    def _requests_of_known_run(self, master: Master, end: SimulatorEnd) -> None:
        report, known = self.report, KnownField()
        wells = list(known.wells())
        self._simple(master, known)
        rows = [(well, kind, "OPEN") for well, kind in known.wells().items()]
        answered = master.ask("D19", 6)["wells"]
        report.judge("D19", answered == rows, str(rows), str(answered))
        self._points(master, known, wells)
        self._no_wells(master)
        values = master.ask("D26", 14)
        model = known.fluid_models()[0]
        wanted: Dict[str, Any] = {
            series: tuple(model.properties[name]) for name, series in SERIES.items()
        }
        wanted["binary_interaction"] = tuple(model.binary_interaction)
        found = {name: values[name] for name in wanted}
        right = values["name"] == "PENG_ROBINSON" and tuple(values["components"]) == COMPONENTS
        report.judge("D26", right and found == wanted, str(wanted), str(values))
        names = ["TEMPERATURE", "OIL_PRODUCTION_RATE", "TOTAL_MOLE_FRACTION[2]"]
        answered = master.ask("D27", 15, well=ODD, n=3, names=names)["values"]
        expected = tuple(known.number(ODD, name) for name in names)
        report.judge("D27", answered == expected, str(expected), str(answered))
        self._controls(master, end)
        self._awkward(master, end)
        self._inflow(master, end)
        self._stepping(master, end)
        master.ask("D13", master_link.SHUT_DOWN)
        master.ends("D13", "the reply to 65520")
        kept = end.asked[-1].kind == "SHUTDOWN"
        report.judge("D42", kept, "SHUTDOWN", end.asked[-1].kind)

    def _simple(self, master: Master, known: KnownField) -> None:
        report = self.report
        version = master.ask("D31", 17)["version"]
        report.judge("D31", version == 2017.2, "2017.2", str(version))
        metric = master.ask("D16", 3)["metric"]
        report.judge("D16", metric is True, "1", str(metric))
        compositional = master.ask("D18", 5)["compositional"]
        report.judge("D18", compositional is True, "1", str(compositional))
        for rule, code in (("D33", 20), ("D15", 2)):
            values = master.ask(rule, code)
            date = (values["year"], values["month"], values["day"])
            report.judge(rule, date == (2024, 2, 28), "28, 2, 2024", str(values))
        days = master.ask("D17", 4)["days"]
        report.judge("D17", days == 0.0, "0", str(days))
        ended = master.ask("D21", 9)["ended"]
        report.judge("D21", ended is False, "0", str(ended))

    def _points(self, master: Master, known: KnownField, wells: List[str]) -> None:
        for rule, ahead in (("D22", False), ("D23", True)):
            n = master.ask(rule, 10, n=len(wells), wells=wells)["n"]
            self.report.judge(rule, n == len(wells), str(len(wells)), str(n))
            for well, values in zip(wells, master.records(rule, 4096, wells, ahead)):
                wanted: Values = {POINT[item]: known.number(well, item) for item in POINT}
                wanted["status"] = "OPEN"
                self.report.judge(rule, values == wanted, f"{wanted} of {well}", str(values))

    def _no_wells(self, master: Master) -> None:
        n = master.ask("D24", 10, n=0, wells=[])["n"]
        master.ask("D24", 9)
        self.report.judge("D24", n == 0, "0", str(n))
        master.send(frame(struct.pack("<Ii", 10, -1)))
        n = master.read("D35", 10, master.reply("D35", "the reply to 10"))["n"]
        self.report.judge("D35", n == 0, "0", str(n))

    def _became(
        self, rule: str, end: SimulatorEnd, kind: str, expected: List[Dict[str, Any]]
    ) -> None:
        """Judges that the last message of a kind has these fields."""
        asked = end.of_kind(kind)
        names = expected[0]
        rows = [{name: row.get(name) for name in names} for row in asked[-1].rows] if asked else []
        self.report.judge(rule, rows == expected, f"{kind} {expected}", str(rows))

    def _controls(self, master: Master, end: SimulatorEnd) -> None:
        report = self.report
        pair = ["P1", ODD]
        master.ask("D44", 11, n=2, m=2, wells=pair, statuses=["SHUT", "OPEN"])
        row: Dict[str, Any] = {"WELNAMES": tuple(pair), "VALUES": ("SHUT", "OPEN")}
        self._became("D44", end, "SETWSTATUS", [{"SETITEM": ("STATUS",), **row}])
        master.ask("D45", 12, n=2, m=2, wells=pair, fractions=[0.5, 0.1])
        row = {"WELNAMES": tuple(pair), "VALUES": (0.5, 0.1)}
        self._became("D45", end, "SETWELLS", [{"SETITEM": ("UPTIME_FRACTION",), **row}])
        limits: Dict[str, Dict[str, float]] = {
            "P1": {"OIL_PRODUCTION_RATE": 1e6, "BOTTOM_HOLE_PRESSURE": 0.3},
            ODD: {},
        }
        master.ask(
            "D46",
            13,
            n=2,
            wells=pair,
            g=2,
            constraints=[list(each) for each in limits.values()],
            h=2,
            values=[list(each.values()) for each in limits.values()],
        )
        rows = [
            {"WELLNAME": (well,), "ITEMS": tuple(each), "VALUES": tuple(each.values())}
            for well, each in limits.items()
        ]
        self._became("D46", end, "SETWCONSTRAINTS", rows)
        if self._handshake.simulator != "2017.2":
            for rule in ("D32", "D47", "D48"):
                report.absent(rule, "version 2016.2 has no external sources")
            return
        for well, accepted in (("G1", True), ("P1", False)):
            found = master.ask("D32", 18, well=well, source="S 1")["accepted"]
            report.judge("D32", bool(found) == accepted, str(int(accepted)), str(found))
            row = {"WELLNAME": (well,), "STNAME": ("S 1",), "STPHASE": ("GAS",)}
            self._became("D48", end, "CREATE_FLDSRCEXT", [row])
        master.ask("D47", 19, n=1, sources=["S 1"], m=1, compositions=[[0.7, 0.2, 0.1]])
        names = tuple(f"TOTAL_MOLE_FRACTION[{k}]" for k in (1, 2, 3))
        row = {"STNAME": ("S 1",), "STCMPVALUES": (0.7, 0.2, 0.1), "STCMPNAMES": names}
        self._became("D47", end, "SETWSTRE", [row])

    def _awkward(self, master: Master, end: SimulatorEnd) -> None:
        master.ask("D34", 12, n=1, m=1, wells=["P1\0P2"], fractions=[1.0])
        self._became("D34", end, "SETWELLS", [{"WELNAMES": ("P1",)}])

    def _inflow(self, master: Master, end: SimulatorEnd) -> None:
        wells = ["P1", ODD]
        for components in (0, 3):
            rule = "D29" if components else "D28"
            fields: Dict[str, Any] = {
                "components": components,
                "n": 2,
                "wells": wells,
                "skewness": 1.0,
            }
            reply = master.ask(rule, 16, bottom_hole=1, **fields)
            self._tables(master, reply, wells, components)
        statuses = [asked for asked in end.of_kind("SETWSTATUS")]
        opened = bool(statuses) and statuses[-1].row["VALUES"] == ("OPEN", "OPEN")
        limits = [
            row for row in end.of_kind("SETWCONSTRAINTS")[-1].rows if row["WELLNAME"] == ("P1",)
        ]
        first = KnownField().number("P1", "OIL_PRODUCTION_RATE")
        low = bool(limits) and 0 < limits[0]["VALUES"][0] < first
        self.report.judge(
            "D30", opened and low, f"OPEN, then a limit below {first}", f"{statuses[-1:]} {limits}"
        )

    def _tables(self, master: Master, reply: Values, wells: List[str], components: int) -> None:
        rule = "D29" if components else "D28"
        points = reply["points"]
        kept = reply["n"] == len(wells) and points == master_link.POINTS
        self.report.judge(rule, kept, f"{len(wells)} wells, 10 points", str(reply))
        for values in master.records(rule, 4097, wells, ahead=True):
            compositions = values.pop("compositions")
            lengths = [len(series) for series in values.values()]
            self.report.judge(rule, lengths == [points] * 8, f"8 series of {points}", str(lengths))
            lengths = [len(series) for series in compositions]
            wanted = [components] * points if components else []
            self.report.judge(rule, lengths == wanted, f"series of {wanted}", str(lengths))

    def _stepping(self, master: Master, end: SimulatorEnd) -> None:
        report = self.report
        master.ask("D40", 7)
        kind = end.asked[-1].kind
        report.judge("D40", kind == "CONTINUE", "CONTINUE", kind)
        target = 2.0 + 1.0 / 3.0
        master.ask("D41", 8, days=target)
        self._became("D41", end, "CONTINUE_UNTIL", [{"TIME": (target,)}])
        days = master.ask("D17", 4)["days"]
        report.judge("D17", days == target, str(target), str(days))
        values = master.ask("D15", 2)
        kept = (values["day"], values["month"], values["year"]) == (1, 3, 2024)
        report.judge("D15", kept, "1 March 2024", str(values))
        for _ in range(2):  # The second is answered by FINISHED.
            master.ask("D43", 8, days=5000.0)
            days, ended = master.ask("D43", 4)["days"], master.ask("D21", 9)["ended"]
            report.judge("D21", ended is True, "1", str(ended))
            report.judge("D43", days == 1000.0, "1000 days", str(days))

    def _cut_session(self) -> None:
        with self._launched() as (master, end):
            rows = master.ask("D10", 6)["wells"]
            cut = master.ask("D10", 6, packet=1)["wells"]
            self.report.judge("D10", cut == rows, str(rows), str(cut))
            names = [row[0] for row in rows][:4]
            master.ask("D10", 10, packet=3, n=len(names), wells=names)
            master.records("D10", 4096, names, ahead=False)
            if end is not None:
                master.stream.close()
                self.report.judge(
                    "D52",
                    end.closed.wait(self._patience),
                    "the end of the simulator's link",
                    "none",
                )

    def _together_session(self) -> None:
        codes = (4, 2, 3, 9, 4)
        with self._launched() as (master, _):
            master.send(b"".join(map(pack_request, codes)))
            for code in codes:
                body = master.reply("D09", f"the reply to {code}")
                found = None if body is None else master_link.code_of(body)
                if not self.report.judge(
                    "D09", found == code, f"a reply to {code}", f"one to {found}"
                ):
                    raise Broken("replies came in another order")
            master.send(frame(struct.pack("<I", 777)) + pack_request(4))
            body = master.reply("D07", "the reply to 4")
            kept = body is not None and master_link.code_of(body) == 4
            received = "the end" if body is None else shown(body)
            self.report.judge("D07", kept, "the reply to 4, which came next", received)

    def _ended_session(
        self,
        rule: str,
        request: bytes,
        what: str,
        manner: Optional[Manner] = None,
        connect: bool = True,
    ) -> None:
        """A run that a request has to end."""
        with self._launched(manner, connect) as (master, _):
            master.send(request)
            master.ends(rule, what)

    def _exchange_session(self) -> None:
        with self._launched() as (master, _):
            names = [row[0] for row in master.ask("D25", 6)["wells"]][:2]
            master.ask("D25", 10, n=len(names), wells=names)
            master.send(pack_request(4))
            master.ends("D25", "request 4 instead of 4096")

    def _large_session(self) -> None:
        known = KnownField(5000)
        names = list(known.wells())
        with self._launched(Manner(KnownField(5000))) as (master, end):
            rows = master.ask("D20", 6)["wells"]
            right = rows == [(well, "PRODUCER", "OPEN") for well in names]
            self.report.judge(
                "D20", right, f"{len(names)} wells", f"{len(rows)} rows, {rows[:2]} ..."
            )
            master.ask("D22", 10, n=len(names), wells=names)
            points = master.records("D23", 4096, names, ahead=True)
            last = points[-1]["oil_rate"]
            wanted = known.number(names[-1], "OIL_PRODUCTION_RATE")
            self.report.judge("D23", last == wanted, str(wanted), str(last))
            master.ask("D13", master_link.SHUT_DOWN)

    def _field_units_session(self) -> None:
        with self._launched(Manner(KnownField(units=FIELD))) as (master, _):
            metric = master.ask("D16", 3)["metric"]
            self.report.judge("D16", metric is False, "0", str(metric))

    def _odd_answers_session(self, manner: Manner) -> None:
        with self._launched(manner) as (master, _):
            rows = master.ask("D50", 6)["wells"]
            wanted = [(well, kind, "OPEN") for well, kind in KnownField().wells().items()]
            self.report.judge("D50", rows == wanted, str(wanted), str(rows))
