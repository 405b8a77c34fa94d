"""Counts what requests cost without looking at a clock, and compares it with the figures kept.

  counts.py --scenario PROGRAM --allocations LIBRARY [--told FILE] [--json FILE] KIND...
  counts.py --scenario PROGRAM --allocations LIBRARY --record --compiler NAME KIND...
  counts.py --list KIND

KIND is "calls" (system calls, counted by strace), "allocations" (by a library that is loaded in
front) or "instructions" (by valgrind). Ends with 1 when a figure has grown by more than 5 %. One
that has fallen by more is told, in FILE as well. With --record the figures are written anew. With --only NAME one figure
of a kind is counted, of those that --list names.

What is counted is the controller alone, inside bench_scenario. Every scenario runs twice, with N and
with 2 N requests, and the difference is what N requests cost: start, set-up and end, which depend on
the machine, fall out of it.
"""
import argparse
import json
import pathlib
import re
import subprocess
import sys
import tempfile

FIGURES = pathlib.Path(__file__).with_name("figures.txt")
ALLOWED = 1.05
RUN_SECONDS = 50

# Long answers come in as many pieces as the system likes, so system calls are counted with short
# ones. What grows with the square of the wells shows in the others.
FLOWS = [
    # flow, wells or variables, N, what is counted
    ("days", 0, 200, "calls allocations instructions"),
    ("logged", 0, 200, "calls allocations instructions"),
    ("flag", 0, 200, "calls allocations instructions"),
    ("version", 0, 100, "calls allocations instructions"),
    ("until", 0, 100, "calls allocations instructions"),
    ("variables", 1, 100, "calls allocations instructions"),
    ("variables", 8, 100, "calls allocations instructions"),
    ("status", 200, 20, "calls"),
    ("status", 5000, 2, "allocations instructions"),
    ("data", 1, 50, "calls allocations instructions"),
    ("data", 200, 2, "calls"),
    ("data", 1000, 2, "allocations instructions"),
    ("reordered", 1000, 2, "allocations instructions"),
    ("tables", 1, 20, "calls allocations instructions"),
    ("tables", 100, 2, "calls"),
    ("tables", 1000, 2, "allocations instructions"),
]


class Uncountable(Exception):
    """The tools do not work here."""


class Scenario:
    def __init__(self, program, library):
        self.program = program
        self.library = library

    def run(self, flow, size, repeats, prefix=(), environment=None):
        """What it says on standard error."""
        done = subprocess.run([*prefix, self.program, flow, str(size), str(repeats)],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                              env=environment or {}, timeout=RUN_SECONDS, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"{flow} {size}: status {done.returncode}\n{done.stderr}")
        return done.stderr

    def calls(self, flow, size, repeats):
        with tempfile.TemporaryDirectory() as directory:
            trace = pathlib.Path(directory, "trace")
            # Without -f: of this process, not of its children.
            self.run(flow, size, repeats, ["/usr/bin/strace", "-o", trace])
            # A call is a line that begins with its name; signals and the exit are marked.
            return sum(bool(re.match(r"\w+\(", line)) for line in open(trace, encoding="latin-1"))

    def allocations(self, flow, size, repeats):
        said = self.run(flow, size, repeats, environment={"LD_PRELOAD": self.library})
        return int(re.search(r"allocations: (\d+)", said)[1])

    def instructions(self, flow, size, repeats):
        with tempfile.TemporaryDirectory() as directory:
            profile = pathlib.Path(directory, "profile")
            # The children write profiles of their own, under their numbers.
            said = self.run(flow, size, repeats, [
                "/usr/bin/valgrind", "--tool=callgrind", f"--callgrind-out-file={profile}.%p",
                "--skip-plt=no", "--toggle-collect=ConnectorSocketWrapper::ProcessRequests*"])
            process = re.match(r"==(\d+)==", said)[1]
            return own_instructions(f"{profile}.{process}", self.program)


def own_instructions(profile, program):
    """What the program's own functions have executed. The libraries are left out: the C library
    chooses among its ways to copy by the processor that it meets. So is what the linker puts between
    a call and a library, which has addresses and no names: one linker takes one instruction there,
    another three."""
    objects = {}
    functions = {}
    total = 0
    own = False
    named = False
    called = False
    for line in open(profile, encoding="utf-8"):
        if match := re.match(r"(c?)ob=\((\d+)\)(?: (.*))?", line):
            objects.setdefault(match[2], match[3])
            if not match[1]:
                own = objects[match[2]] == program
        elif match := re.match(r"(c?)fn=\((\d+)\)(?: (.*))?", line):
            functions.setdefault(match[2], match[3])
            if not match[1]:
                named = not functions[match[2]].startswith("0x")
        elif line.startswith("calls="):
            called = True  # the next line is the cost of what is called, counted there as well
        elif line[0].isdigit() or line[0] in "+-*":
            if own and named and not called:
                total += int(line.split()[1])
            called = False
    if total == 0:
        raise RuntimeError("valgrind has seen no instruction of " + program)
    return total


def measure(scenario, kind, flow, size, repeats):
    count = getattr(scenario, kind)
    return round((count(flow, size, 2 * repeats) - count(flow, size, repeats)) / repeats)


def label(flow, size):
    return f"{flow} {size}" if size else flow


def names_of(kind):
    return [label(flow, size) for flow, size, _, kinds in FLOWS if kind in kinds.split()]


def read_figures():
    """The figures kept, by kind and label, and the lines of comment above them."""
    lines = FIGURES.read_text(encoding="utf-8").splitlines()
    figures = {}
    for line in lines:
        if line and not line.startswith("#"):
            kind, figure, name = line.split(None, 2)
            figures[kind, name] = int(figure)
    return figures, [line for line in lines if line.startswith("#")]


def write_figures(figures, comment):
    order = [(kind, name) for kind in ("calls", "allocations", "instructions")
             for name in names_of(kind)]
    lines = [f"{kind:<13} {figures[kind, name]:>10}  {name}" for kind, name in order]
    FIGURES.write_text("\n".join(comment + lines) + "\n", encoding="utf-8")


def judge(kind, name, now, kept):
    """The line for people, and whether the figure is "grown", "fallen" or "kept"."""
    if kept is None:
        return f"{kind}, {name}: {now}, nothing kept to compare with", "grown"
    line = f"{kind}, {name}: {now}, kept {kept}"
    if kept:
        line += f" ({100 * (now / kept - 1):+.1f} %)"
    if now > kept * ALLOWED:
        return line, "grown"
    return line, "fallen" if now * ALLOWED < kept else "kept"


def check_tools(kinds):
    """strace needs more than to be there: some containers forbid it."""
    if "calls" in kinds:
        done = subprocess.run(["/usr/bin/strace", "-o", "/dev/null", "/bin/true"],
                              stderr=subprocess.PIPE, text=True, check=False)
        if done.returncode != 0:
            raise Uncountable("strace cannot trace here: " + done.stderr.strip())


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("kinds", nargs="+", choices=["calls", "allocations", "instructions"])
    parser.add_argument("--scenario")
    parser.add_argument("--allocations")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--only")
    parser.add_argument("--record", action="store_true")
    parser.add_argument("--compiler")
    parser.add_argument("--json", type=pathlib.Path)
    parser.add_argument("--told", type=pathlib.Path)
    options = parser.parse_args()
    if options.list:
        print(*(name for kind in options.kinds for name in names_of(kind)), sep="\n")
        return 0
    if not options.scenario or not options.allocations:
        parser.error("--scenario and --allocations are needed to count")
    try:
        check_tools(options.kinds)
    except Uncountable as reason:
        print(reason)
        return 77  # ctest takes it for "skipped"
    scenario = Scenario(options.scenario, options.allocations)
    kept, comment = read_figures()
    fresh = dict(kept)
    found = {"grown": [], "fallen": [], "kept": []}
    for kind in options.kinds:
        for flow, size, repeats, kinds in FLOWS:
            name = label(flow, size)
            if kind not in kinds.split() or options.only not in (None, name):
                continue
            fresh[kind, name] = measure(scenario, kind, flow, size, repeats)
            line, verdict = judge(kind, name, fresh[kind, name], kept.get((kind, name)))
            print(line, flush=True)
            found[verdict].append(line)
    if options.json:
        rows = [{"name": f"{name}, {kind}", "unit": kind, "value": fresh[kind, name]}
                for kind, name in fresh if kind in options.kinds]
        options.json.write_text(json.dumps(rows, indent=2) + "\n", encoding="utf-8")
    if options.record:
        write_figures(fresh, [line for line in comment if "Compiler:" not in line] +
                      ["# Compiler: " + options.compiler])
        return 0
    if found["grown"]:
        print("\nGrown by more than 5 %:", *found["grown"], sep="\n  ")
        print("If that has to be, keep the new figures with: scripts/bench --record-counts")
    if found["fallen"]:
        text = "\n  ".join(["Fallen by more than 5 %:", *found["fallen"]])
        text += "\nSo that they stay there: scripts/bench --record-counts"
        print("\n" + text)
        if options.told:
            options.told.write_text(text + "\n", encoding="utf-8")
    elif options.told:
        options.told.unlink(missing_ok=True)
    return 1 if found["grown"] else 0


if __name__ == "__main__":
    sys.exit(main())
