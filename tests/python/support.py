"""What the tests of the kit share: where things are, a real daemon, simulators in threads."""

from __future__ import annotations

import contextlib
import os
import pathlib
import selectors
import socket
import subprocess
import sys
import tempfile
import threading
import time
from typing import Any, Callable, List, Optional, Sequence

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "python"), str(ROOT / "python" / "examples")]
PROGRAMS = pathlib.Path(os.environ.get("JOBMILL_PROGRAMS", ROOT / "build" / "release" / "bin"))
DAEMON = PROGRAMS / "vkjobmill.exe"
MASTER = PROGRAMS / "vkmaster"
SIMULATOR = PROGRAMS / "vksim"
EXAMPLES = ROOT / "deploy" / "examples"
#: Seconds that a test waits for what comes at once, on a machine that has much to do.
SOON = 20.0

from jobmill import controller_link  # noqa: E402
from jobmill.check.master import Check as MasterCheck  # noqa: E402
from jobmill.check.report import Report  # noqa: E402
from jobmill.controller_link import Message  # noqa: E402
from jobmill.errors import ConnectFailed, Error, ProtocolError  # noqa: E402
from jobmill.simulator import Conversation, Simulator  # noqa: E402
from jobmill.stream import Stream  # noqa: E402


def python(*arguments: str, **more: Any) -> "subprocess.CompletedProcess[str]":
    """Runs the Python of the test on the kit."""
    environment = {**os.environ, "PYTHONPATH": str(ROOT / "python")}
    command = [sys.executable, *arguments]
    return subprocess.run(
        command, env=environment, text=True, capture_output=True, timeout=SOON, **more
    )


class Process:
    """A program in the background, ended with its block. `line` is what it said first."""

    def __init__(self, *command: str, waits: bool = True) -> None:
        environment = {**os.environ, "PYTHONPATH": str(ROOT / "python")}
        self._process = subprocess.Popen(
            command,
            env=environment,
            stdout=subprocess.PIPE if waits else subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            text=True,
        )
        self._waits = waits
        self.line = ""

    def __enter__(self) -> "Process":
        while self._waits and "Listening on port" not in self.line:
            assert self._process.stdout is not None
            self.line = self._process.stdout.readline()
            if not self.line:
                raise AssertionError("the program ended before it listened")
        return self

    @property
    def port(self) -> int:
        return int(self.line.split()[-1])

    def wait(self) -> int:
        return self._process.wait(SOON)

    def rest(self) -> str:
        """What it said after it listened, when it has ended by itself."""
        return self._process.communicate(timeout=SOON)[0]

    def fileno(self) -> int:
        """Of what it says, to be waited for."""
        assert self._process.stdout is not None
        return self._process.stdout.fileno()

    def __exit__(self, *exception: object) -> None:
        self._process.terminate()
        self._process.wait(SOON)
        if self._process.stdout is not None:
            self._process.stdout.close()


def first_to_speak(*processes: Process) -> Process:
    with selectors.DefaultSelector() as selector:
        for each in processes:
            selector.register(each, selectors.EVENT_READ)
        for key, _ in selector.select(SOON):
            return key.fileobj  # type: ignore[return-value]
    raise AssertionError("none of the programs said anything")


_ports_lock = threading.Lock()
_ports: List[int] = []  # which this process alone may give, until it ends
_blocks: List[socket.socket] = []


def _take_block() -> List[int]:
    """31 ports in a row, kept by a port that stands for them and is bound, as the other tests do."""
    for number in range(320):
        block = (os.getpid() + number) % 320
        lock = socket.socket()
        try:
            lock.bind(("127.0.0.1", 20000 + block))
        except OSError:
            lock.close()
            continue
        _blocks.append(lock)
        first = 20320 + 31 * block
        return list(range(first, first + 31))
    raise AssertionError("no free ports")


def free_ports(count: int) -> int:
    """The first of so many free ports in a row, outside of those that the system hands out itself.

    They are given once only, by this process and by tests that run beside it.
    """
    with _ports_lock:
        while True:
            if len(_ports) < count:
                _ports[:] = _take_block()
            first = _ports[0]
            del _ports[:count]
            with contextlib.ExitStack() as stack:
                try:
                    for port in range(first, first + count):
                        stack.enter_context(socket.socket()).bind(("", port))
                    return first
                except OSError:
                    continue


class RealDaemon:
    """vkjobmill.exe under this account, with a script that does what `script` says.

    `port` is for masters; simulators listen on `simulator_port` and the one after it.
    """

    def __init__(self, script: str) -> None:
        self._directory = tempfile.TemporaryDirectory(prefix="jobmill-python.")
        self.path = self._directory.name + "/"
        self._script = pathlib.Path(self.path, "script")
        self._script.write_text("#!/bin/sh\n" + script)
        self._script.chmod(0o755)

    def __enter__(self) -> "RealDaemon":
        self.port = free_ports(3)
        self.simulator_port = self.port + 1
        self._log = open(self.path + "daemon.txt", "w")
        self._process = subprocess.Popen(
            [
                *(str(DAEMON), "-u", "-p", str(self.port), "-o", str(self.simulator_port)),
                *("-n", "2", "-t", "10", "-l", "-s", str(self._script)),
            ],
            stdin=subprocess.DEVNULL,
            stdout=self._log,
            stderr=self._log,
            cwd=self.path,
        )
        for _ in range(400):
            with socket.socket() as trial:
                if trial.connect_ex(("127.0.0.1", self.port)) == 0:
                    return self
            time.sleep(0.05)
        raise AssertionError(pathlib.Path(self.path, "daemon.txt").read_text())

    def __exit__(self, *exception: object) -> None:
        self._process.terminate()
        self._process.wait(SOON)
        self._log.close()
        for place in "/var/log", "/tmp":
            with contextlib.suppress(OSError):
                os.remove(f"{place}/VKJobmill_{self.port}.log")
        self._directory.cleanup()


#: The script of a daemon whose simulator is played by the test.
PLAYED = "echo HOST=localhost\nexec >/dev/null 2>&1\n"


def stand_in(directory: str) -> str:
    """The script of a daemon that runs the stand-in simulator on decks in a directory."""
    simulator = f'{SIMULATOR} {directory}/ "$3" --port "$4" >/dev/null 2>&1 &\n'
    return simulator + PLAYED + "wait\n"


STAND_IN = stand_in(str(EXAMPLES))

#: Changes the answers to a message: a list of messages, or of bytes as they go on the wire.
Mangle = Callable[[controller_link.Asked, List[Message]], Sequence[Any]]


class ThreadedSimulator:
    """A simulator in a thread, for as many runs as come; its answers go through `mangle`."""

    def __init__(
        self,
        make: Callable[[], Simulator],
        mangle: Mangle = lambda asked, answers: answers,
        write: Optional[Callable[[Stream, bytes], None]] = None,
        conversation: Callable[[Simulator], Conversation] = Conversation,
        listeners: Sequence[socket.socket] = (),
    ) -> None:
        self._make, self._mangle, self._conversation = make, mangle, conversation
        self._write = write or (lambda stream, data: stream.send(data))
        self._listeners = list(listeners) or [socket.create_server(("127.0.0.1", 0))]
        self._stop, self._wake = socket.socketpair()
        self._thread = threading.Thread(target=self._serve, daemon=True)

    @property
    def port(self) -> int:
        return int(self._listeners[0].getsockname()[1])

    def __enter__(self) -> "ThreadedSimulator":
        self._thread.start()
        return self

    def __exit__(self, *exception: object) -> None:
        self._wake.close()
        self._thread.join(SOON)
        for each in (*self._listeners, self._stop):
            each.close()

    def _serve(self) -> None:
        with selectors.DefaultSelector() as selector:
            for each in (*self._listeners, self._stop):
                selector.register(each, selectors.EVENT_READ)
            while True:
                ready = [key.fileobj for key, _ in selector.select()]
                if self._stop in ready:
                    return
                accepted, _ = ready[0].accept()  # type: ignore[union-attr]
                with Stream(accepted) as stream:
                    try:
                        self._converse(stream)
                    except (ProtocolError, ConnectionError):
                        pass

    def _converse(self, stream: Stream) -> None:
        conversation = self._conversation(self._make())
        while not conversation.over:
            arrived = controller_link.take_message(stream.received)
            if arrived is None:
                if not stream.receive():
                    return
                continue
            message = controller_link.decode(arrived.body)
            asked = controller_link.understand(message)
            for answer in self._mangle(asked, conversation.answer(message)):
                if not isinstance(answer, bytes):
                    answer = controller_link.chunked(controller_link.encode(answer))
                self._write(stream, answer)


def check_master(
    run: Callable[[int], None], *, patience: float = SOON, slow: float = 0.1
) -> Report:
    """Checks a master that runs again and again, as long as somebody listens on the port."""
    masters: List[threading.Thread] = []

    def come(port: int) -> None:
        while True:
            try:
                run(port)
            except (ConnectionRefusedError, ConnectFailed):
                return
            except (EOFError, OSError, Error):
                pass

    def told(text: str) -> None:
        if text.startswith("Listening"):
            masters.append(threading.Thread(target=come, args=(int(text.split()[-1]),)))
            masters[0].start()

    found = MasterCheck("127.0.0.1", 0, patience=patience, wait=SOON, slow=slow, say=told)
    report = found.run()
    masters[0].join()
    return report
