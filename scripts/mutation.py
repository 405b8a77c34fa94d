"""The body of scripts/mutate: finds the mutants, builds and tests them one by one."""
import argparse
import concurrent.futures
import difflib
import hashlib
import json
import os
import pathlib
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading

from clang import cindex
from clang.cindex import CursorKind as Kind
from clang.cindex import TypeKind

FOLDERS = ["net", "relay", "config", "vk_ec", "connector"]
WORK = pathlib.Path.cwd() / "build" / "mutation"
# A copy of the sources: those in the tree may change while this runs.
ROOT = WORK / "tree"
WORKERS = 2
WANTED = 0.9

# A test that takes longer than this waits for something; those run last, side by side.
SLOW_SECONDS = 0.25

COMPARISONS = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<"], ">=": [">", "<="],
               "==": ["!="], "!=": ["=="]}
SWAPS = {**COMPARISONS, "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"],
         "&&": ["||"], "||": ["&&"], "+=": ["-="], "-=": ["+="]}

# What makes a comparison a length check, and the functions that are one as a whole.
LENGTH_WORDS = re.compile(
    r"size|length|count|remaining|capacity|total|chunk|width|offset|used_|needed|grown|npos"
    r"|kMax|kMost|kBuffer|kLengthBytes|position_|components|\bn\b|\bmore\b|\bend\b|\bgot\b|index",
    re.IGNORECASE)
LENGTH_FUNCTIONS = re.compile(
    r"^(check_length|check_count|Copy|ReceiveLine|ReceiveRest|receive_chunk|RecvMessage|UnPack.*"
    r"|Reserve|Room|MakeRoom|take|take_string|remaining|finalize)$")

# Nobody can see these: room made ahead of time, and the words of a log line.
UNSEEN_CALLS = re.compile(r"(\.|->)reserve\(|^\*?log_?\b\s*<<|^log\b\s*<<")


class Mutant:
    def __init__(self, file, begin, end, kind, replacement, source, length_check):
        self.file = file
        self.begin, self.end = begin, end
        self.kind = kind
        self.replacement = replacement
        self.original = source[begin:end].decode()
        self.line = source[:begin].count(b"\n") + 1
        self.length_check = length_check
        column = begin - source.rfind(b"\n", 0, begin)
        # Lines above may come and go: the text around tells the place.
        around = source[max(0, begin - 60):end + 60]
        self.place = f"{file}:{self.line}:{column}"
        self.id = hashlib.sha1(
            f"{file}|{kind}|{replacement}|".encode() + around).hexdigest()[:10]

    @property
    def folder(self):
        return self.file.split("/")[0]

    def apply(self, source):
        return source[:self.begin] + self.replacement.encode() + source[self.end:]

    def diff(self):
        source = (ROOT / self.file).read_bytes()
        before, after = source.decode(), self.apply(source).decode()
        lines = list(difflib.unified_diff(before.splitlines(), after.splitlines(),
                                          lineterm="", n=0))[2:]
        return "\n".join(f"    {line}" for line in lines)


class Finder:
    """Walks one file and collects what can be changed in it."""

    def __init__(self, file):
        self.file = file
        self.source = (ROOT / file).read_bytes()
        self.mutants = {}

    def find(self, index):
        unit = index.parse(str(ROOT / self.file),
                           args=["-x", "c++", "-std=c++20", f"-I{ROOT}", "-w",
                                 "-DBOOST_ASIO_DISABLE_CO_AWAIT"])
        errors = [d for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            sys.exit(f"{self.file}: {errors[0].spelling}")
        for cursor in unit.cursor.get_children():
            self.visit(cursor, [], False, "")
        return list(self.mutants.values())

    def here(self, cursor):
        start = cursor.extent.start
        return start.file and os.path.samefile(start.file.name, ROOT / self.file)

    def text(self, cursor):
        return self.source[cursor.extent.start.offset:cursor.extent.end.offset].decode()

    def add(self, begin, end, kind, replacement, length_check):
        mutant = Mutant(self.file, begin, end, kind, replacement, self.source, length_check)
        if mutant.original != replacement:
            self.mutants.setdefault((begin, end, replacement), mutant)

    def visit(self, cursor, parents, length, function):
        if parents == [] and not self.here(cursor):
            return
        if cursor.kind in (Kind.STATIC_ASSERT, Kind.INCLUSION_DIRECTIVE):
            return
        if cursor.kind in (Kind.CXX_METHOD, Kind.FUNCTION_DECL, Kind.CONSTRUCTOR,
                           Kind.FUNCTION_TEMPLATE, Kind.DESTRUCTOR):
            function = cursor.spelling
        text = self.text(cursor)
        if cursor.kind == Kind.CALL_EXPR and UNSEEN_CALLS.search(text) and (
                cursor.spelling in ("reserve", "operator<<")):
            return
        operator = self.operator(cursor)
        if operator and operator[0] in COMPARISONS and LENGTH_WORDS.search(text):
            length = True
        length = length or bool(LENGTH_FUNCTIONS.match(function))
        if operator:
            self.swap(operator, length)
        self.literal(cursor, text, length)
        self.negation(cursor, text, length)
        self.condition(cursor, length)
        self.statement(cursor, text, parents, length)
        self.returned(cursor, length, parents)
        for child in cursor.get_children():
            self.visit(child, parents + [cursor], length, function)

    def operator(self, cursor):
        """(operator, offset) of a binary expression, built in or overloaded."""
        children = list(cursor.get_children())
        if cursor.kind == Kind.CALL_EXPR and cursor.spelling.startswith("operator"):
            operands = [c for c in children if c.spelling != cursor.spelling]
            if len(operands) != 2:
                return None
            children = operands
        elif cursor.kind not in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR,
                                 Kind.UNEXPOSED_EXPR):
            return None
        if len(children) != 2:
            return None
        children.sort(key=lambda c: c.extent.start.offset)
        begin, end = children[0].extent.end.offset, children[1].extent.start.offset
        between = self.source[begin:end].decode()
        operator = between.strip()
        if operator not in SWAPS:
            return None
        return operator, begin + between.index(operator)

    def swap(self, operator, length):
        word, offset = operator
        kind = ("comparison" if word in COMPARISONS else
                "logic" if word in ("&&", "||") else "arithmetic")
        for other in SWAPS[word]:
            self.add(offset, offset + len(word), kind, other, length)

    def literal(self, cursor, text, length):
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        if cursor.kind == Kind.INTEGER_LITERAL:
            match = re.fullmatch(r"(0[xX][0-9a-fA-F]+|[0-9]+)([uUlL]*)", text)
            if match:
                value = int(match[1], 8 if re.fullmatch(r"0[0-7]+", match[1]) else 0)
                self.add(begin, end, "literal", f"{value + 1}{match[2]}", length)
                if value > 0:
                    self.add(begin, end, "literal", f"{value - 1}{match[2]}", length)
        elif cursor.kind == Kind.FLOATING_LITERAL and re.fullmatch(r"[0-9.]+", text):
            self.add(begin, end, "literal", f"{float(text) + 1}", length)
        elif cursor.kind == Kind.CXX_BOOL_LITERAL_EXPR and text in ("true", "false"):
            self.add(begin, end, "literal", "false" if text == "true" else "true", length)

    def negation(self, cursor, text, length):
        if cursor.kind == Kind.UNARY_OPERATOR:
            begin, end = cursor.extent.start.offset, cursor.extent.end.offset
            if text.startswith("!"):
                self.add(begin, begin + 1, "logic", "", length)
            for word, other in (("++", "--"), ("--", "++")):
                if text.startswith(word):
                    self.add(begin, begin + 2, "arithmetic", other, length)
                elif text.endswith(word):
                    self.add(end - 2, end, "arithmetic", other, length)

    def condition(self, cursor, length):
        """The condition of an `if` or a loop that is no comparison: its opposite."""
        if cursor.kind not in (Kind.IF_STMT, Kind.WHILE_STMT):
            return
        first = next(iter(cursor.get_children()), None)
        if first is None or not first.kind.is_expression() or self.operator(first):
            return
        text = self.text(first)
        if text in ("true", "false") or text.startswith("!"):
            return
        self.add(first.extent.start.offset, first.extent.end.offset, "logic", f"!({text})", length)

    def statement(self, cursor, text, parents, length):
        """A call or an assignment that stands alone: left out."""
        if not parents:
            return
        while cursor.kind == Kind.UNEXPOSED_EXPR and text == self.text(cursor):
            children = list(cursor.get_children())
            if len(children) != 1 or self.text(children[0]) != text:
                break
            cursor = children[0]
        alone = parents[-1].kind == Kind.COMPOUND_STMT or (
            parents[-1].kind in (Kind.IF_STMT, Kind.FOR_STMT, Kind.CXX_FOR_RANGE_STMT)
            and self.source[cursor.extent.end.offset:cursor.extent.end.offset + 1] == b";"
            and self.source[:cursor.extent.start.offset].rstrip()[-1:] in (b")", b"e"))
        assignment = cursor.kind in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR)
        if alone and (assignment or cursor.kind in (Kind.CALL_EXPR, Kind.UNARY_OPERATOR)):
            if not UNSEEN_CALLS.search(text):
                self.add(cursor.extent.start.offset, cursor.extent.end.offset, "statement",
                         "(void)0", length)

    def returned(self, cursor, length, parents):
        if cursor.kind != Kind.RETURN_STMT:
            return
        value = next(iter(cursor.get_children()), None)
        if value is None or self.operator(value):
            return
        text = self.text(value)
        kind = value.type.get_canonical().kind
        if kind == TypeKind.BOOL and text not in ("true", "false") and not text.startswith("!"):
            other = f"!({text})"
        elif kind in (TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG,
                      TypeKind.LONGLONG) and not re.fullmatch(r"-?[0-9]+", text):
            other = f"({text}) + 1"
        elif kind == TypeKind.DOUBLE:
            other = f"({text}) + 1"
        elif kind == TypeKind.RECORD and text != "{}" and not text.startswith("*"):
            other = "{}"
        elif kind == TypeKind.POINTER and text != "nullptr":
            other = "nullptr"
        else:
            return
        self.add(value.extent.start.offset, value.extent.end.offset, "returned value", other,
                 length)


def copy_tree():
    """Brings the copy up to date. What has not changed keeps its time, and so its objects."""
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others",
                             "--exclude-standard"], check=True, capture_output=True).stdout
    names = {os.fsdecode(name) for name in listed.split(b"\0") if name}
    names = {name for name in names if os.path.isfile(name)}
    for old in [path for path in ROOT.rglob("*") if path.is_file()]:
        if str(old.relative_to(ROOT)) not in names:
            old.unlink()
    for name in names:
        target = ROOT / name
        if not target.exists() or target.read_bytes() != pathlib.Path(name).read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(name, target)


def find_mutants(folders):
    index = cindex.Index.create()
    mutants = []
    for folder in folders:
        for file in sorted(ROOT.joinpath(folder).rglob("*")):
            if file.suffix in (".cc", ".h"):
                mutants += Finder(str(file.relative_to(ROOT))).find(index)
    return mutants


class Program:
    """One folder's test program: how its objects are made, how it is linked and run."""

    def __init__(self, folder, build):
        self.folder, self.build = folder, build
        name = f"{folder}_test"
        self.test = build / "bin" / name
        with open(build / "compile_commands.json", encoding="utf-8") as file:
            commands = {entry["file"]: entry["command"] for entry in json.load(file)}
        link = subprocess.run(["ninja", "-C", build, "-t", "commands", "-s",
                               f"bin/{name}"],
                              check=True, capture_output=True, text=True).stdout
        link = next(line for line in link.splitlines() if f"-o bin/{name}" in line)
        self.link = re.search(r"(?:^|&& )(\S*(?:clang\+\+|g\+\+)\S* .*?)(?: && |$)", link)[1]
        self.link = self.link.replace(f"-o bin/{name}", "-o {output}")
        self.units = {}  # source → (object, command)
        for source, command in commands.items():
            path = str(pathlib.Path(source).relative_to(ROOT))
            if path.startswith((f"{folder}/", f"tests/{folder}/")):
                self.units[path] = (re.search(r" -o (\S+)", command)[1], command)
        self.needs = self.read_dependencies()

    def read_dependencies(self):
        """{object: files it is made of}"""
        out = subprocess.run(["ninja", "-C", self.build, "-t", "deps"], check=True,
                             capture_output=True, text=True).stdout
        needs, current = {}, None
        for line in out.splitlines():
            if line and not line.startswith(" "):
                current = needs.setdefault(line.split(":")[0], set())
            elif line.strip():
                path = os.path.normpath(self.build / line.strip())
                if path.startswith(str(ROOT)):
                    current.add(os.path.relpath(path, ROOT))
        return needs

    def measure(self):
        """Sorts the tests into quick and slow ones."""
        with tempfile.TemporaryDirectory(dir=WORK) as scratch:
            report = pathlib.Path(scratch) / "report.json"
            run = subprocess.run([self.test, "--gtest_brief=1", f"--gtest_output=json:{report}"],
                                 cwd=scratch, capture_output=True, text=True, timeout=300)
            if run.returncode != 0:
                sys.exit(f"{self.test.name} fails without any change:\n{run.stdout}")
            suites = json.loads(report.read_text())["testsuites"]
        seconds = {f"{suite['name']}.{test['name']}": float(test["time"].rstrip("s"))
                   for suite in suites for test in suite["testsuite"]}
        self.slow = {name: time for name, time in seconds.items() if time > SLOW_SECONDS}
        self.quick_seconds = sum(seconds.values()) - sum(self.slow.values())

    def compile(self, source, path, include, output):
        """Compiles `path`, which stands for `source`, looking into `include` first."""
        command = self.units[source][1]
        command = command.replace(f" -o {self.units[source][0]}", f" -o {output}")
        command = command.replace(f" -c {ROOT / source}", f" -I{include} -c {path}")
        # The own includes come first on the command line; what is in `include` has to win.
        command = command.replace(f" -I{ROOT} ", f" -I{include} -I{ROOT} ", 1)
        return subprocess.run(shlex.split(command), cwd=self.build, capture_output=True).returncode

    def make(self, mutant, scratch):
        """Builds the program with the change; None when it does not compile."""
        changed = scratch / "tree" / mutant.file
        changed.parent.mkdir(parents=True)
        changed.write_bytes(mutant.apply((ROOT / mutant.file).read_bytes()))
        if mutant.file.endswith(".cc"):
            sources = [mutant.file]
        else:
            sources = [source for source, (made, _) in self.units.items()
                       if mutant.file in self.needs.get(made, ())]
        link, extra = self.link, []
        # The product's own files first: they show soonest that a change does not compile.
        for number, source in enumerate(sorted(sources, key=lambda s: s.startswith("tests/"))):
            made = scratch / f"{number}.o"
            path = changed if source == mutant.file else ROOT / source
            if self.compile(source, path, scratch / "tree", made) != 0:
                return None
            if source.startswith("tests/"):
                link = link.replace(f" {self.units[source][0]} ", f" {made} ")
            else:
                extra.append(str(made))  # before the library, which then does not give its own
        output = scratch / self.test.name
        link = link.replace("-o {output}", " ".join(extra) + f" -o {output}")
        made = subprocess.run(link, shell=True, cwd=self.build, capture_output=True)
        return output if made.returncode == 0 else None

    def judge(self, program, scratch):
        """What kills the program, or None."""
        verdict = self.kills(program, "-" + ":".join(self.slow), self.quick_seconds, scratch)
        if verdict or not self.slow:
            return verdict
        with concurrent.futures.ThreadPoolExecutor(len(self.slow)) as pool:
            verdicts = pool.map(
                lambda item: self.kills(program, item[0], item[1], scratch), self.slow.items())
        return next((verdict for verdict in verdicts if verdict), None)

    def kills(self, program, chosen, seconds, scratch):
        """The verdict of the chosen tests.

        Some look at clocks, on a machine that others use too: a test counts only when it fails
        again by itself and, at the same time, passes without the change.
        """
        for _ in range(3):
            verdict, failed = run_test(program, chosen, seconds, scratch)
            if verdict is None or not failed:
                return verdict
            again, _ = run_test(program, failed, seconds, scratch)
            unchanged, _ = run_test(self.test, failed, seconds, scratch)
            if again and not unchanged:
                return verdict
        return None


def limits(seconds):
    """The limits of a test that takes so long without the change."""
    def set_limits():
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 30, 1 << 30))
        busy = int(3 * seconds + 5)
        resource.setrlimit(resource.RLIMIT_CPU, (busy, busy + 1))
        if not SANITIZE:  # whose shadow takes any amount of addresses
            resource.setrlimit(resource.RLIMIT_AS, (4 << 30, 4 << 30))
    return set_limits


def run_test(program, chosen, seconds, scratch):
    """(verdict, name of the failed test): "test" or "timeout", or None when the tests pass.

    A loop ends by the processor time that it takes. Waiting costs nobody anything, so it has a
    generous limit: where many share a machine, everything takes its time.
    """
    with tempfile.TemporaryFile(dir=scratch) as output:
        process = subprocess.Popen(
            [program, "--gtest_brief=1", "--gtest_fail_fast", f"--gtest_filter={chosen}"],
            cwd=scratch, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.DEVNULL,
            start_new_session=True, preexec_fn=limits(seconds))
        try:
            status = process.wait(10 * seconds + 60)
        except subprocess.TimeoutExpired:
            return "timeout", None
        finally:
            try:  # what it has started goes with it
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()
        if status == 0:
            return None, None
        if status in (-signal.SIGXCPU, -signal.SIGKILL):
            return "timeout", None
        output.seek(0)
        failed = re.search(rb"\[  FAILED  \] ([^\s,]+)", output.read())
        return "test", failed[1].decode() if failed and status == 1 else None


SANITIZE = False


def build_programs(folders):
    build = WORK / ("sanitized" if SANITIZE else "plain")
    flags = "-O0 -w -D_GLIBCXX_ASSERTIONS"
    if SANITIZE:
        flags += (" -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all"
                  " -fno-omit-frame-pointer")
    with open(WORK / "build.txt", "w", encoding="utf-8") as log:
        subprocess.run(["cmake", "-S", ROOT, "-B", build, "-G", "Ninja",
                        "-DCMAKE_CXX_COMPILER=clang++", "-DCMAKE_BUILD_TYPE=None",
                        f"-DCMAKE_CXX_FLAGS={flags}", "-DJOBMILL_TESTS=ON",
                        *(["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"]
                          if shutil.which("ld.lld") else [])],
                       check=True, stdout=log, stderr=log)
        subprocess.run(["ninja", "-C", build, "-j", str(WORKERS),
                        *[f"{folder}_test" for folder in folders]],
                       check=True, stdout=log, stderr=log)
    programs = {}
    for folder in folders:
        programs[folder] = Program(folder, build)
        programs[folder].measure()
    return programs


def try_mutant(mutant, programs):
    with tempfile.TemporaryDirectory(dir=WORK) as scratch:
        scratch = pathlib.Path(scratch)
        program = programs[mutant.folder]
        made = program.make(mutant, scratch)
        if made is None:
            return "does not compile"
        return program.judge(made, scratch) or "survived"


class KeptVerdicts:
    """What earlier runs have found, so that one that was cut short can be continued.

    Held for as long as the changed folder stays as it is. Survivors are always tried again: there
    may be a test for them by now.
    """

    def __init__(self, fresh, again):
        self.path = WORK / ("kept-sanitized.jsonl" if SANITIZE else "kept.jsonl")
        self.folders = {folder: self.state_of(folder) for folder in FOLDERS}
        self.known = {}
        if fresh or not self.path.exists():
            self.path.write_text("")
        for line in self.path.read_text().splitlines():
            kept = json.loads(line)
            if (not again and kept["verdict"] != "survived"
                    and kept["folder"] in self.folders.values()):
                self.known[kept["id"]] = kept["verdict"]

    @staticmethod
    def state_of(folder):
        state = hashlib.sha1(folder.encode())
        for file in sorted((ROOT / folder).rglob("*")):
            if file.is_file():
                state.update(file.read_bytes())
        return state.hexdigest()

    def add(self, mutant, verdict):
        with open(self.path, "a", encoding="utf-8") as file:
            file.write(json.dumps({"id": mutant.id, "folder": self.folders[mutant.folder],
                                   "verdict": verdict}) + "\n")


class Sample:
    """Tries mutants in their order until `count` of them have compiled."""

    def __init__(self, mutants, count, programs, kept):
        self.mutants, self.count, self.programs, self.kept = mutants, count, programs, kept
        self.verdicts = {}
        self.next = 0
        self.valid = 0
        self.lock = threading.Lock()

    def run(self):
        with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
            for worker in [pool.submit(self.work) for _ in range(WORKERS)]:
                worker.result()
        tried = [(mutant, self.verdicts[mutant.id]) for mutant in self.mutants
                 if mutant.id in self.verdicts]
        return [pair for pair in tried if pair[1] != "does not compile"][:self.count]

    def work(self):
        while True:
            with self.lock:
                if self.next >= len(self.mutants) or self.valid >= self.count:
                    return
                mutant = self.mutants[self.next]
                self.next += 1
            verdict = self.kept.known.get(mutant.id)
            if verdict is None:
                verdict = try_mutant(mutant, self.programs)
                with self.lock:
                    self.kept.add(mutant, verdict)
            with self.lock:
                self.verdicts[mutant.id] = verdict
                self.valid += verdict != "does not compile"
                print(f"{self.valid:>4}  {mutant.id}  {mutant.place}  {mutant.kind}: "
                      f"{mutant.original[:40]!r} -> {mutant.replacement[:40]!r}"
                      f"{' [length]' if mutant.length_check else ''}: {verdict}", flush=True)


def print_result(results):
    print(f"\n{'folder':<10} {'mutants':>7} {'killed':>7} {'%':>6}   "
          f"{'in length checks':>16} {'killed':>7}")
    rows = [(folder, [r for r in results if r[0].folder == folder]) for folder in FOLDERS]
    for name, row in rows + [("all", results)]:
        killed = sum(verdict != "survived" for _, verdict in row)
        lengths = [verdict for mutant, verdict in row if mutant.length_check]
        print(f"{name:<10} {len(row):>7} {killed:>7} "
              f"{100 * killed / len(row) if row else 100:>6.1f}   {len(lengths):>16} "
              f"{sum(verdict != 'survived' for verdict in lengths):>7}")
    kinds = sorted({mutant.kind for mutant, _ in results})
    print()
    for kind in kinds:
        row = [verdict for mutant, verdict in results if mutant.kind == kind]
        print(f"{kind:<15} {len(row):>4}, killed {sum(v != 'survived' for v in row)}")
    timeouts = sum(verdict == "timeout" for _, verdict in results)
    print(f"by a test: {sum(v == 'test' for _, v in results)}, by the time limit: {timeouts}")
    print("\nSurvivors:")
    for mutant, verdict in results:
        if verdict == "survived":
            print(f"{mutant.id}  {mutant.place}  {mutant.kind}"
                  f"{' [length check]' if mutant.length_check else ''}\n{mutant.diff()}")


def main():
    global SANITIZE
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--folder", choices=FOLDERS)
    parser.add_argument("--replay", metavar="ID", action="append")
    parser.add_argument("--lengths", action="store_true")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--sanitize", action="store_true")
    parser.add_argument("--fresh", action="store_true")
    options = parser.parse_args()
    SANITIZE = options.sanitize

    folders = [options.folder] if options.folder else FOLDERS
    WORK.mkdir(parents=True, exist_ok=True)
    copy_tree()
    mutants = find_mutants(folders)
    if options.lengths:
        mutants = [mutant for mutant in mutants if mutant.length_check]
    if options.replay:
        mutants = [mutant for mutant in mutants if mutant.id in options.replay]
        if not mutants:
            sys.exit("mutate: no such mutant")
        folders = sorted({mutant.folder for mutant in mutants})
    if options.list:
        for mutant in mutants:
            print(f"{mutant.id}  {mutant.place}  {mutant.kind}: {mutant.original[:60]!r} -> "
                  f"{mutant.replacement[:60]!r}{' [length]' if mutant.length_check else ''}")
        print(f"{len(mutants)} mutants, {sum(m.length_check for m in mutants)} in length checks")
        return 0

    whole = options.lengths or options.replay
    random.Random(options.seed).shuffle(mutants)
    programs = build_programs(folders)
    sample = Sample(mutants, len(mutants) if whole else options.count, programs,
                    KeptVerdicts(options.fresh, bool(options.replay)))
    results = sample.run()
    with open(WORK / "verdicts.json", "w", encoding="utf-8") as file:
        json.dump([{"id": m.id, "place": m.place, "kind": m.kind, "original": m.original,
                    "replacement": m.replacement, "length_check": m.length_check, "verdict": v}
                   for m, v in results], file, indent=1)
    print_result(results)
    killed = sum(verdict != "survived" for _, verdict in results)
    lengths_survived = sum(m.length_check and v == "survived" for m, v in results)
    return 0 if killed >= WANTED * len(results) and not lengths_survived else 1


if __name__ == "__main__":
    sys.exit(main())
