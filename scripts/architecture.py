"""Holds the sources' includes against the rooms of docs/coding.md; with --draw, draws them.

A file belongs to the room whose patterns match it, and may include what is in its own room and in
the rooms that the table lets it use. The drawing, docs/architecture.svg, shows which rooms do use
which; it is made with Graphviz. Ends with 1 when an include is not allowed, a file has no room, a
room has no file, or the drawing shows something else than the sources.
"""

import fnmatch
import pathlib
import re
import subprocess
import sys
from typing import Dict, Iterator, List, NamedTuple, Set, Tuple
from xml.etree import ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[1]
MODULE = ROOT / "System" / "PyAdapater" / "Lumatie"
RULES = ROOT / "docs" / "coding.md"
DRAWING = ROOT / "docs" / "architecture.svg"
SEARCHED = (MODULE, ROOT, ROOT / "virtual", ROOT / "interfaces")
SUFFIXES = (".h", ".cpp", ".i")

# Headers in angle brackets that end in .h: these may be used in every room. The others are the
# system's, but for the interpreter's own.
HARMLESS = {"stdint.h", "stb_easy_font.h", "stb_image_write.h"}
SYSTEM, PYTHON = "the system", "`Python.h`"

Edge = Tuple[str, str]


class Room(NamedTuple):
    patterns: List[str]
    uses: Set[str]


class Include(NamedTuple):
    place: str  # file and line
    source: str  # the room that includes
    target: str  # the room that is included, SYSTEM or PYTHON


def read_rooms() -> Dict[str, Room]:
    """The table's rooms by their names."""
    rooms = {}
    for line in RULES.read_text(encoding="utf-8").splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if line.startswith("|") and len(cells) == 3 and "`" in cells[1]:
            uses = {one.strip() for one in cells[2].split(",")} - {""}
            rooms[cells[0]] = Room(re.findall("`([^`]+)`", cells[1]), uses)
    return rooms


def room_of(path: pathlib.Path, rooms: Dict[str, Room]) -> str:
    """The name of the room with the longest pattern that fits a file; empty when there is none."""
    base = MODULE if MODULE in path.parents else ROOT
    name = path.relative_to(base).as_posix()
    fitting = [
        (len(pattern), room)
        for room, (patterns, _) in rooms.items()
        for pattern in patterns
        if fnmatch.fnmatchcase(name, pattern)
    ]
    return max(fitting)[1] if fitting else ""


def files() -> Iterator[pathlib.Path]:
    for folder in (MODULE, ROOT / "interfaces", ROOT / "virtual"):
        yield from sorted(path for path in folder.rglob("*") if path.suffix in SUFFIXES)


def find(name: str, source: pathlib.Path) -> pathlib.Path:
    """The file of ours that an include in quotes names."""
    for folder in (source.parent, *SEARCHED):
        if (folder / name).is_file():
            return (folder / name).resolve()
    raise SystemExit("{}: no file {}".format(source.relative_to(ROOT).as_posix(), name))


def includes(rooms: Dict[str, Room]) -> Iterator[Include]:
    """What crosses from one room into another, or into the system."""
    pattern = re.compile(r'^\s*[#%]include\s+(?:"([^"]+)"|<([^>]+\.h)>)')
    for path in files():
        source = room_of(path, rooms)
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            match = pattern.match(line)
            if not match or match.group(2) in HARMLESS:
                continue
            if match.group(1):
                target = room_of(find(match.group(1), path), rooms)
            else:
                target = PYTHON if match.group(2) == "Python.h" else SYSTEM
            if target != source:
                yield Include(
                    "{}:{}".format(path.relative_to(ROOT).as_posix(), number), source, target
                )


def complaints(rooms: Dict[str, Room], crossing: List[Include]) -> Iterator[str]:
    inhabited = set()
    for path in files():
        inhabited.add(room_of(path, rooms))
        if not room_of(path, rooms):
            yield "{}: in no room of docs/coding.md".format(path.relative_to(ROOT).as_posix())
    for name, room in rooms.items():
        if name not in inhabited:
            yield "docs/coding.md: nothing is in the room {}".format(name)
        for unknown in room.uses - set(rooms) - {SYSTEM, PYTHON}:
            yield "docs/coding.md: {} may use {}, which is no room".format(name, unknown)
    for place, source, target in crossing:
        if source and target not in rooms[source].uses:
            yield "{}: {} may not use {}".format(place, source, target)


def edges(rooms: Dict[str, Room], crossing: List[Include]) -> Set[Edge]:
    return {(source, target) for _, source, target in crossing if target in rooms}


def draw(rooms: Dict[str, Room], shown: Set[Edge]) -> None:
    lines = [
        "digraph rooms {",
        "graph [ranksep=0.45, nodesep=0.35]",
        'node [shape=box, style="rounded,filled", fillcolor="#eef2f7", color="#5b6b7f",'
        ' fontname="sans-serif", fontsize=12, margin="0.18,0.08"]',
        'edge [color="#8a97a8", arrowsize=0.7]',
    ]
    lines += ['"{}"'.format(room) for room in rooms]
    lines += ['"{}" -> "{}"'.format(*edge) for edge in sorted(shown)]
    text = "\n".join(lines) + "\n}\n"
    svg = subprocess.run(
        ["dot", "-Tsvg"], input=text, stdout=subprocess.PIPE, check=True, universal_newlines=True
    ).stdout
    # The name of the program's version changes; the rest does not.
    DRAWING.write_text(re.sub(r"<!--.*?-->\n?", "", svg, flags=re.DOTALL), encoding="utf-8")


def drawn() -> Set[Edge]:
    """The arrows of the drawing."""
    if not DRAWING.exists():
        return set()
    root = ElementTree.parse(str(DRAWING)).getroot()
    titles = (title.text or "" for title in root.iter("{http://www.w3.org/2000/svg}title"))
    return {(title.split("->")[0], title.split("->")[1]) for title in titles if "->" in title}


def main() -> int:
    rooms = read_rooms()
    crossing = list(includes(rooms))
    found = list(complaints(rooms, crossing))
    shown = edges(rooms, crossing)
    if sys.argv[1:] == ["--draw"] and not found:
        draw(rooms, shown)
    if drawn() != shown:
        found.append(
            "docs/architecture.svg is not that of the sources: scripts/architecture.py --draw"
        )
    print("\n".join(found) or "{} rooms, {} arrows".format(len(rooms), len(shown)))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
