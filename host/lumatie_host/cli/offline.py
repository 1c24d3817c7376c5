"""The words of the command that open no camera: list, info, ledger."""

import os
import platform
import shutil
import struct
import sys
from typing import Any, Dict, Iterator, List, Optional, Tuple

from .. import ledger as ledgers
from .. import libraries, log
from ..errors import FolderRejected, LibraryMissing
from ..events import from_record
from ..opening import VIRTUAL_CANON
from ..version import __version__
from . import words
from .arguments import Options
from .console import Console
from .control import Control

DONE = 0
NO_LIBRARY = 4
A_PICTURE_LOST = 9

_VARIABLES = (log.VARIABLE, "LUMATIE_VIRTUAL_CANON", "LUMATIE_VIRTUAL_NIKON", "LUMATIE_VIRTUAL_LOG")


def list_cameras(options: Options, console: Console, control: Control) -> int:
    """What can be opened: one line for each virtual camera, and for each maker's real ones."""
    found = list(_virtual_cameras())
    for maker, name, library in found:
        if console.as_json:
            console.record(_camera(maker, name, "--virtual %s" % maker, library))
        else:
            console.line("%-14s  --virtual %-6s  %s" % (name, maker, _described(library)))
    path, problem = _canon_library(options.canon_library)
    is_real = path is not None and path not in [place for _, _, place in found]
    if console.as_json:
        if path is not None and is_real:
            console.record(_camera("canon", None, "--camera NAME", path))
        return DONE if found or is_real else NO_LIBRARY
    if path is not None and is_real:
        console.line("Canon cameras   --camera NAME     %s" % _described(path))
    elif problem is not None:
        console.say("Canon cameras cannot be opened: %s. %s" % (problem, problem.advice))
    else:
        console.say("Canon cameras: their library was not found; name it with --canon-library.")
    console.say("Nikon cameras: name the camera's driver module with --module.")
    return DONE if found or is_real else NO_LIBRARY


def info(options: Options, console: Console, control: Control) -> int:
    """What a report of an error has to tell."""
    for name, text in _facts(options):
        if console.as_json:
            console.record({"kind": "info", "name": name, "text": text})
        else:
            console.line("%-15s %s" % (name, words.one_line(text)))
    return DONE


def ledger(options: Options, console: Console, control: Control) -> int:
    """Shows a folder's record, or compares the folder with it."""
    folder = options.folder or os.curdir
    path = os.path.join(folder, ledgers.INNER_FOLDER, ledgers.FILE)
    if not os.path.isfile(path):
        raise FolderRejected(folder, "there is no record of a shoot in it")
    return _show(folder, console) if options.action == "show" else _verify(folder, console)


def _show(folder: str, console: Console) -> int:
    book = ledgers.Ledger(folder)
    for record in book.read():
        if console.as_json:
            console.record(record)
            continue
        event = from_record(record)
        if event is None:
            console.line("%s  %s" % (record.get("time", "?"), record.get("kind", "?")))
        else:
            console.line("%5d  %s" % (event.n, words.line(event)))
    for problem in book.problems():
        console.complain(problem)
    return DONE


def _verify(folder: str, console: Console) -> int:
    findings = ledgers.verify(folder)
    for finding in findings:
        if console.as_json:
            place = {"file": finding.file, "line": finding.line}
            known = {name: value for name, value in place.items() if value is not None}
            console.record({"kind": "finding", "what": finding.what, "text": finding.text, **known})
        else:
            console.line(finding.text)
    if findings:
        return A_PICTURE_LOST
    console.say("The folder is as its record tells.")
    return DONE


def _virtual_cameras() -> Iterator[Tuple[str, str, str]]:
    """Maker, name and library of those that came along."""
    try:
        virtual = libraries.virtual()
    except LibraryMissing:
        return
    yield "canon", VIRTUAL_CANON, virtual.canon_library
    name = os.path.splitext(os.path.basename(virtual.nikon_module))[0]
    yield "nikon", name, virtual.nikon_module


def _camera(maker: str, name: Optional[str], option: str, path: str) -> Dict[str, Any]:
    record = {"kind": "camera", "maker": maker, "name": name, "option": option, "library": path}
    return {**record, "bits": libraries.bitness(path)}


def _canon_library(path: Optional[str]) -> Tuple[Optional[str], Optional[LibraryMissing]]:
    """The library that Canon cameras are driven with here, or what is wrong with it."""
    try:
        libraries.load_canon(path)
        libraries.load_module()
    except LibraryMissing as error:
        return None, error
    if path is not None:
        return os.path.abspath(path), None
    return libraries.path_of(libraries.CANON_NAME), None


def _described(path: str) -> str:
    bits = libraries.bitness(path)
    return "%s (%s)" % (path, "no library" if bits is None else "%d bits" % bits)


def _facts(options: Options) -> List[Tuple[str, str]]:
    path, problem = _canon_library(options.canon_library)
    facts = [
        ("package", "%s, version %s" % (os.path.dirname(libraries.__file__), __version__)),
        ("module", _module_text()),
        ("python", "%s, %d bits, %s" % (sys.version, struct.calcsize("P") * 8, sys.executable)),
        ("system", platform.platform()),
        ("canon library", str(problem) if path is None else _described(path)),
    ]
    for maker, _, library in _virtual_cameras():
        facts.append(("virtual %s" % maker, _described(library)))
    if options.module is not None:
        facts.append(("nikon module", _checked(options.module)))
    folder = os.path.abspath(options.folder or os.curdir)
    facts.append(("folder", "%s, %s" % (folder, _state_of(folder))))
    for variable in _VARIABLES:
        facts.append((variable, os.environ.get(variable, "not set")))
    return facts


def _module_text() -> str:
    try:
        module = libraries.load_module()
    except LibraryMissing as error:
        return str(error)
    native = sys.modules.get("_Lumatie", module)
    return str(getattr(native, "__file__", module))


def _checked(path: str) -> str:
    try:
        libraries.check_module(path)
    except LibraryMissing as error:
        return str(error)
    return _described(path)


def _state_of(folder: str) -> str:
    if not os.path.isdir(folder):
        return "not there"
    state = "can be written" if os.access(folder, os.W_OK | os.X_OK) else "cannot be written"
    try:
        return "%s, %s free" % (state, words.size(shutil.disk_usage(folder).free))
    except OSError as error:
        return "%s, %s" % (state, error)
