"""A controller that goes through all that the daemon may ask of a simulator."""

from __future__ import annotations

import contextlib
import datetime
import math
import re
import time
from collections import Counter
from typing import (
    Any,
    Callable,
    Dict,
    Iterator,
    List,
    Mapping,
    NamedTuple,
    Optional,
    Sequence,
    Tuple,
)

from .. import controller_link
from ..controller_link import CHUNK, END, READY, request
from ..errors import ConnectFailed
from ..simulator import METRIC
from ..stream import Stream
from .controller import INFLOW, OPERATING, RATES, Broken, Controller, Rows, Step, listed, told
from .report import PASSED, Report
from .simulator_rules import RULES
from .subject import Command

#: The limits that the jobmill sets, and the rates whose sum each of them limits.
LIMITS = {
    "LIQUID_PRODUCTION_RATE": ("OIL_PRODUCTION_RATE", "WATER_PRODUCTION_RATE"),
    "GAS_PRODUCTION_RATE": ("GAS_PRODUCTION_RATE",),
    "WATER_INJECTION_RATE": ("WATER_INJECTION_RATE",),
    "GAS_INJECTION_RATE": ("GAS_INJECTION_RATE",),
}
_PRODUCER, _WATER_INJECTOR = "PRODUCER", "WATER_INJECTOR"
#: Which of them belong to a well, by its type. Every other type is taken for a gas injector.
_LIMITS_OF = {
    _PRODUCER: ("LIQUID_PRODUCTION_RATE", "GAS_PRODUCTION_RATE"),
    _WATER_INJECTOR: ("WATER_INJECTION_RATE",),
}
_PRESSURES = ("BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE")
#: More than any well of the model flows, in either unit system: what the jobmill and masters send.
_OUT_OF_REACH_METRIC = {"GAS_PRODUCTION_RATE": 2817400000.0, "GAS_INJECTION_RATE": 2817400000.0}
_UNKNOWN = "NO SUCH NAME " + "x" * 300
#: Rules that need a well, and those that need one that flows.
_OF_WELLS = ("S22", "S23", "S24", "S25", "S46", "S47", "S53", "S62", "S68", "S69", "S70")
_OF_FLOW = (
    *("S34", "S35", "S36", "S37", "S38", "S57", "S58", "S59", "S60", "S61", "S63", "S64", "S65"),
    *("S66", "S67"),
)


class Flow(NamedTuple):
    """What a well flows, as one of the limits of its type counts it."""

    well: str
    limit: str
    rate: float


def measured(row: Mapping[str, Any], limit: str) -> float:
    """The rate of a well that a limit is about."""
    return sum(float(row.get(item, 0.0)) for item in LIMITS.get(limit, (limit,)))


def within(rate: float, limit: float) -> bool:
    return -1e-6 <= rate <= limit * 1.0001


def alike(one: object, other: object) -> bool:
    """Whether two answers are the same but for rounding."""
    if isinstance(one, float) and isinstance(other, float):
        return math.isclose(one, other, rel_tol=1e-6, abs_tol=1e-9)
    if isinstance(one, dict) and isinstance(other, dict):
        return set(one) == set(other) and all(alike(one[name], other[name]) for name in one)
    return one == other


class Check:
    """All sessions with one simulator."""

    def __init__(
        self,
        host: str,
        port: int,
        *,
        version: str = "2017.2",
        command: str = "",
        patience: float = 60.0,
        start: float = 30.0,
        ending: float = 10.0,
        everything: bool = False,
        no_wells: bool = False,
    ) -> None:
        """start, ending: seconds that the command has until it listens, and to end after a run.

        no_wells: the model has none, and "*" is rightly answered by nobody.
        """
        self.report = Report("simulator", RULES)
        self._host, self._port = host, port
        self._version = version
        self._command = command
        self._patience = patience
        self._start = start
        self._ending = ending
        self._everything = everything
        self._no_wells = no_wells

    def run(self) -> Report:
        report = self.report
        self._try(self._session, "S73")
        if not self._command:
            for rule in ("S52", "S56", "S73", "S74"):
                report.absent(rule, "it needs runs of its own: give --command")
        elif report.judgements["S01"].verdict == PASSED:
            # They can tell more when the first session has broken off.
            self._try(self._short_session, "S73")
            self._try(self._deserting_session, "S74")
        report.finish()
        return report

    def _try(self, session: Callable[[Controller], None], end: str) -> None:
        """end: the rule by which the simulator ends after this session."""
        report = self.report
        try:
            with self._connection(end) as controller:
                session(controller)
        except Broken as error:
            report.broken = report.broken or f"an earlier step failed: {error}"
        except (ArithmeticError, LookupError, TypeError, ValueError) as error:
            # An answer that broke a rule was used further on. The rule has been told.
            report.broken = report.broken or f"an earlier answer could not be used: {error!r}"

    @contextlib.contextmanager
    def _connection(self, end: str) -> Iterator[Controller]:
        started = Command(self._command, self._host, self._port) if self._command else None
        with started or contextlib.nullcontext():
            with self._reached(started) as stream:
                self.report.kept("S01")
                background = started is not None and started.status(0.0) is not None
                yield Controller(stream, self.report, self._patience)
            if background:
                self.report.absent(end, "the command leaves the simulator in the background")
            elif started is not None:
                ended = started.status(self._ending) is not None
                received = f"still there after {self._ending:g} seconds"
                self.report.judge(end, ended, "the end of the program", received)

    def _reached(self, started: Optional[Command]) -> Stream:
        until = time.monotonic() + (self._start if started else 0.0)
        while True:
            try:
                return Stream.connect(self._host, self._port, self._patience)
            except ConnectFailed as error:
                status = started.status(0.05) if started else None
                # A command that succeeds may have left the simulator in the background.
                if status or time.monotonic() >= until:
                    said = f", the command ended with the status {status}" if status else ""
                    said += f" and said: {started.complaint()}" if status and started else ""
                    self.report.failed("S01", "a connection", f"{error}{said}")
                    raise Broken("the simulator was not reached") from error
                if status == 0:
                    time.sleep(0.05)

    @contextlib.contextmanager
    def _demanded(self, rule: str, expected: str) -> Iterator[None]:
        """What is said within it keeps the rule, unless the conversation breaks on it."""
        try:
            yield
        except Broken:
            self.report.failed(rule, expected, "none that could be read")
            raise
        self.report.kept(rule)

    def _short_session(self, controller: Controller) -> None:
        self._set_up(controller)
        controller.step("S52", request("SHUTDOWN"))
        self.report.kept("S52")

    def _deserting_session(self, controller: Controller) -> None:
        """Leaves without SHUTDOWN."""
        target = self._set_up(controller).time + 1.5
        with self._demanded("S56", "a step answer"):
            step = controller.step("S56", request("CONTINUE_UNTIL", {"TIME": [target]}))
        kept = step.position == "END_SIMULATE" or (step.position, step.time) == (
            "BEGIN_NEWTON",
            target,
        )
        expected = f"BEGIN_NEWTON at {target} days, or END_SIMULATE"
        self.report.judge("S56", kept, expected, f"{step.position} at {step.time}")

    # The stages of the long session: what may end it comes last.

    def _session(self, controller: Controller) -> None:
        first = self._set_up(controller)
        with self._demanded("S54", "answers at MODEL_DEFINITION"):
            compositional = self._run_queries(controller, first)
            self._at_any_position(controller)
        step = controller.step("S12", request("CONTINUE"))
        self._judge_step(step)
        kept = step.position == "BEGIN_NEWTON"
        self.report.judge("S12", kept, "the position BEGIN_NEWTON", step.position)
        wells = self._well_queries(controller)
        components = self._fluid_queries(controller, compositional)
        if not compositional:
            self.report.absent("S69", "the run is not compositional")
        elif wells:
            self._composition(controller, list(wells), components)
        if self._everything:
            self._field_management_query(controller)
            self._constraint_queries(controller, list(wells))
        else:
            for rule in ("S29", "S30", "S31"):
                self.report.absent(rule, "the jobmill never asks for it: give --everything")
        self._setters(controller, wells)
        self._sources(controller, wells)
        self._awkward_requests(controller, list(wells))
        self._stepping(controller, step)

    def _at_any_position(self, controller: Controller) -> None:
        """What masters ask and set wherever the run stands."""
        _, wells = controller.wells("QWELLS_STR", ("TYPE", "STATUS"), ["*"])
        names = list(wells)[:20]
        controller.wells("QWELLS", OPERATING, names)
        statuses = {name: str(wells[name].get("STATUS", "OPEN")) for name in names[:1]}
        self._set_statuses(controller, statuses)

    def _set_up(self, controller: Controller) -> Step:
        controller.send(request("SETUP", {"VERSION": ["V2"]}))
        message = controller.hear("S06", "STARTED and ERRORS")
        shape = [(h.name, h.type, len(h.data)) for h in message]
        wanted = [("STARTED", "MESS", 0), ("ERRORS", "CSTR", 0), ("END", "MESS", 0)]
        if not self.report.judge(
            "S06", shape == wanted, "STARTED, ERRORS CSTR 0, END", told(message)
        ):
            raise Broken("the simulator did not accept the set-up")
        first = controller.hear_step("S07", "a step answer, unasked")
        self.report.kept("S07")
        self.report.judge(
            "S08", first.position == "MODEL_DEFINITION", "MODEL_DEFINITION", first.position
        )
        self._start_date: Optional[datetime.date] = None
        self._last = first
        self._ended = False
        self._judge_step(first)
        return first

    def _judge_step(self, step: Step) -> None:
        if step.position == "END_SIMULATE" and not self._ended:
            self._ended = True
            received = f"FINISHED, which leaves the master at {self._last.time} days"
            self.report.judge("S77", not step.finished, "STEP with END_SIMULATE", received)
        if step.finished:
            return
        known = step.position in controller_link.POSITIONS
        self.report.judge("S10", known, " or ".join(controller_link.POSITIONS), step.position)
        self.report.judge(
            "S14",
            step.time >= self._last.time,
            f"a time of {self._last.time} days or later",
            str(step.time),
        )
        self._last = step
        self._judge_date(step)

    def _judge_date(self, step: Step) -> None:
        try:
            date = datetime.date(*step.date[:3])  # type: ignore[arg-type]
        except ValueError as error:
            self.report.failed("S11", "year, month, day", f"{step.date}: {error}")
            return
        self.report.kept("S11")
        if self._start_date is not None:
            # A simulator may round within the day.
            days = (date - self._start_date).days
            self.report.judge(
                "S11",
                step.time - 1.001 <= days <= step.time + 0.001,
                f"the date {step.time} days after {self._start_date}",
                str(date),
            )

    def _run_queries(self, controller: Controller, first: Step) -> bool:
        report = self.report
        version = controller.run_items("QRESVR_STR", "VK_VERSION").get("VK_VERSION", ())
        kept = len(version) == 1 and bool(re.match(r"\d+(\.\d+)?", str(version[0])))
        report.judge("S49", kept, "one text such as 2017.2", str(version))
        units = controller.run_items("QRESVR_STR", "UNIT_SYSTEM").get("UNIT_SYSTEM", ())
        # Every other text means field units, so one that speaks of metric ones does not mean what it says.
        kept = len(units) == 1 and (units[0] == METRIC or "METRIC" not in str(units[0]).upper())
        report.judge("S48", kept, f"{METRIC}, or a text for field units", str(units))
        models = controller.run_items("QRESVR_STR", "FM_FLUID_MODEL", "RES_FLUID_MODEL")
        kept = len(models) == 2 and all(len(model) == 1 for model in models.values())
        report.judge("S50", kept, "both, with a text each", str(models))
        field, reservoir = (
            str(models.get(name, ("",))[0]) for name in ("FM_FLUID_MODEL", "RES_FLUID_MODEL")
        )
        compositional = field == "COMPOSITIONAL"
        # Every other text means black oil, whatever it speaks of.
        meant = "COMPOSITIONAL" in (field.strip().upper(), reservoir.strip().upper())
        report.judge("S71", compositional or not meant, "COMPOSITIONAL", f"{field}, {reservoir}")
        self._metric = units == (METRIC,)
        date = controller.run_items("QRESVR", "START_DATE").get("START_DATE", ())
        self._first_day = tuple(date[:3])
        try:
            self._start_date = datetime.date(*date[:3]) if len(date) == 6 else None
        except ValueError:
            self._start_date = None
        report.judge("S28", self._start_date is not None, "six integers, a date", str(date))
        self._judge_date(first)
        report.sheet.update(
            {
                "version": str(version[0]) if version else "unknown",
                "units": str(units[0]) if units else "unknown",
                "start date": str(self._start_date),
                "fluid": "compositional" if compositional else "black oil",
            }
        )
        return compositional

    def _well_queries(self, controller: Controller) -> Rows:
        report = self.report
        items, wells = controller.wells("QWELLS_STR", ("TYPE", "STATUS"), ["*"])
        names = list(wells)
        whole = sorted(items) == ["STATUS", "TYPE"] and all(wells.values())
        expected = "TYPE and STATUS of all wells"
        if self._no_wells:
            whole, expected = not names, "no wells, as --no-wells says"
        elif not names:
            whole, expected = False, f"{expected} (of a model without wells? give --no-wells)"
        report.judge("S45", whole, expected, f"{listed(items)}; {listed(names)}")
        types = Counter(str(row.get("TYPE")) for row in wells.values())
        report.sheet["wells"] = ", ".join(f"{n} {kind}" for kind, n in types.items()) or "none"
        for rule, asked in (("S46", OPERATING), ("S47", (*INFLOW, "BOTTOM_HOLE_PRESSURE"))):
            items, rows = controller.wells("QWELLS", asked, names, ordered=rule == "S46")
            missing = [item for item in asked if item not in items]
            absent = [name for name in names if name not in rows]
            kept = not missing and not absent
            if names:
                report.judge(
                    rule,
                    kept,
                    f"{listed(asked)} of all wells",
                    f"without {listed(missing + absent)}",
                )
        extras = ("WATER_CUT", "GAS_OIL_RATIO", "LIQUID_PRODUCTION_RATE")
        known, _ = controller.wells("QWELLS", extras, names[:1])
        report.sheet["further properties"] = listed(known)
        asked_wells = [*names[:1], _UNKNOWN]
        items, rows = controller.wells("QWELLS", (OPERATING[0], _UNKNOWN), asked_wells)
        # Without wells a simulator may not know which properties they would have.
        kept = (_UNKNOWN not in items or not names) and _UNKNOWN not in rows
        report.judge(
            "S51", kept, "neither of the two names", f"{listed(items)}; {listed(list(rows))}"
        )
        if names:
            self._repeated_queries(controller, wells)
        else:
            for rule in _OF_WELLS:
                report.absent(rule, "the model has no wells")
        return wells

    def _repeated_queries(self, controller: Controller, wells: Rows) -> None:
        report = self.report
        names = list(wells)
        controller.wells("QWELLS_STR", ["STATUS"], [names[0], names[-1], names[0]])
        _, rows = controller.wells("QWELLS", OPERATING, ["*"])
        report.judge("S62", set(rows) == set(names), listed(names), listed(list(rows)))
        _, again = controller.wells("QWELLS", OPERATING, names)
        changed = [name for name in names if not alike(rows.get(name, {}), again.get(name, {}))]
        report.judge(
            "S76", not changed or set(rows) != set(names), "the same twice", listed(changed)
        )
        for name, row in again.items():
            self._judge_type(name, str(wells[name].get("TYPE", "")), row)

    def _judge_type(self, well: str, found: str, row: Mapping[str, Any]) -> None:
        """Any other text makes a gas injector, so other wells need one of the two."""
        letters = "".join(c for c in found.upper() if c.isalpha())
        expected = found
        if found not in (_PRODUCER, _WATER_INJECTOR):
            if letters.startswith("PROD") or measured(row, "LIQUID_PRODUCTION_RATE") > 0.0:
                expected = _PRODUCER
            elif letters.startswith("WAT") or measured(row, "WATER_INJECTION_RATE") > 0.0:
                expected = _WATER_INJECTOR
        self.report.judge("S70", found == expected, f"{expected} of {well}"[:120], found)

    def _fluid_queries(self, controller: Controller, compositional: bool) -> int:
        """The number of components of the first model."""
        report = self.report
        headers = controller.query("QRFLUIDMODEL")
        fields = ("FLUIDMODELDNAME", "EOSNAME", "NCOMPS", "BIC")
        types = ("CSTR", "CSTR", "CSTR", "DOUB")
        models, at = 0, 0
        components = len(headers[2].data) if len(headers) > 2 else 0
        while at < len(headers):
            head = headers[at : at + 4]
            kept = [(h.name, h.type) for h in head] == list(zip(fields, types)) and all(
                len(h.data) == 1 for h in head[:2]
            )
            if not report.judge("S32", kept, f"{', '.join(fields)}", told(head)):
                return components
            models, at = models + 1, at + 4
            while at < len(headers) and headers[at].name == "EOSPROPNAME":
                values = headers[at + 1] if at + 1 < len(headers) else END
                kept = (values.name, values.type) == ("VALUES", "DOUB")
                report.judge(
                    "S32", kept, "EOSPROPNAME, then VALUES DOUB", told(headers[at : at + 2])
                )
                count = len(head[2].data)
                report.judge("S33", len(values.data) == count, f"{count} values", str(values))
                at += 2
        report.judge("S50", models > 0 or not compositional, "a fluid model", "none")
        report.absent("S32", "the run has no fluid model")
        report.absent("S33", "the run has no fluid model")
        report.sheet["fluid models"] = f"{models}, with {components} components" if models else "0"
        return components

    def _composition(self, controller: Controller, names: List[str], components: int) -> None:
        report = self.report
        items = [f"TOTAL_MOLE_FRACTION[{n}]" for n in range(components + 1)]
        wells = names[:50]
        known, rows = controller.wells("QWELLS", items, wells)
        report.judge("S69", known == items[1:], listed(items[1:]), listed(known))
        _, rates = controller.wells("QWELLS", RATES, wells)
        for name, row in rows.items():
            fractions = [float(row[item]) for item in items[1:] if item in row]
            total = sum(fractions)
            produces = measured(rates.get(name, {}), "LIQUID_PRODUCTION_RATE") > 0.0
            # A well through which nothing flows, or water alone, may have no composition.
            kept = abs(total - 1.0) <= 0.001 or (total == 0.0 and not produces)
            kept = kept and all(0.0 <= fraction <= 1.0 for fraction in fractions)
            expected = f"fractions from 0 to 1 of {name}"[:80] + " that add up to 1"
            report.judge("S69", kept, expected, f"{fractions[:12]}, together {total:g}")

    def _field_management_query(self, controller: Controller) -> None:
        headers = controller.query("QFMFLUIDMODEL")
        name = "NCOMPS" if self._version == "2017.2" else headers[0].name if headers else ""
        kept = not headers or [(h.name, h.type) for h in headers] == [(name, "CSTR")]
        self.report.judge("S31", kept, "nothing, or one list NCOMPS", told(headers))

    def _constraint_queries(self, controller: Controller, wells: List[str]) -> None:
        report = self.report
        headers = controller.query("QWCONSTRAINTS", {"WELNAMES": wells})
        kept = [h.name for h in headers] == ["WELLNAME", "ITEMS", "VALUES", "SETTERS"] * (
            len(headers) // 4
        )
        report.judge("S29", kept, "WELLNAME, ITEMS, VALUES, SETTERS for each well", told(headers))
        for at in range(1, len(headers), 4):
            lengths = [len(header.data) for header in headers[at : at + 3]]
            report.judge("S29", len(set(lengths)) == 1, "lists of one length", str(lengths))
        if not wells:
            report.absent("S30", "the model has no wells")
            return
        row = {
            "WELNAMES": wells,
            "PRESSURETYPES": ["BOTTOM_HOLE_PRESSURE"] * len(wells),
            "NPOINTS": [5],
            "SKEWNESS": [1.0],
        }
        headers = controller.query("QIPRDATA", row)
        points, curves = 0, 0
        expected: Tuple[str, ...] = ("WELLNAME",)
        for header in headers:
            if not report.judge("S30", header.name in expected, " or ".join(expected), str(header)):
                return
            if header.name == "NPOINTS":
                points = int(header.data[0])
            elif header.name == "VALUES":
                curves += 1
                report.judge("S30", len(header.data) == points, f"{points} values", str(header))
            expected = {
                "WELLNAME": ("NPOINTS",),
                "NPOINTS": ("ITEM", "WELLNAME"),
                "ITEM": ("VALUES",),
                "VALUES": ("ITEM", "WELLNAME"),
            }[header.name]
        report.absent("S30", "the simulator gives no inflow curves")
        report.sheet["inflow curves"] = str(curves)

    def _set_statuses(
        self, controller: Controller, statuses: Mapping[str, str], rule: str = "S20"
    ) -> None:
        names, values = list(statuses), list(statuses.values())
        row = {"WCLOSURE": ["USER"], "SETITEM": ["STATUS"], "WELNAMES": names, "VALUES": values}
        controller.set("SETWSTATUS", row, rule=rule)

    def _set_uptimes(
        self, controller: Controller, uptimes: Mapping[str, float], rule: str = "S20"
    ) -> None:
        names, values = list(uptimes), list(uptimes.values())
        row = {"SETITEM": ["UPTIME_FRACTION"], "WELNAMES": names, "VALUES": values}
        controller.set("SETWELLS", row, rule=rule)

    def _set_limits(
        self,
        controller: Controller,
        limits: Mapping[str, Mapping[str, float]],
        rule: str = "S20",
    ) -> None:
        rows = (
            {
                "WELLNAME": [well],
                "ITEMS": list(values),
                "VALUES": list(values.values()),
                "SETTERS": ["USER"] * len(values),
            }
            for well, values in limits.items()
        )
        controller.set("SETWCONSTRAINTS", *rows, rule=rule)

    def _statuses(self, controller: Controller, names: Sequence[str]) -> Dict[str, str]:
        _, rows = controller.wells("QWELLS_STR", ["STATUS"], names)
        return {name: str(rows.get(name, {}).get("STATUS", "no answer")) for name in names}

    def _numbers(self, controller: Controller, names: Sequence[str]) -> Rows:
        _, rows = controller.wells("QWELLS", OPERATING, names)
        return {name: rows.get(name, {}) for name in names}

    def _flowing(self, controller: Controller, wells: Rows) -> List[Flow]:
        return [
            Flow(name, limit, measured(row, limit))
            for name, row in self._numbers(controller, list(wells)).items()
            for limit in _LIMITS_OF.get(str(wells[name].get("TYPE")), ("GAS_INJECTION_RATE",))
            if measured(row, limit) > 0.0
        ]

    def _out_of_reach(self, limit: str) -> float:
        return _OUT_OF_REACH_METRIC.get(limit, 15898.7) if self._metric else 100000.0

    def _setters(self, controller: Controller, wells: Rows) -> None:
        report = self.report
        names = list(wells)
        flows = self._flowing(controller, wells) if wells else []
        if wells and not flows:
            # As the jobmill does before it makes inflow tables.
            self._set_statuses(controller, {name: "OPEN" for name in names})
            self._set_uptimes(controller, {name: 1.0 for name in names})
            flows = self._flowing(controller, wells)
        if not flows:
            for rule in (*_OF_FLOW, "S20"):
                report.absent(rule, "no well flows")
            return
        others = [flow for flow in flows if flow.well != flows[0].well]
        # A well on the same limit shows best whether each well of a message got its own.
        others.sort(key=lambda flow: flow.limit != flows[0].limit)
        if not others:
            for rule in ("S38", "S59", "S60"):
                report.absent(rule, "no second well flows")
        pair = [flows[0], *others[:1]]
        self._limits(controller, pair)
        self._each_limit(controller, flows)
        self._several_limits(controller, flows)
        self._pressure_limits(controller, flows)
        self._well_statuses(controller, pair)
        self._uptimes(controller, pair)
        self._all_wells(controller, wells, flows)
        self._without_sense(controller, names, flows[0])

    def _limits(self, controller: Controller, pair: List[Flow]) -> None:
        report = self.report
        well, limit, rate = pair[0]

        def limited(value: float) -> float:
            self._set_limits(controller, {well: {limit: value}})
            return measured(self._numbers(controller, [well])[well], limit)

        found = limited(rate / 2)
        expected = f"{limit} at most {rate / 2:g}"
        report.judge("S36", within(found, rate / 2), expected, f"{found:g}")
        low, again = limited(rate / 4), limited(rate / 2)
        kept = within(low, rate / 4) and (again > low or again == 0.0)
        expected = f"{limit} at most {rate / 4:g}, then {rate / 2:g} again"
        report.judge("S37", kept, expected, f"{low:g}, then {again:g}")
        if len(pair) > 1:
            third = {flow.well: {flow.limit: flow.rate / 3} for flow in pair}
            self._set_limits(controller, third)
            rows = self._numbers(controller, list(third))
            rates = [measured(rows[flow.well], flow.limit) for flow in pair]
            kept = all(within(now, flow.rate / 3) for now, flow in zip(rates, pair))
            expected = ", ".join(f"{flow.limit} at most {flow.rate / 3:g}" for flow in pair)
            report.judge("S38", kept, f"{expected} in the two wells", str(rates))
        self._lift(controller, pair)

    def _lift(self, controller: Controller, flows: Sequence[Flow]) -> None:
        """Takes limits off as the jobmill does: out of reach, all of a well together."""
        limits: Dict[str, Dict[str, float]] = {}
        for flow in flows:
            limits.setdefault(flow.well, {})[flow.limit] = self._out_of_reach(flow.limit)
        self._set_limits(controller, limits)

    def _each_limit(self, controller: Controller, flows: List[Flow]) -> None:
        """Each limit that the jobmill sets, on the first well that it concerns."""
        report = self.report
        obeyed = []
        for limit in LIMITS:
            flow = next((flow for flow in flows if flow.limit == limit), None)
            if flow is None:
                continue
            self._set_limits(controller, {flow.well: {limit: flow.rate / 2}})
            low = measured(self._numbers(controller, [flow.well])[flow.well], limit)
            kept = within(low, flow.rate / 2)
            report.judge("S66", kept, f"{limit} at most {flow.rate / 2:g}", f"{low:g}")
            obeyed += [limit] if kept else []
            value = self._out_of_reach(limit)
            self._lift(controller, [flow])
            free = measured(self._numbers(controller, [flow.well])[flow.well], limit)
            expected = f"{limit} of {flow.rate:g} again after the limit {value:g}"
            report.judge("S67", not kept or free >= flow.rate * 0.999, expected, f"{free:g}")
        for limit in ("OIL_PRODUCTION_RATE", "WATER_PRODUCTION_RATE"):
            # Masters may set them; which of them a simulator has is its own affair.
            for flow in flows:
                rate = measured(self._numbers(controller, [flow.well])[flow.well], limit)
                if rate > 0.0:
                    self._set_limits(controller, {flow.well: {limit: rate / 2}})
                    low = measured(self._numbers(controller, [flow.well])[flow.well], limit)
                    obeyed += [limit] if within(low, rate / 2) else []
                    self._set_limits(controller, {flow.well: {limit: self._out_of_reach(limit)}})
                    break
        report.sheet["limits obeyed"] = ", ".join(obeyed) or "none"

    def _several_limits(self, controller: Controller, flows: List[Flow]) -> None:
        report = self.report
        of_wells: Dict[str, List[Flow]] = {}
        for flow in flows:
            of_wells.setdefault(flow.well, []).append(flow)
        well, both = next(
            ((well, both) for well, both in of_wells.items() if len(both) > 1), ("", [])
        )
        if not both:
            report.absent("S64", "no well has two limits that the jobmill sets")
        for tight in both:
            values = {
                flow.limit: flow.rate / 2 if flow == tight else self._out_of_reach(flow.limit)
                for flow in both
            }
            self._set_limits(controller, {well: values})
            found = measured(self._numbers(controller, [well])[well], tight.limit)
            received = f"{found:g} after {', '.join(values)} in one message"
            expected = f"{tight.limit} at most {tight.rate / 2:g}"
            report.judge("S64", within(found, tight.rate / 2), expected, received)
        # A limit, then everything else of the well.
        flow = both[0] if both else flows[0]
        well, limit = flow.well, flow.limit
        self._set_limits(controller, {well: {limit: flow.rate / 2}})
        other = both[1].limit if both else "TUBING_HEAD_PRESSURE"
        pressure = self._numbers(controller, [well])[well].get(other, 0.0)
        value = self._out_of_reach(other) if both else float(pressure)
        self._set_limits(controller, {well: {other: value}})
        self._set_statuses(controller, {well: "SHUT"})
        self._set_statuses(controller, {well: "OPEN"})
        found = measured(self._numbers(controller, [well])[well], limit)
        expected = f"{limit} at most {flow.rate / 2:g} after {other} and a status were set"
        report.judge("S65", within(found, flow.rate / 2), expected, f"{found:g}")
        self._lift(controller, both or [flow])

    def _pressure_limits(self, controller: Controller, flows: List[Flow]) -> None:
        """Not every simulator has limits of pressures; one that does must let go of them, too."""
        report = self.report
        obeyed = []
        for flow in {flow.limit: flow for flow in reversed(flows)}.values():
            injects = "INJECTION" in flow.limit
            for item in _PRESSURES:
                before = self._numbers(controller, [flow.well])[flow.well]
                rate, pressure = measured(before, flow.limit), float(before.get(item, 0.0))
                tight = pressure * 0.9 if injects else pressure * 1.1 + 1.0
                self._set_limits(controller, {flow.well: {item: tight}})
                low = measured(self._numbers(controller, [flow.well])[flow.well], flow.limit)
                off = 100000.0 if injects else 0.0
                self._set_limits(controller, {flow.well: {item: off}})
                free = measured(self._numbers(controller, [flow.well])[flow.well], flow.limit)
                if low < rate * 0.999:
                    obeyed.append(item)
                    # The tubing may hold a well back even so.
                    kept = free > low * 1.0001
                    expected = f"{flow.limit} above {low:g} again after {item} {off:g}"
                    report.judge("S67", kept, expected, f"{free:g}")
                # So that the run goes on as it would have.
                self._set_limits(controller, {flow.well: {item: pressure}})
        known = [item for item in _PRESSURES if item in obeyed]
        report.sheet["limits obeyed"] = ", ".join([report.sheet["limits obeyed"], *known])

    def _well_statuses(self, controller: Controller, pair: List[Flow]) -> None:
        report = self.report
        well, limit, _ = pair[0]
        for text in ("SHUT", "OPEN"):
            self._set_statuses(controller, {well: text})
            found = self._statuses(controller, [well])[well]
            report.judge("S34", found == text, text, found)
            row = self._numbers(controller, [well])[well]
            rates = [item for item in RATES if abs(float(row.get(item, 0.0))) > 1e-6]
            if text == "SHUT":
                report.judge("S57", not rates, f"no rates of {well}"[:80], listed(rates))
            else:
                found = f"{measured(row, limit):g}"
                report.judge("S57", bool(rates), f"rates of {well}, OPEN again"[:80], found)
        if len(pair) < 2:
            return
        for texts in (("SHUT", "SHUT"), ("OPEN", "SHUT"), ("SHUT", "OPEN"), ("OPEN", "OPEN")):
            wanted = {flow.well: text for flow, text in zip(pair, texts)}
            self._set_statuses(controller, wanted)
            got = self._statuses(controller, list(wanted))
            report.judge("S59", got == wanted, str(wanted), str(got))

    def _uptimes(self, controller: Controller, pair: List[Flow]) -> None:
        report = self.report
        well, limit, _ = pair[0]

        def uptimes(names: Sequence[str]) -> Dict[str, object]:
            rows = self._numbers(controller, names)
            return {name: rows[name].get("UPTIME_FRACTION", "no answer") for name in names}

        before = uptimes([flow.well for flow in pair])
        for fraction in (0.5, 0.0, 1.0):
            self._set_uptimes(controller, {well: fraction})
            row = self._numbers(controller, [well])[well]
            found = row.get("UPTIME_FRACTION", "no answer")
            report.judge("S35", found == fraction, str(fraction), str(found))
            if fraction == 0.0:
                rate = measured(row, limit)
                report.judge("S58", abs(rate) <= 1e-6, f"{limit} of 0", f"{rate:g}")
        if len(pair) > 1:
            wanted = {flow.well: fraction for flow, fraction in zip(pair, (0.5, 0.25))}
            self._set_uptimes(controller, wanted)
            got = uptimes(list(wanted))
            report.judge("S60", got == wanted, str(wanted), str(got))
        back = {name: float(value) for name, value in before.items() if isinstance(value, float)}
        self._set_uptimes(controller, back)

    def _all_wells(self, controller: Controller, wells: Rows, flows: List[Flow]) -> None:
        report = self.report
        names = list(wells)
        before = self._statuses(controller, names)
        numbers = self._numbers(controller, names)
        # A status of the simulator's own may be one that cannot be changed.
        ordinary = [name for name in names if before[name] in ("OPEN", "SHUT")]
        self._set_statuses(controller, {"*": "SHUT"})
        found = self._statuses(controller, names)
        still = [name for name in ordinary if found[name] != "SHUT"]
        report.judge("S61", not still, "SHUT, all wells", f"not SHUT: {listed(still)}")
        _, shut = controller.wells("QWELLS_STR", ("TYPE", "STATUS"), ["*"])
        left = [name for name in names if name not in shut]
        report.judge("S45", not left, "all wells, SHUT ones too", f"without {listed(left)}")
        self._set_statuses(controller, {name: before[name] for name in ordinary})

        self._set_uptimes(controller, {"*": 0.5})
        rows = self._numbers(controller, names)
        still = [name for name in names if rows[name].get("UPTIME_FRACTION") != 0.5]
        report.judge("S61", not still, "an uptime of 0.5, all wells", f"not so: {listed(still)}")
        uptimes = {name: numbers[name].get("UPTIME_FRACTION", 1.0) for name in names}
        self._set_uptimes(controller, uptimes)

        limit, value = flows[0].limit, flows[0].rate / 3
        concerned = [flow.well for flow in flows if flow.limit == limit]
        self._set_limits(controller, {"*": {limit: value}})
        rows = self._numbers(controller, concerned)
        over = [name for name in concerned if not within(measured(rows[name], limit), value)]
        report.judge("S61", not over, f"{limit} at most {value:g}", f"more: {listed(over)}")
        self._set_limits(controller, {"*": {limit: self._out_of_reach(limit)}})

    def _without_sense(self, controller: Controller, names: List[str], flow: Flow) -> None:
        """Setters that a simulator can do nothing with."""
        report = self.report
        well, limit = flow.well, flow.limit
        statuses, numbers = self._statuses(controller, names), self._numbers(controller, names)
        with self._demanded("S63", "READY"):
            self._set_statuses(controller, {_UNKNOWN: "SHUT"}, "S63")
            self._set_uptimes(controller, {_UNKNOWN: 0.5}, "S63")
            self._set_uptimes(controller, {well: 7.0}, "S63")
            self._set_limits(controller, {_UNKNOWN: {limit: flow.rate / 10}}, "S63")
            self._set_limits(controller, {well: {_UNKNOWN: 1.0}}, "S63")
            self._set_limits(controller, {well: {}}, "S63")
            if self._version == "2017.2":
                self._set_source(controller, _UNKNOWN, "S63")
                row = {"WELLNAME": [_UNKNOWN], "STNAME": ["SOURCE"], "STPHASE": ["GAS"]}
                accepted = self._attach_source(controller, row, "S63")
                report.judge("S63", not accepted, "STRET 0 for an unknown well", "another")
            # Whether a simulator has more statuses than two, it knows itself.
            self._set_statuses(controller, {well: _UNKNOWN}, "S63")
            self._set_statuses(controller, {well: "OPEN"}, "S63")
        new_statuses = self._statuses(controller, names)
        new_numbers = self._numbers(controller, names)
        changed = [
            name
            for name in names
            if new_statuses[name] != statuses[name] or not alike(new_numbers[name], numbers[name])
        ]
        report.judge("S63", not changed, "wells as they were", f"changed: {listed(changed)}")
        with self._demanded("S63", "READY for a limit that is not a number"):
            self._set_limits(controller, {well: {limit: math.nan}}, "S63")
        self._numbers(controller, [well])
        self._set_limits(controller, {well: {limit: self._out_of_reach(limit)}})

    def _sources(self, controller: Controller, wells: Rows) -> None:
        report = self.report
        if self._version != "2017.2":
            for rule in ("S39", "S40"):
                report.absent(rule, "version 2016.2 has no external sources")
            return
        well = next((w for w, row in wells.items() if row.get("TYPE") == "GAS_INJECTOR"), "")
        well = well or next(iter(wells), "W")
        row = {"WELLNAME": [well], "STNAME": ["SOURCE"], "STPHASE": ["GAS"]}
        accepted = self._attach_source(controller, row, "S39")
        report.sheet["external sources"] = "accepted" if accepted else "refused"
        self._set_source(controller, "SOURCE", "S40")

    def _attach_source(self, controller: Controller, row: Dict[str, List[str]], rule: str) -> bool:
        controller.quiet()
        controller.send(request("CREATE_FLDSRCEXT", row))
        message = controller.hear(rule, "REPLY and STRET")
        shape = [(h.name, h.type, len(h.data)) for h in message]
        wanted = [("REPLY", "MESS", 0), ("STRET", "INTE", 1), ("END", "MESS", 0)]
        kept = self.report.judge(rule, shape == wanted, "REPLY, STRET INTE 1, END", told(message))
        if message != READY:
            controller.expect_ready(rule)
        return kept and bool(message[1].data[0])

    def _set_source(self, controller: Controller, source: str, rule: str) -> None:
        row = {
            "STNAME": [source],
            "STCMPVALUES": [0.75, 0.25],
            "STCMPNAMES": ["TOTAL_MOLE_FRACTION[1]", "TOTAL_MOLE_FRACTION[2]"],
            "STPHASE": [""],
        }
        controller.set("SETWSTRE", row, rule=rule)

    def _awkward_requests(self, controller: Controller, wells: List[str]) -> None:
        report = self.report
        items = ["TYPE", "STATUS"]
        asked = wells or ["*"]
        _, plain = controller.wells("QWELLS_STR", items, asked)

        def tried(rule: str, names: List[str], chunk: int = CHUNK, packet: int = 0) -> None:
            with self._demanded(rule, "an answer"):
                _, rows = controller.wells("QWELLS_STR", items, names, chunk=chunk, packet=packet)
            right = rows == plain
            report.judge(rule, right, "the same answer as before", f"rows for {listed(list(rows))}")

        with self._demanded("S44", "answers to requests with empty lists"):
            controller.wells("QWELLS", [], [])
            controller.run_items("QRESVR_STR")
            controller.query("QWCONSTRAINTS", {"WELNAMES": []})
            self._set_uptimes(controller, {})
        tried("S41", asked, chunk=1)
        tried("S42", asked, packet=1 + len(asked) // 20)
        tried("S43", [*(f"NO SUCH WELL {i:06}" for i in range(5000)), *asked])
        # Whoever answers a property as often as it was asked for, has more than one chunk to say.
        controller.wells("QWELLS_STR", ["STATUS"] * 8000, asked[:1])
        report.absent("S03", "no answer had more than 65,536 bytes")

    def _stepping(self, controller: Controller, begin: Step) -> None:
        report = self.report
        at = begin.time
        step = controller.step("S76", request("CONTINUE_UNTIL", {"TIME": [at]}))
        self._judge_step(step)
        kept = step.time == at or step.finished
        report.judge("S76", kept, f"still {at} days after queries and setters", str(step.time))
        for target in (at + 1.0, at + 10.25):
            step = controller.step("S13", request("CONTINUE_UNTIL", {"TIME": [target]}))
            self._judge_step(step)
            kept = step.time == target or step.position == "END_SIMULATE"
            report.judge(
                "S13", kept, f"{target} days, or END_SIMULATE", f"{step.position} at {step.time}"
            )
        here = self._last
        if self._ended:
            why = (
                f"the simulation ended at day {here.time:g}: check a model of more than {target:g}"
            )
            report.unknown("S15", f"{why} days")
        else:
            step = controller.step("S14", request("CONTINUE_UNTIL", {"TIME": [here.time - 1.0]}))
            self._judge_step(step)
            report.judge("S14", step.time == here.time, f"still {here.time} days", str(step.time))
            step = controller.step("S15", request("CONTINUE"))
            self._judge_step(step)
            kept = step.time > here.time or step.position == "END_SIMULATE"
            report.judge("S15", kept, f"a time after {here.time}, or the end", str(step.time))
        step = controller.step("S13", request("CONTINUE_UNTIL", {"TIME": [1e9]}))
        self._judge_step(step)
        ended = step.position == "END_SIMULATE"
        report.judge("S13", ended, "END_SIMULATE", f"{step.position} at {step.time}")
        report.sheet["end"] = f"{self._last.time:g} days"
        step = controller.step("S16", request("CONTINUE"))
        self._judge_step(step)
        report.judge("S16", step.position == "END_SIMULATE", "the end", step.position)
        report.sheet["answer after the end"] = "FINISHED" if step.finished else "STEP"
        with self._demanded("S55", "answers after the end"):
            self._at_any_position(controller)
            date = controller.run_items("QRESVR", "START_DATE").get("START_DATE", ())
        kept = len(date) == 6 and tuple(date[:3]) == self._first_day
        report.judge("S75", kept, f"{self._first_day} as before", str(date))
        controller.step("S17", request("SHUTDOWN"))
        report.kept("S17")
