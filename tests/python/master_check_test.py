"""What `jobmill.check master` is worth: broken masters and unusual ones."""

from __future__ import annotations

import datetime
import re
import unittest
from concurrent.futures import ThreadPoolExecutor
from typing import Dict

from support import SOON, check_master

from jobmill.check.known import ODD
from jobmill.check.master import Check, Scenario
from jobmill.check.report import FAILED, NO_VERDICT, PASSED, Report
from run_test import meeting
from toy_master import Master

#: The mistakes of the toy master, and the rules that they break.
BROKEN: Dict[str, str] = {
    "a line too few": "M01",
    "a line too long": "M01",
    "version 0": "M02",
    "no version": "M02",
    "processes in words": "M03",
    "waits for a second": "M04",
    "takes a refusal for a host": "M05",
    "stays when the connection ends": "M06",
    "wants the zero byte": "M07",
    "a frame too long": "M08",
    "an empty frame": "M08",
    "all wells in one request": "M08",
    "takes a packet for a frame": "M09",
    "has room for 65,536 bytes": "M10",
    "no request 1": "M11",
    "request 1 twice": "M11",
    "unknown code": "M12",
    "half of a double": "M13",
    "two wells, one status": "M14",
    "a record too few": "M15",
    "a record too many": "M15",
    "records of the other kind": "M15",
    "a record without a list": "M16",
    "goes on after the end": "M17",
    "stays after the end": "M18",
    "takes half a reply for a whole one": "M20",
    "a zero byte in a name": "M21",
    "a negative count": "M22",
    "trusts that there are wells": "M23",
    "names in ASCII": "M24",
    "names in Latin-1": "M24",
    "names of 30 bytes": "M24",
    "an int for the flag byte": "M25",
    "a composition too short": "M26",
    "nine components": "M27",
    "big-endian doubles": "M28",
    "records before the first reply": "M29",
}
UNUSUAL = (
    "one byte a packet",
    "speaks first",
    "version 7",
    "records ahead",
    "waits for the end",
    "bytes after the fields",
    "wells in parts",
    "does not wait for the last reply",
    "looks at the code",
)

#: Those that do not close a connection: how long that is watched, in seconds.
STAYING = {"stays when the connection ends": 0.2, "stays after the end": 0.2}


def check(mistake: str, slow: float) -> Report:
    def run(port: int) -> None:
        with Master(port, mistake) as master:
            master.run()

    return check_master(run, patience=STAYING.get(mistake, SOON), slow=slow)


class MasterCheckTest(unittest.TestCase):
    def test_broken_masters_are_caught_by_the_rule_that_they_break(self) -> None:
        missed = []
        with ThreadPoolExecutor(8) as pool:
            reports = pool.map(lambda mistake: check(mistake, 0.4), BROKEN)
            for (mistake, rule), report in zip(BROKEN.items(), reports):
                judgement = report.judgements[rule]
                if judgement.verdict != FAILED or report.status != 1:
                    missed.append(f"{mistake}: {rule} {judgement}, {report.broken}")
        self.assertEqual(missed, [])

    def test_toy_master_and_unusual_ones_are_right(self) -> None:
        habits = ("", *UNUSUAL)
        with ThreadPoolExecutor(8) as pool:
            for habit, report in zip(habits, pool.map(lambda habit: check(habit, 0.1), habits)):
                with self.subTest(habit):
                    wrong = {n: j for n, j in report.judgements.items() if j.verdict != PASSED}
                    self.assertEqual((wrong, report.status), ({}, 0))

    def test_master_may_end_a_run_by_leaving(self) -> None:
        report = check("goes without a word", 0.1)
        wrong = {n: j.why for n, j in report.judgements.items() if j.verdict != PASSED}
        why = "the master leaves without request 65520"
        self.assertEqual((wrong, report.status), ({"M17": why, "M18": why}, 0))

    def test_sheet_tells_what_no_rule_forbids(self) -> None:
        early, last = "speaks before the daemon's version", "leaves before the reply to 65520"
        extra, code = "puts bytes after requests without fields", "a reply with another code"
        leaving = (
            "by leaving, which holds the licence until the simulator finds its controller gone"
        )
        habits: Dict[str, Dict[str, str]] = {
            "": {early: "no", last: "no", extra: "no", code: "taken for the right one"},
            "speaks first": {early: "yes"},
            "does not wait for the last reply": {last: "yes"},
            "bytes after the fields": {extra: "yes"},
            "looks at the code": {code: "ends the run"},
            "goes without a word": {"ends a run": leaving},
        }
        with ThreadPoolExecutor(8) as pool:
            reports = pool.map(lambda habit: check(habit, 0.1), habits)
            for (habit, told), report in zip(habits.items(), reports):
                with self.subTest(habit):
                    self.assertEqual({row: report.sheet[row] for row in told}, told)

    def test_sheet_has_the_values_of_both_ways_each_another(self) -> None:
        sheet = check("", 0.1).sheet
        self.assertEqual(sheet["request 8 (run until)"], "days=30.0")
        self.assertIn("statuses=['OPEN']", sheet["request 11 (set status)"])
        point = sheet["reply to 4096 (next operating point), well 1"]
        self.assertRegex(
            point, r"status='OPEN'  oil_rate=1000\.125  gas_rate=1010\.125  water_rate="
        )
        table = sheet["reply to 4097 (next inflow table), well 1"]
        numbers = re.findall(r"\d+\.\d+(?:e-\d+)?", table)
        self.assertEqual((len(numbers), len(set(numbers))), (8 * 10 + 2 * 10,) * 2)

    def test_broken_request_leaves_the_other_rules_their_verdicts(self) -> None:
        report = check("half of a double", 0.1)
        self.assertIn("in the field 'days'", report.judgements["M13"].received)
        untried = [n for n, j in report.judgements.items() if j.verdict == NO_VERDICT]
        self.assertEqual(untried, ["M17", "M18"])

    def test_what_a_master_has_set_is_read_back(self) -> None:
        with meeting(Scenario("")) as daemon, daemon.run() as run:
            run.run_until(30.5)
            self.assertEqual(run.date() - run.start_date(), datetime.timedelta(days=30))
            run.set_status({"P1": "SHUT", "I1": "SHUT"})
            run.set_status({"I1": "OPEN"})
            run.set_uptime({"*": 0.25})
            run.set_constraints({ODD: {"OIL_PRODUCTION_RATE": 7.0}})
            self.assertEqual((run.wells()["P1"].status, run.wells()["I1"].status), ("SHUT", "OPEN"))
            points = run.operating_points(["P1", ODD])
            self.assertEqual((points[0].status, points[0].oil_rate), ("SHUT", 0.0))
            self.assertEqual((points[1].oil_rate, points[1].uptime), (7.0, 0.25))
            self.assertEqual((run.attach_source("G1", "S"), run.attach_source("I1", "S")), (1, 0))

    def test_nobody_comes(self) -> None:
        report = Check("127.0.0.1", 0, patience=1.0, wait=0.05).run()
        self.assertEqual(report.status, 3)
        self.assertIn("no master came", report.judgements["M01"].why)


if __name__ == "__main__":
    unittest.main()
