"""Requests and the reading of their answers, without a connection: Run and AsyncRun do the same with them."""

from __future__ import annotations

import datetime
from typing import (
    Any,
    Callable,
    Dict,
    Generic,
    Iterable,
    List,
    Mapping,
    Optional,
    Sequence,
    TypeVar,
)

from .errors import ProtocolError
from .master_link import (
    INFLOW_TABLES,
    NEXT_INFLOW_TABLE,
    NEXT_OPERATING_POINT,
    OPERATING_POINTS,
    Values,
    code_of,
    pack_request,
    take_frames,
    title,
    unpack_reply,
)
from .results import EquationOfState, InflowTables, OperatingPoints, Wells

Result = TypeVar("Result")


class Exchange(Generic[Result]):
    """A request, what is sent after it, and how the answers become a result."""

    def __init__(
        self,
        code: int,
        finish: Callable[[Values], Result],
        take_records: Callable[[List[bytes]], None] = lambda bodies: None,
        **fields: Any,
    ) -> None:
        """finish: makes the result of the values of the answer, when all records have been taken.

        take_records: takes the bodies of the next records, for the requests that have any.
        """
        self.title = title(code)
        self.done = False
        self._code = code
        self._finish = finish
        self._request = pack_request(code, **fields)
        self._first: Optional[Values] = None
        self._take_records = take_records
        self._taken = 0
        self._asked = 0
        self._next = {OPERATING_POINTS: NEXT_OPERATING_POINT, INFLOW_TABLES: NEXT_INFLOW_TABLE}.get(
            code, 0
        )
        self._ask_next = pack_request(self._next) if self._next else b""
        self._records = len(fields["wells"]) if self._next else 0

    def begin(self) -> bytes:
        """What is to be sent first."""
        return self._request

    def take(self, received: bytearray) -> bytes:
        """Takes whole answers out of what was received, and says what is to be sent then."""
        while not self.done:
            bodies = take_frames(received, 1 if self._first is None else self._records)
            if not bodies:
                break
            if self._first is None:
                self._expect(bodies, self._code)
                self._first = unpack_reply(bodies.pop())
                if self._records and self._first["n"] != self._records:
                    raise ProtocolError(
                        f"'{self.title}' announces {self._first['n']} records for {self._records} wells"
                    )
            self._expect(bodies, self._next)
            self._take_records(bodies)
            self._taken += len(bodies)
            self.done = self._taken == self._records
        return self._ahead()

    def give_up(self) -> bytes:
        """What is to be sent before another request when the answers are no longer waited for.

        In the middle of an exchange the daemon takes nothing but requests for the records that are due.
        """
        due = 0 if self.done else self._records - self._asked
        self._asked += due
        return self._ask_next * due

    def result(self) -> Result:
        assert self._first is not None
        return self._finish(self._first)

    def _expect(self, bodies: List[bytes], code: int) -> None:
        wanted = code.to_bytes(4, "little")
        for body in bodies:
            if body[:4] != wanted:
                raise ProtocolError(f"a reply with the code {code_of(body)} to the request {code}")

    def _ahead(self) -> bytes:
        if self._first is None:
            return b""
        # All at once: however many wait, this end reads whatever arrives while it sends, so neither end waits
        # for the other. A daemon with Nagle's algorithm on keeps small answers back until those before are
        # acknowledged, for up to 200 ms where stream.acknowledge_at_once() can do nothing, so the last request
        # goes out alone: it acknowledges all other answers, and nothing keeps the last one back.
        last = self._records - 1
        more = 1 if self._taken == last == self._asked else max(0, last - self._asked)
        self._asked += more
        return self._ask_next * more


def _nothing(values: Values) -> None:
    return None


def _value(name: str) -> Callable[[Values], Any]:
    return lambda values: values[name]


def _date(values: Values) -> datetime.date:
    try:
        return datetime.date(values["year"], values["month"], values["day"])
    except ValueError as error:
        raise ProtocolError(f"a date that is none: {values}") from error


def connect() -> Exchange[None]:
    return Exchange(1, _nothing)


def date() -> Exchange[datetime.date]:
    return Exchange(2, _date)


def is_metric() -> Exchange[bool]:
    return Exchange(3, _value("metric"))


def time() -> Exchange[float]:
    return Exchange(4, _value("days"))


def is_compositional() -> Exchange[bool]:
    return Exchange(5, _value("compositional"))


def wells() -> Exchange[Wells]:
    return Exchange(6, lambda values: Wells(values["wells"]))


def first_step() -> Exchange[None]:
    return Exchange(7, _nothing)


def run_until(days: float) -> Exchange[None]:
    return Exchange(8, _nothing, days=days)


def has_ended() -> Exchange[bool]:
    return Exchange(9, _value("ended"))


def operating_points(names: Iterable[str]) -> Exchange[OperatingPoints]:
    points = OperatingPoints(tuple(names))
    return Exchange(
        10, lambda _: points.complete(), points.take, n=len(points.wells), wells=points.wells
    )


def set_status(statuses: Mapping[str, str]) -> Exchange[None]:
    n = len(statuses)
    return Exchange(11, _nothing, n=n, m=n, wells=list(statuses), statuses=list(statuses.values()))


def set_uptime(fractions: Mapping[str, float]) -> Exchange[None]:
    n = len(fractions)
    return Exchange(
        12, _nothing, n=n, m=n, wells=list(fractions), fractions=list(fractions.values())
    )


def set_constraints(constraints: Mapping[str, Mapping[str, float]]) -> Exchange[None]:
    n = len(constraints)
    return Exchange(
        13,
        _nothing,
        n=n,
        wells=list(constraints),
        g=n,
        constraints=[list(limits) for limits in constraints.values()],
        h=n,
        values=[list(limits.values()) for limits in constraints.values()],
    )


def equation_of_state() -> Exchange[EquationOfState]:
    def finish(values: Values) -> EquationOfState:
        fields = {k: v for k, v in values.items() if k not in ("count", "reserved", "components")}
        return EquationOfState(components=tuple(values["components"]), **fields)

    return Exchange(14, finish)


def variables(well: str, names: Iterable[str]) -> Exchange[Dict[str, float]]:
    asked = tuple(names)

    def finish(values: Values) -> Dict[str, float]:
        if len(values["values"]) != len(asked):
            raise ProtocolError(f"{len(values['values'])} values for {len(asked)} asked")
        return dict(zip(asked, values["values"]))

    return Exchange(15, finish, well=well, n=len(asked), names=asked)


def inflow_tables(
    names: Iterable[str], components: int, bottom_hole: bool, skewness: float
) -> Exchange[InflowTables]:
    asked = tuple(names)
    replies: List[bytes] = []
    return Exchange(
        16,
        lambda _: InflowTables(asked, replies),
        replies.extend,
        components=components,
        n=len(asked),
        wells=asked,
        bottom_hole=bottom_hole,
        skewness=skewness,
    )


def simulator_version() -> Exchange[float]:
    return Exchange(17, _value("version"))


def attach_source(well: str, source: str) -> Exchange[bool]:
    return Exchange(18, lambda values: bool(values["accepted"]), well=well, source=source)


def set_compositions(compositions: Mapping[str, Sequence[float]]) -> Exchange[None]:
    n = len(compositions)
    return Exchange(
        19,
        _nothing,
        n=n,
        sources=list(compositions),
        m=n,
        compositions=[list(fractions) for fractions in compositions.values()],
    )


def start_date() -> Exchange[datetime.date]:
    return Exchange(20, _date)
