"""The command as a whole: arguments in, an exit status out."""

import os
import threading
import traceback
from typing import Callable, Dict, List, Optional, Sequence

from ..errors import TetherError
from . import arguments, camera, checking, offline, serve, stations, words
from .arguments import Options
from .console import Console, OutputGone
from .control import INTERRUPTED, Control

A_MISTAKE_OF_OURS = 1

_Doing = Callable[[Options, Console, Control], int]

_DOING: Dict[str, _Doing] = {
    "check": checking.check,
    "list": offline.list_cameras,
    "info": offline.info,
    "ledger": offline.ledger,
    "serve": serve.run,
    "station": stations.run_station,
    "studio": stations.run_studio,
}


def main(argv: Optional[Sequence[str]] = None) -> int:
    """Runs the command with the process's arguments; the exit status. Main thread."""
    control = Control()
    control.listen()
    options = arguments.parse(argv)
    console = Console(options.json, options.quiet)
    statuses: List[int] = []
    work = threading.Thread(
        target=lambda: statuses.append(_work(options, console, control)),
        name="lumatie-work",
        daemon=True,
    )
    work.start()
    control.supervise(work, options.word == "bracket")
    if control.is_stopped:
        if not control.is_output_gone:
            console.complain("Interrupted.")
        statuses = [INTERRUPTED]
    if control.is_output_stuck:
        os._exit(statuses[0])  # the interpreter would wait for the thread that cannot write
    console.close()
    return statuses[0]


def _work(options: Options, console: Console, control: Control) -> int:
    try:
        return _DOING.get(options.word, camera.run)(options, console, control)
    except OutputGone:
        control.stop()
    except TetherError as error:
        if not control.is_stopped:
            console.complain(words.one_line(str(error)))
            console.complain(words.one_line(error.advice))
            return camera.STATUS_OF[error.reason]
    except Exception:
        console.complain(traceback.format_exc().rstrip())
        return A_MISTAKE_OF_OURS
    return INTERRUPTED
