"""Programs that the tests need beside the interpreter: the broker's, and what makes certificates.

On Linux and Windows they are the system's own. Under Wine they are those of the Linux machine,
which know its paths.
"""

import ctypes
import os
import pathlib
import shutil
import socket
import subprocess

from this_process import ON_WINDOWS

DEADLINE = 30.0  # seconds; only a failing test ever waits for it
UNDER_WINE = ON_WINDOWS and hasattr(ctypes.WinDLL("ntdll"), "wine_get_version")
KEEPER = pathlib.Path(__file__).with_name("keeper.py")


def path_of(path):
    """How the programs call a file that exists."""
    if not UNDER_WINE:
        return str(path)
    # Long names, for the short ones are Wine's own.
    called = ctypes.WinDLL("kernel32").wine_get_unix_file_name
    called.argtypes, called.restype = [ctypes.c_wchar_p], ctypes.c_char_p
    return called(os.path.realpath(str(path))).decode()


def start(log, name, *arguments):
    """Starts a program whose output goes to the end of a file."""
    command = [name, *(str(one) for one in arguments)]
    if UNDER_WINE:
        return Kept(log, command)
    command[0] = shutil.which(name) or "/usr/sbin/" + name
    with open(str(log), "ab") as output:
        return subprocess.Popen(command, stdout=output, stderr=output)


def run(log, name, *arguments):
    """Runs a program to its end; it has to succeed."""
    program = start(log, name, *arguments)
    if program.wait(DEADLINE) != 0:
        raise AssertionError("%s: %s" % (name, pathlib.Path(str(log)).read_text()))


class Kept:
    """What subprocess.Popen is to other programs, for one that a keeper runs."""

    def __init__(self, log, command):
        self._status = None
        pathlib.Path(str(log)).touch()
        with socket.create_server(("127.0.0.1", 0)) as listener:
            listener.settimeout(DEADLINE)
            port = str(listener.getsockname()[1])
            words = ["python3", "-I", path_of(KEEPER), port, path_of(log), *command]
            # It has no handle to wait for, which subprocess.Popen takes for an error.
            os.spawnv(
                os.P_NOWAIT,
                "Z:\\usr\\bin\\python3",
                [subprocess.list2cmdline([word]) for word in words],
            )
            self._keeper, _ = listener.accept()

    def poll(self):
        try:
            return self.wait(0.001)
        except subprocess.TimeoutExpired:
            return None

    def wait(self, timeout=None):
        if self._status is None:
            self._keeper.settimeout(timeout)
            try:
                told = self._keeper.recv(100)
            except socket.timeout:
                raise subprocess.TimeoutExpired("the program", timeout) from None
            self._keeper.close()
            self._status = int(told)
        return self._status

    def terminate(self):
        if self._status is None:
            self._keeper.shutdown(socket.SHUT_WR)
