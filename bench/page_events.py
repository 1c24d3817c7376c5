"""From an event at a camera's computer to ten viewers' pages: page_events.py RESULT [--short]

The page is in this program, with a virtual camera that is open; 100 events a second go into its
ledger as the session's own do. The viewers are in a program of their own, which only notes when
each event came. Both read one clock.
"""

import argparse
import asyncio
import contextlib
import json
import pathlib
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
REPOSITORY = HERE.parent
sys.path[:0] = [str(REPOSITORY / folder) for folder in ("tests/python", "host")]

import aiohttp  # noqa: E402
from lumatie_host.page.desk import Wanted  # noqa: E402
from lumatie_host.page.server import Server  # noqa: E402
from virtual_cameras import wait_until  # noqa: E402

RATE = 100  # events a second
SECONDS = {True: 2, False: 60}  # in a short run and in another
WARM_UP = 50  # events
VIEWERS = 10
DEADLINE = 30.0


def measure(short):
    """Seconds until the last viewer has each event, and until it is in the ledger, the floor."""
    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(tempfile.TemporaryDirectory("-page"))
        server = Server(Wanted(folder=folder, virtual="canon"))
        stack.callback(server.close)
        server.start()
        wait_until(lambda: server.desk.session is not None, "the camera")
        count = WARM_UP + RATE * SECONDS[short]
        viewers = subprocess.Popen(
            [sys.executable, __file__, server.links.viewer, "--count", str(count)],
            stdout=subprocess.PIPE,
        )
        stack.callback(viewers.wait, DEADLINE)
        stack.callback(viewers.kill)
        said(viewers)  # that all of them are there
        told, recorded = tell(server.desk, count)
        came = said(viewers)
    events = list(told)[WARM_UP:]
    return {
        "samples": [came[event] - told[event] for event in events],
        "floor": [recorded[event] - told[event] for event in events],
    }


def tell(desk, count):
    """When each event happened, and when it was in the ledger; both by their number as a text."""
    told, recorded = {}, {}
    begun = time.monotonic()
    for number in range(count):
        time.sleep(max(0.0, begun + number / RATE - time.monotonic()))
        moment = time.monotonic()
        values = {"text": "100", "allowed": ["100", "200"], "settable": True}
        event = str(desk.ledger.append("setting", name="iso", **values).n)
        desk._on_news()
        told[event], recorded[event] = moment, time.monotonic()
    return told, recorded


async def listen(link, count):
    """Says when the last viewer had each event."""
    url, _, token = link.partition("#")
    came = {}

    async def view(socket):
        seen = 0
        while seen < count:
            message = await socket.receive_json(timeout=DEADLINE)
            if message["kind"] == "setting":
                came[str(message["n"])] = time.monotonic()
                seen += 1

    async with aiohttp.ClientSession(headers={"Authorization": "Bearer " + token}) as client:
        sockets = [await client.ws_connect(url + "api/live") for _ in range(VIEWERS)]
        for socket in sockets:
            assert (await socket.receive_json(timeout=DEADLINE))["kind"] == "state"
        say("ready")
        await asyncio.gather(*map(view, sockets))
    say(came)


def say(what):
    print(json.dumps(what), flush=True)


def said(process):
    """The next line that the viewers say."""
    line = process.stdout.readline()
    if not line:
        raise SystemExit("the viewers have failed")
    return json.loads(line)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("result", help="the file for the JSON object")
    parser.add_argument("--short", action="store_true", help="few events")
    parser.add_argument("--count", type=int, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.count:
        asyncio.run(listen(options.result, options.count))
    else:
        pathlib.Path(options.result).write_text(json.dumps(measure(options.short)))


if __name__ == "__main__":
    main()
