"""What `jobmill.check master` is worth: broken masters and unusual ones."""

from __future__ import annotations

import unittest
from concurrent.futures import ThreadPoolExecutor
from typing import Dict

from support import SOON, check_master

from jobmill.check.master import Check
from jobmill.check.report import FAILED, PASSED, Report
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
    "takes a packet for a frame": "M09",
    "has room for 65,536 bytes": "M10",
    "no request 1": "M11",
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
}
UNUSUAL = (
    "one byte a packet",
    "speaks first",
    "version 7",
    "records ahead",
    "waits for the end",
    "bytes behind the fields",
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
        for habit in ("", *UNUSUAL):
            with self.subTest(habit):
                report = check(habit, 0.1)
                wrong = {n: j for n, j in report.judgements.items() if j.verdict != PASSED}
                self.assertEqual((wrong, report.status), ({}, 0))

    def test_master_may_end_a_run_by_leaving(self) -> None:
        report = check("goes without a word", 0.1)
        wrong = {n: j.why for n, j in report.judgements.items() if j.verdict != PASSED}
        why = "the master leaves without request 65520"
        self.assertEqual((wrong, report.status), ({"M17": why, "M18": why}, 0))

    def test_nobody_comes(self) -> None:
        report = Check("127.0.0.1", 0, patience=1.0, wait=0.05).run()
        self.assertEqual(report.status, 3)
        self.assertIn("no master came", report.judgements["M01"].why)


if __name__ == "__main__":
    unittest.main()
