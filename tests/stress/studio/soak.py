"""Thousands of pictures of eight stations with cameras, each collected once and compared."""

import threading
import time

from day import MAKERS, Asker, begin_stations, compare_with_cameras
from scene import Scene

PICTURES = {"long": 10_000, "short": 160}
NIKON_SHARE = 20  # one of so many pictures is a Nikon station's, which takes one a second
LONGEST = 3600.0  # seconds
SETTLED = 0.5  # of all pictures, after which only what is kept of each picture grows
# Bytes for each picture: the studio knows it again; a station's page shows it in its strip.
MOST_KEPT = {"studio": 500, "station": 8000}
# Bytes for each picture that waits to be collected: memory that was needed once is not given back.
MOST_WAITING = 1500
LEAST_GROWTH_KB = 4096  # of a start that is not over yet


class Backlog(threading.Thread):
    """Notes how many pictures have waited to be collected at most."""

    def __init__(self, studio):
        super().__init__(daemon=True)
        self._studio = studio
        self.most = 0

    def run(self):
        counts = self._studio.counts
        while self._studio.process.poll() is None:
            self.most = max(self.most, counts["picture"] - counts["collected"])
            time.sleep(0.05)


def play(proof, form):
    """Every station shoots as fast as its camera does, over a network that drops connections."""
    count = PICTURES[form]
    with Scene(MAKERS, 0) as scene:
        begin_stations(scene)
        backlog = Backlog(scene.studio)
        backlog.start()
        is_over = threading.Event()
        is_over.set()
        askers = [Asker(scene.desk, name, part, is_over, 0.0) for name, part in shares(count)]
        begun = time.monotonic()
        for asker in askers:
            asker.start()
        before = measure(scene, askers, count * SETTLED)
        waited = backlog.most
        for asker in askers:
            asker.join(max(0.0, begun + LONGEST - time.monotonic()))
            proof.check(not asker.is_alive(), "%s: not all is shot", asker.station)
        seconds = time.monotonic() - begun
        proof.figure("pictures a second", "%.1f", sum(len(a.done) for a in askers) / seconds)
        scene.compare(proof, patience=120.0)
        compare_with_cameras(proof, scene, askers, [], killed=())
        proof.figure("waited to be collected at most", "%d, %d", waited, backlog.most)
        judge(proof, before, measure(scene, askers, 0), backlog.most - waited)


def shares(count):
    """How many pictures each station takes."""
    nikons = [name for name, maker in MAKERS.items() if maker == "nikon"]
    canons = [name for name, maker in MAKERS.items() if maker == "canon"]
    few = max(1, count // NIKON_SHARE // len(nikons))
    rest = count - few * len(nikons)
    yield from ((name, few) for name in nikons)
    for index, name in enumerate(canons):
        yield name, rest // len(canons) + (index < rest % len(canons))


def measure(scene, askers, count):
    """When so many pictures have been taken: each program's memory in kB, and its pictures."""
    while sum(len(asker.done) for asker in askers) < count:
        time.sleep(0.05)
    sizes = {asker.station: len(asker.done) for asker in askers}
    programs = {**scene.commands, "studio": scene.studio}
    sizes["studio"] = sum(sizes.values())
    return {name: (resident_kilobytes(programs[name]), sizes[name]) for name in sorted(sizes)}


def resident_kilobytes(program):
    with open("/proc/%d/status" % program.process.pid, encoding="ascii") as file:
        line = next(line for line in file if line.startswith("VmRSS:"))
    return int(line.split()[1])


def judge(proof, before, after, more_waited):
    """What grew from the one moment to the other is what is kept of the pictures between.

    And what the studio needed when so many more of them waited than ever before.
    """
    for name, (size, pictures) in before.items():
        now, more = after[name][0], after[name][1] - pictures
        proof.figure("%s's memory" % name, "%d, %d kB; %d pictures between", size, now, more)
        bound = MOST_KEPT["studio" if name == "studio" else "station"] * more / 1024
        if name == "studio":
            bound += MOST_WAITING * more_waited / 1024
        is_kept = now - size <= max(bound, LEAST_GROWTH_KB if more < 500 else 0)
        proof.check(is_kept, "%s: %d kB became %d by %d pictures", name, size, now, more)
