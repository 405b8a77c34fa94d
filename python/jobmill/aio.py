"""The asyncio twin of Run: the same requests, each to be awaited."""

from __future__ import annotations

import asyncio
import datetime
import getpass
from types import TracebackType
from typing import Any, Awaitable, Dict, Iterable, Mapping, Optional, Sequence, Type, TypeVar

from . import exchange
from .errors import ConnectFailed, Error, Refused, RunEnded, TimedOut
from .exchange import Exchange, Result
from .master_link import SHUT_DOWN, Handshake, bytes_text, code_of, frame, pack_request, take_frame
from .results import EquationOfState, InflowTables, OperatingPoints, Wells
from .run import check_greeting, launched_on
from .stream import acknowledge_at_once, deadline_in

_Awaited = TypeVar("_Awaited")


class AsyncRun:
    """A run like Run, for programs with many of them.

        async with await AsyncRun.launch("cluster7", 5000, path="/data/brent/", root="CASE") as run:
            await run.run_until(365.0)

    One request at a time: a second one before the answer to the first raises Error. A cancelled request
    is like one that was not answered in time, and leaves only the shutdown.
    """

    def __init__(
        self,
        reader: asyncio.StreamReader,
        writer: asyncio.StreamWriter,
        comms_log: str,
        timeout: Optional[float],
        shutdown_timeout: float,
    ) -> None:
        """For launch()."""
        self.timeout = timeout
        self.shutdown_timeout = shutdown_timeout
        self.comms_log = comms_log
        self.simulator_host = ""
        self._reader, self._writer = reader, writer
        self._received = bytearray()
        self._usable = True
        self._asked: Optional[Exchange[Any]] = None
        self._closed = False

    @classmethod
    async def launch(
        cls,
        host: str,
        port: int,
        *,
        path: str,
        root: str,
        processes: int = 1,
        simulator: str = "2017.2",
        user: Optional[str] = None,
        debug: str = "0",
        cluster: int = 0,
        connect: bool = True,
        timeout: Optional[float] = None,
        reach_timeout: Optional[float] = 10.0,
        launch_timeout: Optional[float] = None,
        shutdown_timeout: float = 30.0,
    ) -> AsyncRun:
        """Launches a run. Everything means what it means for Run."""
        shake = Handshake(
            cluster, path, root, processes, simulator, user or getpass.getuser(), debug
        )
        try:
            reader, writer = await _within(reach_timeout, asyncio.open_connection(host, port))
        except (OSError, TimedOut) as error:
            raise ConnectFailed(f"{host}, port {port}: {error}") from error
        run = cls(reader, writer, shake.comms_log, timeout, shutdown_timeout)
        try:
            await run._launch(shake, launch_timeout)
            if connect:
                await run.connect()
        except BaseException:
            run.close()
            raise
        return run

    async def connect(self) -> None:
        await self._perform(exchange.connect())

    async def date(self) -> datetime.date:
        return await self._perform(exchange.date())

    async def is_metric(self) -> bool:
        return await self._perform(exchange.is_metric())

    async def time(self) -> float:
        return await self._perform(exchange.time())

    async def is_compositional(self) -> bool:
        return await self._perform(exchange.is_compositional())

    async def wells(self) -> Wells:
        return await self._perform(exchange.wells())

    async def first_step(self) -> None:
        await self._perform(exchange.first_step())

    async def run_until(self, days: float) -> None:
        await self._perform(exchange.run_until(days))

    async def has_ended(self) -> bool:
        return await self._perform(exchange.has_ended())

    async def operating_points(self, wells: Iterable[str]) -> OperatingPoints:
        return await self._perform(exchange.operating_points(wells))

    async def set_status(self, statuses: Mapping[str, str]) -> None:
        await self._perform(exchange.set_status(statuses))

    async def set_uptime(self, fractions: Mapping[str, float]) -> None:
        await self._perform(exchange.set_uptime(fractions))

    async def set_constraints(self, constraints: Mapping[str, Mapping[str, float]]) -> None:
        await self._perform(exchange.set_constraints(constraints))

    async def equation_of_state(self) -> EquationOfState:
        return await self._perform(exchange.equation_of_state())

    async def variables(self, well: str, names: Iterable[str]) -> Dict[str, float]:
        return await self._perform(exchange.variables(well, names))

    async def inflow_tables(
        self,
        wells: Iterable[str],
        *,
        components: int = 0,
        bottom_hole: bool = True,
        skewness: float = 1.0,
    ) -> InflowTables:
        return await self._perform(exchange.inflow_tables(wells, components, bottom_hole, skewness))

    async def simulator_version(self) -> float:
        return await self._perform(exchange.simulator_version())

    async def attach_source(self, well: str, source: str) -> bool:
        return await self._perform(exchange.attach_source(well, source))

    async def set_compositions(self, compositions: Mapping[str, Sequence[float]]) -> None:
        await self._perform(exchange.set_compositions(compositions))

    async def start_date(self) -> datetime.date:
        return await self._perform(exchange.start_date())

    async def shutdown(self, timeout: Optional[float] = None) -> None:
        if self._closed:
            return
        self._usable = False
        limit = self.shutdown_timeout if timeout is None else timeout
        try:
            await _within(limit, self._end())
        finally:
            self.close()

    def close(self) -> None:
        """Leaves the run without shutting it down."""
        self._usable = False
        self._closed = True
        self._writer.close()

    async def __aenter__(self) -> AsyncRun:
        return self

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        if kind is None:
            await self.shutdown()
            return
        try:
            await self.shutdown()
        except Error:
            pass  # The exception that is on its way says more.

    async def _end(self) -> None:
        due = self._asked.give_up() if self._asked else b""
        await self._write(due + pack_request(SHUT_DOWN))
        while True:
            body = take_frame(self._received)
            if body is not None and code_of(body) == SHUT_DOWN:
                return
            if body is None and not await self._receive():
                return

    async def _launch(self, shake: Handshake, timeout: Optional[float]) -> None:
        deadline = deadline_in(timeout)
        try:
            check_greeting(await _until(deadline, self._line()))
            await self._write(b"".join(map(frame, shake.lines())))
            answer = bytes_text(await _until(deadline, self._line()))
        except (TimedOut, asyncio.CancelledError):
            # A launch cannot be called back. The daemon finds these orders when the simulator runs.
            self._writer.write(pack_request(1) + pack_request(SHUT_DOWN))
            raise
        self.simulator_host = launched_on(answer)

    async def _line(self) -> bytes:
        while True:
            line = take_frame(self._received)
            if line is not None:
                return line
            if not await self._receive():
                raise Refused("")

    async def _perform(self, asked: Exchange[Result]) -> Result:
        if not self._usable:
            raise Error("the run has been shut down, or another request has not been answered")
        self._usable = False
        await _within(self.timeout, self._exchange(asked))
        self._usable = True
        return asked.result()

    async def _exchange(self, asked: Exchange[Any]) -> None:
        self._asked = asked
        await self._write(asked.begin())
        while not asked.done:
            if not await self._receive():
                raise RunEnded(asked.title, self.comms_log, bytes(self._received))
            # Not waiting for room: the daemon may make some only when this end has read its answers.
            self._writer.write(asked.take(self._received))

    async def _write(self, data: bytes) -> None:
        try:
            self._writer.write(data)
            await self._writer.drain()
        except OSError:
            pass  # The next read tells, after what the other end still said.

    async def _receive(self) -> bool:
        acknowledge_at_once(self._writer.get_extra_info("socket"))
        try:
            data = await self._reader.read(262144)
        except OSError:
            data = b""
        self._received += data
        return bool(data)


async def _within(seconds: Optional[float], what: Awaitable[_Awaited]) -> _Awaited:
    try:
        return await asyncio.wait_for(what, seconds)
    except asyncio.TimeoutError:
        raise TimedOut("the other end did not answer in time") from None


async def _until(deadline: Optional[float], what: Awaitable[_Awaited]) -> _Awaited:
    left = None if deadline is None else deadline - asyncio.get_running_loop().time()
    return await _within(left, what)
