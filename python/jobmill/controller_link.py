"""The external-controller protocol as data: messages of typed headers, in chunks.

Nothing here opens a connection. The pages say what the messages mean: docs/external-controller-protocol.md.
"""

from __future__ import annotations

import struct
from typing import Any, Dict, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Union

from .errors import ProtocolError
from .master_link import bytes_text, text_bytes

#: A sender cuts messages at multiples of this.
CHUNK = 65536

POSITIONS = ("MODEL_DEFINITION", "BEGIN_NEWTON", "END_SIMULATE")

_LENGTH = struct.Struct("<Q")
_LENGTHS = struct.Struct("<QQ")
_COUNT_AND_TYPE = struct.Struct("<Q4s")

Data = Union[Tuple[int, ...], Tuple[float, ...], Tuple[str, ...]]


class Header(NamedTuple):
    """One header with its data: texts for CSTR, numbers for INTE and DOUB, nothing for MESS."""

    name: str
    type: str = "MESS"
    data: Data = ()

    def __str__(self) -> str:
        if self.type == "MESS":
            return self.name
        return f"{self.name} {self.type} {len(self.data)}"


Message = List[Header]

END = Header("END")
READY: Message = [Header("READY"), END]


def texts(name: str, *values: str) -> Header:
    return Header(name, "CSTR", values)


def numbers(name: str, *values: float) -> Header:
    return Header(name, "DOUB", values)


def integers(name: str, *values: int) -> Header:
    return Header(name, "INTE", values)


def encode(message: Sequence[Header]) -> bytes:
    """The bytes of a message, without its lengths."""
    parts: List[bytes] = []
    for name, kind, data in message:
        name_bytes = text_bytes(name)
        parts += (
            bytes([len(name_bytes)]),
            name_bytes,
            _COUNT_AND_TYPE.pack(len(data), kind.encode("ascii")),
        )
        if kind == "CSTR":
            for text in data:
                value = text_bytes(str(text))
                parts += (_LENGTH.pack(len(value)), value)
        elif kind in _NUMBERS:
            parts.append(struct.pack(f"<{len(data)}{_NUMBERS[kind]}", *data))
    return b"".join(parts)


_NUMBERS = {"DOUB": "d", "INTE": "i"}


def decode(data: bytes) -> Message:
    """The headers of a message. Raises ProtocolError where it does not follow the format."""
    message: Message = []
    at, size = 0, len(data)

    def need(count: int, what: str) -> None:
        if count > size - at:
            raise ProtocolError(f"{what} is cut off at byte {at} of {size}")

    while at < size:
        length = data[at]
        need(13 + length, "a header")
        name = bytes_text(data[at + 1 : at + 1 + length])
        count, tag = _COUNT_AND_TYPE.unpack_from(data, at + 1 + length)
        at += 13 + length
        kind = tag.decode("latin-1")
        values: Data = ()
        if kind in _NUMBERS:
            width = 8 if kind == "DOUB" else 4
            need(width * count, f"the data of {name}")
            values = struct.unpack_from(f"<{count}{_NUMBERS[kind]}", data, at)
            at += width * count
        elif kind == "CSTR":
            need(8 * count, f"the data of {name}")
            found = []
            for _ in range(count):
                need(8, f"a text of {name}")
                (length,) = _LENGTH.unpack_from(data, at)
                at += 8
                need(length, f"a text of {name}")
                found.append(bytes_text(data[at : at + length]))
                at += length
            values = tuple(found)
        elif kind != "MESS":
            raise ProtocolError(f"{name} has the unknown type {kind!r}")
        elif count:
            raise ProtocolError(f"{name} has the type MESS and the count {count}, not 0")
        message.append(Header(name, kind, values))
    return message


def chunked(body: bytes, chunk: int = CHUNK) -> bytes:
    """A message as it travels: its length, then chunks with their lengths."""
    first = min(len(body), chunk)
    parts = [_LENGTHS.pack(len(body), first), body[:first]]
    for at in range(first, len(body), chunk):
        piece = body[at : at + chunk]
        parts += (_LENGTH.pack(len(piece)), piece)
    return b"".join(parts)


class Arrived(NamedTuple):
    """A message as it arrived."""

    body: bytes
    #: The lengths of its chunks.
    chunks: Tuple[int, ...]


def measure(received: bytearray) -> Optional[Tuple[int, Tuple[int, ...]]]:
    """How many bytes the first message takes on the wire, and its chunks; None when more bytes are due."""
    if len(received) < 16:
        return None
    (missing,) = _LENGTH.unpack_from(received)
    at = 8
    chunks: List[int] = []
    while not chunks or missing:
        if len(received) < at + 8:
            return None
        (length,) = _LENGTH.unpack_from(received, at)
        if length > missing:
            raise ProtocolError(f"a chunk of {length} bytes where {missing} are due")
        if length == 0 and chunks:
            raise ProtocolError(f"a chunk of 0 bytes where {missing} are due")
        chunks.append(length)
        at += 8 + length
        missing -= length
    return (at, tuple(chunks)) if len(received) >= at else None


def take_message(received: bytearray) -> Optional[Arrived]:
    """Takes the first message out of what was received; None when more bytes are due."""
    measured = measure(received)
    if measured is None:
        return None
    size, chunks = measured
    parts = []
    at = 8
    for length in chunks:
        parts.append(bytes(received[at + 8 : at + 8 + length]))
        at += 8 + length
    del received[:size]
    return Arrived(b"".join(parts), chunks)


class Asked(NamedTuple):
    """A request of a controller: its kind, and the data of its headers by name.

    Only SETWCONSTRAINTS has several rows, one for each well.
    """

    kind: str
    rows: List[Dict[str, Any]]

    @property
    def row(self) -> Dict[str, Any]:
        return self.rows[0]


#: Every request: its first headers, then the name, type and count of what follows. None is any count.
_Layout = Tuple[Tuple[str, str, Optional[int]], ...]
REQUESTS: Dict[Tuple[str, ...], _Layout] = {
    ("SETUP",): (("VERSION", "CSTR", 1),),
    ("CONTINUE",): (),
    ("CONTINUE_UNTIL",): (("TIME", "DOUB", 1),),
    ("SHUTDOWN",): (),
    ("QUERY", "QWELLS"): (("QITEMS", "CSTR", None), ("WELNAMES", "CSTR", None)),
    ("QUERY", "QWELLS_STR"): (("QITEMS", "CSTR", None), ("WELNAMES", "CSTR", None)),
    ("QUERY", "QRESVR"): (("QITEMS", "CSTR", None),),
    ("QUERY", "QRESVR_STR"): (("QITEMS", "CSTR", None),),
    ("QUERY", "QWCONSTRAINTS"): (("WELNAMES", "CSTR", None),),
    ("QUERY", "QIPRDATA"): (
        ("WELNAMES", "CSTR", None),
        ("PRESSURETYPES", "CSTR", None),
        ("NPOINTS", "INTE", 1),
        ("SKEWNESS", "DOUB", 1),
    ),
    ("QUERY", "QFMFLUIDMODEL"): (),
    ("QUERY", "QRFLUIDMODEL"): (),
    ("SET", "SETWCONSTRAINTS"): (
        ("WELLNAME", "CSTR", 1),
        ("ITEMS", "CSTR", None),
        ("VALUES", "DOUB", None),
        ("SETTERS", "CSTR", None),
    ),
    ("SET", "SETWSTATUS"): (
        ("WCLOSURE", "CSTR", 1),
        ("SETITEM", "CSTR", 1),
        ("WELNAMES", "CSTR", None),
        ("VALUES", "CSTR", None),
    ),
    ("SET", "SETWELLS"): (
        ("SETITEM", "CSTR", 1),
        ("WELNAMES", "CSTR", None),
        ("VALUES", "DOUB", None),
    ),
    ("SET", "SETWSTRE"): (
        ("STNAME", "CSTR", 1),
        ("STCMPVALUES", "DOUB", None),
        ("STCMPNAMES", "CSTR", None),
        ("STPHASE", "CSTR", 1),
    ),
    ("SET", "CREATE_FLDSRCEXT"): (
        ("WELLNAME", "CSTR", 1),
        ("STNAME", "CSTR", 1),
        ("STPHASE", "CSTR", 1),
    ),
}
#: Lists of one request that have to be of one length.
_EQUAL = {
    "SETWCONSTRAINTS": ("ITEMS", "VALUES", "SETTERS"),
    "SETWSTATUS": ("WELNAMES", "VALUES"),
    "SETWELLS": ("WELNAMES", "VALUES"),
    "SETWSTRE": ("STCMPVALUES", "STCMPNAMES"),
    "QIPRDATA": ("WELNAMES", "PRESSURETYPES"),
}


def request(kind: str, *rows: Mapping[str, Sequence[Any]]) -> Message:
    """A request with its fields by name; SETWCONSTRAINTS may have any number of rows."""
    leading = next(names for names in REQUESTS if names[-1] == kind)
    message = [Header(name) for name in leading]
    for row in rows or ({},):
        for name, kind, _ in REQUESTS[leading]:
            if row:
                message.append(Header(name, kind, tuple(row[name])))
    return [*message, END]


def understand(message: Message) -> Asked:
    """What a controller asks. Raises ProtocolError where the request does not follow the page."""
    names = tuple(header.name for header in message[:2] if header.type == "MESS")
    leading = names if names in REQUESTS else names[:1]
    if leading not in REQUESTS:
        raise ProtocolError(f"unknown request {' '.join(names) or 'without a beginning'}")
    kind, layout = leading[-1], REQUESTS[leading]
    if message[-1] != END:
        raise ProtocolError(f"{kind} does not end with END")
    body = message[len(leading) : -1]
    repeated = kind == "SETWCONSTRAINTS"
    if len(body) % len(layout or (0,)) if repeated else len(body) != len(layout):
        raise ProtocolError(f"{kind} has {len(body)} headers of data, not {len(layout)}")
    rows: List[Dict[str, Any]] = [] if repeated else [{}]
    for i, header in enumerate(body):
        name, type_, count = layout[i % len(layout)]
        if repeated and i % len(layout) == 0:
            rows.append({})
        length = len(header.data)
        if (header.name, header.type) != (name, type_) or count not in (None, length):
            wanted = f"{name} {type_} {'n' if count is None else count}"
            raise ProtocolError(f"{kind} has the header {header}, not {wanted}")
        rows[-1][name] = header.data
    for row in rows:
        lengths = [len(row[name]) for name in _EQUAL.get(kind, ())]
        if len(set(lengths)) > 1:
            raise ProtocolError(f"the lists of {kind} have different lengths: {lengths}")
    return Asked(kind, rows)
