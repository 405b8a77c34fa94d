"""A TCP connection with time limits that can be interrupted anywhere and used again."""

from __future__ import annotations

import selectors
import socket
import sys
import time
from types import TracebackType
from typing import List, Optional, Tuple, Type

from .errors import ConnectFailed, TimedOut

_PIECE = 262144


def deadline_in(seconds: Optional[float]) -> Optional[float]:
    """The time of the monotonic clock that a time limit ends at; None for no limit."""
    return None if seconds is None else time.monotonic() + seconds


def acknowledge_at_once(connected: socket.socket) -> None:
    """For an end that waits now. Its system expects it to send soon, and acknowledges with what is sent then.

    A daemon with Nagle's algorithm on keeps small answers back until those before are acknowledged, so this
    expectation costs 40 ms. Only Linux can be told, and forgets it again.
    """
    if sys.platform == "linux":
        try:
            connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)
        except OSError:
            pass  # The connection is broken; the next read tells.


class Stream:
    """One TCP connection.

    What is to be sent is kept until the system has taken it, so an exception in the middle, a time-out or
    Ctrl-C, loses and repeats nothing. While sending waits, receiving goes on: two ends that both have much to
    say do not block each other.
    """

    def __init__(self, connected: socket.socket) -> None:
        connected.setblocking(False)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.socket = connected
        #: Received and not yet taken by the user of the stream, who deletes what has been taken.
        self.received = bytearray()
        #: The other end has closed, or the connection is broken.
        self.ended = False
        #: The connection broke instead of being closed.
        self.reset = False
        # What is to be sent, and the counts of what the system has taken of it. Ctrl-C may come between any two
        # steps of Python; these two change together or not at all.
        self._outgoing: Tuple[bytes, List[int]] = (b"", [])
        self._selector = selectors.DefaultSelector()
        self._selector.register(connected, selectors.EVENT_READ)

    @classmethod
    def connect(cls, host: str, port: int, timeout: Optional[float]) -> Stream:
        try:
            return cls(socket.create_connection((host, port), timeout))
        except OSError as error:
            raise ConnectFailed(f"{host}, port {port}: {error}") from error

    @property
    def unsent(self) -> int:
        data, taken = self._outgoing
        return len(data) - sum(taken)

    def send_later(self, data: bytes) -> None:
        """Sends together with what else is sent or received next."""
        old, taken = self._outgoing
        self._outgoing = (old[sum(taken) :] + data, [])

    def send(self, data: bytes, deadline: Optional[float] = None) -> None:
        """Returns when the system has taken everything. Does nothing on a connection that has ended."""
        self.send_later(data)
        self._write()
        while self.unsent and not self.ended:
            self._wait(deadline)

    def send_cut(self, data: bytes, packet: int, deadline: Optional[float] = None) -> None:
        """Sends packets of so many bytes; 0 for as few as possible.

        The first ones are sent so slowly that the other end can see each of them alone: there are the lengths,
        on which most goes wrong.
        """
        step = packet or max(1, len(data))
        for at in range(0, len(data), step):
            self.send(data[at : at + step], deadline)
            if packet and at < 24 * step:
                time.sleep(0.0002)

    def receive(self, deadline: Optional[float] = None) -> bool:
        """Waits until `received` has grown; False when the other end has closed instead."""
        before = len(self.received)
        self._write()
        self._read()
        while len(self.received) == before and not self.ended:
            self._wait(deadline)
        return len(self.received) > before

    def quiet_for(self, seconds: float) -> bool:
        """True when nothing at all arrives for so long."""
        try:
            return not self.received and not self.receive(deadline_in(seconds)) and not self.ended
        except TimedOut:
            return True

    def close(self) -> None:
        self._selector.close()
        self.socket.close()

    def __enter__(self) -> Stream:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.close()

    def _wait(self, deadline: Optional[float]) -> None:
        left = None if deadline is None else deadline - time.monotonic()
        if left is not None and left <= 0:
            raise TimedOut("the other end did not answer in time")
        events = selectors.EVENT_READ | (selectors.EVENT_WRITE if self.unsent else 0)
        self._selector.modify(self.socket, events)
        acknowledge_at_once(self.socket)
        for _, ready in self._selector.select(left):
            if ready & selectors.EVENT_WRITE:
                self._write()
            if ready & selectors.EVENT_READ:
                self._read()

    def _write(self) -> None:
        data, taken = self._outgoing
        try:
            while self.unsent and not self.ended:
                # Sending and noting its count are one step for signal handlers: no Python code runs between.
                taken.extend(map(self.socket.send, (memoryview(data)[sum(taken) :],)))
        except (BlockingIOError, InterruptedError):
            pass
        except OSError:
            # What the other end said before the connection broke can still be read.
            self._outgoing = (b"", [])
            self._read()

    def _read(self) -> None:
        try:
            data = self.socket.recv(_PIECE)
        except (BlockingIOError, InterruptedError):
            return
        except OSError:
            self.reset = True
            data = b""
        self.received += data
        self.ended = self.ended or not data
