"""Programs that a test interrupts, as whoever uses them does with Ctrl-C.

Windows sends no such signal to one process alone. There the program is told through a connection,
and interrupts itself on a thread of its own, as the console would. Its standard input will not do:
a library that looks at it while it is being loaded waits until something was read from it.
"""

import contextlib
import signal
import socket
import subprocess
import sys

from this_process import ON_WINDOWS

DEADLINE = 30.0  # seconds; only a failing test ever waits for it

LISTEN = """
import signal, socket, threading

def listen(port):
    with socket.create_connection(("127.0.0.1", port)) as connection:
        if connection.recv(1) == b"!":
            signal.raise_signal(signal.SIGINT)

threading.Thread(target=listen, args=(%d,), daemon=True).start()
"""

# The command lumatie.
COMMAND = """
import runpy, sys
sys.argv[0] = "lumatie"
runpy.run_module("lumatie_host.cli", run_name="__main__", alter_sys=True)
"""


def start(arguments, program=COMMAND, **options):
    """Starts a program of Python, the command by default; options as of subprocess.Popen."""
    listener = None
    if ON_WINDOWS:
        listener = socket.create_server(("127.0.0.1", 0))
        listener.settimeout(DEADLINE)
        program = LISTEN % listener.getsockname()[1] + program
    process = subprocess.Popen(
        [sys.executable, "-c", program, *arguments], stdin=subprocess.DEVNULL, **options
    )
    process.interrupter = listener
    return process


def interrupt(process):
    """Interrupts a program that `start` has started; nothing when it has ended."""
    if not ON_WINDOWS:
        process.send_signal(signal.SIGINT)
    elif process.poll() is None:
        with contextlib.suppress(ConnectionError):
            connection, _ = process.interrupter.accept()
            with connection:
                connection.sendall(b"!")


def end(process):
    """Kills it if it still runs, and closes what it was talked to with."""
    if process.poll() is None:
        process.kill()
    process.wait()
    for one in (process.stdout, process.stderr, process.interrupter):
        if one is not None:
            one.close()
