"""The protocol between master and daemon as data: frames, values, and a table of all requests.

Nothing here opens a connection. The pages say what the fields mean: docs/master-protocol.md.
"""

from __future__ import annotations

import struct
from typing import Any, Dict, Iterable, Iterator, List, NamedTuple, Tuple

from .errors import ProtocolError

Values = Dict[str, Any]

#: The daemon's receive buffer: a larger frame ends the run.
LARGEST_REQUEST = 65536
#: A longer frame of the handshake never completes.
LARGEST_LINE = 32767
#: Points of an inflow table.
POINTS = 10

OPERATING_POINTS = 10
INFLOW_TABLES = 16
SHUT_DOWN = 65520
NEXT_OPERATING_POINT = 4096
NEXT_INFLOW_TABLE = 4097

#: The answers to the master's handshake, in their order.
HANDSHAKE = (
    "version of the protocol",
    "cluster number",
    "data path",
    "root name",
    "number of processes",
    "version of the simulator",
    "Windows user name",
    "debug flag",
)
#: How the version of the simulator is written in the handshake.
VERSION_NUMBERS = {"2016.2": "20162", "2017.2": "20172"}

_INT = struct.Struct("<i")
_DOUBLE = struct.Struct("<d")
_DOUBLES = tuple(struct.Struct(f"<{count}d") for count in range(64))


def text_bytes(text: str) -> bytes:
    """The pages name no encoding: UTF-8, and bytes that are not come back as they were."""
    return text.encode("utf-8", "surrogateescape")


def bytes_text(data: bytes) -> str:
    return data.decode("utf-8", "surrogateescape")


def frame(body: bytes) -> bytes:
    return _INT.pack(len(body)) + body


def take_frame(received: bytearray) -> bytes | None:
    """Takes the body of the first frame out of what was received; None when more bytes are due."""
    if len(received) < 4:
        return None
    (length,) = _INT.unpack_from(received)
    if length < 0:
        raise ProtocolError(f"a frame announces {length} bytes")
    if len(received) < 4 + length:
        return None
    body = bytes(received[4 : 4 + length])
    del received[: 4 + length]
    return body


def take_frames(received: bytearray, most: int) -> List[bytes]:
    """Takes the bodies of up to so many frames. Quicker than one after the other: thousands come together."""
    bodies: List[bytes] = []
    data = bytes(received)
    at, end = 0, len(data)
    while end - at >= 4 and len(bodies) < most:
        (length,) = _INT.unpack_from(data, at)
        if length < 0:
            raise ProtocolError(f"a frame announces {length} bytes")
        if end - at < 4 + length:
            break
        bodies.append(data[at + 4 : at + 4 + length])
        at += 4 + length
    del received[:at]
    return bodies


class Packer:
    """Values in a row, as requests and replies have them."""

    def __init__(self, code: int) -> None:
        self._parts = [struct.pack("<I", code)]

    def put_int(self, value: Any) -> None:
        self._parts.append(_INT.pack(value))

    put_flag = put_int

    def put_byte(self, value: Any) -> None:
        self._parts.append(b"\1" if value else b"\0")

    def put_double(self, value: Any) -> None:
        self._parts.append(_DOUBLE.pack(value))

    def put_string(self, value: Any) -> None:
        self.put_texts((value,))

    def put_series(self, value: Any) -> None:
        self._parts.append(struct.pack(f"<i{len(value)}d", len(value), *value))

    def put_strings(self, value: Any) -> None:
        self.put_int(len(value))
        self.put_texts(value)

    def put_texts(self, texts: Iterable[str]) -> None:
        pack, add = _INT.pack, self._parts.append
        for text in texts:
            data = text.encode("utf-8", "surrogateescape")  # text_bytes(), without a call for each
            add(pack(len(data)) + data)

    def body(self) -> bytes:
        return b"".join(self._parts)


class Unpacker:
    """Reads what a Packer wrote. Raises ProtocolError where bytes are missing."""

    def __init__(self, data: bytes, offset: int = 0) -> None:
        self._data = data
        self._at = offset

    @property
    def left(self) -> int:
        return len(self._data) - self._at

    def _take(self, size: int, what: str) -> int:
        at = self._at
        if size > len(self._data) - at:
            raise ProtocolError(f"{what} is cut off at byte {at} of {len(self._data)}")
        self._at = at + size
        return at

    def get_int(self) -> int:
        return int(_INT.unpack_from(self._data, self._take(4, "an int"))[0])

    def get_count(self) -> int:
        # A negative count is taken as 0.
        return max(0, self.get_int())

    def get_flag(self) -> bool:
        return self.get_int() != 0

    def get_byte(self) -> bool:
        return self._data[self._take(1, "a flag byte")] != 0

    def get_double(self) -> float:
        return float(_DOUBLE.unpack_from(self._data, self._take(8, "a double"))[0])

    def get_string(self) -> str:
        return self.get_texts(1)[0]

    def get_texts(self, count: int) -> List[str]:
        """So many strings in a row. Thousands come together, so without a call for each."""
        data, at, size = self._data, self._at, len(self._data)
        found: List[str] = []
        try:
            for _ in range(count):
                (length,) = _INT.unpack_from(data, at)
                at += 4
                end = at + length if length > 0 else at
                if end > size:
                    raise ProtocolError(f"a string is cut off at byte {at} of {size}")
                found.append(data[at:end].decode("utf-8", "surrogateescape"))
                at = end
        except struct.error:
            raise ProtocolError(
                f"the length of a string is cut off at byte {at} of {size}"
            ) from None
        self._at = at
        return found

    def get_series(self) -> Tuple[float, ...]:
        count = self.get_count()
        at = self._take(8 * count, "a series")
        packed = _DOUBLES[count] if count < len(_DOUBLES) else struct.Struct(f"<{count}d")
        return packed.unpack_from(self._data, at)

    def get_strings(self) -> List[str]:
        return self.get_texts(self.get_count())


class Request(NamedTuple):
    """One row of the table of requests.

    `fields` and `reply` are lists of NAME:TYPE or NAME:COUNT*TYPE, where COUNT is the name of an int before
    it, and TYPE is one of the protocol's values, or several joined by "+".
    """

    title: str
    fields: str = ""
    reply: str = ""


REQUESTS: Dict[int, Request] = {
    1: Request("connect to the simulator"),
    2: Request("simulated date", "", "day:int month:int year:int"),
    3: Request("metric?", "", "metric:flag"),
    4: Request("simulated time", "", "days:double"),
    5: Request("compositional?", "", "compositional:flag"),
    6: Request("all wells", "", "n:int wells:n*string+string+string"),
    7: Request("to the first time step"),
    8: Request("run until", "days:double"),
    9: Request("has the simulation ended?", "", "ended:flag"),
    10: Request("operating points", "n:int wells:n*string", "n:int"),
    11: Request("set status", "n:int m:int wells:n*string statuses:m*string"),
    12: Request("set uptime", "n:int m:int wells:n*string fractions:m*double"),
    13: Request(
        "set constraints",
        "n:int wells:n*string g:int constraints:g*strings h:int values:h*series",
    ),
    14: Request(
        "equation of state",
        "",
        "name:string count:int components:count*string molecular_weight:series critical_temperature:series "
        "critical_pressure:series critical_volume:series acentric_factor:series reserved:series "
        "boiling_point:series volume_shift:series omega_a:series omega_b:series parachor:series "
        "binary_interaction:series",
    ),
    15: Request("variables of a well", "well:string n:int names:n*string", "values:series"),
    16: Request(
        "inflow tables",
        "components:int n:int wells:n*string bottom_hole:byte skewness:double",
        "n:int points:int",
    ),
    17: Request("version of the simulator", "", "version:double"),
    18: Request("attach an injection source", "well:string source:string", "accepted:int"),
    19: Request("set compositions", "n:int sources:n*string m:int compositions:m*series"),
    20: Request("start date", "", "day:int month:int year:int"),
    SHUT_DOWN: Request("shut down"),
    NEXT_OPERATING_POINT: Request(
        "next operating point",
        "",
        "status:string oil_rate:double gas_rate:double water_rate:double water_injection_rate:double "
        "gas_injection_rate:double bottom_hole_pressure:double tubing_head_pressure:double uptime:double",
    ),
    NEXT_INFLOW_TABLE: Request(
        "next inflow table",
        "",
        "pressure:series oil_rate:series water_rate:series gas_rate:series temperature:series "
        "gas_density:series oil_density:series water_density:series",
    ),
}

_Field = Tuple[str, str, Tuple[str, ...]]


def _fields(layout: str) -> List[_Field]:
    fields = []
    for part in layout.split():
        name, kind = part.split(":")
        count, _, types = kind.rpartition("*")
        fields.append((name, count, tuple(types.split("+"))))
    return fields


_LAYOUTS = {
    code: (_fields(request.fields), _fields(request.reply)) for code, request in REQUESTS.items()
}


def title(code: int) -> str:
    return REQUESTS[code].title if code in REQUESTS else f"unknown request {code}"


def _pack(packer: Packer, layout: List[_Field], values: Values) -> None:
    for name, count, types in layout:
        value = values[name]
        if count and types == ("string",):
            packer.put_texts(value)
            continue
        for item in value if count else (value,):
            for kind, part in zip(types, item if len(types) > 1 else (item,)):
                getattr(packer, "put_" + kind)(part)


def _unpack(unpacker: Unpacker, layout: List[_Field]) -> Values:
    values: Values = {}
    name = ""
    try:
        for name, count, types in layout:
            values[name] = _unpack_field(unpacker, values, count, types)
    except ProtocolError as error:
        raise ProtocolError(f"{error}, in the field '{name}'") from None
    return values


def _unpack_field(unpacker: Unpacker, values: Values, count: str, types: Tuple[str, ...]) -> Any:
    readers = [getattr(unpacker, "get_" + kind) for kind in types]
    if not count:
        return readers[0]()
    if set(types) == {"string"}:
        texts = unpacker.get_texts(values[count] * len(types))
        rows: List[Tuple[str, ...]] = list(zip(*[iter(texts)] * len(types)))
        return texts if len(types) == 1 else rows
    if len(readers) == 1:
        (read,) = readers
        return [read() for _ in range(values[count])]
    return [tuple([read() for read in readers]) for _ in range(values[count])]


def pack_request(code: int, **values: Any) -> bytes:
    """The frame of a request. Counts are the values' own: they are given like every other field."""
    packer = Packer(code)
    _pack(packer, _LAYOUTS[code][0], values)
    body = packer.body()
    if len(body) > LARGEST_REQUEST:
        raise ValueError(
            f"the request '{title(code)}' has {len(body)} bytes; "
            f"the daemon's receive buffer has {LARGEST_REQUEST}"
        )
    return frame(body)


def pack_reply(code: int, **values: Any) -> bytes:
    """The frame of a reply with its acknowledgement, as a daemon sends it."""
    packer = Packer(code)
    _pack(packer, _LAYOUTS[code][1], values)
    for series in values.get("compositions", ()):
        packer.put_series(series)
    packer.put_int(0)
    return frame(packer.body())


def code_of(body: bytes) -> int:
    if len(body) < 4:
        raise ProtocolError(f"a frame of {len(body)} bytes has no code")
    return int(struct.unpack_from("<I", body)[0])


def unpack_request(body: bytes, exact: bool = True) -> Values:
    """The fields of a request by name. A daemon does not mind bytes after them: it is not `exact`."""
    unpacker = Unpacker(body, 4)
    code = code_of(body)
    if code not in _LAYOUTS:
        raise ProtocolError(f"the code {code} is not in the table of requests")
    values = _unpack(unpacker, _LAYOUTS[code][0])
    if exact and unpacker.left:
        raise ProtocolError(f"{unpacker.left} bytes after the last field of '{title(code)}'")
    return values


def unpack_reply(body: bytes) -> Values:
    """The values of a reply by name, without its acknowledgement."""
    unpacker = Unpacker(body, 4)
    code = code_of(body)
    if code not in _LAYOUTS:
        raise ProtocolError(f"the code {code} is not in the table of requests")
    values = _unpack(unpacker, _LAYOUTS[code][1])
    if code == NEXT_INFLOW_TABLE:
        values["compositions"] = list(_compositions(unpacker))
    acknowledgement = unpacker.get_int()
    if acknowledgement != 0:
        raise ProtocolError(f"the acknowledgement of '{title(code)}' is {acknowledgement}, not 0")
    if unpacker.left:
        raise ProtocolError(f"{unpacker.left} bytes after the acknowledgement of '{title(code)}'")
    return values


def _compositions(unpacker: Unpacker) -> Iterator[Tuple[float, ...]]:
    # They are there when the request asked for components; then the reply goes on for more than the
    # acknowledgement. An empty series and the acknowledgement look alike: ten of them tell.
    if unpacker.left > 4:
        for _ in range(POINTS):
            yield unpacker.get_series()


class Handshake(NamedTuple):
    """What a master answers in the handshake."""

    cluster: int
    path: str
    root: str
    processes: int
    simulator: str
    user: str
    debug: str

    @property
    def comms_log(self) -> str:
        """The comms log of the run, if the daemon writes them."""
        name = f"{self.root}_{self.cluster}" if self.cluster > 0 else self.root
        return f"{self.path}{name}.crvnlog"

    def lines(self) -> List[bytes]:
        return [
            text_bytes(text)
            for text in (
                "3",
                str(self.cluster),
                self.path,
                self.root,
                str(self.processes),
                VERSION_NUMBERS.get(self.simulator, self.simulator),
                self.user,
                self.debug,
            )
        ]
