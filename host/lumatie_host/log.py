"""The package's logger, and the environment variable that switches it on."""

import logging
import os
from io import TextIOWrapper
from typing import Mapping

VARIABLE = "LUMATIE_HOST_LOG"

_LEVELS = ("debug", "info", "warning", "error", "critical")


class _File(logging.FileHandler):
    def _open(self) -> TextIOWrapper:
        # Half a letter, as in the name of a file, is written as well.
        return open(  # noqa: SIM115  closed by the handler
            self.baseFilename, "a", encoding="utf-8", errors="backslashreplace"
        )


def set_up(environment: Mapping[str, str] = os.environ) -> None:
    """Has the logger say nothing by itself, or what the variable says; raises nothing.

    "1" has it tell everything on standard error, the name of a level what is of that level, and
    anything else is the path of a file that everything is added to. Empty and "0": nothing.
    """
    log = logging.getLogger("lumatie_host")
    log.addHandler(logging.NullHandler())
    wanted = environment.get(VARIABLE, "")
    if wanted in ("", "0"):
        return
    level, problem = "DEBUG", ""
    handler: logging.Handler = logging.StreamHandler()
    if wanted.lower() in _LEVELS:
        level = wanted.upper()
    elif wanted != "1":
        try:
            handler = _File(wanted)
        except (OSError, ValueError) as error:
            problem = str(error)
    form = "%(asctime)s %(levelname)s %(threadName)s: %(message)s"
    handler.setFormatter(logging.Formatter(form))
    log.addHandler(handler)
    log.setLevel(level)
    if problem:
        log.warning("%s: there is no log in that file: %s", VARIABLE, problem)
