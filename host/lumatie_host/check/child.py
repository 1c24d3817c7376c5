"""The process that asks points: one part of the check, started by `children`.

    python -m lumatie_host.check.child FILE

The job is the first line of standard input, as JSON; the lines behind it are what a person
answered. What comes out goes to FILE, line by line.
"""

import json
import os
import signal
import sys
import time
from typing import Any, Callable, Dict

from . import ends, items, loading
from .canon import Canon
from .direct import Direct
from .heard import Target
from .nikon import Nikon
from .shooting import Shooting
from .teller import Stopped, Teller
from .through import Through

_GIVING_BACK = 15.0  # seconds for an end when nobody listens any more


def _direct(tell: Teller, job: Dict[str, Any]) -> Direct:
    if job["maker"] == "nikon":
        return Nikon(tell, job["library"])
    return Canon(tell, job["library"], job["info"])


def _item(tell: Teller, job: Dict[str, Any]) -> Direct:
    if job["maker"] == "nikon":
        return items.NikonItem(tell, job["library"])
    return items.CanonItem(tell, job["library"], job["info"], job["folder"])


def _put_back(tell: Teller, job: Dict[str, Any]) -> None:
    changed = job["changed"]
    if "id" in changed:
        _direct(tell, job).put_back(changed["id"], changed["value"])
    else:
        Through(tell, _target(job)).put_back(changed["name"], changed["key"])


def _target(job: Dict[str, Any]) -> Target:
    return Target(job["maker"], job["info"], job["canon_library"], job["folder"])


_PARTS: Dict[str, Callable[[Teller, Dict[str, Any]], None]] = {
    "find": lambda tell, job: loading.find(tell),
    "needs": lambda tell, job: loading.need(tell, job["library"], job["needs"], job["search"]),
    "load": lambda tell, job: loading.load(tell, job["library"]),
    "module": lambda tell, job: loading.load_module(
        tell, job["library"], job["canon_library"], job["maker"] == "nikon"
    ),
    "direct": lambda tell, job: _direct(tell, job).run(),
    "through": lambda tell, job: Through(tell, _target(job)).run(),
    "twice": lambda tell, job: ends.twice(tell, _target(job)),
    "again": lambda tell, job: ends.again(tell, _target(job)),
    "interpreter": lambda tell, job: ends.interpreter(tell, _target(job)),
    "shooting": lambda tell, job: Shooting(tell, _target(job), job["library"], job["ask"]).run(),
    "item": lambda tell, job: _item(tell, job).run(),
    "put back": _put_back,
}


def _end_at_last() -> None:
    """Ends this process if it hangs, for nobody else does any more, and those it has started."""
    time.sleep(_GIVING_BACK)
    if sys.platform != "win32" and os.getpgrp() == os.getpid():
        os.killpg(os.getpid(), signal.SIGKILL)
    os._exit(1)


def main() -> None:
    """Does the job."""
    with open(sys.argv[1], "a", encoding="utf-8") as file:
        tell = Teller(file)
        job = json.loads(sys.stdin.readline())
        tell.listen(sys.stdin, _end_at_last)
        try:
            _PARTS[job["part"]](tell, job)
        except Stopped:
            sys.exit(1)


if __name__ == "__main__":
    main()
