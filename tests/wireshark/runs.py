"""Whole runs of the real programs, recorded between them: the daemon, vksim, and vkmaster."""

import os
import select
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

from captures import CLIENT, SERVER

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python"))
from support import free_ports  # noqa: E402

SECONDS = 30  # for any one thing


class Recording:
    """What passed on both links: (link, sender, bytes), in its order."""

    def __init__(self):
        self.events = []

    def of(self, link):
        return [(sender, data) for where, sender, data in self.events if where == link]


class _Relay(threading.Thread):
    """Listens, passes one connection on to `target()`, and writes down what passes."""

    def __init__(self, recording, link, target):
        super().__init__(daemon=True)
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.settimeout(SECONDS)
        self.port = self._listener.getsockname()[1]
        self._recording, self._link, self._target = recording, link, target
        self.start()

    def run(self):
        client, _ = self._listener.accept()
        server = socket.create_connection(("127.0.0.1", self._target), SECONDS)
        for end in (client, server):
            end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        ends = {client: (CLIENT, server), server: (SERVER, client)}
        deadline = time.monotonic() + SECONDS
        with client, server, self._listener:
            while ends and time.monotonic() < deadline:
                for source in select.select(list(ends), [], [], 1)[0]:
                    sender, target = ends[source]
                    data = source.recv(1 << 20)
                    if not data:
                        del ends[source]
                        target.shutdown(socket.SHUT_WR)
                        continue
                    self._recording.events.append((self._link, sender, data))
                    target.sendall(data)


def record(programs, deck, version, commands):
    """Carries out vkmaster's commands in a run of the deck; returns the Recording of both links."""
    recording = Recording()
    directory = tempfile.mkdtemp(prefix="jobmill-wireshark.")
    children = []
    port = free_ports(1)
    try:
        shutil.copy(deck, directory)
        shutil.copy(os.path.join(programs, "vkjobmill.exe"), directory)
        root = os.path.basename(deck).removesuffix(".afi")
        simulator = subprocess.Popen(
            [os.path.join(programs, "vksim"), directory + "/", root, "--port", "0"],
            stdout=subprocess.PIPE,
            cwd=directory,
            text=True,
        )
        children.append(simulator)
        for line in simulator.stdout:
            if line.startswith("Listening on port "):
                break
        to_simulator = _Relay(recording, "simulator", int(line.split()[-1]))
        script = os.path.join(directory, "script")
        with open(script, "w", encoding="ascii") as file:
            # The simulator is running already: its relay stands where the jobmill looks for it.
            file.write(
                "#!/bin/sh\nprintf 'HOST=localhost\\n'\nexec >/dev/null 2>&1\nexec sleep 600\n"
            )
        os.chmod(script, 0o755)
        with open(os.path.join(directory, "output"), "wb") as output:
            children.append(
                subprocess.Popen(
                    [
                        os.path.join(directory, "vkjobmill.exe"),
                        "-p",
                        str(port),
                        "-u",
                        "-o",
                        str(to_simulator.port),
                        "-s",
                        script,
                    ],
                    stdout=output,
                    stderr=output,
                    cwd=directory,
                    start_new_session=True,
                )
            )
        deadline = time.monotonic() + SECONDS
        while True:
            # A connection that only tries whether the daemon listens would be served, too.
            with open("/proc/net/tcp", encoding="ascii") as table:
                if any(
                    row.split()[1].endswith(f":{port:04X}") and row.split()[3] == "0A"
                    for row in table
                ):
                    break
            if time.monotonic() > deadline:
                raise TimeoutError("the daemon does not listen")
            time.sleep(0.01)
        to_daemon = _Relay(recording, "master", port)
        subprocess.run(
            [
                os.path.join(programs, "vkmaster"),
                "--host",
                "127.0.0.1",
                "--port",
                str(to_daemon.port),
                "--path",
                directory + "/",
                "--root",
                root,
                "--api",
                version,
                "--user",
                "alice",
                "--json",
                *commands.split(),
            ],
            check=True,
            timeout=SECONDS,
            stdout=subprocess.PIPE,
            cwd=directory,
            env={**os.environ, "HOME": directory},
        )
        to_daemon.join(SECONDS)
        to_simulator.join(SECONDS)
    finally:
        for child in reversed(children):
            if child.poll() is None:
                child.terminate()
            try:
                child.wait(SECONDS)
            except subprocess.TimeoutExpired:
                child.kill()
                child.wait()
            if child.stdout:
                child.stdout.close()
        for place in ("/var/log", "/tmp"):
            try:
                os.remove(f"{place}/VKJobmill_{port}.log")
            except FileNotFoundError:
                pass
        shutil.rmtree(directory)
    return recording
