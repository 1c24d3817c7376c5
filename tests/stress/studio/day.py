"""A day in a studio, with everything that happens there at once.

Eight stations with cameras of both makers shoot and simulated ones publish, while the broker is
stopped, stations and the studio are killed, the disk is full, and the network drops connections.
Then what the cameras did is compared with what the studio has.
"""

import contextlib
import os
import random
import threading
import time

from scene import Scene, handed_over, kill
from studio_support import DEADLINE, wait_until

# Shots of a Canon station, of a Nikon one, which reports once a second, all at least; frames of the
# simulated ones, bytes and how many a second; seconds without a broker.
FORMS = {
    "short": {"shots": (12, 5), "frames": (90, 300_000, 12), "without_broker": 1.5},
    "long": {"shots": (150, 60), "frames": (260, 2_000_000, 2.5), "without_broker": 30.0},
}
PAUSE = 0.1  # seconds between an answer and the next request
MAKERS = {
    **{"c%d" % number: "canon" for number in range(1, 6)},
    **{"n%d" % number: "nikon" for number in range(1, 4)},
}
SIMULATED = 92
KILLED = ("c3", "n2")
HELD = "c4"
ANSWER_PATIENCE = 6.0  # seconds; then another request is made


class Asker(threading.Thread):
    """Has one station take its pictures, one after the other, whatever happens."""

    def __init__(self, desk, station, count, is_over, pause=PAUSE):
        super().__init__(daemon=True)
        self._desk = desk
        self.station = station
        self._count = count
        self._is_over = is_over
        self._pause = pause
        self.sent = []
        self.done = []  # answers of pictures that were taken
        self.refused = 0  # requests that, as the station says, were not carried out

    def run(self):
        while len(self.done) < self._count or not self._is_over.is_set():
            data = os.urandom(12)
            self.sent.append(data)
            self._desk.ask(self.station, data)
            answer = self._wait(data)
            if answer is not None and answer["ok"]:
                self.done.append(answer)
            self.refused += answer is not None and answer.get("reason") == "refused"
            self._is_over.wait(self._pause)

    def _wait(self, data):
        with contextlib.suppress(AssertionError):
            return wait_until(
                lambda: self._desk.answer(self.station, data), "an answer", ANSWER_PATIENCE
            )
        return None


def play(proof, form):
    """The day; what is broken is told to `proof`."""
    numbers = FORMS[form]
    with Scene(MAKERS, SIMULATED) as scene:
        begin(scene)
        chance = random.Random(proof.seed)
        is_over = threading.Event()
        frames = threading.Thread(
            target=scene.fleet.play, args=(*numbers["frames"], chance, is_over), daemon=True
        )
        shots = dict(zip(("canon", "nikon"), numbers["shots"]))
        askers = [Asker(scene.desk, name, shots[maker], is_over) for name, maker in MAKERS.items()]
        begun = time.monotonic()
        for thread in (frames, *askers):
            thread.start()
        try:
            late = disturb(proof, scene, numbers["without_broker"])
        finally:
            is_over.set()
        for thread in (frames, *askers):
            thread.join(600.0)
            proof.check(not thread.is_alive(), "what should be shot is not shot")
        scene.fleet.tell_late()
        proof.figure("shot for", "%.0f s by %d stations, %d of them simulated",
                     time.monotonic() - begun, len(askers) + SIMULATED, SIMULATED)  # fmt: skip
        scene.compare(proof, patience=120.0)
        compare_with_cameras(proof, scene, askers, late)
        dropped = sum(way.dropped for way in scene.all_ways)
        proof.check(dropped > 0, "the network has dropped no connection")
        proof.figure("connections dropped", "%d", dropped)


def begin(scene):
    """Starts everything, and waits until all of it is there."""
    scene.start_fleet()
    begin_stations(scene)


def begin_stations(scene):
    """The same for the studio and the stations with cameras."""
    scene.open_desk()
    scene.start_studio()
    for name in MAKERS:
        scene.start_station(name)
    await_stations(scene)


def await_stations(scene):
    for name in MAKERS:
        await_station(scene, name)


def await_station(scene, name):
    wait_until(
        lambda: scene.desk.is_online(name),
        lambda: "station %s: %s" % (name, scene.commands[name].words.read_text()),
        60.0,
    )


def disturb(proof, scene, without_broker):
    """All that happens; returns the requests that came too late."""
    second_of_a_name(proof, scene)
    full_disk(proof, scene)
    killed_studio(proof, scene)
    for name in KILLED:
        killed_station(scene, name)
    late = held_up(proof, scene)
    for has_memory in (True, False):
        stopped_broker(scene, without_broker, has_memory)
    return late


def second_of_a_name(proof, scene):
    """Another station called like the first."""
    name = next(iter(MAKERS))
    second = scene.start_station(name, folder="others")
    status = second.process.wait(DEADLINE)
    proof.check(status == 5, "a second station %s ended with %s", name, status)
    proof.check(not second.fired(), "a second station %s has shot", name)


def full_disk(proof, scene):
    """The studio's disk is full for a while."""
    before = len(scene.studio.alarms)
    scene.studio.limit_files(100_000)

    def is_told():
        alarms = scene.studio.alarms[before:]
        return [one for one in alarms if "pictures cannot be collected" in one["what"]]

    try:
        wait_until(is_told, "the alarm of a full disk", 20.0)
    except AssertionError as error:
        proof.check(False, "%s; %s", error, scene.studio.words.read_text())
    scene.studio.limit_files(None)


def killed_studio(proof, scene):
    """Killed while it collects, and started again."""
    before = len(scene.collected())
    wait_until(lambda: len(scene.collected()) > before, "a picture collected", 60.0)
    kill(scene.studio)
    parts = os.listdir(str(scene.folder / ".lumatie" / "parts"))
    proof.figure("in the middle of the kill", "%d pictures, %d parts", before + 1, len(parts))
    scene.start_studio()


def killed_station(scene, name):
    """Killed in the middle of a burst, and started again in its folder."""
    fired = scene.commands[name].fired()
    wait_until(lambda: scene.commands[name].fired() > fired, "a shot of " + name, 60.0)
    kill(scene.commands[name])
    scene.start_station(name)


def held_up(proof, scene):
    """A request that the network holds up for too long, behind ticks that tell nothing of it."""
    way = scene.ways[HELD]
    await_station(scene, HELD)
    way.is_holding.clear()
    data = os.urandom(12)
    scene.desk.ask(HELD, data)
    threading.Event().wait(2.6)  # that it waits is what is tested
    way.is_holding.set()
    with contextlib.suppress(AssertionError):  # the connection may be dropped at this moment
        wait_until(lambda: scene.desk.answer(HELD, data), "an answer", ANSWER_PATIENCE)
    answer = scene.desk.answer(HELD, data)
    proof.check(answer is None or not answer["ok"], "a request of 2.6 s ago was carried out")
    return [(HELD, data)]


def stopped_broker(scene, seconds, has_memory):
    """The broker is away, and has or has not kept what it knew."""
    scene.broker.stop()
    if not has_memory:
        scene.broker.forget()
    threading.Event().wait(seconds)
    scene.broker.start()
    scene.desk.connect()
    await_stations(scene)


def compare_with_cameras(proof, scene, askers, late, killed=KILLED):
    """What each camera did, by its own log, with what was asked for and what is there."""
    fired = handed = 0
    for asker in askers:
        name, command = asker.station, scene.commands[asker.station]
        count, whole = command.fired(), handed_over(command)
        pictures = len(command.pictures())
        fired, handed = fired + count, handed + whole
        # One that was killed refuses the second of a request whose first it has carried out.
        asked = len(asker.sent) - (0 if name in killed else asker.refused)
        proof.check(count <= asked, "%s: %d requests, %d releases", name, asked, count)
        proof.check(count >= len(asker.done), "%s: %d done, %d releases", name,
                    len(asker.done), count)  # fmt: skip
        in_time = whole <= pictures <= count if name in killed else whole == pictures == count
        form = "%s: %d releases, %d handed over, %d pictures"
        proof.check(in_time, form, name, count, whole, pictures)
        numbers = [(answer["pictures"][0]["sha256"]) for answer in asker.done]
        proof.check(len(set(numbers)) == len(numbers), "%s: one picture answers two", name)
    late = [one for one in late if (scene.desk.answer(*one) or {}).get("ok")]
    proof.check(not late, "%d requests fired late", len(late))
    requests = sum(len(asker.sent) for asker in askers)
    done = sum(len(asker.done) for asker in askers)
    proof.figure("requests; answered as done", "%d; %d", requests, done)
    proof.figure("releases; handed over", "%d; %d", fired, handed)
