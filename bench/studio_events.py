"""From a station that publishes an event to a studio's listener: studio_events.py RESULT [--short]

100 stations tell their clocks and 100 events a second in a program of their own, over mosquitto.
The studio is in this program, with its folder; in a third one the client library alone listens at
the broker to the same events, which is the floor. All three read one clock.
"""

import argparse
import contextlib
import json
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
REPOSITORY = HERE.parent
PLACES = ("tests/stress/studio", "tests/host/studio", "tests/python", "host")
sys.path[:0] = [str(REPOSITORY / folder) for folder in PLACES]

from fleet import STUDIO, Fleet  # noqa: E402
from lumatie_host.studio.address import Address  # noqa: E402
from lumatie_host.studio.studio import Studio  # noqa: E402
from studio_support import DEADLINE, Broker, Client, wait_until  # noqa: E402

STATIONS = 100
RATE = 100  # events a second
SECONDS = {True: 4, False: 60}  # in a short run and in another
WARM_UP = 100  # events
NAMES = ["s%d" % number for number in range(1, STATIONS + 1)]


def measure(short):
    """The samples and their floor, in seconds, event by event."""
    count = WARM_UP + RATE * SECONDS[short]
    with contextlib.ExitStack() as stack:
        base = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory("-studio")))
        for name in ("broker", "studio"):
            (base / name).mkdir()
        broker = Broker(str(base / "broker"), names=("studio", "viewer", *NAMES))
        stack.callback(broker.stop)
        studio = Studio(broker.address("studio"), STUDIO, str(base / "studio"), lambda text: None)
        stack.callback(studio.close)
        heard = {}
        threading.Thread(target=follow, args=(studio.feed(), heard), daemon=True).start()
        studio.start()
        listener, generator = (started(stack, what, broker, count) for what in ("listen", "tell"))
        wait_until(lambda: len(studio.stations) == STATIONS, "the stations")
        said(generator)  # that it is ready
        told = said(generator)
        floor = said(listener)
        wait_until(lambda: len(heard) >= len(told), "the last events", DEADLINE)
    events = list(told)[WARM_UP:]
    return {
        "samples": [heard[event] - told[event] for event in events],
        "floor": [floor[event] - told[event] for event in events],
    }


def follow(feed, heard):
    """Notes when each record of a station comes out of the studio."""
    while not feed.is_over:
        record = feed.take(1.0)
        if record is not None and "n" in record:
            heard["%s %d" % (record["station"], record["n"])] = time.monotonic()


def started(stack, what, broker, count):
    """This program in another role; it is ready when it says so."""
    process = subprocess.Popen(
        [sys.executable, __file__, "-", "--" + what, str(broker.port), "--count", str(count)],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
    )
    stack.callback(process.wait, DEADLINE)
    stack.callback(process.kill)
    if what == "listen":
        said(process)
    return process


def said(process):
    """The next line that another role says."""
    line = process.stdout.readline()
    if not line:
        raise SystemExit("the program that tells or listens has failed")
    return json.loads(line)


def say(what):
    print(json.dumps(what), flush=True)


def listen(port, count):
    """Says when each event came, from the broker alone."""
    came = {}
    client = Client(Address("127.0.0.1", port), "viewer")
    client._client.on_message = lambda _, __, message: note(came, message)
    client._client.subscribe("lumatie/1/%s/+/event/+" % STUDIO, 1)
    say("ready")
    wait_until(lambda: len(came) >= count, "the events", 300.0)
    say(came)


def note(came, message):
    moment = time.monotonic()
    record = json.loads(message.payload)
    came["%s %d" % (record["station"], record["n"])] = moment


def tell(port, count):
    """Tells of the events, and then when each of them was published."""
    fleet = Fleet(lambda name: Address("127.0.0.1", port, name, "pw-" + name), NAMES).start()
    say("ready")
    told = {}
    begun = time.monotonic()
    for number in range(count):
        pause = begun + number / RATE - time.monotonic()
        if pause > 0:
            time.sleep(pause)
        station = fleet.stations[number % STATIONS]
        told["%s %d" % (station.name, len(station.ledger) + 1)] = time.monotonic()
        station.record("setting", name="iso", text="100", allowed=["100", "200"], settable=True)
    say(told)
    sys.stdin.read()  # until nobody needs the stations any more


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("result", help="the file for the JSON object")
    parser.add_argument("--short", action="store_true", help="few events")
    parser.add_argument("--listen", type=int, help=argparse.SUPPRESS)
    parser.add_argument("--tell", type=int, help=argparse.SUPPRESS)
    parser.add_argument("--count", type=int, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.listen:
        listen(options.listen, options.count)
    elif options.tell:
        tell(options.tell, options.count)
    else:
        pathlib.Path(options.result).write_text(json.dumps(measure(options.short)))


if __name__ == "__main__":
    main()
