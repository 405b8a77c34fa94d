"""python3 -m jobmill.wire: recordings of whole runs, played again, compared and spoiled."""

from __future__ import annotations

import asyncio
import contextlib
import io
import json
import pathlib
import socket
import sys
import tempfile
import threading
import time
import unittest
from typing import Any, Dict, List, Tuple
from unittest import mock

from support import PLAYED, SOON, STAND_IN, Process, RealDaemon, ThreadedSimulator
from support import first_to_speak

import jobmill
from jobmill.check.daemon import KnownField
from jobmill.controller_link import take_message
from jobmill.wire import __main__ as wire
from jobmill.wire import proxy as proxy_module
from jobmill.wire import recording
from toy_field import ToyField


def call(*arguments: str) -> Tuple[int, str]:
    """What a command of jobmill.wire says and its exit status."""
    said = io.StringIO()
    with contextlib.redirect_stdout(said), contextlib.redirect_stderr(said):
        status = wire.main(arguments)
    return status, said.getvalue()


def proxy(command: str, link: str, to: int, *more: str) -> Process:
    address = ("--listen", "0", "--to", str(to))
    return Process(sys.executable, "-m", "jobmill.wire", command, "--link", link, *address, *more)


def steer(port: int, path: str) -> None:
    with jobmill.Run("127.0.0.1", port, path=path, root="COMP", user="u", timeout=SOON) as run:
        wells = [well.name for well in run.wells()]
        run.first_step()
        run.run_until(30.25)
        run.operating_points(wells)
        run.inflow_tables(wells[:1], components=2)
        run.equation_of_state()


class WireTest(unittest.TestCase):
    def setUp(self) -> None:
        directory = tempfile.TemporaryDirectory(prefix="jobmill-wire.")
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)

    def file(self, name: str) -> str:
        return str(self.directory / name)

    def record_master(self, daemon: RealDaemon, name: str) -> str:
        with proxy("record", "master", daemon.port, "--once", self.file(name)) as recorder:
            steer(recorder.port, daemon.path)
            self.assertEqual(recorder.wait(), 0)
        return self.file(name)

    def test_recorded_run_is_replayed_against_a_new_daemon_byte_for_byte(self) -> None:
        with RealDaemon(STAND_IN) as daemon:
            file = self.record_master(daemon, "run")
        with RealDaemon(STAND_IN) as daemon:
            status, text = call("replay", "--to", str(daemon.port), "--timeout", str(SOON), file)
            self.assertEqual((status, text.splitlines()[-1][-10:]), (0, "0 were not"), text)
            again = self.record_master(daemon, "again")
        self.assertEqual(call("diff", file, again), (1, mock.ANY))  # The data paths.
        status, text = call("diff", "--any-host", file, again)
        self.assertEqual(
            [line[1:28] for line in text.splitlines() if line[0] in "+-"],
            ["master    data path  text='"] * 2,
        )

    def test_both_ends_of_a_recording_meet_a_daemon(self) -> None:
        """A run of a customer's, whose simulator nobody has: the daemon is between two replays."""
        master, simulator = self.file("master"), self.file("simulator")
        with RealDaemon(PLAYED) as daemon:
            listeners = [socket.create_server(("127.0.0.1", 0))]
            with ThreadedSimulator(KnownField, listeners=listeners) as field:
                make = lambda port: Process(  # noqa: E731
                    *(sys.executable, "-m", "jobmill.wire", "record", "--link", "simulator"),
                    *("--listen", str(port), "--to", str(field.port), f"{simulator}{port}"),
                )
                ports = (daemon.simulator_port, daemon.simulator_port + 1)
                with make(ports[0]), make(ports[1]):
                    with proxy("record", "master", daemon.port, "--once", master) as recorder:
                        steer(recorder.port, "/tmp/")
                        recorder.wait()
                recorded = [
                    p for p in ports if len(pathlib.Path(f"{simulator}{p}").read_text()) > 200
                ]
        self.assertEqual(len(recorded), 1)
        with RealDaemon(PLAYED) as daemon:
            ports = (daemon.simulator_port, daemon.simulator_port + 1)
            with self.player(ports[0], f"{simulator}{recorded[0]}") as one:
                with self.player(ports[1], f"{simulator}{recorded[0]}") as other:
                    arguments = ("replay", "--to", str(daemon.port), "--timeout", str(SOON), master)
                    status, text = call(*arguments)
                    self.assertEqual(status, 0, text)
                    played = first_to_speak(one, other).rest()
        # The daemon came to one of the two.
        self.assertRegex(played, r"^\d\d+ answers were equal, 0 were not\n$")

    def player(self, port: int, file: str) -> Process:
        return Process(sys.executable, "-m", "jobmill.wire", "replay", "--listen", str(port), file)

    def test_replay_tells_another_answer(self) -> None:
        class Changed(ToyField):
            units = "TOLMEN_FIELD"

        file = self.file("toy")
        with ThreadedSimulator(ToyField) as field:
            with proxy("record", "simulator", field.port, "--once", file) as recorder:
                self.ask_units(recorder.port)
                recorder.wait()
        with ThreadedSimulator(ToyField) as field:
            self.assertEqual(call("replay", "--to", str(field.port), file)[0], 0)
        with ThreadedSimulator(Changed) as field:
            status, text = call("replay", "--to", str(field.port), file)
        self.assertEqual(status, 1)
        self.assertIn("VALUES=['TOLMEN_METRIC']\nheard:    simulator REPLY", text)
        self.assertIn("VALUES=['TOLMEN_FIELD']", text)

    def ask_units(self, port: int) -> None:
        from jobmill.check.report import Report
        from jobmill.check.simulator import RULES, Controller
        from jobmill.controller_link import request
        from jobmill.stream import Stream

        with Stream.connect("127.0.0.1", port, SOON) as stream:
            controller = Controller(stream, Report("simulator", RULES), SOON)
            controller.send(request("SETUP", {"VERSION": ["V2"]}))
            controller.hear("S06", "STARTED")
            controller.hear_step("S07", "a step answer")
            controller.run_items("QRESVR_STR", "UNIT_SYSTEM")
            controller.step("S17", request("SHUTDOWN"))

    def test_recording_is_shown_as_lines_and_as_json(self) -> None:
        with RealDaemon(STAND_IN) as daemon:
            file = self.record_master(daemon, "run")
        status, text = call("show", file)
        self.assertEqual(status, 0)
        self.assertIn("daemon    outcome of the launch  text='OK|localhost", text)
        self.assertIn("master    request 8 (run until)  days=30.25", text)
        self.assertIn("daemon    reply to 4097 (next inflow table)  pressure=[", text)
        self.assertNotIn("!!", text)
        rows: List[Dict[str, Any]] = [
            json.loads(line) for line in call("show", "--json", file)[1].splitlines()
        ]
        self.assertEqual(len(rows), len(text.splitlines()))
        until = next(row for row in rows if "run until" in row["name"])
        self.assertEqual(until["fields"], [{"name": "days", "value": 30.25}])
        self.assertEqual((until["from"], until["c"]), ("master", 1))
        self.assertTrue(all(a["t"] <= b["t"] for a, b in zip(rows, rows[1:])))

    def test_cut_off_file_is_read_as_far_as_it_goes(self) -> None:
        with RealDaemon(STAND_IN) as daemon:
            file = pathlib.Path(self.record_master(daemon, "run"))
        file.write_text(file.read_text()[:-40])
        with open(file, encoding="utf-8") as cut:
            self.assertGreater(len(recording.read(cut).said(1)), 30)
        file.write_text("something else")
        status, text = call("show", str(file))
        self.assertEqual(
            (status, text),
            (
                2,
                f"jobmill.wire: {file} is not a recording: "
                "JSONDecodeError('Expecting value: line 1 column 1 (char 0)')\n",
            ),
        )


class FaultTest(unittest.TestCase):
    def echo(self, *fault: str) -> bytes:
        """What arrives of three frames that the server sends, when they pass a fault."""

        def serve() -> None:
            accepted, _ = listener.accept()
            with accepted:
                accepted.sendall(
                    b"".join(bytes([4, 0, 0, 0]) + name * 4 for name in (b"a", b"b", b"c"))
                )

        with socket.create_server(("127.0.0.1", 0)) as listener:
            server = threading.Thread(target=serve, daemon=True)
            server.start()
            port = listener.getsockname()[1]
            with proxy("fault", "master", port, "--once", "--from", "server", *fault) as spoiler:
                with socket.create_connection(("127.0.0.1", spoiler.port), SOON) as client:
                    received = b""
                    while True:
                        piece = client.recv(4096)
                        if not piece:
                            break
                        received += piece
            server.join(SOON)
        return received

    def test_wrong_bytes_at_one_message(self) -> None:
        found = self.echo("--message", "2", "--byte", "4=7879", "--byte=-1=7a")
        self.assertEqual(found, b"\4\0\0\0aaaa\4\0\0\0xybz\4\0\0\0cccc")

    def test_cut_within_a_message(self) -> None:
        self.assertEqual(self.echo("--message", "2", "--cut", "6"), b"\4\0\0\0aaaa\4\0\0\0bb")

    def test_delay_and_split_lose_nothing(self) -> None:
        found = self.echo("--delay", "0.05", "--split", "1")
        self.assertEqual(found, b"\4\0\0\0aaaa\4\0\0\0bbbb\4\0\0\0cccc")

    def test_end_that_answers_no_probe_ends_the_other_way_too(self) -> None:
        async def pieces() -> List[bytes]:
            reader, writer = asyncio.StreamReader(), mock.Mock(asyncio.StreamWriter)
            reader.set_exception(TimeoutError())
            arriving = proxy_module._arriving(reader, writer, 0.0)
            return [piece async for piece in arriving]

        with mock.patch.object(proxy_module, "acknowledge_at_once"):
            self.assertEqual(asyncio.run(asyncio.wait_for(pieces(), SOON)), [])

    def test_distance_delays_each_byte_and_none_behind_another(self) -> None:
        count, distance = 100, 0.4

        def serve() -> None:
            accepted, _ = listener.accept()
            with accepted:
                for _ in range(count):
                    accepted.sendall(accepted.recv(1))

        with socket.create_server(("127.0.0.1", 0)) as listener:
            server = threading.Thread(target=serve, daemon=True)
            server.start()
            address = ("--listen", "0", "--to", str(listener.getsockname()[1]), "--once")
            command = (sys.executable, "-m", "jobmill.wire", "distance", str(distance), *address)
            with Process(*command) as network:
                with socket.create_connection(("127.0.0.1", network.port), SOON) as client:
                    begin = time.perf_counter()
                    received = b""
                    for number in range(count):
                        client.sendall(bytes([number]))
                        time.sleep(0.002)
                    while len(received) < count:
                        received += client.recv(4096)
                    taken = time.perf_counter() - begin
                    self.assertEqual(client.recv(1), b"")
            server.join(SOON)
        self.assertEqual(received, bytes(range(count)))
        # A byte goes there and back; a delay for each would add up to 80 s.
        self.assertGreaterEqual(taken, 2 * distance)
        self.assertLess(taken, count * distance / 2)

    def test_take_message_of_nothing(self) -> None:
        arrived = take_message(bytearray(16))
        assert arrived is not None
        self.assertEqual(arrived, (b"", (0,)))


if __name__ == "__main__":
    unittest.main()
