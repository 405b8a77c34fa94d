"""The file of a recording: a line of JSON for each thing that happened on the connections of a link.

    {"recording": "jobmill", "version": 1, "link": "master", "started": "2026-11-22T14:00:00+00:00"}
    {"t": 0.000000, "c": 1, "from": "client", "is": "connected"}
    {"t": 0.000215, "c": 1, "from": "server", "hex": "0100000033"}
    {"t": 5.310225, "c": 1, "from": "client", "is": "closed"}
"""

from __future__ import annotations

import datetime
import json
import time
from typing import Dict, List, NamedTuple, TextIO

from ..errors import Error
from . import CLIENT, SERVER, Decoder, Said


class Event(NamedTuple):
    """Bytes that passed, or with none of them what `what` says: connected or closed."""

    time: float
    connection: int
    sender: str
    data: bytes
    what: str = ""


class Recorder:
    """Writes a recording. Each event is in the file as soon as it has happened."""

    def __init__(self, file: TextIO, link: str) -> None:
        self._file = file
        self._start = time.monotonic()
        now = datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds")
        self._write({"recording": "jobmill", "version": 1, "link": link, "started": now})

    def happened(self, connection: int, sender: str, what: str) -> None:
        self._write({**self._now(), "c": connection, "from": sender, "is": what})

    def passed(self, connection: int, sender: str, data: bytes) -> None:
        self._write({**self._now(), "c": connection, "from": sender, "hex": data.hex()})

    def _now(self) -> Dict[str, object]:
        return {"t": round(time.monotonic() - self._start, 6)}

    def _write(self, event: Dict[str, object]) -> None:
        self._file.write(json.dumps(event) + "\n")
        self._file.flush()


class Recording(NamedTuple):
    link: str
    events: List[Event]

    def connections(self) -> List[int]:
        return sorted({event.connection for event in self.events})

    def of(self, connection: int) -> List[Event]:
        return [event for event in self.events if event.connection == connection]

    def said(self, connection: int) -> List[tuple[float, Said]]:
        """What was said on a connection, message by message, with times."""
        decoder = Decoder(self.link)
        said: List[tuple[float, Said]] = []
        for event in self.of(connection):
            said += ((event.time, one) for one in decoder.take(event.sender, event.data))
            if event.what == "closed":
                said += ((event.time, one) for one in decoder.end(event.sender))
        return said


def read(file: TextIO) -> Recording:
    """Reads a recording; raises Error where the file is none. A last line that was cut off is left out."""
    lines = file.read().split("\n")
    events = []
    try:
        head = json.loads(lines[0])
        if head["recording"] != "jobmill" or head["version"] != 1:
            raise KeyError("recording")
        link = str(head["link"])
        for line in lines[1:-1]:
            row = json.loads(line)
            sender = {"client": CLIENT, "server": SERVER}[row["from"]]
            data = bytes.fromhex(row.get("hex", ""))
            events.append(Event(row["t"], row["c"], sender, data, row.get("is", "")))
    except (KeyError, TypeError, ValueError) as error:
        raise Error(f"{file.name} is not a recording: {error!r}") from error
    return Recording(link, events)
