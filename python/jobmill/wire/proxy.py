"""A proxy between any two ends. What passes may be looked at and changed, message by message."""

from __future__ import annotations

import asyncio
import contextlib
import threading
from types import TracebackType
from typing import AsyncIterator, Callable, List, Optional, Protocol, Set, Tuple, Type

from ..errors import ConnectFailed
from ..stream import acknowledge_at_once
from . import CLIENT, SERVER

PIECE = 262144
#: Pieces that may be under way over a distance before no more are read.
UNDER_WAY = 4096


class Cut(Exception):
    """Ends the connection towards both ends."""


class Tap(Protocol):
    """What is done with the bytes of one direction of one connection."""

    def change(self, data: bytes) -> AsyncIterator[bytes]:
        """What is sent on; each piece is a packet of its own. Raises Cut to end the connection."""

    def closed(self) -> None:
        """The sender has closed its side."""


#: Makes a Tap for a connection (from 1) and a sender.
MakeTap = Callable[[int, str], Tap]


class Proxy:
    """Listens and passes on. `once` ends it with its first connection."""

    def __init__(
        self, target_host: str, target_port: int, make_tap: MakeTap, distance: float = 0.0
    ) -> None:
        """distance: seconds that each byte is under way, in each direction."""
        self._target = (target_host, target_port)
        self._make_tap = make_tap
        self._distance = distance
        self._count = 0
        self._tasks: Set[asyncio.Task[None]] = set()

    async def serve(
        self, host: str, port: int, once: bool, listening: Callable[[int], None]
    ) -> None:
        loop = asyncio.get_running_loop()
        over: asyncio.Future[None] = loop.create_future()

        async def connected(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
            task = asyncio.current_task()
            assert task is not None
            self._tasks.add(task)
            try:
                await self._pass_on(reader, writer)
            finally:
                self._tasks.discard(task)
                if once and not over.done():
                    over.set_result(None)

        server = await asyncio.start_server(connected, host, port, limit=PIECE)
        try:
            listening(server.sockets[0].getsockname()[1])
            await over
        finally:
            server.close()
            # Not wait_closed(): on a cancelled proxy it would wait for connections that live on.
            for task in list(self._tasks):
                task.cancel()
            await asyncio.gather(*self._tasks, return_exceptions=True)

    async def _pass_on(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        self._count += 1
        number = self._count
        taps = {sender: self._make_tap(number, sender) for sender in (CLIENT, SERVER)}
        try:
            to_reader, to_writer = await asyncio.open_connection(*self._target, limit=PIECE)
        except OSError as error:
            writer.close()
            raise ConnectFailed(f"{self._target[0]}, port {self._target[1]}: {error}") from error
        ways = (
            asyncio.ensure_future(
                _way(_arriving(reader, writer, self._distance), to_writer, taps[CLIENT])
            ),
            asyncio.ensure_future(
                _way(_arriving(to_reader, to_writer, self._distance), writer, taps[SERVER])
            ),
        )
        try:
            await asyncio.gather(*ways)
        except (Cut, OSError):
            pass
        finally:
            for way in ways:
                way.cancel()
            for end in (writer, to_writer):
                end.close()


async def _way(arriving: AsyncIterator[bytes], writer: asyncio.StreamWriter, tap: Tap) -> None:
    async for data in arriving:
        async for piece in tap.change(data):
            writer.write(piece)
            await writer.drain()
    tap.closed()
    with contextlib.suppress(OSError):
        writer.write_eof()


async def _arriving(
    reader: asyncio.StreamReader, writer: asyncio.StreamWriter, distance: float
) -> AsyncIterator[bytes]:
    """What the end of a connection says, each piece so much later than it was said."""
    loop = asyncio.get_running_loop()
    under_way: asyncio.Queue[Tuple[float, bytes]] = asyncio.Queue(UNDER_WAY if distance else 1)

    async def read() -> None:
        data = b"more"
        while data:
            # Otherwise the proxy would cost more time than its distance.
            acknowledge_at_once(writer.get_extra_info("socket"))
            try:
                data = await reader.read(PIECE)
            except OSError:
                data = b""
            await under_way.put((loop.time() + distance, data))

    reading = asyncio.ensure_future(read())
    try:
        while True:
            due, data = await under_way.get()
            if distance:
                await asyncio.sleep(due - loop.time())
            if not data:
                return
            yield data
    finally:
        reading.cancel()


class Background:
    """A proxy in a thread of its own, for programs and tests: `with Background(proxy) as port:`."""

    def __init__(self, proxy: Proxy, host: str = "127.0.0.1", port: int = 0) -> None:
        self._proxy = proxy
        self._address = (host, port)
        self._loop = asyncio.new_event_loop()
        self._ready = threading.Event()
        self._port: List[int] = []
        self._error: Optional[BaseException] = None
        self._task: Optional[asyncio.Task[None]] = None
        self._thread = threading.Thread(target=self._run, daemon=True)

    def __enter__(self) -> int:
        self._thread.start()
        self._ready.wait()
        if self._error is not None:
            raise self._error
        return self._port[0]

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        if self._task is not None:
            self._loop.call_soon_threadsafe(self._task.cancel)
        self._thread.join()

    def _run(self) -> None:
        self._loop.set_exception_handler(lambda loop, context: None)

        def listening(port: int) -> None:
            self._port.append(port)
            self._ready.set()

        try:
            self._task = self._loop.create_task(
                self._proxy.serve(*self._address, once=False, listening=listening)
            )
            self._loop.run_until_complete(self._task)
        except asyncio.CancelledError:
            pass
        except BaseException as error:
            self._error = error
            self._ready.set()
        finally:
            self._loop.close()
