"""The second copies of a session: told and recorded, and taken up where an earlier one ended."""

import os
from typing import Dict, Sequence

from .announcer import Announcer
from .copies import Copier
from .events import Copied, Picture
from .ledger import Ledger, path_of


def make_copier(target: str, folder: str, announcer: Announcer) -> Copier:
    """Copies pictures of `folder` into the folder `target`; raises FolderRejected."""

    def copied(name: str, to: str, sha256: str, seconds: float) -> None:
        seconds = round(seconds, 3)
        announcer.announce("copied", file=name, to=to, sha256=sha256, seconds=seconds)

    def failed(name: str, text: str) -> None:
        announcer.announce(
            "alarm",
            what="no second copy of %s: %s" % (name, text),
            advice="Look after the second folder; the copy is tried again until it works.",
        )

    return Copier(target, copied, failed, source=folder)


def add_missing(copier: Copier, target: str, ledger: Ledger) -> None:
    """Takes up the copies that earlier sessions did not get to."""
    target = os.path.abspath(target)
    missing: Dict[str, Picture] = {}
    for event in ledger.events():
        if isinstance(event, Picture):
            missing[event.file] = event
        elif isinstance(event, Copied) and _lies_in(event.to, target):
            missing.pop(event.file, None)
    for picture in missing.values():
        path = path_of(ledger.folder, picture.file)
        if path is not None and os.path.isfile(path):
            copier.add(path, picture.file, picture.sha256, picture.size)


def tell_left(left: Sequence[object], announcer: Announcer) -> None:
    """Says that copying has ended before all was copied."""
    if left:
        announcer.announce(
            "alarm",
            what="%d pictures have no second copy yet" % len(left),
            advice="Open the folder again with the same second folder.",
        )


def _lies_in(path: str, folder: str) -> bool:
    return os.path.normcase(path).startswith(os.path.normcase(os.path.join(folder, "")))
