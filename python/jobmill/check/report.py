"""Rules, verdicts on them, and how they are told: lines, JUnit XML, JSON, an exit status."""

from __future__ import annotations

import json
import xml.etree.ElementTree as xml
from dataclasses import dataclass, field
from typing import Dict, Iterable, List, NamedTuple, Tuple

PASSED = "passed"
FAILED = "FAILED"
NOT_APPLICABLE = "not applicable"
#: Something before it went wrong, or no answer came that could be judged.
NO_VERDICT = "no verdict"

#: The version of the rules. A rule keeps its name for ever; what it demands may be corrected.
VERSION = 1


class Rule(NamedTuple):
    name: str
    sentence: str
    page: str
    section: str


def rules(page: str, *rows: Tuple[str, str, str]) -> List[Rule]:
    """Rules of one page, each as name, section, sentence."""
    return [Rule(name, sentence, page, section) for name, section, sentence in rows]


@dataclass
class Judgement:
    verdict: str
    why: str = ""
    expected: str = ""
    received: str = ""


def shown(data: bytes) -> str:
    """Bytes as the pages show them."""
    more = f" ... {len(data)} bytes in all" if len(data) > 96 else ""
    return data[:96].hex(" ") + more if data else "nothing"


@dataclass
class Report:
    """Collects verdicts. A rule that failed once has failed, however often it was kept."""

    subject: str
    rules: List[Rule]
    #: What the subject can do and does, by what it is.
    sheet: Dict[str, str] = field(default_factory=dict)
    judgements: Dict[str, Judgement] = field(default_factory=dict)
    #: Why rules without a verdict have none.
    broken: str = ""

    def kept(self, name: str) -> None:
        self._judge(name, Judgement(PASSED), over=(NOT_APPLICABLE,))

    def failed(self, name: str, expected: str, received: str) -> None:
        self._judge(
            name,
            Judgement(FAILED, "", expected, received),
            over=(PASSED, NOT_APPLICABLE, NO_VERDICT),
        )

    def unknown(self, name: str, why: str) -> None:
        self._judge(name, Judgement(NO_VERDICT, why), over=(PASSED, NOT_APPLICABLE))

    def absent(self, name: str, why: str) -> None:
        self._judge(name, Judgement(NOT_APPLICABLE, why))

    def judge(self, name: str, kept: bool, expected: str, received: str) -> bool:
        if kept:
            self.kept(name)
        else:
            self.failed(name, expected, received)
        return kept

    def finish(self) -> None:
        """Gives every rule a verdict: what was not tried is never taken for kept."""
        for rule in self.rules:
            self.judgements.setdefault(
                rule.name, Judgement(NO_VERDICT, self.broken or "it was not tried")
            )

    @property
    def status(self) -> int:
        """0 when nothing is wrong, 1 when a rule was broken, 3 when there was no verdict on a rule."""
        verdicts = [judgement.verdict for judgement in self.judgements.values()]
        if FAILED in verdicts:
            return 1
        return 3 if NO_VERDICT in verdicts or len(verdicts) < len(self.rules) else 0

    def count(self, verdict: str) -> int:
        return sum(judgement.verdict == verdict for judgement in self.judgements.values())

    def lines(self) -> Iterable[str]:
        for rule in self.rules:
            found = self.judgements[rule.name]
            place = f"({rule.page}, {rule.section})"
            yield f"{rule.name}  {found.verdict:14}  {rule.sentence} {place}"
            if found.why:
                yield f"       because {found.why}"
            if found.verdict == FAILED:
                yield f"       expected: {found.expected}"
                yield f"       received: {found.received}"
        if self.sheet:
            yield ""
            yield f"What this {self.subject} does"
            width = max(map(len, self.sheet))
            yield from (f"  {name:{width}}  {value}" for name, value in self.sheet.items())
        yield ""
        counts = (PASSED, FAILED, NOT_APPLICABLE, NO_VERDICT)
        yield f"{len(self.rules)} rules: " + ", ".join(f"{self.count(v)} {v}" for v in counts)

    def as_json(self) -> str:
        rows = [{**rule._asdict(), **vars(self.judgements[rule.name])} for rule in self.rules]
        whole = {
            "subject": self.subject,
            "version": VERSION,
            "status": self.status,
            "rules": rows,
            "sheet": self.sheet,
        }
        return json.dumps(whole, indent=1) + "\n"

    def as_junit(self) -> str:
        suite = xml.Element(
            "testsuite",
            name=f"jobmill.check {self.subject}",
            tests=str(len(self.rules)),
            failures=str(self.count(FAILED)),
            errors=str(self.count(NO_VERDICT)),
            skipped=str(self.count(NOT_APPLICABLE)),
        )
        for rule in self.rules:
            found = self.judgements[rule.name]
            case = xml.SubElement(
                suite, "testcase", classname=rule.page, name=f"{rule.name} {rule.sentence}"
            )
            if found.verdict == FAILED:
                text = f"expected: {found.expected}\nreceived: {found.received}"
                xml.SubElement(case, "failure", message=rule.sentence).text = _printable(text)
            elif found.verdict == NO_VERDICT:
                xml.SubElement(case, "error", message=_printable(found.why))
            elif found.verdict == NOT_APPLICABLE:
                xml.SubElement(case, "skipped", message=_printable(found.why))
        return xml.tostring(suite, encoding="unicode") + "\n"

    def _judge(self, name: str, judgement: Judgement, over: Tuple[str, ...] = ()) -> None:
        assert any(rule.name == name for rule in self.rules), name
        found = self.judgements.get(name)
        if found is None or found.verdict in over:
            self.judgements[name] = judgement


def _printable(text: str) -> str:
    # XML 1.0 has no way to write the other control characters.
    return (
        "".join(c if c >= " " or c in "\n\t" else "?" for c in text)
        .encode("utf-8", "replace")
        .decode("utf-8")
    )
