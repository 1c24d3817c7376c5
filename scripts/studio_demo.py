"""A studio to look at: a broker, eight stations with virtual cameras, the desk with its page.

studio_demo.py [ARGUMENT...], until Ctrl-C; the arguments are those of `lumatie studio`. All of it
is processes of this machine, on ports that are free, in a folder that goes with them.
"""

import contextlib
import ctypes
import json
import os
import pathlib
import secrets
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
BROKER = REPOSITORY / "host" / "lumatie_host" / "studio" / "mosquitto"
STATIONS = [str(number) for number in range(1, 9)]
SHOTS = 3
START_PATIENCE = 120.0  # seconds, for a machine that has other things to do
END_PATIENCE = 20.0
PARENT = os.getpid()
ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Ended(Exception):
    """Somebody wants it to end."""


class Demo:
    """All processes of one studio, in a folder of their own."""

    def __init__(self, folder, arguments):
        self._folder = pathlib.Path(folder)
        self._arguments = arguments
        self._passwords = {name: secrets.token_hex(8) for name in ("studio", *STATIONS)}
        self._processes = []
        self._port = free_port()

    def run(self):
        self._start_broker()
        for name in STATIONS:
            self._start_station(name)
        links = self._start_studio()
        print("Desk:     %s\nViewers:  %s" % (links["operator"], links["viewer"]), flush=True)
        self._shoot(links)
        print("Ctrl-C ends all of it.", flush=True)
        # A station may end: that is something to look at, too.
        broker, desk = self._processes[0], self._processes[-1]
        while broker.poll() is None and desk.poll() is None:
            time.sleep(0.2)
        raise SystemExit("the desk or the broker has ended by itself")

    def close(self):
        """Ends the desk, then the stations, then the broker."""
        for process in self._processes[:0:-1]:
            with contextlib.suppress(ProcessLookupError):
                process.send_signal(signal.SIGINT)
        end = time.monotonic() + END_PATIENCE
        for process in self._processes[:0:-1]:
            stop(process, end - time.monotonic())
        for process in self._processes[:1]:
            process.terminate()
            stop(process, END_PATIENCE)

    def _start(self, command, **options):
        # The terminal's Ctrl-C is for this process, which ends the others in their order. Should it
        # be killed, the system ends them.
        process = subprocess.Popen(
            [str(part) for part in command],
            stdin=subprocess.DEVNULL,
            start_new_session=True,
            preexec_fn=end_with_parent,  # noqa: PLW1509  no thread runs yet
            cwd=str(self._folder),
            **options,
        )
        self._processes.append(process)
        return process

    def _start_broker(self):
        passwords = self._folder / "passwords"
        lines = ["%s:%s\n" % pair for pair in self._passwords.items()]
        passwords.write_text("".join(lines))
        passwords.chmod(0o600)
        subprocess.run(["mosquitto_passwd", "-U", str(passwords)], check=True)
        shutil.copy(str(BROKER / "acl"), str(self._folder))
        text = (BROKER / "mosquitto.conf").read_text()
        text = text.replace("listener 1883", "listener %d 127.0.0.1" % self._port)
        text = text.replace("/etc/mosquitto/", "%s/" % self._folder)
        text = text.replace("/var/lib/mosquitto/", "%s/" % self._folder)
        if os.geteuid() == 0:
            text += "user root\n"
        (self._folder / "mosquitto.conf").write_text(text)
        program = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
        with open(str(self._folder / "mosquitto.log"), "wb") as log:
            command = [program, "-c", self._folder / "mosquitto.conf"]
            self._start(command, stdout=log, stderr=log)
        self._wait_for(self._has_broker, "the broker answers")

    def _has_broker(self):
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self._port), 1):
            return True
        return False

    def _lumatie(self, word, user, folder, *arguments, **options):
        folder.mkdir()
        environment = dict(os.environ, LUMATIE_BROKER_PASSWORD=self._passwords[user])
        environment.update(options.pop("variables", {}))
        broker = "mqtt://%s@127.0.0.1:%d" % (user, self._port)
        command = [sys.executable, "-m", "lumatie_host.cli", word, "--broker", broker]
        command += ["--studio", "demo", "--folder", folder, "--json", *arguments]
        with open(str(folder) + ".log", "wb") as log:
            return self._start(command, env=environment, stderr=log, **options)

    def _start_station(self, name):
        maker = "nikon" if int(name) % 4 == 0 else "canon"
        camera = self._folder / ("camera-%s.txt" % name)
        camera.write_text("picture.width = 2400\npicture.height = 1600\n")
        self._lumatie(
            *("station", name, self._folder / ("station-" + name), "--name", name),
            *("--virtual", maker, "--template", "{station}_{n:04}"),
            stdout=subprocess.DEVNULL,
            variables={"LUMATIE_VIRTUAL_" + maker.upper(): str(camera)},
        )

    def _start_studio(self):
        process = self._lumatie(
            *("studio", "studio", self._folder / "pictures", *self._arguments),
            stdout=subprocess.PIPE,
        )
        told = json.loads(process.stdout.readline() or b"{}")
        if "operator" not in told:
            raise SystemExit((self._folder / "pictures.log").read_text())
        threading.Thread(target=process.stdout.read, daemon=True).start()
        return told

    def _shoot(self, links):
        self._wait_for(lambda: len(ready(links)) == len(STATIONS), "all stations are ready")
        for _ in range(SHOTS):
            print(ask(links, "api/shoot", {})["release"]["words"], flush=True)

    def _wait_for(self, condition, what):
        end = time.monotonic() + START_PATIENCE
        while not condition():
            for process in self._processes:
                if process.poll() is not None:
                    raise SystemExit("it has ended: %s" % " ".join(process.args))
            if time.monotonic() > end:
                raise SystemExit("not within %g s: %s" % (START_PATIENCE, what))
            time.sleep(0.1)


def ready(links):
    """The stations whose cameras are ready."""
    return [one for one in ask(links, "api/state")["stations"] if one["connection"] == "open"]


def ask(links, path, body=None):
    """What the studio's page answers."""
    url, _, token = links["operator"].partition("#")
    data = None if body is None else json.dumps(body).encode()
    request = urllib.request.Request(url + path, data, {"Authorization": "Bearer " + token})
    with urllib.request.urlopen(request, timeout=60) as answer:
        return json.loads(answer.read().decode())


_libc = ctypes.CDLL(None, use_errno=True)
_PR_SET_PDEATHSIG = 1


def end_with_parent():
    """Has the system tell this process to end when its parent has."""
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGTERM)
    if os.getppid() != PARENT:
        os._exit(1)  # it has ended already


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def stop(process, seconds):
    """Waits for the end of a process, and ends it when it takes too long."""
    try:
        process.wait(max(0.1, seconds))
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def end(number, frame):
    raise Ended


def main():
    for number in ENDING:
        signal.signal(number, end)
    status = 0
    with tempfile.TemporaryDirectory(prefix="lumatie-studio-demo-") as folder:
        demo = Demo(folder, sys.argv[1:])
        try:
            demo.run()
        except Ended:
            status = 130
        finally:
            for number in ENDING:
                signal.signal(number, signal.SIG_IGN)  # it is ending already
            demo.close()
    sys.exit(status)


if __name__ == "__main__":
    main()
