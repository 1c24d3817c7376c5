"""keeper.py PORT LOG PROGRAM [ARGUMENT...]: runs a program for a test under Wine.

A Windows program can start one of the system around it, and neither wait for it nor end it. So
this one is started, and connects to the test's port: it ends the program when the connection
ends, and tells there with which status the program has ended.
"""

import contextlib
import socket
import subprocess
import sys
import threading


def end_with(owner, program):
    with contextlib.suppress(OSError):
        owner.recv(1)
    while program.poll() is None:
        program.terminate()
        with contextlib.suppress(subprocess.TimeoutExpired):
            program.wait(1.0)


def main():
    port, log, *command = sys.argv[1:]
    with socket.create_connection(("127.0.0.1", int(port))) as owner, open(log, "ab") as output:
        program = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT
        )
        threading.Thread(target=end_with, args=(owner, program), daemon=True).start()
        status = program.wait()
        with contextlib.suppress(OSError):
            owner.sendall(b"%d" % status)


if __name__ == "__main__":
    main()
