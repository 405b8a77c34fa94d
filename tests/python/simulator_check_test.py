"""What `jobmill.check simulator` is worth: broken simulators and unusual ones."""

from __future__ import annotations

import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from typing import Any, Callable, Dict, List, Mapping, Optional, Sequence, Tuple

from support import SOON, ThreadedSimulator

from jobmill import controller_link
from jobmill.check.report import FAILED, PASSED, Report
from jobmill.check.simulator import Check
from jobmill.controller_link import END, READY, Asked, Header, Message, chunked, encode
from jobmill.controller_link import numbers, texts
from jobmill.errors import ProtocolError
from jobmill.simulator import Conversation, FluidModel, Simulator
from jobmill.stream import Stream
from toy_field import ToyField

Answers = List[Message]


class Compositional(ToyField):
    """The toy field with a fluid, so that every rule applies."""

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
    """Leaves when a condition on what arrives holds."""

    leaves: Callable[[Asked], bool] = staticmethod(lambda asked: False)

    def answer(self, message: Message) -> Answers:
        if self.leaves(controller_link.understand(message)):
            raise ProtocolError("left")
        return super().answer(message)


def shy(condition: Callable[[Asked], bool]) -> Callable[[Simulator], Conversation]:
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


BROKEN: Dict[str, Variant] = {
    "total length one too small": Variant("S02", to("SETUP", total_too_small)),
    "empty chunk in the middle": Variant("S02", to("QRESVR_STR", empty_chunk)),
    "cut at 1,000 bytes": Variant(
        "S03", lambda asked, answers: [chunked(encode(answer), 1000) for answer in answers]
    ),
    "type in small letters": Variant("S04", to("QRESVR_STR", lower_case_tag)),
    "END with a count": Variant("S04", to("QRESVR_STR", count_beyond_the_end)),
    "no END": Variant("S05", first("QRESVR_STR", lambda message: message[:-1])),
    "headers behind END": Variant("S05", first("QRESVR_STR", lambda message: [*message, END])),
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


class FinishedAtOnce(Conversation):
    """Says FINISHED when the end is reached, instead of a step."""

    def _advance(self, until: float) -> Message:
        message = super()._advance(until)
        return [Header("FINISHED"), END] if self._position == "END_SIMULATE" else message


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


#: Right, but not as one would expect.
UNUSUAL: Dict[str, Variant] = {
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
    "FINISHED instead of the last step": Variant("", conversation=FinishedAtOnce),
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
        self.assertEqual(set(verdicts), {"S52"}, verdicts)
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
