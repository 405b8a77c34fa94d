"""The checks from the command line: what vksim, vkmaster and the example of the pages get from them."""

from __future__ import annotations

import asyncio
import json
import os
import pathlib
import re
import sys
import tempfile
import time
import unittest
import xml.etree.ElementTree as xml
from typing import List
from unittest import mock

from support import EXAMPLES, MASTER, ROOT, SIMULATOR, SOON, RealDaemon, ThreadedSimulator
from support import check_master, free_ports, python

import jobmill
from jobmill.check.known import COMPONENTS, ODD
from jobmill.check.master import PLAIN_WELLS, Scenario
from jobmill.check.report import PASSED
from run_test import meeting

COMMANDS = (
    "status then wells then data then first-step then until 30 then vars P1 oil bhp then eos then shut P1 "
    "then open P1 then uptime P1 0.5 then constrain P1 oil=5 then ipr P1 components all lift "
    "then source G1 S1 then composition S1 0.5 0.3 0.2"
)


class ProgramsTest(unittest.TestCase):
    def check(self, subject: str, *arguments: str) -> str:
        """Checks a program that has to keep every rule that concerns it."""
        command = ("-m", "jobmill.check", subject, "--patience", str(SOON))
        done = python(*command, *arguments)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertRegex(done.stdout, r"\d+ passed, 0 FAILED, \d+ not applicable, 0 no verdict\n$")
        return done.stdout

    def test_stand_in_simulator_keeps_every_rule(self) -> None:
        for deck, version in (("COMP", "2017.2"), ("TENWELLS", "2017.2"), ("COMP", "2016.2")):
            with self.subTest(deck=deck, version=version):
                command = f"{SIMULATOR} {EXAMPLES} {deck} --port {{port}} --api {version}"
                port = str(free_ports(1))
                more = ("--api", version, "--everything")
                said = self.check("simulator", "127.0.0.1", port, *more, "--command", command)
                if (deck, version) == ("COMP", "2017.2"):
                    self.assertIn(" 0 not applicable", said)

    def test_toy_field_of_the_examples_keeps_every_rule(self) -> None:
        toy = ROOT / "python" / "examples" / "toy_field.py"
        command = f"{sys.executable} {toy} /tmp/ R --port {{port}} --processes 1"
        said = self.check("simulator", "127.0.0.1", str(free_ports(1)), "--command", command)
        self.assertIn("answer after the end", said)

    def test_vkmaster_keeps_every_rule(self) -> None:
        master = f"{MASTER} --port {{port}} --user u --path /tmp/ --root R {COMMANDS}"
        said = self.check("master", "--listen", "0", "--slow", "0.3", "--command", master)
        self.assertIn(" 0 not applicable", said)
        self.assertRegex(said, "requests used +1, 2, 3, 4, 5, .* 20, 65520")
        self.assertRegex(said, "a reply with another code +ends the run")
        self.assertRegex(said, "exit status tells failed runs +yes")

    def test_exit_status_that_hides_a_failed_run_is_told(self) -> None:
        master = f"{MASTER} --port {{port}} --user u --path /tmp/ --root R until 1"
        hiding = f"sh -c '{master} || true'"
        done = python("-m", "jobmill.check", "master", "--listen", "0", "--command", hiding)
        self.assertRegex(done.stdout, "exit status of a whole run +0\n")
        self.assertRegex(done.stdout, "exit status tells failed runs +no\n")

    def test_masters_of_the_kit_keep_every_rule(self) -> None:
        def steer(port: int) -> None:
            with jobmill.Run("127.0.0.1", port, path="/", root="R", user="u") as run:
                names = run.wells().names[:1000]
                run.run_until(0.1)
                run.operating_points(names)
                run.inflow_tables(names[:2], components=2)
                run.set_constraints({name: {"OIL_PRODUCTION_RATE": 1.0} for name in names[:2]})
                run.set_compositions({"S": [0.5, 0.25, 0.25]})

        async def steer_async(port: int) -> None:
            launch = jobmill.AsyncRun.launch
            async with await launch("127.0.0.1", port, path="/", root="R", user="u") as run:
                names = (await run.wells()).names[:1000]
                await run.operating_points(names)
                await run.inflow_tables(names[:2], components=2)
                await run.set_uptime({name: 1 / 3 for name in names})
                await run.set_compositions({"S": [0.5, 0.25, 0.25]})

        for each in (steer, lambda port: asyncio.run(steer_async(port))):
            report = check_master(each)
            wrong = {n: j for n, j in report.judgements.items() if j.verdict != PASSED}
            self.assertEqual((wrong, report.status), ({}, 0))
            self.assertEqual(report.sheet["leaves before the reply to 65520"], "no")
            self.assertEqual(report.sheet["a reply with another code"], "ends the run")

    def test_verdicts_are_written_for_programs(self) -> None:
        with tempfile.TemporaryDirectory() as directory:
            junit, file = pathlib.Path(directory, "junit.xml"), pathlib.Path(directory, "json")
            more = ("--junit", str(junit), "--json", str(file))
            done = python("-m", "jobmill.check", "simulator", "127.0.0.1", "1", *more)
            self.assertEqual(done.returncode, 1)
            suite = xml.parse(junit).getroot()
            whole = json.loads(file.read_text())
        verdicts = [rule["verdict"] for rule in whole["rules"]]
        self.assertEqual(verdicts.count("FAILED"), 1)
        self.assertEqual(int(suite.attrib["tests"]), len(verdicts))
        self.assertEqual(int(suite.attrib["failures"]), 1)
        self.assertEqual(len(suite.findall(".//error")), int(suite.attrib["errors"]))
        self.assertEqual((whole["status"], whole["rules"][0]["name"]), (1, "S01"))

    def test_wrong_usage_is_told(self) -> None:
        self.assertEqual(python("-m", "jobmill.check").returncode, 2)
        self.assertEqual(python("-m", "jobmill.check", "simulator", "localhost").returncode, 2)
        self.assertEqual(python("-m", "jobmill.wire", "show", "/nonexistent").returncode, 2)


def blocks(page: str, kind: str) -> List[str]:
    text = (ROOT / "docs" / page).read_text(encoding="utf-8")
    return re.findall(rf"^```{kind}\n(.*?)^```", text, re.S | re.M)


class SimulatorPagesTest(unittest.TestCase):
    """What the pages give authors of simulators to begin with."""

    def setUp(self) -> None:
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)

    def program(self, name: str, text: str) -> pathlib.Path:
        path = pathlib.Path(self.directory.name, name)
        path.write_text(text)
        path.chmod(0o755)
        return path

    def test_first_simulator_of_the_page_keeps_every_rule(self) -> None:
        program = self.program("simulator.py", "".join(blocks("write-a-simulator.md", "python")))
        command = f"{sys.executable} {program} {{port}}"
        port = str(free_ports(1))
        done = python("-m", "jobmill.check", "simulator", "127.0.0.1", port, "--command", command)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def launch(self, simulator: str) -> jobmill.Run:
        """A run of a daemon with the script of the page, which starts this simulator."""
        self.program("mysim", simulator)
        self.program("hostname", "#!/bin/sh\necho localhost\n")
        path = f"{self.directory.name}:{os.environ['PATH']}"
        [script] = blocks("distribution-script.md", "sh")
        # A daemon of RealDaemon gives the simulator ten seconds.
        daemon = RealDaemon(f"exec {self.program('script', script)} \"$@\"\n")
        with mock.patch.dict(os.environ, {"PATH": path}):
            daemon.__enter__()
        self.addCleanup(daemon.__exit__, None, None, None)
        return jobmill.Run("127.0.0.1", daemon.port, path=daemon.path, root="R", user="u")

    def test_script_of_the_page_starts_a_simulator_that_is_slow_to_listen(self) -> None:
        toy = ROOT / "python" / "examples" / "toy_field.py"
        simulator = f"""#!/bin/bash
            sleep 0.5
            PYTHONPATH={ROOT}/python exec {sys.executable} {toy} --port "$4"
        """.replace(
            "            ", ""
        )
        with self.launch(simulator) as run:
            self.assertEqual(len(run.wells()), 4)

    def test_script_of_the_page_tells_at_once_that_the_simulator_has_died(self) -> None:
        begun = time.monotonic()
        with self.assertRaisesRegex(jobmill.Refused, "No host detected"):
            self.launch("#!/bin/sh\necho no licence >&2\nexit 1\n")
        self.assertLess(time.monotonic() - begun, 8.0)


class PageTest(unittest.TestCase):
    """docs/python.md does what it says."""

    page = (ROOT / "docs" / "python.md").read_text(encoding="utf-8").replace("\\\n", "")

    def block(self, number: int) -> str:
        return re.findall(r"```python\n(.*?)```", self.page, re.S)[number]

    def test_master_of_the_page_runs(self) -> None:
        with meeting(Scenario("")) as daemon:
            program = self.block(0).replace('"cluster7", 5000', f'"127.0.0.1", {daemon.port}')
            with mock.patch("builtins.print") as printed:
                exec(compile(program, "docs/python.md", "exec"), {})
        self.assertEqual(len(printed.call_args[0]), 3)

    def test_simulator_of_the_page_is_told_what_is_missing(self) -> None:
        names: "dict[str, object]" = {"__name__": "page"}
        exec(compile(self.block(1), "docs/python.md", "exec"), names)
        with ThreadedSimulator(names["OneWell"]) as server:  # type: ignore[arg-type]
            done = python("-m", "jobmill.check", "simulator", "127.0.0.1", str(server.port))
        self.assertEqual(done.returncode, 1)
        self.assertIn("received: without GAS_PRODUCTION_RATE", done.stdout)
        self.assertIn("S45  passed", done.stdout)

    def test_options_of_the_page_exist(self) -> None:
        for module in ("check", "wire"):
            commands = re.findall(rf"python3 -m jobmill\.{module} (\w+)", self.page)
            self.assertGreater(len(commands), 3)
            for command in set(commands):
                text = python("-m", f"jobmill.{module}", command, "--help").stdout
                for line in re.findall(rf"python3 -m jobmill\.{module} {command}(.*)", self.page):
                    line = re.sub(r'--command ".*"', "--command", line)
                    for option in re.findall(r"--[a-z-]+", line):
                        self.assertIn(option, text)

    def test_model_of_the_check_is_that_of_the_page(self) -> None:
        for well in set(PLAIN_WELLS) - {ODD}:
            self.assertIn(f"`{well}`", self.page)
        self.assertIn(f"{len(ODD.encode())} bytes, blanks and an é", self.page)
        self.assertIn(", ".join(COMPONENTS[:2]) + f" and {COMPONENTS[2]}", self.page)

    def test_methods_of_the_page_exist(self) -> None:
        rows = "\n".join(line for line in self.page.splitlines() if line.startswith("| `"))
        for name in re.findall(r"`([a-z_]+)\(", rows):
            self.assertTrue(hasattr(jobmill.Run, name), name)

    def test_version_is_that_of_the_project(self) -> None:
        project = (ROOT / "CMakeLists.txt").read_text()
        self.assertIn(f"project(jobmill VERSION {jobmill.__version__} ", project)


if __name__ == "__main__":
    unittest.main()
