"""The word check: whether this machine, a library and a camera do what the module relies on."""

import os
import queue
import sys
import threading
import time
from typing import List, Optional

from .. import libraries, opening
from ..check import report
from ..check.children import Person
from ..check.report import Finding
from ..check.whole import Check, Job, plan
from ..errors import FolderRejected
from .arguments import Options
from .console import Console, is_terminal
from .control import Control


def check(options: Options, console: Console, control: Control) -> int:
    """Checks, tells, and returns 0, or the status of the first point that is answered with no."""
    if options.report is not None and os.path.exists(options.report):
        raise FolderRejected(options.report, "there is a file of that name already")
    job = _job(options)
    for line in plan(job):
        console.say(line)
    findings: List[Finding] = []
    running = Check(job, _person(console), lambda: control.is_stopped)
    control.adopt(running)
    for finding in running.run():
        findings.append(finding)
        if control.is_stopped:
            continue
        if console.as_json:
            console.record(finding.record())
        else:
            console.line(finding.line())
    if control.is_stopped:
        return 0  # says nothing: who stopped it decides
    summary = report.summary(findings)
    if console.as_json:
        console.record(summary)
    else:
        console.line("%d yes, %d no, %d could not be seen." % (
            summary["yes"], len(summary["no"]), len(summary["could_not_be_seen"])))  # fmt: skip
    if options.report is not None:
        _write(options.report, findings, job, console)
    return int(summary["status"])


def _job(options: Options) -> Job:
    maker = "nikon" if options.module or options.virtual == "nikon" else "canon"
    canon_library = options.canon_library
    module = options.module
    camera = options.camera
    if options.virtual is not None:
        came_along = libraries.virtual()
        if maker == "nikon":
            module = module or came_along.nikon_module
        else:
            canon_library = canon_library or came_along.canon_library
            camera = camera or opening.VIRTUAL_CANON
    if maker == "canon":
        opening.check_camera_name(camera)
    canon_library = None if canon_library is None else os.path.abspath(canon_library)
    return Job(
        maker=maker,
        info=(module or "") if maker == "nikon" else camera,
        library=module if maker == "nikon" else canon_library,
        canon_library=canon_library,
        shoot=options.shoot,
        ask=options.shoot and (options.ask or is_terminal(sys.stdin)),
        folder=None if options.folder is None else opening.checked_folder(options.folder),
        limit=options.timeout,
    )


def _write(path: str, findings: List[Finding], job: Job, console: Console) -> None:
    try:
        report.write(path, findings, {"maker": job.maker})
    except OSError as error:
        raise FolderRejected(path, error.strerror or str(error)) from error
    console.say("To send with a report of an error, without names and serial numbers: %s" % path)


def _person(console: Console) -> Person:
    answers: "queue.Queue[bool]" = queue.Queue()
    asked: List[str] = []
    is_over = threading.Event()  # nobody answers any more

    def read() -> None:
        try:
            for _ in sys.stdin:
                answers.put(True)
        except (OSError, ValueError):  # it was closed
            pass
        is_over.set()

    def ask(text: str, until: float) -> Optional[bool]:
        if asked[-1:] != [text]:  # each is asked for once
            if not asked:
                threading.Thread(target=read, name="lumatie-person", daemon=True).start()
            while not answers.empty():
                answers.get_nowait()
            asked.append(text)
            console.complain("%s Then press Enter (%d s)." % (text, until - time.monotonic()))
        try:
            return answers.get_nowait()
        except queue.Empty:
            return False if is_over.is_set() else None

    return Person(console.complain, ask)
