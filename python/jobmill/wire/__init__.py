"""Both links as people and programs read them: messages out of bytes, as lines and as JSON.

`client` is the end that connected: the master, or towards a simulator the daemon. `server` is the other one.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Dict, List, Optional, Tuple

from .. import controller_link, master_link
from ..errors import ProtocolError

MASTER = "master"
SIMULATOR = "simulator"
CLIENT = "client"
SERVER = "server"
#: The ends of a link, as lines name them.
ENDS = {
    (MASTER, CLIENT): "master",
    (MASTER, SERVER): "daemon",
    (SIMULATOR, CLIENT): "daemon",
    (SIMULATOR, SERVER): "simulator",
}


class Splitter:
    """Cuts what one end sends into messages with their lengths, as they are on the wire."""

    def __init__(self, link: str) -> None:
        self._link = link
        #: What is left of a message that is not there as a whole.
        self.rest = bytearray()
        #: Why the rest is no message and never will be.
        self.error = ""

    def take(self, data: bytes) -> List[bytes]:
        self.rest += data
        found = []
        while not self.error:
            try:
                size = self._size()
            except ProtocolError as error:
                self.error = str(error)
                break
            if size is None:
                break
            found.append(bytes(self.rest[:size]))
            del self.rest[:size]
        return found

    def _size(self) -> Optional[int]:
        if self._link == SIMULATOR:
            measured = controller_link.measure(self.rest)
            return measured[0] if measured else None
        if len(self.rest) < 4:
            return None
        size = 4 + max(0, int.from_bytes(self.rest[:4], "little", signed=True))
        return size if len(self.rest) >= size else None


@dataclass(frozen=True)
class Said:
    """One message and what it means."""

    #: master or simulator
    link: str
    #: client or server
    sender: str
    #: What it is, in a few words.
    name: str
    #: Its fields in their order. Towards a simulator several may have one name.
    fields: Tuple[Tuple[str, Any], ...]
    #: The bytes, with the lengths around them.
    raw: bytes
    #: What breaks the protocol, or nothing.
    error: str = ""

    @property
    def end(self) -> str:
        """Who says it: master, daemon or simulator."""
        return ENDS[self.link, self.sender]

    def __str__(self) -> str:
        parts = [f"{self.end:9} {self.name}"]
        parts += [f"{name}={_short(value)}" for name, value in self.fields]
        if self.error:
            parts.append(f"!! {self.error}: {self.raw[:64].hex(' ')}")
        return "  ".join(parts)

    def as_json(self) -> Dict[str, Any]:
        said: Dict[str, Any] = {"from": self.end, "name": self.name}
        if self.fields:
            said["fields"] = [{"name": name, "value": value} for name, value in self.fields]
        if self.error:
            said["error"] = self.error
            said["hex"] = self.raw.hex()
        return said


def _short(value: Any) -> str:
    if isinstance(value, (list, tuple)) and len(value) > 8:
        return f"[{', '.join(map(repr, value[:6]))}, ... {len(value)} in all]"
    return repr(list(value) if isinstance(value, tuple) else value)


class Decoder:
    """One connection of either link, from its beginning."""

    def __init__(self, link: str) -> None:
        self.link = link
        self._splitters = {CLIENT: Splitter(link), SERVER: Splitter(link)}
        self._lines = {CLIENT: 0, SERVER: 0}

    def take(self, sender: str, data: bytes) -> List[Said]:
        """The messages that bytes of one end complete."""
        splitter = self._splitters[sender]
        broken = splitter.error
        said = [self._read(sender, raw) for raw in splitter.take(data)]
        if splitter.error and not broken:
            raw = bytes(splitter.rest)
            said.append(Said(self.link, sender, "no message", (), raw, splitter.error))
        return said

    def end(self, sender: str) -> List[Said]:
        """What is left of a message that was cut off."""
        splitter = self._splitters[sender]
        if splitter.error or not splitter.rest:
            return []
        raw = bytes(splitter.rest)
        return [Said(self.link, sender, "the beginning of a message", (), raw, "cut off")]

    def _read(self, sender: str, raw: bytes) -> Said:
        if self.link == SIMULATOR:
            return _message(sender, raw)
        line = self._lines[sender]
        self._lines[sender] += 1
        if line < (len(master_link.HANDSHAKE) if sender == CLIENT else 2):
            return _line(sender, line, raw)
        return _frame(sender, raw)


def _line(sender: str, number: int, raw: bytes) -> Said:
    if sender == CLIENT:
        name = master_link.HANDSHAKE[number]
    else:
        name = ("version of the protocol", "outcome of the launch")[number]
    return Said(MASTER, sender, name, (("text", master_link.bytes_text(raw[4:])),), raw)


def _frame(sender: str, raw: bytes) -> Said:
    body = raw[4:]
    kind = "request" if sender == CLIENT else "reply to"
    name = kind
    try:
        code = master_link.code_of(body)
        name = f"{kind} {code} ({master_link.title(code)})"
        if sender == CLIENT:
            values = master_link.unpack_request(body)
        else:
            values = master_link.unpack_reply(body)
        return Said(MASTER, sender, name, tuple(values.items()), raw)
    except ProtocolError as error:
        return Said(MASTER, sender, name, (), raw, str(error))


def _message(sender: str, raw: bytes) -> Said:
    arrived = controller_link.take_message(bytearray(raw))
    assert arrived is not None
    try:
        message = controller_link.decode(arrived.body)
    except ProtocolError as error:
        return Said(SIMULATOR, sender, "message", (), raw, str(error))
    leading: List[str] = []
    for header in message:
        if header.type != "MESS" or len(leading) == 2:
            break
        leading.append(header.name)
    if leading[1:] == ["END"]:
        leading.pop()
    fields = [(h.name, h.data) for h in message[len(leading) :] if h != controller_link.END]
    wrong = "" if message and message[-1] == controller_link.END else "no END"
    return Said(SIMULATOR, sender, " ".join(leading) or "empty message", tuple(fields), raw, wrong)
