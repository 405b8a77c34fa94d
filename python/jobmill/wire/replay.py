"""Plays one end of a recorded connection and compares what the other end says, byte for byte."""

from __future__ import annotations

import socket
from typing import Callable, List, NamedTuple, Tuple

from ..errors import TimedOut
from ..stream import Stream, deadline_in
from . import CLIENT, SERVER, Decoder, Said, Splitter
from .recording import Recording


class Outcome(NamedTuple):
    #: Messages of the other end that were those of the recording.
    equal: int
    #: What was not, as lines of text.
    differences: List[str]


def replay_to(
    address: Tuple[str, int], recorded: Recording, connection: int, timeout: float, any_host: bool
) -> Outcome:
    """Connects and plays the client of a recorded connection."""
    with Stream.connect(*address, timeout) as stream:
        return _play(stream, CLIENT, recorded, connection, timeout, any_host)


def serve_replay(
    address: Tuple[str, int],
    listening: Callable[[int], None],
    recorded: Recording,
    connection: int,
    timeout: float,
    any_host: bool,
) -> Outcome:
    """Listens for one connection and plays its server."""
    with socket.create_server(address) as listener:
        listening(listener.getsockname()[1])
        listener.settimeout(timeout)
        try:
            accepted, _ = listener.accept()
        except socket.timeout:
            raise TimedOut("nobody connected") from None
    with Stream(accepted) as stream:
        return _play(stream, SERVER, recorded, connection, timeout, any_host)


def _play(
    stream: Stream, role: str, recorded: Recording, connection: int, timeout: float, any_host: bool
) -> Outcome:
    splitter = Splitter(recorded.link)
    waiting: List[bytes] = []
    decoder = Decoder(recorded.link)
    equal = 0
    differences: List[str] = []

    def heard() -> bytes:
        """The next message of the other end; the bytes that there are when it ends instead."""
        while not waiting:
            if not stream.receive(deadline_in(timeout)):
                return bytes(splitter.rest)
            waiting.extend(splitter.take(bytes(stream.received)))
            stream.received.clear()
            if splitter.error:
                return bytes(splitter.rest)
        return waiting.pop(0)

    for _, said in recorded.said(connection):
        if said.sender == role:
            stream.send(said.raw, deadline_in(timeout))
            continue
        try:
            raw = heard()
        except TimedOut:
            differences.append(f"recorded: {said}\nheard:    nothing in {timeout:g} seconds")
            break
        if raw == said.raw or (any_host and raw[4:7] == said.raw[4:7] == b"OK|"):
            equal += 1
            decoder.take(said.sender, raw)
        else:
            differences.append(f"recorded: {said}\nheard:    {_as_text(decoder, said, raw)}")
            if not raw:
                break
    return Outcome(equal, differences)


def _as_text(decoder: Decoder, instead: Said, raw: bytes) -> str:
    said = decoder.take(instead.sender, raw) or decoder.end(instead.sender)
    return "\n          ".join(map(str, said)) or "the end of the connection"
