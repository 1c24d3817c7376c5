"""Names: every token, two programs in one folder, and texts that no file can be called by."""

import collections
import os
import stat
import subprocess
import sys
import tempfile

import lumatie_host as tether
from lasting import BATCH, Count, jpeg
from proof import DEADLINE, shoot
from virtual_cameras import VirtualCanon, VirtualNikon, wait_until

COUNTS = {"long": 10000, "short": 120}

NAME = (
    "{job}/{station}/{date:%y%m%d}_{time}_{camera}_{maker}_{tag}_{original}_{n:05}_{total:06}.{ext}"
)
CAMERA = "picture.width = 64\npicture.height = 48\nshutter.lag_ms = 0\nlog.lines = 500\n"
EMOJI = "\U0001f4f7\U0001f469\u200d\U0001f680"

# One of two programs that shoot into one folder at the same time.
PROGRAM = """
import sys

import naming

naming.shoot_into(*sys.argv[1:])
"""

# Templates that are rejected before the first shot.
REJECTED = [
    "CON",
    "con.{ext}",
    "LPT1/{n}",
    "COM\u00b9",
    "{nonsense}",
    "{n",
    "a//b",
    "../{n}",
    ".lumatie/{n}",
    "a:{n}",
    "{n}?",
    "a./{n}",
    "{n} /x",
    "x" * 256 + "{n}",
    "{n:0300}",
    "\ud800{n}",
    "{tag!r}",
]
# Tags, as a scanner may type them; a picture is never lost for its name.
TAGS = [
    "CON",
    "nul",
    "AUX.txt",
    "..",
    ".",
    "",
    " ",
    "a/b",
    "a\\b",
    "a:b",
    "end.",
    "end ",
    "\0\1",
    "x" * 255,
    "\u00e4" * 127,
    EMOJI * 30,
    EMOJI,
    "\ud800",
    "Shoe",
    "shoe",
    "SHOE",
    "Shoe",
    ".lumatie",
]


def play(proof, maker, count):
    """Two programs, then odd names, then folders that nothing can be written to."""
    two_programs(proof, maker, count)
    odd_names(proof, maker)
    rejected(proof, maker)
    read_only(proof, maker)


def two_programs(proof, maker, count):
    """Each shoots half of the pictures into the same folder, under names with every token."""
    with tempfile.TemporaryDirectory(prefix="lumatie-") as base:
        folder = os.path.realpath(base)
        here = os.path.dirname(os.path.abspath(__file__))
        path = os.pathsep.join([here, *sys.path])
        programs = [
            subprocess.Popen(
                [sys.executable, "-c", PROGRAM, maker, folder, station, str(count // 2)],
                env={**os.environ, "PYTHONPATH": path},
                stdout=subprocess.DEVNULL,
            )
            for station in ("1", "2")
        ]
        for program in programs:
            proof.check(program.wait() == 0, "a program failed")
        records = [
            event for event in tether.Ledger(folder).events() if isinstance(event, tether.Picture)
        ]
        names = [record.file for record in records]
        proof.figure("two programs, one folder", "%d pictures", len(names))
        proof.check(len(names) == count // 2 * 2, "%d pictures of %d", len(names), count // 2 * 2)
        proof.check(len(set(names)) == len(names), "a name was given twice")
        totals = sorted(int(name.rsplit("_", 1)[1].split(".")[0]) for name in names)
        wanted = list(range(1, len(names) + 1))
        proof.check(totals == wanted, "a number was given twice, or left out")
        for station in ("1", "2"):
            own = sorted(int(name.split("_")[-2]) for name in names if "/%s/" % station in name)
            proof.check(own == wanted[: len(own)], "station %s: numbers %s", station, own[:5])
        for finding in tether.verify(folder):
            proof.check(False, "verify: %s", finding.text)


def shoot_into(maker, folder, station, count):
    """One of the programs: a Nikon camera's pictures come in batches, as from a card."""
    count = int(count)
    camera = VirtualNikon() if maker == "nikon" else VirtualCanon()
    camera.configure(CAMERA)
    words = {"job": "proof", "station": station, "tag": "shoe"}
    with tether.open(virtual=maker, folder=folder, name=NAME, **words) as session:
        heard = Count(session)
        for done in range(0, count, BATCH):
            size = min(BATCH, count - done)
            if maker == "nikon":
                for number in range(done, done + size):
                    camera.add_item(jpeg(int(station) * 1000000 + number))
            else:
                for _ in range(size):
                    session.shoot(timeout=DEADLINE)
            wait_until(lambda until=done + size: heard.pictures >= until, "all are told", DEADLINE)


def odd_names(proof, maker):
    """Each tag alone makes the name; none of the files may replace another one."""
    with shoot(maker) as made:
        made.camera.configure(CAMERA)
        with made.open(name="{tag}") as session:
            for tag in TAGS:
                session.tag = tag
                session.shoot(timeout=DEADLINE)
        made.compare(proof)
        folded = collections.Counter(name.lower() for name in made.files())
        alike = sum(count - 1 for count in folded.values())
        proof.figure("odd tags", "%d pictures, %d differ in case only", len(made.files()), alike)
        proof.check(len(made.files()) == len(TAGS), "%d files", len(made.files()))
        longest = max(len(part.encode("utf-8", "surrogateescape")) for part in made.files())
        proof.check(longest <= 255, "a name of %d bytes", longest)


def rejected(proof, maker):
    """Templates that some system refuses make an error, and nothing is shot or written."""
    with shoot(maker) as made:
        names = 0
        for template in REJECTED:
            try:
                made.open(name=template).close()
            except tether.NameRejected as error:
                names += bool(str(error) and error.advice)
            else:
                proof.check(False, "%r was taken", template)
        proof.figure("templates rejected", "%d of %d", names, len(REJECTED))
        proof.check(not made.camera.pictures(), "a picture was taken")
        proof.check(os.listdir(made.folder) == [], "something was written")


def read_only(proof, maker):
    """A folder that cannot be written to is rejected before the first shot."""
    with shoot(maker) as made:
        for what, folder in (
            ("a folder of the system's", "/proc/self/fdinfo"),
            ("one that is not there", os.path.join(made.folder, "no")),
            ("a file", __file__),
        ):
            try:
                tether.open(virtual=maker, folder=folder).close()
            except tether.FolderRejected as error:
                proof.check(str(error) and error.advice, "%s: no words", what)
            else:
                proof.check(False, "%s was taken", what)
        if os.name == "posix" and os.geteuid() != 0:
            os.chmod(made.folder, stat.S_IRUSR | stat.S_IXUSR)
            try:
                made.open().close()
            except tether.FolderRejected:
                pass
            else:
                proof.check(False, "a read-only folder was taken")
            os.chmod(made.folder, stat.S_IRWXU)
        proof.check(not made.camera.pictures(), "a picture was taken")
        proof.figure("folders rejected", "before the first shot")
