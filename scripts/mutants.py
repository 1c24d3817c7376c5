"""Changes the module's sources one line at a time, and sees whether a test notices.

The changes, "mutants", are chosen by hand and stand in tests/mutants/mutants.toml. All of it
happens in a copy, build/mutants; run `./run build` before, which fetches what builds are made with.
A mutant first meets the suites that the table names for it; one that passes those meets the whole
C++ suite and the whole Python suites of its maker before it counts as a survivor. A failed test is
run alone again, up to three times: it counts when it fails once more.

Results are kept in build/results/mutants.json, and as a table in mutants.md there when every mutant
has its own. Ends with 1 when fewer than 95 % of the mutants are noticed, or when one does not
compile.
"""

import argparse
import collections
import fnmatch
import hashlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import tomllib

ROOT = pathlib.Path(__file__).resolve().parents[1]
TABLE = ROOT / "tests" / "mutants" / "mutants.toml"
RESULTS = ROOT / "build" / "results" / "mutants.json"
TABLE_OF_RESULTS = ROOT / "build" / "results" / "mutants.md"
PLACE = ROOT / "build" / "mutants"
SOURCE = PLACE / "source"
BUILD = PLACE / "build"
MODULE = SOURCE / "System" / "PyAdapater" / "Lumatie"
PROGRAM = BUILD / "tests" / "unit" / "lumatie_tests"

ENOUGH = 0.95  # of the mutants
NOTICED = ("caught", "crash", "hang")
AT_ONCE = 4  # test processes: they wait more than they work
SHARDS = 4  # of the C++ tests
CPP_TIMEOUT = 50  # seconds, for a part of the C++ tests
PYTHON_TIMEOUT = 300  # for one file of tests at most
REPETITIONS = 3

CANON, NIKON = "test_[!n]*.py", "test_n*.py"

Mutant = collections.namedtuple(
    "Mutant", "number file line occurrence becomes what cpp python survives"
)
Failure = collections.namedtuple("Failure", "kind test")


class TableError(Exception):
    """The table of mutants does not fit the sources."""


# The table.


def read_table():
    """The mutants in the table's order, numbered from 1."""
    entries = tomllib.loads(TABLE.read_text())["mutant"]
    mutants = []
    for number, entry in enumerate(entries, 1):
        unknown = set(entry) - set(Mutant._fields[1:])
        if unknown:
            raise TableError("mutant {}: unknown {}".format(number, ", ".join(sorted(unknown))))
        preset = {"occurrence": 0, "cpp": "", "python": [], "survives": ""}
        mutants.append(Mutant(number=number, **{**preset, **entry}))
    return mutants


def apply(mutant, text):
    """The text of the mutant's file with its one line changed."""
    lines = text.split("\n")
    places = [i for i, line in enumerate(lines) if line.strip() == mutant.line]
    if not places or mutant.line == mutant.becomes:
        raise TableError("mutant {0.number}: no such line in {0.file}".format(mutant))
    if mutant.occurrence > len(places) or (not mutant.occurrence and len(places) > 1):
        raise TableError(
            "mutant {}: {} lines like this in {}".format(mutant.number, len(places), mutant.file)
        )
    place = places[max(mutant.occurrence, 1) - 1]
    indent = lines[place][: len(lines[place]) - len(lines[place].lstrip())]
    lines[place] = indent + mutant.becomes
    return "\n".join(lines)


def identity(mutant):
    """What a result belongs to: the change, wherever it stands in the table."""
    parts = mutant.file, mutant.line, str(mutant.occurrence), mutant.becomes
    return hashlib.sha256("\n".join(parts).encode()).hexdigest()[:16]


# The copy.


def copy_sources():
    """Brings the copy up to date, leaving alone what is the same; returns a digest of it all."""
    digest = hashlib.sha256()
    wanted = set()
    for folder, folders, files in os.walk(ROOT):
        folders[:] = sorted(set(folders) - {"build", ".git", ".ruff_cache", "__pycache__"})
        for name in sorted(files):
            original = pathlib.Path(folder, name)
            relative = original.relative_to(ROOT)
            wanted.add(relative)
            content = original.read_bytes()
            if original not in (TABLE, pathlib.Path(__file__).resolve()):
                digest.update(str(relative).encode() + b"\0" + content)
            write(SOURCE / relative, content, original.stat().st_mode)
    for path in list(SOURCE.rglob("*")):
        if path.is_file() and path.relative_to(SOURCE) not in wanted:
            path.unlink()
    return digest.hexdigest()


def write(path, content, mode):
    if path.is_file() and path.read_bytes() == content:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content)
    path.chmod(mode)


def find_python():
    """A CPython 3.8 if there is one, else the first interpreter that the module is built for."""
    for options in (["--version", "3.8"], []):
        found = subprocess.run(
            [sys.executable, ROOT / "scripts" / "find_pythons.py", *options],
            stdout=subprocess.PIPE,
            text=True,
            check=True,
        ).stdout.split("\n")
        if found[0]:
            return found[0]
    sys.exit("error: no 64-bit CPython 3.8 or newer that has its headers")


def configure(python):
    swig = os.environ.get("LUMATIE_SWIG") or ROOT / "build" / "tools" / "swig" / "bin" / "swig"
    if not pathlib.Path(swig).exists():
        sys.exit("error: no SWIG; ./run build fetches it")
    options = [
        "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O0 -w -DNDEBUG",
        "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
        "-DLUMATIE_PYTHONS={}".format(python),
        "-DLUMATIE_SWIG={}".format(swig),
    ]
    if shutil.which("mold"):
        for kind in ("EXE", "MODULE", "SHARED"):
            options.append("-DCMAKE_{}_LINKER_FLAGS=-fuse-ld=mold".format(kind))
    subprocess.run(
        ["cmake", "-S", SOURCE, "-B", BUILD, "-G", "Ninja", "--log-level=WARNING", *options],
        stdout=subprocess.DEVNULL,
        check=True,
    )


def build(target):
    """Builds what has changed; returns the compiler's words when that fails, else nothing."""
    done = subprocess.run(
        ["cmake", "--build", BUILD, "--parallel", "2", "--target", target],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        check=False,
    )
    return done.stdout if done.returncode else ""


# The suites. Each has a name, a command, variables of its environment and says which test failed.


class CppSuite:
    def __init__(self, selection, shard=None):
        self.name = "C++ " + selection
        self.target = "lumatie_tests"
        self.timeout = CPP_TIMEOUT
        self.command = [PROGRAM, "--gtest_filter=" + selection, "--gtest_fail_fast"]
        self.variables = {}
        if shard is not None:
            self.name += ", part {}".format(shard + 1)
            self.variables = {
                "GTEST_TOTAL_SHARDS": str(SHARDS),
                "GTEST_SHARD_INDEX": str(shard),
            }

    def failed_test(self, output):
        """The test that failed, or that was running at the end; an empty text for neither."""
        failed = re.search(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", output, re.MULTILINE)
        begun = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
        return failed.group(1) if failed else begun[-1] if begun else ""

    def alone(self, test):
        return CppSuite(test)

    @staticmethod
    def parts(selection):
        return [CppSuite(selection, shard) for shard in range(SHARDS)]


class PythonSuite:
    def __init__(self, python, names):
        self.python = python
        self.name = names
        self.target = "all"
        self.timeout = PYTHON_TIMEOUT
        self.command = [python, "-X", "dev", "-m", "unittest", "--verbose", "--failfast", names]
        folder = SOURCE / "tests" / "python"
        paths = [BUILD / "python", folder, folder / "alone", SOURCE / "host"]
        self.variables = {
            "PYTHONPATH": os.pathsep.join(map(str, paths)),
            "PYTHONDONTWRITEBYTECODE": "1",
            "LUMATIE_BUILD_DIR": str(BUILD),
            "LUMATIE_EXIT_REPEATS": os.environ.get("LUMATIE_EXIT_REPEATS", "1"),
        }

    def failed_test(self, output):
        failed = re.search(r"^(?:FAIL|ERROR): (\w+) \(([\w.]+)\)", output, re.MULTILINE)
        begun = failed or re.findall(r"^(test_\w+) \(([\w.]+)\)", output, re.MULTILINE)
        if not begun:
            return ""
        name, owner = failed.groups() if failed else begun[-1]
        if not name.startswith("test_"):
            return ""
        return owner if owner.endswith("." + name) else owner + "." + name

    def alone(self, test):
        return PythonSuite(self.python, test)


def named_suites(mutant, python):
    """Groups of suites in their order; those of a group run side by side."""
    groups = [CppSuite.parts(mutant.cpp)] if mutant.cpp else []
    return groups + [[PythonSuite(python, names)] for names in mutant.python]


def makers(mutant):
    """The patterns of the Python tests that a mutant of this file must pass to survive."""
    return {"canon": [CANON], "nikon": [NIKON]}.get(mutant.file.split("/")[0], [CANON, NIKON])


def whole_suites(patterns, python):
    """All C++ tests, then all Python tests of the makers."""
    folder = SOURCE / "tests" / "python"
    files = [path for pattern in patterns for path in sorted(folder.glob(pattern))]
    return [CppSuite.parts("*"), [PythonSuite(python, path.stem) for path in files]]


# Running them.


class Process:
    """A suite that is running, in a process group of its own."""

    def __init__(self, suite):
        self.suite = suite
        self._deadline = time.monotonic() + suite.timeout
        # Not a pipe: a process that outlives its suite would hold it open.
        self._output = tempfile.TemporaryFile()
        self._process = subprocess.Popen(
            suite.command,
            cwd=SOURCE,
            env={**os.environ, **suite.variables},
            stdin=subprocess.DEVNULL,
            stdout=self._output,
            stderr=subprocess.STDOUT,
            start_new_session=True,
        )

    def poll(self):
        """Whether it has ended, one way or another."""
        return self._process.poll() is not None or time.monotonic() > self._deadline

    def end(self):
        """Ends what is left of it, and returns its Failure or None."""
        status = self._process.poll()
        try:
            os.killpg(self._process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self._process.wait()
        self._output.seek(0)
        text = self._output.read().decode(errors="replace")
        self._output.close()
        test = self.suite.failed_test(text)
        if status is None:
            return Failure("hang", test or self.suite.name)
        if not status:
            return None
        crashed = status < 0 or not re.search(r"^(\[  FAILED  \]|FAILED \()", text, re.MULTILINE)
        return Failure("crash" if crashed else "caught", test)


def run(suites):
    """Runs suites side by side until one fails.

    Returns it, its Failure and the suites that were not run to the end; None when all pass.
    """
    waiting, running = list(suites), []
    try:
        while waiting or running:
            while waiting and len(running) < AT_ONCE:
                running.append(Process(waiting.pop(0)))
            for process in [one for one in running if one.poll()]:
                running.remove(process)
                failure = process.end()
                if failure:
                    return process.suite, failure, [one.suite for one in running] + waiting
            time.sleep(0.01)
    finally:
        for process in running:
            process.end()
    return None


def fails_again(suite, test):
    """Whether a test fails once more when nothing else runs beside it."""
    alone = suite.alone(test)
    return any(run([alone]) for _ in range(REPETITIONS))


def meet(suites):
    """Runs a group of suites and returns its Failure, or None when no test fails twice."""
    attempts = collections.Counter()
    while suites:
        found = run(suites)
        if not found:
            return None
        suite, failure, suites = found
        # Without a test's name the suite failed as a whole: it did not even begin.
        if failure.kind == "hang" or not failure.test or fails_again(suite, failure.test):
            return failure._replace(test=failure.test or suite.name)
        print("    passes when it is alone: {}".format(failure.test), flush=True)
        attempts[suite] += 1
        if attempts[suite] < REPETITIONS:
            suites = [suite] + suites
    return None


# What becomes of a mutant.


def check_unchanged(mutants, python, results, digest):
    """Makes sure that the tree passes every suite as it is."""
    groups = {}
    whole = sorted({pattern for mutant in mutants for pattern in makers(mutant)})
    for group in whole_suites(whole, python):
        groups[", ".join(suite.name for suite in group)] = group
    for mutant in mutants:
        for group in named_suites(mutant, python):
            # What is part of the whole is not run twice.
            if group[0].name.split(".")[0] in ("test_debug_log", "test_limits"):
                groups[group[0].name] = group
            elif isinstance(group[0], CppSuite):
                check_selection(mutant)
    check_names(sorted({name for mutant in mutants for name in mutant.python}), python)
    passed = results.setdefault("unchanged", {})
    for name, group in groups.items():
        if passed.get(name) == digest:
            continue
        print("unchanged: {}".format(name), flush=True)
        failure = meet(group)
        if failure:
            sys.exit("error: the unchanged tree fails: {0.kind} {0.test}".format(failure))
        passed[name] = digest
        keep(results)


def check_selection(mutant):
    """A selection that selects nothing would pass every mutant."""
    listing = subprocess.run(
        [PROGRAM, "--gtest_list_tests", "--gtest_filter=" + mutant.cpp],
        stdout=subprocess.PIPE,
        text=True,
        check=True,
    ).stdout
    missing = [
        part
        for part in mutant.cpp.split(":")
        if not any(fnmatch.fnmatchcase(name, part) for name in listed(listing))
    ]
    if missing:
        raise TableError("mutant {}: no test {}".format(mutant.number, ", ".join(missing)))


def check_names(names, python):
    """The same for names of Python tests: one that is unknown would fail with every mutant."""
    script = (
        "import sys, unittest\n"
        "for name in sys.argv[1:]:\n"
        "    tests = unittest.defaultTestLoader.loadTestsFromName(name)\n"
        "    if not tests.countTestCases() or '_FailedTest' in repr(tests): print(name)\n"
    )
    missing = subprocess.run(
        [python, "-c", script, *names],
        env={**os.environ, **PythonSuite(python, "").variables},
        stdout=subprocess.PIPE,
        text=True,
        check=True,
    ).stdout.split()
    if missing:
        raise TableError("no Python test {}".format(", ".join(missing)))


def listed(listing):
    """The full names in what --gtest_list_tests prints."""
    group = ""
    for line in listing.splitlines():
        name = line.split("#")[0].rstrip()
        if not name.startswith(" "):
            group = name
        elif group.endswith("."):
            yield group + name.strip()


def path_of(mutant):
    """The file in the copy: the module's, or one of the makers' interfaces."""
    return (SOURCE if mutant.file.startswith("interfaces/") else MODULE) / mutant.file


def judge(mutant, python, is_quick):
    """Builds and runs one mutant; returns its Failure, which may say that there was none."""
    path = path_of(mutant)
    original = path.read_text()
    path.write_text(apply(mutant, original))
    try:
        whole = whole_suites(makers(mutant), python)
        for group in named_suites(mutant, python) + (whole[:1] if is_quick else whole):
            words = build(group[0].target)
            if words:
                error = re.search(r"^.*\berror: .*$", words, re.MULTILINE | re.IGNORECASE)
                return Failure("does not compile", error.group() if error else words[-300:])
            failure = meet(group)
            if failure:
                return failure
        return None if is_quick else Failure("survived", "")
    finally:
        path.write_text(original)


def keep(results):
    RESULTS.parent.mkdir(parents=True, exist_ok=True)
    temporary = RESULTS.with_suffix(".new")
    temporary.write_text(json.dumps(results, indent=1))
    temporary.replace(RESULTS)


def run_mutants(mutants, results, options):
    digest = copy_sources()
    for mutant in mutants:
        apply(mutant, (path_of(mutant)).read_text())
    python = find_python()
    configure(python)
    words = build("all")
    if words:
        sys.exit("error: the unchanged tree does not compile\n" + words)
    if not options.quick:
        check_unchanged(mutants, python, results, digest)
    if options.resume:
        mutants = [one for one in mutants if identity(one) not in results["mutants"]]
    for mutant in mutants:
        begun = time.monotonic()
        print("{0.number} {0.file}: {0.what}".format(mutant), flush=True)
        failure = judge(mutant, python, options.quick)
        if failure is None:
            print("    not noticed so far", flush=True)
            continue
        seconds = round(time.monotonic() - begun)
        results["mutants"][identity(mutant)] = [*failure, seconds]
        keep(results)
        print("    {0.kind} {0.test} ({1} s)".format(failure, seconds), flush=True)


# What came of it.


def summary(mutants, results):
    """Prints the totals of the mutants that have a result; returns the exit status."""
    verdicts = [results["mutants"].get(identity(mutant)) for mutant in mutants]
    counts = collections.Counter(verdict[0] for verdict in verdicts if verdict)
    noticed = sum(counts[kind] for kind in NOTICED)
    tried = noticed + counts["survived"]
    for mutant, verdict in zip(mutants, verdicts):
        if verdict and verdict[0] not in NOTICED:
            print("{0.number} {0.file}: {0.what}: {1[0]} {1[1]}".format(mutant, verdict))
    print("{} of {} mutants noticed ({})".format(noticed, tried, dict(counts)))
    return 1 if counts["does not compile"] or not tried or noticed < ENOUGH * tried else 0


def words_of(verdict):
    """A verdict for the table in the documentation."""
    kind, test = verdict[:2]
    return {
        "caught": "`{}`".format(test),
        "crash": "`{}` (crash)".format(test),
        "hang": "`{}` (hang)".format(test),
    }.get(kind, kind)


def write_table(mutants, results):
    """Writes what came of all mutants for people, when each has its result."""
    verdicts = [results["mutants"].get(identity(mutant)) for mutant in mutants]
    if not all(verdicts):
        return
    counts = collections.Counter(verdict[0] for verdict in verdicts)
    noticed = sum(counts[kind] for kind in NOTICED)
    minutes = round(sum(verdict[2] for verdict in verdicts) / 60)
    lines = [
        "# Mutants",
        "",
        "Each mutant is a fault that was put into one line of the module's sources",
        "(`tests/mutants/mutants.toml` has the lines), to see whether a test notices. The last",
        "column has the first that failed, and failed again alone, or the first that hung.",
        "",
        "- {} mutants in {} files, {} minutes".format(
            len(mutants), len({mutant.file for mutant in mutants}), minutes
        ),
        "- {} noticed ({:.1f} %): {} by a failed test, {} by a crash, {} by a hang".format(
            noticed, 100 * noticed / len(mutants), *(counts[kind] for kind in NOTICED)
        ),
        "- {} survived".format(counts["survived"]),
    ]
    if counts["does not compile"]:
        lines.append("- {} do not compile".format(counts["does not compile"]))
    survivors = [m for m, verdict in zip(mutants, verdicts) if verdict[0] == "survived"]
    if survivors:
        lines += ["", "## Survivors", "", "| Number | File | Change | Why no test tells it apart |"]
        lines.append("| ---: | --- | --- | --- |")
        for one in survivors:
            reason = one.survives or "nobody has found out"
            lines.append(row(one.number, "`{}`".format(one.file), one.what, reason))
    lines += [
        "",
        "## All",
        "",
        "| Number | File | Change | Noticed by |",
        "| ---: | --- | --- | --- |",
    ]
    for one, verdict in zip(mutants, verdicts):
        lines.append(row(one.number, "`{}`".format(one.file), one.what, words_of(verdict)))
    TABLE_OF_RESULTS.write_text("\n".join(lines) + "\n")


def row(*cells):
    return "| {} |".format(" | ".join(str(cell).replace("|", "\\|") for cell in cells))


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--only", help="the mutants with these numbers, such as 3,17")
    parser.add_argument("--file", help="those of the files that fit a pattern, such as canon/*")
    parser.add_argument("--resume", action="store_true", help="go on with an interrupted run")
    parser.add_argument(
        "--quick",
        action="store_true",
        help="leave the whole Python suites out, and what passes the rest without a result",
    )
    return parser.parse_args()


def selected(mutants, options):
    if options.only:
        numbers = {int(number) for number in options.only.split(",")}
        mutants = [mutant for mutant in mutants if mutant.number in numbers]
    if options.file:
        mutants = [mutant for mutant in mutants if fnmatch.fnmatch(mutant.file, options.file)]
    return mutants


def main():
    options = parse_arguments()
    mutants = read_table()
    results = {"mutants": {}}
    if RESULTS.exists():
        results = json.loads(RESULTS.read_text())
    if not (options.resume or options.only or options.file):
        results["mutants"] = {}
    wanted = selected(mutants, options)
    run_mutants(wanted, results, options)
    write_table(mutants, results)
    return summary(wanted, results)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except TableError as error:
        sys.exit("error: {}".format(error))
