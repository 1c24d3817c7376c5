"""Standard output and standard error: records, words, a progress line; no lines of others."""

import ctypes
import io
import json
import os
import sys
import threading
from typing import Any, Mapping, TextIO

_RUNTIMES = ("msvcrt", "ucrtbase")  # of Windows; each knows descriptors of its own


class OutputGone(Exception):
    """Whoever read standard output reads no more."""


class Console:
    """Where the command writes. Any thread may call.

    What the camera's module and the maker's library print themselves goes to standard error, so
    that standard output holds the command's lines alone. Where a progress line is drawn, or the
    command is quiet, it goes nowhere.

    Args:
        as_json: whether records are printed, and no words.
        is_quiet: whether words are left out.
    """

    def __init__(self, as_json: bool, is_quiet: bool) -> None:
        self.as_json = as_json
        self.is_quiet = is_quiet
        self.has_progress = not is_quiet and is_terminal(sys.stderr)
        self._is_shared = self.has_progress and is_terminal(sys.stdout)
        self._lock = threading.Lock()  # guards the progress line
        # What is printed does not hold up what is said, unless both are on one terminal.
        self._output_lock = self._lock if self._is_shared else threading.Lock()
        self._progress = ""
        self._output = _taken_over(as_json, is_quiet or self.has_progress)

    def record(self, record: Mapping[str, Any]) -> None:
        """Prints a record as a line of JSON; raises OutputGone when nobody reads it."""
        self._print(json.dumps(record, separators=(",", ":")))

    def line(self, text: str) -> None:
        """Prints a line of words, which is the command's result; raises OutputGone."""
        self._print(text)

    def say(self, text: str) -> None:
        """Tells a person something beside the result, on standard error, unless it is quiet."""
        if not self.is_quiet:
            self.complain(text)

    def complain(self, text: str) -> None:
        """As `say`, quiet or not."""
        with self._lock:
            self._erase()
            _write(text + "\n")
            self._draw()

    def progress(self, text: str) -> None:
        """Replaces the progress line; an empty text takes it away."""
        if self.has_progress:
            with self._lock:
                self._erase()
                self._progress = text
                self._draw()

    def close(self) -> None:
        """Ends the output; what nobody reads is dropped."""
        self.progress("")
        try:
            self._output.close()
        except OSError:
            pass

    def _print(self, text: str) -> None:
        with self._output_lock:
            if self._is_shared:
                self._erase()
            try:
                self._output.write(text + "\n")
                self._output.flush()
            except (OSError, ValueError):  # the latter when it is closed here
                raise OutputGone from None
            if self._is_shared:
                self._draw()

    def _erase(self) -> None:
        if self._progress:
            _write("\r%s\r" % (" " * len(self._progress)))

    def _draw(self) -> None:
        if self._progress:
            _write(self._progress)


def _write(text: str) -> None:
    try:
        sys.stderr.write(text)
        sys.stderr.flush()
    except (AttributeError, OSError, ValueError):  # there is none
        pass


def is_terminal(stream: Any) -> bool:
    """Whether a person is at a stream, which may be missing or closed."""
    try:
        return bool(stream.isatty()) and _is_console(stream.fileno())
    except (AttributeError, OSError, ValueError):
        return False


if sys.platform == "win32":
    import msvcrt

    def _is_console(descriptor: int) -> bool:
        """What has no console's mode is another device: the one that is nothing, as a rule."""
        handle = ctypes.c_void_p(msvcrt.get_osfhandle(descriptor))
        mode = ctypes.c_uint32()
        return bool(ctypes.WinDLL("kernel32").GetConsoleMode(handle, ctypes.byref(mode)))

else:

    def _is_console(descriptor: int) -> bool:
        return True


def _taken_over(as_json: bool, drops_others: bool) -> TextIO:
    """A stream of the process's standard output, which is standard error from here on."""
    nowhere = os.open(os.devnull, os.O_WRONLY)
    try:
        descriptor = os.dup(1)
    except OSError:  # it was closed
        descriptor = os.dup(nowhere)
    if sys.stdout is not None:
        sys.stdout.flush()
    try:
        _replace_output(nowhere if drops_others else 2)
    except OSError:
        _replace_output(nowhere)
    os.close(nowhere)
    encoding = "ascii" if as_json else getattr(sys.stdout, "encoding", None) or "utf-8"
    newline = "\n" if as_json else None
    return io.TextIOWrapper(
        open(descriptor, "wb"),  # noqa: SIM115  closed by the console
        encoding=encoding,
        errors="backslashreplace",
        newline=newline,
    )


def _replace_output(target: int) -> None:
    os.dup2(target, 1)
    if os.name == "nt":
        # The module may have been built for another runtime library than the interpreter.
        for name in _RUNTIMES:
            try:
                runtime = ctypes.CDLL(name)
                sink = target if target == 2 else runtime._open(b"nul", 1)
                runtime._dup2(sink, 1)
            except (AttributeError, OSError):
                continue
