"""python3 -m jobmill.check: tells right from wrong, one line for each rule."""

from __future__ import annotations

import argparse
import getpass
import sys
from typing import Optional, Sequence

from ..errors import Error
from ..master_link import Handshake
from .daemon import Check as DaemonCheck
from .master import Check as MasterCheck
from .report import Report
from .simulator import Check as SimulatorCheck


def _arguments() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="python3 -m jobmill.check",
        description=__doc__,
        epilog="Status: 0 all rules kept, 1 one broken, 2 wrong usage, 3 no verdict on some rule.",
    )
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("--junit", metavar="FILE", help="also as JUnit XML")
    common.add_argument("--json", metavar="FILE", help="also as JSON")
    common.add_argument(
        "--patience", type=float, default=60.0, metavar="SECONDS", help="for each answer (60)"
    )
    subjects = parser.add_subparsers(dest="subject", required=True)

    simulator = subjects.add_parser("simulator", parents=[common], help="a simulator that listens")
    simulator.add_argument("host")
    simulator.add_argument("port", type=int)
    simulator.add_argument("--api", choices=("2016.2", "2017.2"), default="2017.2")
    simulator.add_argument(
        "--command", default="", help="starts it, once for each run; {port} stands for the port"
    )
    simulator.add_argument(
        "--everything",
        action="store_true",
        help="what the protocol has and the jobmill never asks, too",
    )

    simulator.add_argument(
        "--no-wells", action="store_true", help="the simulator's model has no wells"
    )

    daemon = subjects.add_parser("daemon", parents=[common], help="a daemon that listens")
    daemon.add_argument("host")
    daemon.add_argument("port", type=int)
    daemon.add_argument("--path", default="/tmp/", help="data path of the runs")
    daemon.add_argument("--root", default="CHECK", help="root name of the model")
    daemon.add_argument("--user", help="Windows user name; the login name if not given")
    daemon.add_argument("--api", choices=("2016.2", "2017.2"), default="2017.2")
    daemon.add_argument(
        "--simulator-port",
        type=int,
        default=0,
        help="be the simulator, too: the first of the two comms ports (-o PORT -n 2) of a daemon whose "
        "distribution script only prints the host of this check",
    )

    master = subjects.add_parser("master", parents=[common], help="a master that connects")
    master.add_argument("--listen", type=int, required=True, metavar="PORT", help="0: a free one")
    master.add_argument("--address", default="127.0.0.1", help="to listen on")
    master.add_argument(
        "--command", default="", help="starts it, once for each run; {port} stands for the port"
    )
    master.add_argument(
        "--wait",
        type=float,
        default=300.0,
        metavar="SECONDS",
        help="for the master to connect (300)",
    )
    master.add_argument(
        "--slow",
        type=float,
        default=2.0,
        metavar="SECONDS",
        help="how long a slow launch takes (2)",
    )
    return parser


def _check(options: argparse.Namespace) -> Report:
    if options.subject == "master":
        return MasterCheck(
            options.address,
            options.listen,
            command=options.command,
            patience=options.patience,
            wait=options.wait,
            slow=options.slow,
            say=lambda text: print(text, file=sys.stderr, flush=True),
        ).run()
    if options.subject == "daemon":
        user = options.user or getpass.getuser()
        first = options.simulator_port
        return DaemonCheck(
            options.host,
            options.port,
            Handshake(0, options.path, options.root, 1, options.api, user, "0"),
            simulator_ports=(first, first + 1) if first else (),
            patience=options.patience,
        ).run()
    return SimulatorCheck(
        options.host,
        options.port,
        version=options.api,
        command=options.command,
        patience=options.patience,
        everything=options.everything,
        no_wells=options.no_wells,
    ).run()


def main(arguments: Optional[Sequence[str]] = None) -> int:
    options = _arguments().parse_args(arguments)
    try:
        report = _check(options)
        for name, text in ((options.junit, report.as_junit), (options.json, report.as_json)):
            if name:
                with open(name, "w", encoding="utf-8") as file:
                    file.write(text())
    except KeyboardInterrupt:
        return 130
    except (Error, OSError) as error:
        print(f"jobmill.check: {error}", file=sys.stderr)
        return 2
    for line in report.lines():
        print(line)
    return report.status


if __name__ == "__main__":
    sys.exit(main())
