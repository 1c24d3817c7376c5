"""Has mypy and pyright read what an application's developers write against the package.

In tests/typing both must accept application.py, and report each line of mistakes.py that is marked
"# expect: error", and no other. pyright also looks for names of the package's core whose types are
not declared: each checker would make of these what it likes. Ends with 1 when anything is wrong.
"""

import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys
from typing import Any, Dict, Iterator, List, Tuple

ROOT = pathlib.Path(__file__).resolve().parents[1]
TOOLS = ROOT / "build" / "tools"
MYPY = [str(TOOLS / "stubtest" / "bin" / "mypy"), "--strict", "--python-version", "3.8"]
PYRIGHT = [str(TOOLS / "node" / "node_modules" / ".bin" / "pyright"), "--outputjson"]
PYRIGHT += ["--pythonpath", sys.executable]
FOLDER = ROOT / "tests" / "typing"
FILES = sorted(FOLDER.glob("*.py"))
SEARCHED = [ROOT / "host", ROOT / "System" / "PyAdapater" / "Lumatie"]
MARK = "# expect: error"
# What is served and typed at, not written against.
PROGRAMS = re.compile(r"lumatie_host\.(page|studio|check|cli)\.")

Place = Tuple[str, int]  # a file's name, and a line's number from 1


def run(*command: str) -> str:
    """What a checker prints; raises RuntimeError when it could not do its work."""
    path = os.pathsep.join(map(str, SEARCHED))
    done = subprocess.run(
        command,
        cwd=str(ROOT),
        env=dict(os.environ, PYTHONPATH=path, MYPYPATH=path),
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        universal_newlines=True,
        timeout=900,
        check=False,
    )
    if done.returncode not in (0, 1):
        raise RuntimeError(done.stdout + done.stderr)
    return done.stdout


def marked() -> List[Place]:
    """The lines that have to be reported."""
    return [
        (path.name, number)
        for path in FILES
        for number, line in enumerate(path.read_text("utf-8").splitlines(), 1)
        if line.endswith(MARK)
    ]


def said_by_mypy() -> Dict[Place, str]:
    """What mypy reports of each line."""
    options = ["--cache-dir", "build/mypy", "--no-error-summary", *map(str, FILES)]
    found = re.findall(r"^(.+?):(\d+): error: (.*)$", run(*MYPY, *options), re.MULTILINE)
    return {(pathlib.Path(file).name, int(line)): text for file, line, text in found}


def said_by_pyright() -> Dict[Place, str]:
    """What pyright reports of each line, warnings included."""
    told: Dict[str, Any] = json.loads(run(*PYRIGHT, "--project", str(FOLDER)))
    if told["summary"]["filesAnalyzed"] != len(FILES):
        raise RuntimeError("pyright has not read %s" % FILES)
    return {
        (pathlib.Path(one["file"]).name, one["range"]["start"]["line"] + 1): one["message"]
        for one in told["generalDiagnostics"]
    }


def undeclared() -> Iterator[str]:
    """The public names of the package whose type is declared nowhere, and why."""
    options = ["--verifytypes", "lumatie_host", "--ignoreexternal"]
    symbols = json.loads(run(*PYRIGHT, *options))["typeCompleteness"]["symbols"]
    if not any(symbol["name"] == "lumatie_host.open" for symbol in symbols):
        raise RuntimeError("pyright has not read the package")
    for symbol in symbols:
        for one in symbol["diagnostics"]:
            if symbol["isExported"] and not PROGRAMS.match(symbol["name"]):
                yield "%s: %s" % (symbol["name"], one["message"])


def differences(said: Dict[Place, str], expected: List[Place]) -> Iterator[str]:
    """Lines that are reported and should not be, and lines that should be and are not."""
    for (file, line), text in sorted(said.items()):
        if (file, line) not in expected:
            yield "%s:%d: %s" % (file, line, text)
    for file, line in expected:
        if (file, line) not in said:
            yield "%s:%d: nothing is said of this line" % (file, line)


def main() -> int:
    with concurrent.futures.ThreadPoolExecutor() as pool:
        mypy, pyright = pool.submit(said_by_mypy), pool.submit(said_by_pyright)
        names = pool.submit(lambda: list(undeclared()))
    wrong = ["mypy: %s" % one for one in differences(mypy.result(), marked())]
    wrong += ["pyright: %s" % one for one in differences(pyright.result(), marked())]
    wrong += names.result()
    for one in wrong:
        print(one)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
