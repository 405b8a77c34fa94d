"""The body of scripts/mutate: builds and tests the mutants one by one."""
import argparse
import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import re
import resource
import secrets
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading

from mutants import find_mutants

WORK = pathlib.Path.cwd() / "build" / "mutation"
# A copy of the sources: those in the tree may change while this runs.
ROOT = WORK / "tree"
WANTED = 0.95

# What is looked at, by its folder in the report.
FOLDERS = {"base": "base", "net": "net", "relay": "relay", "config": "config", "vk_ec": "vk_ec",
           "connector": "connector", "log": "log", "sections": "sections", "daemon": "daemon",
           "inspect": "inspect", "tools": "tools", "deploy": "deploy/scripts"}

# What tries a file: the longest beginning of its name counts. PROGRAM:FILTER is a test program with
# the tests of it that matter, SITE.SUITE the cases of a cluster over a stand-in for its scheduler.
# The programs for which somebody waits, or a site that needs an account, are left to scripts/test.
TRIED_BY = {
    "base/": ["base_test"],
    "net/": ["net_test"],
    "relay/": ["relay_test"],
    "config/": ["config_test"],
    "vk_ec/": ["vk_ec_test"],
    "connector/": ["connector_test"],
    "log/": ["log_test"],
    "sections/": ["sections_test"],
    "daemon/": ["daemon_test", "system_test", "hazard_test"],
    "inspect/": ["inspect_test"],
    "tools/completion/": ["tools_test"],
    "tools/jobmillctl/": ["jobmillctl_test"],
    "tools/vkmaster/": ["tools_test"],
    "tools/vkmaster/report/": ["report_test"],
    "tools/vksim/": ["simulator_test:Vksim*"],
    "deploy/scripts/common.sh": ["whole_run_test:LocalScriptTest.*", "fake-slurm.common",
                                 "fake-slurm.hostile", "fake-slurm.states", "fake-slurm.cases"],
    "deploy/scripts/local": ["whole_run_test:LocalScriptTest.*"],
    "deploy/scripts/gridengine": ["fake-gridengine.states", "fake-gridengine.cases"],
    "deploy/scripts/htcondor": ["fake-htcondor.states", "fake-htcondor.cases"],
    "deploy/scripts/lsf": ["fake-lsf.states", "fake-lsf.cases"],
    "deploy/scripts/pbs": ["fake-openpbs.states", "fake-torque.states", "fake-openpbs.cases",
                           "fake-torque.cases"],
    "deploy/scripts/slurm": ["fake-slurm.states", "fake-slurm.common", "fake-slurm.cases"],
    "deploy/scripts/ssh": ["ssh.cases"],
}
# The programs that tests start. Those of these folders hold the change as well.
STARTED_BY_TESTS = {"vkjobmill.exe", "vkmaster", "vksim", "jobmillctl", "climber"}
STARTED = {"daemon/": "vkjobmill.exe", "tools/completion/": "vkmaster",
           "tools/jobmillctl/": "jobmillctl", "tools/vkmaster/": "vkmaster", "tools/vksim/": "vksim"}

# A test that takes longer than this waits for something; those run last, side by side.
SLOW_SECONDS = 0.25
SIDE_BY_SIDE = 6
# A change of a script takes a minute to judge: in a sample of all folders there is one of so many.
SCRIPT_SHARE = 4


def of_longest_beginning(table, file, default=None):
    key = max((key for key in table if file.startswith(key)), key=len, default=None)
    return table.get(key, default)


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


class Build:
    """How the objects are made and the programs linked, and how both are made with a change."""

    def __init__(self, directory, programs):
        self.directory = directory
        with open(directory / "compile_commands.json", encoding="utf-8") as file:
            self.units = {  # source: (object, command)
                os.path.relpath(entry["file"], ROOT):
                (re.search(r" -o (\S+)", entry["command"])[1], entry["command"])
                for entry in json.load(file)}
        self.links = {program: self.link_command(program) for program in programs}
        self.needs = self.read_dependencies()

    def link_command(self, program):
        lines = subprocess.run(["ninja", "-C", self.directory, "-t", "commands", "-s",
                                f"bin/{program}"],
                               check=True, capture_output=True, text=True).stdout.splitlines()
        line = next(line for line in lines if f"-o bin/{program}" in line)
        link = re.search(r"(?:^|&& )(\S*(?:clang\+\+|g\+\+)\S* .*?)(?: && |$)", line)[1]
        return link.replace(f"-o bin/{program}", "-o {output}")

    def read_dependencies(self):
        """{object: files it is made of}"""
        out = subprocess.run(["ninja", "-C", self.directory, "-t", "deps"], check=True,
                             capture_output=True, text=True).stdout
        needs, current = {}, None
        for line in out.splitlines():
            if line and not line.startswith(" "):
                current = needs.setdefault(line.split(":")[0], set())
            elif line.strip():
                path = os.path.normpath(self.directory / line.strip())
                if path.startswith(str(ROOT)):
                    current.add(os.path.relpath(path, ROOT))
        return needs

    def make(self, mutant, programs, scratch):
        """Whether the mutant could be built: into scratch/bin, with all other programs beside."""
        tree, target = scratch / "tree", scratch / "bin"
        script = mutant.folder == "deploy"
        target.mkdir()
        for built in (self.directory / "bin").iterdir():
            if (script or built.name not in programs) and not built.is_symlink():
                os.link(built, target / built.name)
        if script:
            for folder in ("deploy", "tests/cluster", "tests/support"):
                shutil.copytree(ROOT / folder, tree / folder)
        changed = tree / mutant.file
        changed.parent.mkdir(parents=True, exist_ok=True)
        changed.write_bytes(mutant.changed())
        changed.chmod((ROOT / mutant.file).stat().st_mode)
        (target / "vkmpi_dir.sh").symlink_to((tree if script else ROOT) / "deploy/scripts/local")
        if script:
            return self.passes_shellcheck(changed, tree)
        objects = self.compile_all(mutant, programs, changed, scratch)
        return objects is not None and all(
            self.link(program, objects, target / program) for program in programs)

    @staticmethod
    def passes_shellcheck(script, tree):
        """What shellcheck refuses is no mutant: it would not be committed either."""
        return subprocess.run(["shellcheck", "--external-sources", script.relative_to(tree)],
                              cwd=tree, capture_output=True).returncode == 0

    def compile_all(self, mutant, programs, changed, scratch):
        """{object: its replacement}; None when something does not compile."""
        if mutant.file.endswith(".cc"):
            sources = [mutant.file]
        else:
            sources = [source for source, (made, _) in self.units.items()
                       if mutant.file in self.needs.get(made, ()) and (
                           source.startswith(f"{mutant.folder}/") or
                           any(f" {made} " in self.links[program] for program in programs))]
        objects = {}
        # The product's own files first: they show soonest that a change does not compile.
        for number, source in enumerate(sorted(sources, key=lambda s: s.startswith("tests/"))):
            output = scratch / f"{number}.o"
            path = changed if source == mutant.file else ROOT / source
            if not self.compile(source, path, scratch / "tree", output):
                return None
            objects[self.units[source][0]] = output
        return objects

    def compile(self, source, path, include, output):
        """Compiles `path`, which stands for `source`, looking into `include` first."""
        made, command = self.units[source]
        command = command.replace(f" -o {made}", f" -o {output}")
        command = command.replace(f" -c {ROOT / source}", f" -I{include} -c {path}")
        # The own includes come first on the command line; what is in `include` has to win.
        command = command.replace(f" -I{ROOT} ", f" -I{include} -I{ROOT} ", 1)
        return subprocess.run(shlex.split(command), cwd=self.directory,
                              capture_output=True).returncode == 0

    def link(self, program, objects, output):
        link, ahead = self.links[program], ""
        for made, other in objects.items():
            # tools/vkmaster/CMakeFiles/jobmill_vkmaster.dir/ipr.cc.o
            library = re.sub(r"CMakeFiles/(\w+)\.dir/.*", r"lib\1.a", made)
            if f" {made} " in link:
                link = link.replace(f" {made} ", f" {other} ")
            elif f" {library} " in f"{link} ":
                ahead += f" {other}"  # before the library, which then does not give its own
        link = link.replace("-o {output}", f"{ahead} -o {output}")
        return subprocess.run(link, shell=True, cwd=self.directory,
                              capture_output=True).returncode == 0


class TestProgram:
    """The tests of one program, or those that a filter leaves."""

    def __init__(self, name, build):
        self.program, _, chosen = name.partition(":")
        self.chosen = chosen or "*"
        self.directory = build / "bin"
        # What ctest allows a single test. Nothing else notices one that hangs.
        listed = json.loads(subprocess.run(["ctest", "--show-only=json-v1"], cwd=build, check=True,
                                           capture_output=True).stdout)
        self.bound = max(value["value"] for test in listed["tests"]
                         for value in test.get("properties", ())
                         if value["name"] == "TIMEOUT" and
                         test.get("command", ["none"])[0].endswith(f"/bin/{self.program}"))
        self.seconds = self.measure()
        self.slow = [test for test, seconds in self.seconds.items() if seconds > SLOW_SECONDS]
        self.quick = [test for test in self.seconds if test not in self.slow]

    def measure(self):
        with tempfile.TemporaryDirectory(dir=WORK) as scratch:
            report = pathlib.Path(scratch) / "report.json"
            run = subprocess.run([self.directory / self.program, f"--gtest_filter={self.chosen}",
                                  f"--gtest_output=json:{report}"],
                                 cwd=scratch, capture_output=True, text=True, timeout=1200)
            if run.returncode != 0:
                sys.exit(f"{self.program} fails without any change:\n{run.stdout}")
            suites = json.loads(report.read_text())["testsuites"]
        return {f"{suite['name']}.{test['name']}": float(test["time"].rstrip("s"))
                for suite in suites for test in suite["testsuite"]}

    def run(self, directory, tests, scratch):
        """The first of `tests` that fails or hangs and what it does; (None, None) without any.

        A test that seems to hang, by three times the usual processor time and five seconds or by
        ten times the usual time and twenty, is run again by itself with all the time that ctest
        allows it; when that is enough, it passes.
        """
        seconds = sum(self.seconds[test] for test in tests)
        result, test = run_program(directory / self.program, tests, 3 * seconds + 5,
                                   10 * seconds + 20, scratch)
        if result == "hangs" and test:
            result, _ = run_program(directory / self.program, [test], self.bound, self.bound,
                                    scratch)
            if result is None:
                return self.run(directory, [other for other in tests if other != test], scratch)
        return result, test


def run_program(program, tests, busy, wait, scratch):
    """("test" or "hangs", the test that was running), or (None, None) when all pass."""
    if not tests:
        return None, None

    def set_limits():
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 30, 1 << 30))
        resource.setrlimit(resource.RLIMIT_CPU, (int(busy), int(busy) + 1))
        if not SANITIZE:  # whose shadow takes any amount of addresses
            resource.setrlimit(resource.RLIMIT_AS, (4 << 30, 4 << 30))

    with tempfile.TemporaryFile(dir=scratch) as output:
        status = run_bounded([program, "--gtest_fail_fast", f"--gtest_filter={':'.join(tests)}"],
                             wait, scratch, output, set_limits)
        if status == 0:
            return None, None
        output.seek(0)
        text = output.read()
        failed = re.findall(rb"\[  FAILED  \] ([^\s,]+)", text)[:1] or \
            re.findall(rb"\[ RUN      \] (\S+)", text)[-1:]
        hangs = status in (None, -signal.SIGXCPU, -signal.SIGKILL)
        return "hangs" if hangs else "test", failed[0].decode() if failed else None


def run_bounded(command, wait, directory, output, set_limits=None, environment=None):
    """The exit status; None when the command was still running."""
    mark = f"MUTATION_RUN={secrets.token_hex(8)}"
    name, value = mark.split("=")
    process = subprocess.Popen(command, cwd=directory, stdin=subprocess.DEVNULL, stdout=output,
                               stderr=subprocess.DEVNULL, start_new_session=True,
                               preexec_fn=set_limits,
                               env={**(environment or os.environ), name: value})
    try:
        return process.wait(wait)
    except subprocess.TimeoutExpired:
        return None
    finally:
        end_marked(mark.encode())
        process.kill()
        process.wait()


def end_marked(mark):
    """Ends what a run has started, in groups and sessions of its own; also what still starts more."""
    found = True
    while found:
        found = False
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if mark in (process / "environ").read_bytes().split(b"\0"):
                    os.kill(int(process.name), signal.SIGKILL)
                    found = True
            except OSError:  # it has just ended, or belongs to somebody else
                pass


class ClusterCases:
    """The cases of one suite over one site, each by itself with a site of its own."""

    # Each case looks for ports of its own: see tests/support/ports.h.
    first_port = 10000
    lock = threading.Lock()

    def __init__(self, name, build):
        self.site, self.suite = name.split(".")
        self.directory = build / "bin"
        text = (ROOT / f"tests/cluster/{self.suite}.bats").read_text()
        cases = re.findall(r'^@test "(.*)"', text, re.MULTILINE)
        self.quick = []
        self.slow = cases

    def run(self, directory, tests, scratch):
        """As that of a test program. A case has its own bound, which makes it fail."""
        with self.lock:
            ClusterCases.first_port = 10000 + (self.first_port - 10000 + 400) % 9600
            port = self.first_port
        tree = scratch / "tree" if directory == scratch / "bin" else ROOT
        if not tests:
            return None, None
        [case] = tests
        with tempfile.TemporaryDirectory(dir="/tmp") as state, open(os.devnull, "wb") as nowhere:
            environment = {**os.environ, "SITE": self.site, "site_directory": f"{state}/site",
                           "first_port": str(port), "BATS_TEST_TIMEOUT": "100", "TMPDIR": state,
                           "JOBMILL_PROGRAMS": str(directory)}
            cases = f"{tree}/tests/cluster/{self.suite}.bats"
            status = run_bounded(["bats", "-f", f"^{case}$", cases], 400, scratch, nowhere,
                                 environment=environment)
        return ("hangs", case) if status is None else ("test", case) if status else (None, None)


@functools.cache
def suite(name, build):
    return (ClusterCases if "." in name.split(":")[0] else TestProgram)(name, build)


def judge(suites, made, scratch):
    """What kills the programs, or None."""
    for tests in suites:
        verdict = kills(tests, made, tests.quick, scratch) if tests.quick else None
        if verdict:
            return verdict
    for tests in suites:
        with concurrent.futures.ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
            tries = [pool.submit(kills, tests, made, [test], scratch) for test in tests.slow]
            for tried in concurrent.futures.as_completed(tries):
                if tried.result():
                    pool.shutdown(cancel_futures=True)
                    return tried.result()
    return None


def kills(suite_of_tests, made, tests, scratch):
    """The verdict of the tests.

    Some look at clocks, on a machine that others use too: a test counts only when it fails again by
    itself and, at the same time, passes without the change.
    """
    for _ in range(4):
        result, test = suite_of_tests.run(made, tests, scratch)
        if result is None:
            return None
        if test is None:
            return f"{result}: before the first test"
        # One that hangs has been run by itself already.
        again, _ = (result, test) if result == "hangs" else \
            suite_of_tests.run(made, [test], scratch)
        unchanged, _ = suite_of_tests.run(suite_of_tests.directory, [test], scratch)
        if again and not unchanged:
            return f"{again}: {test}"
        if unchanged:
            tests = [other for other in tests if other != test]
    return None


SANITIZE = False


def build_programs(mutants, jobs):
    """The build without a change, with all programs that the mutants need."""
    directory = WORK / ("sanitized" if SANITIZE else "plain")
    flags = "-O0 -w -D_GLIBCXX_ASSERTIONS"
    if SANITIZE:
        flags += (" -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all"
                  " -fno-omit-frame-pointer")
    programs = {name.partition(":")[0] for mutant in mutants
                for name in of_longest_beginning(TRIED_BY, mutant.file)}
    programs = {name for name in programs if "." not in name} | STARTED_BY_TESTS
    with open(WORK / "build.txt", "w", encoding="utf-8") as log:
        subprocess.run(["cmake", "-S", ROOT, "-B", directory, "-G", "Ninja",
                        "-DCMAKE_CXX_COMPILER=clang++", "-DCMAKE_BUILD_TYPE=None",
                        f"-DCMAKE_CXX_FLAGS={flags}", "-DJOBMILL_TESTS=ON",
                        *(["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"]
                          if shutil.which("ld.lld") else [])],
                       check=True, stdout=log, stderr=log)
        subprocess.run(["ninja", "-C", directory, "-j", str(jobs),
                        *[f"bin/{name}" for name in programs]],
                       check=True, stdout=log, stderr=log)
    return Build(directory, programs)


def try_mutant(mutant, build):
    suites = [suite(name, build.directory) for name in of_longest_beginning(TRIED_BY, mutant.file)]
    programs = [tests.program for tests in suites if isinstance(tests, TestProgram)]
    if of_longest_beginning(STARTED, mutant.file):
        programs.append(of_longest_beginning(STARTED, mutant.file))
    with tempfile.TemporaryDirectory(dir=WORK) as scratch:
        scratch = pathlib.Path(scratch)
        if not build.make(mutant, programs, scratch):
            return "does not compile"
        return judge(suites, scratch / "bin", scratch) or "survived"


class KeptVerdicts:
    """What earlier runs have found, so that one that was cut short can be continued.

    Held for as long as the changed file stays as it is, but for what it includes. Survivors are
    always tried again: there may be a test for them by now.
    """

    def __init__(self, fresh, again):
        self.path = WORK / ("kept-sanitized.jsonl" if SANITIZE else "kept.jsonl")
        self.known = {}
        if fresh or not self.path.exists():
            self.path.write_text("")
        for line in self.path.read_text().splitlines():
            kept = json.loads(line)
            if not again and kept["verdict"] != "survived":
                self.known[kept["id"], kept["file"]] = kept["verdict"]

    @staticmethod
    @functools.cache
    def state_of(file):
        lines = (ROOT / file).read_bytes().splitlines()
        return hashlib.sha1(b"\n".join(
            line for line in lines if not line.startswith(b"#include"))).hexdigest()

    def verdict_of(self, mutant):
        return self.known.get((mutant.id, self.state_of(mutant.file)))

    def add(self, mutant, verdict):
        with open(self.path, "a", encoding="utf-8") as file:
            file.write(json.dumps({"id": mutant.id, "file": self.state_of(mutant.file),
                                   "verdict": verdict}) + "\n")


class Sample:
    """Tries mutants in their order until `count` of them have compiled."""

    def __init__(self, mutants, count, build, kept):
        self.mutants, self.count, self.build, self.kept = mutants, count, build, kept
        self.verdicts = {}
        self.next = 0
        self.valid = 0
        self.lock = threading.Lock()

    def run(self, jobs):
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for worker in [pool.submit(self.work) for _ in range(jobs)]:
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
            verdict = self.kept.verdict_of(mutant)
            if verdict is None:
                verdict = try_mutant(mutant, self.build)
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
    for how, name in (("by a test", "test:"), ("by a test's time limit", "hangs:")):
        print(f"{how}: {sum(verdict.startswith(name) for _, verdict in results)}")
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
    parser.add_argument("--folder", choices=FOLDERS, action="append")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--replay", metavar="ID", action="append")
    parser.add_argument("--lengths", action="store_true")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--sanitize", action="store_true")
    parser.add_argument("--fresh", action="store_true")
    options = parser.parse_args()
    SANITIZE = options.sanitize

    folders = {folder: FOLDERS[folder] for folder in options.folder or FOLDERS}
    WORK.mkdir(parents=True, exist_ok=True)
    copy_tree()
    mutants = find_mutants(ROOT, folders, WORK / "found.json")
    if options.lengths:
        mutants = [mutant for mutant in mutants if mutant.length_check]
    if options.replay:
        mutants = [mutant for mutant in mutants if mutant.id in options.replay]
        if not mutants:
            sys.exit("mutate: no such mutant")
    elif len(folders) > 1:
        mutants = [mutant for mutant in mutants
                   if mutant.folder != "deploy" or int(mutant.id, 16) % SCRIPT_SHARE == 0]
    if options.list:
        for mutant in mutants:
            print(f"{mutant.id}  {mutant.place}  {mutant.kind}: {mutant.original[:60]!r} -> "
                  f"{mutant.replacement[:60]!r}{' [length]' if mutant.length_check else ''}")
        print(f"{len(mutants)} mutants, {sum(m.length_check for m in mutants)} in length checks")
        return 0

    whole = options.lengths or options.replay
    # An order that mutants elsewhere, which come and go, do not change.
    mutants.sort(key=lambda m: hashlib.sha1(f"{options.seed} {m.id}".encode()).digest())
    count = len(mutants) if whole else options.count
    sample = Sample(mutants, count, build_programs(mutants, options.jobs),
                    KeptVerdicts(options.fresh, bool(options.replay)))
    results = sample.run(options.jobs)
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
