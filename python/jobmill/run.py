"""The master's side: a run launched through a daemon and steered by requests."""

from __future__ import annotations

import datetime
import getpass
from types import TracebackType
from typing import Any, Dict, Iterable, Mapping, Optional, Sequence, Type

from . import exchange
from .errors import Error, ProtocolError, Refused, RunEnded, TimedOut
from .exchange import Exchange, Result
from .master_link import (
    SHUT_DOWN,
    Handshake,
    bytes_text,
    frame,
    pack_reply,
    pack_request,
    take_frame,
)
from .results import EquationOfState, InflowTables, OperatingPoints, Wells
from .stream import Stream, deadline_in

Constraints = Mapping[str, Mapping[str, float]]


def check_greeting(line: bytes) -> None:
    """Raises ProtocolError for a daemon of another protocol."""
    if line != b"3":
        raise ProtocolError(f"the daemon speaks version {line!r} of the protocol, not 3")


def launched_on(outcome: str) -> str:
    """The host of the simulator; raises Refused when there is none."""
    outcome = outcome.rstrip("\0")
    if not outcome.startswith("OK|"):
        raise Refused(outcome)
    return outcome[3:]


class Run:
    """One run of the simulator, from its launch to its end.

        with Run("cluster7", 5000, path="/data/brent/", root="CASE") as run:
            run.run_until(365.0)
            for point in run.operating_points(well.name for well in run.wells()):
                print(point.well, point.oil_rate)

    Leaving the block shuts the run down, after an exception and Ctrl-C too. A request that the daemon or
    the simulator refuses ends the run: the protocol has no error replies. Nothing is repeated and no
    connection is made anew behind the caller's back.

    Requests wait without limit unless `timeout` says otherwise: a step may take hours. After a time-out the
    run can only be shut down, because the answer that is still due would pass for the next one.
    """

    def __init__(
        self,
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
    ) -> None:
        """Launches the run; returns when the simulator runs.

        path: data directory of the run, as the daemon's machine sees it; ends with a slash.
        root: name of the model, its input file without the extension.
        simulator: its version, 2016.2 or 2017.2.
        user: Windows user name, which the daemon maps to a Linux account; the login name if not given.
        debug: handed to the distribution script as it is.
        cluster: above 0 the daemon copies the input file to ROOT_NUMBER.afi and runs that.
        connect: has the daemon connect to the simulator at once; otherwise call connect() first.
        timeout: seconds that the answer to a request may take; None for no limit.
        reach_timeout: seconds for reaching the daemon.
        launch_timeout: seconds for the launch. It takes as long as the job queues.
        shutdown_timeout: seconds that the end of a `with` block waits for the daemon.

        Raises ConnectFailed, Refused, TimedOut, ProtocolError.
        """
        self.timeout = timeout
        self.shutdown_timeout = shutdown_timeout
        #: The host on which the simulator runs, as the daemon says.
        self.simulator_host = ""
        self._usable = True
        self._asked: Optional[Exchange[Any]] = None
        shake = Handshake(
            cluster, path, root, processes, simulator, user or getpass.getuser(), debug
        )
        #: Where the daemon, if it writes such logs, says why a request failed; on its own machine.
        self.comms_log = shake.comms_log
        self._stream = Stream.connect(host, port, reach_timeout)
        try:
            self._launch(shake, launch_timeout)
            if connect:
                self.connect()
        except BaseException:
            self.close()
            raise

    # Requests, in the order of their codes.

    def connect(self) -> None:
        """Has the daemon connect to the simulator. Every other request fails before this one."""
        self._perform(exchange.connect())

    def date(self) -> datetime.date:
        """The simulated date."""
        return self._perform(exchange.date())

    def is_metric(self) -> bool:
        """Whether values are in metric units; otherwise they are in field units."""
        return self._perform(exchange.is_metric())

    def time(self) -> float:
        """The simulated time in days since the start date."""
        return self._perform(exchange.time())

    def is_compositional(self) -> bool:
        return self._perform(exchange.is_compositional())

    def wells(self) -> Wells:
        """All wells of the model."""
        return self._perform(exchange.wells())

    def first_step(self) -> None:
        """To the first time step."""
        self._perform(exchange.first_step())

    def run_until(self, days: float) -> None:
        """Runs to a time in days since the start date, or to the end of the simulation if that is before."""
        self._perform(exchange.run_until(days))

    def has_ended(self) -> bool:
        """Whether the simulation has reached its end."""
        return self._perform(exchange.has_ended())

    def operating_points(self, wells: Iterable[str]) -> OperatingPoints:
        """Rates, pressures and uptime of wells. The records are asked for ahead: see docs/python.md."""
        return self._perform(exchange.operating_points(wells))

    def set_status(self, statuses: Mapping[str, str]) -> None:
        """Sets the status of wells, for instance {"P1": "SHUT"}."""
        self._perform(exchange.set_status(statuses))

    def set_uptime(self, fractions: Mapping[str, float]) -> None:
        """Sets the fraction of the time that wells are on, 0 to 1."""
        self._perform(exchange.set_uptime(fractions))

    def set_constraints(self, constraints: Constraints) -> None:
        """Limits rates and pressures: {"P1": {"OIL_PRODUCTION_RATE": 500.0}}."""
        self._perform(exchange.set_constraints(constraints))

    def equation_of_state(self) -> EquationOfState:
        return self._perform(exchange.equation_of_state())

    def variables(self, well: str, names: Iterable[str]) -> Dict[str, float]:
        """Properties of a well by the simulator's names, such as BOTTOM_HOLE_PRESSURE."""
        return self._perform(exchange.variables(well, names))

    def inflow_tables(
        self,
        wells: Iterable[str],
        *,
        components: int = 0,
        bottom_hole: bool = True,
        skewness: float = 1.0,
    ) -> InflowTables:
        """Inflow tables of wells, of ten points each.

        This opens the wells and leaves them open with the rate limits of the last point: set their statuses
        and limits again.

        components: how many mole fractions each point has; 0 for none.
        bottom_hole: tables over the bottom-hole pressure; otherwise over the tubing-head pressure.
        skewness: the rates at point k fall to ((11 - k) / 10) ^ skewness of the open well's.
        """
        return self._perform(exchange.inflow_tables(wells, components, bottom_hole, skewness))

    def simulator_version(self) -> float:
        """The version of the simulator as a number, such as 2017.2."""
        return self._perform(exchange.simulator_version())

    def attach_source(self, well: str, source: str) -> bool:
        """Attaches an external gas source to a well; whether the simulator accepted it."""
        return self._perform(exchange.attach_source(well, source))

    def set_compositions(self, compositions: Mapping[str, Sequence[float]]) -> None:
        """Sets the mole fractions of external sources, one for each component in the fluid's order."""
        self._perform(exchange.set_compositions(compositions))

    def start_date(self) -> datetime.date:
        """The date of day 0."""
        return self._perform(exchange.start_date())

    # The end.

    def shutdown(self, timeout: Optional[float] = None) -> None:
        """Ends the run: the simulator is shut down and the connection closed.

        In the middle of a step the daemon cannot be interrupted, and answers when the step is over. It finds
        the order even when this end has given up after `timeout` seconds (`shutdown_timeout` if not given)
        and raised TimedOut. Does nothing when the connection has been closed.
        """
        stream = self._stream
        if stream.socket.fileno() < 0:
            return
        self._usable = False
        deadline = deadline_in(self.shutdown_timeout if timeout is None else timeout)
        try:
            due = self._asked.give_up() if self._asked else b""
            stream.send(due + pack_request(SHUT_DOWN), deadline)
            # Answers to what was interrupted may come first, and Ctrl-C may have torn a hole into them.
            while not stream.received.endswith(pack_reply(SHUT_DOWN)):
                if not stream.receive(deadline):
                    break
        finally:
            stream.close()

    def close(self) -> None:
        """Leaves the run without shutting it down; the daemon's end sees the connection close."""
        self._usable = False
        self._stream.close()

    def __enter__(self) -> Run:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        if kind is None:
            self.shutdown()
            return
        try:
            self.shutdown()
        except Error:
            pass  # The exception that is on its way says more.

    def _launch(self, shake: Handshake, timeout: Optional[float]) -> None:
        deadline = deadline_in(timeout)
        stream = self._stream
        try:
            greeting = self._line(deadline)
            if greeting != b"3":
                raise ProtocolError(
                    f"the daemon speaks version {greeting!r} of the protocol, not 3"
                )
            stream.send(b"".join(frame(line) for line in shake.lines()), deadline)
            answer = bytes_text(self._line(deadline))
        except (TimedOut, KeyboardInterrupt):
            # A launch cannot be called back. The daemon finds these orders when the simulator runs.
            stream.send_later(pack_request(1) + pack_request(SHUT_DOWN))
            stream.quiet_for(0.0)
            raise
        self.simulator_host = launched_on(answer)

    def _line(self, deadline: Optional[float]) -> bytes:
        while True:
            line = take_frame(self._stream.received)
            if line is not None:
                return line
            if not self._stream.receive(deadline):
                raise Refused("")

    def _perform(self, asked: Exchange[Result]) -> Result:
        if not self._usable:
            raise Error("the run has been shut down, or an earlier request was not answered")
        deadline = deadline_in(self.timeout)
        stream = self._stream
        self._usable = False
        self._asked = asked
        stream.send_later(asked.begin())
        while not asked.done:
            if not stream.receive(deadline):
                raise RunEnded(asked.title, self.comms_log, bytes(stream.received))
            stream.send_later(asked.take(stream.received))
        self._usable = True
        return asked.result()
