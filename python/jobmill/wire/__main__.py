"""python3 -m jobmill.wire: shows, records, repeats, compares and spoils what two ends say to each other."""

from __future__ import annotations

import argparse
import asyncio
import difflib
import json
import sys
from typing import AsyncIterator, Dict, List, Optional, Sequence, Tuple

from ..errors import Error
from . import CLIENT, MASTER, SERVER, SIMULATOR, Splitter, recording
from .proxy import Cut, MakeTap, Proxy
from .recording import Recorder, Recording
from .replay import Outcome, replay_to, serve_replay


def _address(text: str) -> Tuple[str, int]:
    host, _, port = text.rpartition(":")
    return host or "127.0.0.1", int(port)


def _proxy_arguments(parser: argparse.ArgumentParser, link: bool = True) -> None:
    if link:
        parser.add_argument("--link", choices=(MASTER, SIMULATOR), required=True)
    parser.add_argument(
        "--listen", type=_address, required=True, metavar="[HOST:]PORT", help="0 takes a free port"
    )
    parser.add_argument("--to", type=_address, required=True, metavar="[HOST:]PORT")
    parser.add_argument("--once", action="store_true", help="end with the first connection")


def _arguments() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="python3 -m jobmill.wire", description=__doc__)
    commands = parser.add_subparsers(dest="command", required=True)

    record = commands.add_parser("record", help="pass everything on between two ends, into a file")
    _proxy_arguments(record)
    record.add_argument("file")

    show = commands.add_parser(
        "show", help="a recording as readable lines, or as JSON, a line each"
    )
    show.add_argument("--json", action="store_true")
    show.add_argument("file")

    replay = commands.add_parser(
        "replay",
        help="play one end of a recording; status 1 when the other end says something else",
    )
    side = replay.add_mutually_exclusive_group(required=True)
    side.add_argument(
        "--to", type=_address, metavar="[HOST:]PORT", help="play the end that connects"
    )
    side.add_argument(
        "--listen", type=_address, metavar="[HOST:]PORT", help="play the end that listens"
    )
    replay.add_argument("--connection", type=int, help="its number in the recording; the first")
    replay.add_argument("--timeout", type=float, default=600.0, help="seconds for each answer")
    replay.add_argument(
        "--any-host", action="store_true", help='do not compare the host after "OK|"'
    )
    replay.add_argument("file")

    diff = commands.add_parser("diff", help="what two recordings differ in; status 1 when they do")
    diff.add_argument("--any-host", action="store_true", help='do not compare the host after "OK|"')
    diff.add_argument("first")
    diff.add_argument("second")

    fault = commands.add_parser("fault", help="pass everything on, but spoil a message")
    _proxy_arguments(fault)
    fault.add_argument("--from", dest="sender", choices=(CLIENT, SERVER), required=True)
    fault.add_argument(
        "--message", type=int, default=0, help="its number, from 1, handshake included; 0: all"
    )
    fault.add_argument(
        "--delay",
        type=float,
        default=0.0,
        metavar="SECONDS",
        help="the messages after it wait as well",
    )
    fault.add_argument("--split", type=int, default=0, metavar="BYTES", help="into packets")
    fault.add_argument(
        "--cut", type=int, metavar="BYTES", help="send so many bytes of it, then end the connection"
    )
    fault.add_argument(
        "--byte",
        action="append",
        default=[],
        metavar="OFFSET=HEX",
        help="wrong bytes; may be repeated. A negative offset counts from the end: --byte=-1=00",
    )

    distance = commands.add_parser(
        "distance", help="pass everything on as a network does that takes its time"
    )
    distance.add_argument(
        "seconds", type=float, help="that each byte takes, in each direction: half a round trip"
    )
    _proxy_arguments(distance, link=False)
    return parser


class _Untouched:
    async def change(self, data: bytes) -> AsyncIterator[bytes]:
        yield data

    def closed(self) -> None:
        pass


class _RecordingTap:
    def __init__(self, recorder: Recorder, connection: int, sender: str) -> None:
        self._recorder, self._connection, self._sender = recorder, connection, sender
        if sender == CLIENT:
            recorder.happened(connection, sender, "connected")

    async def change(self, data: bytes) -> AsyncIterator[bytes]:
        self._recorder.passed(self._connection, self._sender, data)
        yield data

    def closed(self) -> None:
        self._recorder.happened(self._connection, self._sender, "closed")


class _FaultTap:
    def __init__(self, options: argparse.Namespace, sender: str) -> None:
        self._options = options
        self._active = sender == options.sender
        self._splitter = Splitter(options.link)
        self._number = 0
        self._bytes: Dict[int, bytes] = {}
        for text in options.byte:
            offset, _, value = text.partition("=")
            self._bytes[int(offset, 0)] = bytes.fromhex(value)

    async def change(self, data: bytes) -> AsyncIterator[bytes]:
        if not self._active:
            yield data
            return
        for message in self._splitter.take(data):
            self._number += 1
            if self._options.message not in (0, self._number):
                yield message
                continue
            async for piece in self._spoiled(bytearray(message)):
                yield piece
        if self._splitter.error:
            yield bytes(self._splitter.rest)
            self._splitter.rest.clear()

    async def _spoiled(self, message: bytearray) -> AsyncIterator[bytes]:
        options = self._options
        await asyncio.sleep(options.delay)
        for offset, value in self._bytes.items():
            at = offset if offset >= 0 else len(message) + offset
            message[at : at + len(value)] = value
        end = len(message) if options.cut is None else options.cut
        step = options.split or max(1, len(message))
        for at in range(0, end, step):
            yield bytes(message[at : min(at + step, end)])
            # Long enough for the receiver to see the piece alone.
            await asyncio.sleep(0.001 if options.split else 0)
        if options.cut is not None:
            raise Cut

    def closed(self) -> None:
        pass


def _serve(options: argparse.Namespace, make_tap: MakeTap, distance: float = 0.0) -> None:
    def listening(port: int) -> None:
        print(f"Listening on port {port}", flush=True)

    to_host, to_port = options.to
    host, port = options.listen
    proxy = Proxy(to_host, to_port, make_tap, distance)
    asyncio.run(proxy.serve(host, port, once=options.once, listening=listening))


def _record(options: argparse.Namespace) -> int:
    with open(options.file, "w", encoding="utf-8") as file:
        recorder = Recorder(file, options.link)
        _serve(options, lambda number, sender: _RecordingTap(recorder, number, sender))
    return 0


def _fault(options: argparse.Namespace) -> int:
    _serve(options, lambda number, sender: _FaultTap(options, sender))
    return 0


def _distance(options: argparse.Namespace) -> int:
    _serve(options, lambda number, sender: _Untouched(), options.seconds)
    return 0


def _load(name: str) -> Recording:
    with open(name, encoding="utf-8") as file:
        return recording.read(file)


def _show(options: argparse.Namespace) -> int:
    recorded = _load(options.file)
    for connection in recorded.connections():
        for time, said in recorded.said(connection):
            if options.json:
                print(json.dumps({"t": time, "c": connection, **said.as_json()}))
            else:
                print(f"{time:12.6f} {connection:2} {said}")
    return 0


def _replay(options: argparse.Namespace) -> int:
    recorded = _load(options.file)
    number = options.connection or recorded.connections()[0]
    arguments = (recorded, number, options.timeout, options.any_host)
    if options.to:
        outcome = replay_to(options.to, *arguments)
    else:
        outcome = serve_replay(
            options.listen, lambda port: print(f"Listening on port {port}", flush=True), *arguments
        )
    return _told(outcome)


def _told(outcome: Outcome) -> int:
    for line in outcome.differences:
        print(line)
    print(f"{outcome.equal} answers were equal, {len(outcome.differences)} were not")
    return 1 if outcome.differences else 0


def _lines(recorded: Recording, connection: int, sender: str, any_host: bool) -> List[str]:
    lines = []
    for _, said in recorded.said(connection):
        if said.sender == sender:
            hidden = any_host and said.raw[4:7] == b"OK|"
            # The bytes decide. A line of text can be the same for two messages: long lists are shortened.
            lines.append(f"{said}" + ("" if hidden else f"  [{said.raw.hex()}]"))
            if hidden:
                lines[-1] = "OK|"
    return lines


def _diff(options: argparse.Namespace) -> int:
    first, second = _load(options.first), _load(options.second)
    different = first.link != second.link
    if different:
        print(f"a recording of the {first.link}'s link and one of the {second.link}'s")
    numbers = first.connections(), second.connections()
    if len(numbers[0]) != len(numbers[1]):
        print(f"{len(numbers[0])} connections and {len(numbers[1])}")
        different = True
    for pair in zip(*numbers):
        for sender in (CLIENT, SERVER):
            old = _lines(first, pair[0], sender, options.any_host)
            new = _lines(second, pair[1], sender, options.any_host)
            for line in difflib.unified_diff(old, new, lineterm="", n=1):
                different = True
                if not line.startswith(("---", "+++")):
                    print(line.split("  [")[0])
    return 1 if different else 0


def main(arguments: Optional[Sequence[str]] = None) -> int:
    options = _arguments().parse_args(arguments)
    commands = {
        "record": _record,
        "show": _show,
        "replay": _replay,
        "diff": _diff,
        "fault": _fault,
        "distance": _distance,
    }
    try:
        return commands[options.command](options)
    except (Error, OSError) as error:
        print(f"jobmill.wire: {error}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
