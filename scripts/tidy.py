"""Runs clang-tidy over the hand-written C++ sources that a build tree compiles.

A source that was clean is checked again only when it, a header of ours that it includes, its
compile options or the set of checks changed: lint stays quick while one works.
"""

import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
# The system's headers would take most of the time.
EXTENSION = ROOT / "build" / "tidy" / "OwnDeclarations.so"
TIDY = [
    "clang-tidy-14",
    "--quiet",
    "--load=%s" % EXTENSION,
    "--checks=lumatie-own-declarations",
]
OURS = [ROOT / folder for folder in ("System", "virtual", "tests", "bench")]
CONFIGURATION = [str(ROOT / folder / ".clang-tidy") for folder in (".", "tests", "bench")]
# Options that GCC alone understands, and what would make errors of warnings that only Clang has.
FOREIGN = {"-fno-gnu-unique", "-Werror"}


def sources(build):
    """One entry of the compilation database for each source of ours, options made clang's."""
    entries = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        source = pathlib.Path(entry["directory"], entry["file"]).resolve()
        if any(folder in source.parents for folder in OURS):
            options = [word for word in shlex.split(entry["command"]) if word not in FOREIGN]
            entries.setdefault(source, {**entry, "command": shlex.join(options)})
    return entries


def fingerprint(entry):
    """Changes with everything that can change what clang-tidy says; None when it is not known."""
    options = shlex.split(entry["command"])
    output = options.index("-o")
    listing = subprocess.run(
        options[:output] + options[output + 2 :] + ["-MM"],
        cwd=entry["directory"],
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
        text=True,
        check=False,
    )
    if listing.returncode:
        return None
    digest = hashlib.sha256(entry["command"].encode())
    files = listing.stdout.replace("\\\n", " ").split()[1:]
    for path in [__file__, EXTENSION, *CONFIGURATION, *files]:
        digest.update(pathlib.Path(entry["directory"], path).read_bytes())
    return digest.hexdigest()


def check(source, entry, folder):
    """What clang-tidy has to say about one source; an empty text when it is clean."""
    # On a fresh checkout nothing is known to be clean, and nobody comes back to it.
    mark = None if os.environ.get("CI") == "true" else fingerprint(entry)
    stamp = folder / (str(source.relative_to(ROOT)).replace(os.sep, "__") + ".clean")
    if mark and stamp.exists() and stamp.read_text() == mark:
        return ""
    result = subprocess.run(
        [*TIDY, "-p", str(folder), str(source)],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        check=False,
    )
    if result.returncode:
        return result.stdout
    if mark:
        stamp.write_text(mark)
    return ""


def is_blind(folder):
    """True when a defect in a source and one in a header of ours are not both found."""
    root = folder / "tests" / "blind"
    root.mkdir(parents=True, exist_ok=True)
    (root / "Defect.h").write_text("inline int zero() { int header; header = 0; return header; }\n")
    (root / "Defect.cpp").write_text(
        '#include <string>\n#include "Defect.h"\n'
        "int one() { int source; source = zero() + 1; return source; }\n"
    )
    configuration = "--config-file=%s" % (ROOT / "tests" / ".clang-tidy")
    result = subprocess.run(
        [*TIDY, configuration, str(root / "Defect.cpp"), "--", "-std=c++17"],
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
        text=True,
        check=False,
    )
    return not all("'%s' is not init" % name in result.stdout for name in ("header", "source"))


def unique_complaints(outputs):
    """Each complaint once: every source that includes a header repeats what is said of it."""
    counter = re.compile(r"^\d+ warnings? (?:and \d+ errors? )?generated.*\n", re.MULTILINE)
    start = re.compile(r"^(?=\S+:\d+:\d+: (?:error|warning):)", re.MULTILINE)
    blocks = {}
    for text in outputs:
        for block in start.split(counter.sub("", text)):
            blocks.setdefault(block.strip())
    return [block for block in blocks if block]


def main(build):
    folder = build / "tidy"
    folder.mkdir(exist_ok=True)
    if is_blind(folder):
        print("clang-tidy does not find what it has to: is %s up to date?" % EXTENSION)
        return 1
    entries = sources(build)
    (folder / "compile_commands.json").write_text(json.dumps(list(entries.values())))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        checks = [pool.submit(check, *item, folder) for item in entries.items()]
        outputs = [text for text in (one.result() for one in checks) if text]
    for text in unique_complaints(outputs):
        print(text)
    print("clang-tidy: %d sources, %d with complaints" % (len(entries), len(outputs)))
    return 1 if outputs or not entries else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1]).resolve()))
