"""What the tests of the studio's page share: a page, ways to ask it, stations that act."""

import json
import threading

from answers import Asking
from lumatie_host.studio import clock, messages
from lumatie_host.studio.wall import Wall
from studio_support import SimulatedStation, wait_until
from test_studio import WithStudio


class ActingStation(SimulatedStation):
    """A station that does what it is asked for, or says why not."""

    refusal = None  # of everything: reason and text
    is_deaf = False

    def heard(self, message):
        super().heard(message)
        operation = message.topic.rsplit("/", 1)[1]
        if operation == "enter" or self.is_deaf:
            return
        received = clock.now()
        if self.refusal is not None:
            reason, text = self.refusal
            done = {"ok": False, "reason": reason, "error": text, "advice": "Look at it."}
        else:
            done = {"ok": True, **getattr(self, "_" + operation)(json.loads(message.payload))}
        done["clock"] = {"received": received, "fired": received, "sent": clock.now()}
        answer = {"v": 1, "kind": "answer", **self._names, **done}
        self.connection.publish(
            message.response, messages.encode(answer), correlation=message.correlation
        )

    def _shoot(self, request):
        self.shot()
        picture = self.picture(b"picture %d" % len(self.ledger))
        return {"shot": self._shot_number, "pictures": [picture], "milliseconds": 5}

    def _set(self, request):
        return {"name": request["name"], "text": request.get("text", "by key")}

    def _tag(self, request):
        return {"tag": request["tag"], "next_name": ""}

    def _rate(self, request):
        return {**request, "file": request.get("file", "%s.JPG" % request.get("n"))}

    def _sequence(self, request):
        about = {"kind": request["kind"], "running": True, "frame": 0, "of": request["count"]}
        return {"sequence": {**about, "next": 0.0, "error": None, "stopped": False}}

    def _stop(self, request):
        return {"sequence": None}

    @property
    def _shot_number(self):
        return self.ledger[-1]["shot"]


class WallCase(Asking, WithStudio):
    """A studio with its page."""

    @property
    def page(self):
        return self.wall

    def serve(self, **options):
        self.studio = self.start_studio(**options)
        self.wall = Wall(self.studio)
        self.addCleanup(self._check_leftovers)
        self.addCleanup(self.wall.close)
        self.wall.start()
        return self.wall

    def _check_leftovers(self):
        wait_until(
            lambda: not [t for t in threading.enumerate() if t.name.startswith("lumatie-wall")],
            "the end of the page's threads",
        )

    def acting(self, *names):
        """Stations that act, as soon as the page knows them."""
        stations = []
        for name in names:
            station = ActingStation(self.broker.address(name), "pta", name).start()
            self.addCleanup(station.close)
            station.tell_state()
            station.begin_ticks()
            stations.append(station)
        self.wait_for_state(lambda told: {one["station"] for one in told["stations"]} >= set(names))
        for name in names:
            wait_until(lambda name=name: self.studio._hub.since(name), "a tick")
        return stations

    def station(self, name):
        return next(one for one in self.state()["stations"] if one["station"] == name)

    def wait_for_station(self, name, predicate):
        self.wait_for_state(
            lambda told: any(predicate(o) for o in told["stations"] if o["station"] == name)
        )

    def listen(self, function, path="/api/live", token="operator"):
        """Runs a coroutine function with a socket of the page."""

        async def run(client):
            return await function(await self.live(client, token, path=path))

        return self.run_async(run)
